// The model's options, shared by the out-of-process front ends: what the
// appliance is when the front end starts serving, and what is kept of it
// when it stops.
#include "tarnholdSim.h"

#include <cstdio>
#include <fstream>
#include <sys/stat.h>

namespace {

enum : int {
    TARNHOLD_SIM_OPT_STATE = TARNHOLD_SIM_MODEL_OPTION_FIRST,
    TARNHOLD_SIM_OPT_PLATFORM,
    TARNHOLD_SIM_OPT_MODE,
    TARNHOLD_SIM_OPT_FLASH,
    TARNHOLD_SIM_OPT_NO_NODE,
    TARNHOLD_SIM_OPT_FAULT,
    TARNHOLD_SIM_OPT_LOG,
    TARNHOLD_SIM_OPT_CONTROL,
};

bool __tarnholdSimOptionsFail(const char *program, const std::string &message)
{
    std::fprintf(stderr, "%s: %s\n", program, message.c_str());
    return false;
}

} // namespace

const std::array<option, 8> TARNHOLD_SIM_MODEL_OPTIONS = {{
    {"state", required_argument, nullptr, TARNHOLD_SIM_OPT_STATE},
    {"platform", required_argument, nullptr, TARNHOLD_SIM_OPT_PLATFORM},
    {"mode", required_argument, nullptr, TARNHOLD_SIM_OPT_MODE},
    {"flash-image", required_argument, nullptr, TARNHOLD_SIM_OPT_FLASH},
    {"no-node", no_argument, nullptr, TARNHOLD_SIM_OPT_NO_NODE},
    {"fault", required_argument, nullptr, TARNHOLD_SIM_OPT_FAULT},
    {"log", required_argument, nullptr, TARNHOLD_SIM_OPT_LOG},
    {"control", required_argument, nullptr, TARNHOLD_SIM_OPT_CONTROL},
}};

bool tarnholdSimModelOption(int opt, const char *arg, tarnholdSimModelOptions &o)
{
    switch (opt) {
    case TARNHOLD_SIM_OPT_STATE: o.stateFile = arg; return true;
    case TARNHOLD_SIM_OPT_PLATFORM: o.platform = arg; return true;
    case TARNHOLD_SIM_OPT_MODE: o.mode = arg; return true;
    case TARNHOLD_SIM_OPT_FLASH: o.flashImage = arg; return true;
    case TARNHOLD_SIM_OPT_NO_NODE: o.noNode = true; return true;
    case TARNHOLD_SIM_OPT_FAULT: o.faults.emplace_back(arg); return true;
    case TARNHOLD_SIM_OPT_LOG: o.logFile = arg; return true;
    case TARNHOLD_SIM_OPT_CONTROL: o.control = arg; return true;
    default: return false;
    }
}

const char *tarnholdSimModelOptionUsage()
{
    return "  --state FILE        load the model state from FILE when it exists (a power-on:\n"
           "                      a microcontroller that lost power comes back in its\n"
           "                      bootloader) and save it there at the end\n"
           "  --platform TEXT     platform text in slot 10 (default HW=BRISKA)\n"
           "  --mode MODE         app, boot or dead: what the microcontroller runs\n"
           "  --flash-image FILE  put this application into flash and record it in slot 4\n"
           "                      (length rounded up to 64 bytes and MD5, as the service\n"
           "                      stores them): an Intel HEX file (first character ':')\n"
           "                      whose records inside 0x1D010000-0x1D062FFF are placed,\n"
           "                      or a raw binary image placed from 0x1D010000\n"
           "  --no-node           no microcontroller attached: neither the node nor the\n"
           "                      USB device exists, and modprobe does not bring them\n"
           "  --fault FAULT       arm a fault (repeatable; list below)\n"
           "  --log FILE          write the model's event list to FILE at the end\n"
           "  --control PATH      also listen for control commands on the UNIX socket PATH\n";
}

bool tarnholdSimModelSetUp(const char *program, const tarnholdSimModelOptions &o)
{
    std::unique_lock<std::mutex> lock(tarnholdSimModelLock());
    simReset();
    struct stat st;
    if (!o.stateFile.empty() && ::stat(o.stateFile.c_str(), &st) == 0) {
        if (!simLoadState(o.stateFile)) {
            return __tarnholdSimOptionsFail(program, "cannot load the state file " + o.stateFile);
        }
        // Power-on: the appliance boots with picdev loaded.
        simModuleLoad();
    }
    if (!o.platform.empty()) {
        simSetPlatformText(o.platform);
    }
    std::string out;
    std::string error;
    lock.unlock();
    if (!o.mode.empty() && !tarnholdSimControlRun("mode " + o.mode, out, error)) {
        return __tarnholdSimOptionsFail(program, error);
    }
    if (!o.flashImage.empty() && !tarnholdSimImageInstall(o.flashImage, error)) {
        return __tarnholdSimOptionsFail(program, error);
    }
    lock.lock();
    if (o.noNode) {
        tarnholdSimControlSetUnplugged(true);
    }
    for (const std::string &fault : o.faults) {
        if (!tarnholdSimControlApplyFault(fault, error)) {
            return __tarnholdSimOptionsFail(program, "--fault " + fault + ": " + error);
        }
    }
    simClearEvents();
    return true;
}

bool tarnholdSimModelFinish(const char *program, const tarnholdSimModelOptions &o)
{
    bool ok = true;
    if (!o.stateFile.empty() && !simSaveState(o.stateFile)) {
        ok = __tarnholdSimOptionsFail(program, "cannot save the state to " + o.stateFile);
    }
    if (!o.logFile.empty()) {
        std::ofstream log(o.logFile, std::ios::trunc);
        log << tarnholdSimControlEventText();
        if (!log) {
            ok = __tarnholdSimOptionsFail(program, "cannot write the event log " + o.logFile);
        }
    }
    return ok;
}
