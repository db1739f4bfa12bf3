// Control of the simulated appliance's front ends (tarnhold-sim and
// tarnhold-sim-cuse): the command lines that the control socket, the module
// commands and the start-up options share, the fault descriptions, and the
// event list as text. Neither GLib nor umockdev: the front end brings its
// own node handling and parts through tarnholdSimFrontEnd.
#include "tarnholdSim.h"

#include "qxUsb.h"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

// The modelled parts beyond the microcontroller bring their own faults and
// control commands; each answers 1 (done), 0 (refused, with a reason) or -1
// (not one of its own), and they are asked in this order: the FPGA and CPLD
// paths, then the front end's own part (tarnhold-sim's host buses), if any.
void __tarnholdSimNoNodes() {}

constexpr const char *TARNHOLD_SIM_MODULE = "picdev";
constexpr size_t TARNHOLD_SIM_MAX_LINE = 4096;

struct {
    bool unplugged = false;
    bool moduleLoaded = true; // the appliance boots with picdev loaded
    bool hostPowerLoss = false;
    tarnholdSimFrontEnd frontEnd = {&__tarnholdSimNoNodes, &__tarnholdSimNoNodes, {nullptr, nullptr}};
} tarnholdSimControlPrivateMembers;

auto &control = tarnholdSimControlPrivateMembers;

constexpr std::array<const char *, 22> TARNHOLD_SIM_EVENT_NAMES = {
    "OPEN",     "OPEN_FAILED",      "CLOSE",           "SEND",      "GET_REPORT", "DRIVER",       "PROGRAM",
    "PROGRAM_DROPPED", "COMPLETE", "ERASE", "GOTO_APPLICATION", "GOTO_BOOTLOADER", "USB_RESET", "RMMOD",
    "MODPROBE", "FILE_TRANSFER",    "IOCTL_FAILED",    "POWER_LOST", "MODE_SWITCH", "PAGES_READ",
    "PAGES_UNREADABLE", "CPLD_RUN_DONE",
};
static_assert(static_cast<size_t>(simEventKind::CPLD_RUN_DONE) + 1 == TARNHOLD_SIM_EVENT_NAMES.size());

struct tarnholdSimNamedValue {
    const char *name;
    long value;
};

constexpr std::array<tarnholdSimNamedValue, 8> TARNHOLD_SIM_ERRNO_NAMES = {{
    {"EAGAIN", EAGAIN},
    {"EIO", EIO},
    {"EBADF", EBADF},
    {"ENODEV", ENODEV},
    {"EINVAL", EINVAL},
    {"EFAULT", EFAULT},
    {"ENOENT", ENOENT},
    {"EPIPE", EPIPE},
}};

constexpr std::array<tarnholdSimNamedValue, 18> TARNHOLD_SIM_REQUEST_NAMES = {{
    {"any", 0},
    {"send", PIC_HID_SEND_REPORT},
    {"get-report", PIC_HID_GET_REPORT},
    {"file-transfer", PIC_HID_FILE_TRANSFER_TEST},
    {"program", PIC_HID_PIC32_PROGRAM},
    {"program-done", PIC_HID_PIC32_PROGRAM_DONE},
    {"pic32-available", PIC_HID_PIC32_IS_URB_AVAILABLE},
    {"pic32-setup", PIC_HID_PIC32_UPGRADE_SETUP},
    {"available", PIC_HID_IS_URB_AVAILABLE},
    {"fpga-setup", PIC_HID_FPGA_UPGRADE_SETUP},
    {"erase-fpga", PIC_HID_ERASE_FPGA},
    {"erase-fpga-status", PIC_HID_ERASE_FPGA_STATUS},
    {"program-fpga", PIC_HID_PROGRAM_FPGA},
    {"clean-up", PIC_HID_PROGRAM_CLEAN_UP},
    {"cpld-setup", PIC_HID_CPLD_UPGRADE_SETUP},
    {"erase-cpld", PIC_HID_ERASE_CPLD},
    {"program-cpld", PIC_HID_PROGRAM_CPLD},
    {"cpld-run", PIC_HID_CPLD_UPGRADE_RUN},
}};

constexpr std::array<tarnholdSimNamedValue, 4> TARNHOLD_SIM_REPLY_FAULTS = {{
    {"none", static_cast<long>(simReplyFault::NONE)},
    {"wrong-seq", static_cast<long>(simReplyFault::WRONG_SEQ)},
    {"wrong-code-seq", static_cast<long>(simReplyFault::WRONG_CODE_SEQ)},
    {"no-reply", static_cast<long>(simReplyFault::NO_REPLY)},
}};

constexpr std::array<tarnholdSimNamedValue, 3> TARNHOLD_SIM_MODES = {{
    {"app", static_cast<long>(simMode::APPLICATION)},
    {"boot", static_cast<long>(simMode::BOOTLOADER)},
    {"dead", static_cast<long>(simMode::DEAD)},
}};

std::array<tarnholdSimPart, 2> __tarnholdSimParts()
{
    return {{{&tarnholdSimUpgradeFault, &tarnholdSimUpgradeCommand}, control.frontEnd.part}};
}

std::vector<std::string> __tarnholdSimSplit(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    size_t start = 0;
    while (true) {
        const size_t end = text.find(separator, start);
        parts.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) {
            return parts;
        }
        start = end + 1;
    }
}

std::vector<std::string> __tarnholdSimWords(const std::string &line)
{
    std::vector<std::string> words;
    for (const std::string &w : __tarnholdSimSplit(line, ' ')) {
        if (!w.empty()) {
            words.push_back(w);
        }
    }
    return words;
}

bool __tarnholdSimNumber(const std::string &text, long &value)
{
    long long v = 0;
    if (!tarnholdSimControlNumber(text, v) || v < INT32_MIN || v > UINT32_MAX) {
        return false;
    }
    value = static_cast<long>(v);
    return true;
}

template <size_t N>
bool __tarnholdSimLookup(const std::array<tarnholdSimNamedValue, N> &table, const std::string &text, long &value,
                         bool numbersToo)
{
    for (const auto &entry : table) {
        if (text == entry.name) {
            value = entry.value;
            return true;
        }
    }
    return numbersToo && __tarnholdSimNumber(text, value);
}

// "NAME:ARG:ARG"; every argument a number or a name from the tables.
bool __tarnholdSimFault(const std::vector<std::string> &f, std::string &error)
{
    const std::string &name = f[0];
    const size_t args = f.size() - 1;
    long a = 0;
    long b = 0;
    long c = 1;
    if (name == "ioctl" && (args == 2 || args == 3)) {
        if (!__tarnholdSimLookup(TARNHOLD_SIM_REQUEST_NAMES, f[1], a, true) ||
            !__tarnholdSimLookup(TARNHOLD_SIM_ERRNO_NAMES, f[2], b, true) ||
            (args == 3 && !__tarnholdSimNumber(f[3], c))) {
            error = "ioctl:REQUEST:ERRNO[:COUNT] expected";
            return false;
        }
        simFailIoctl(static_cast<uint32_t>(a), static_cast<int>(b), static_cast<int>(c));
        return true;
    }
    if (name == "reply" && (args == 1 || args == 2)) {
        if (!__tarnholdSimLookup(TARNHOLD_SIM_REPLY_FAULTS, f[1], a, false) ||
            (args == 2 && !__tarnholdSimNumber(f[2], c))) {
            error = "reply:none|wrong-seq|wrong-code-seq|no-reply[:COUNT] expected";
            return false;
        }
        simSetReplyFault(static_cast<simReplyFault>(a), static_cast<int>(c));
        return true;
    }
    if (name == "reply-delay-reads" && args == 1 && __tarnholdSimNumber(f[1], a)) {
        simSetReplyDelayReads(static_cast<int>(a));
        return true;
    }
    if (name == "reply-delay" && args == 2 && __tarnholdSimNumber(f[1], a) && __tarnholdSimNumber(f[2], b) &&
        a >= 0 && a <= 255 && b >= 0) {
        simSetReplyDelayUs(static_cast<uint8_t>(a), static_cast<uint64_t>(b));
        return true;
    }
    if (name == "slot-unreadable" && (args == 1 || args == 2) && __tarnholdSimNumber(f[1], a) &&
        (args == 1 || __tarnholdSimNumber(f[2], c))) {
        simSetSlotUnreadable(static_cast<int>(a), static_cast<int>(c));
        return true;
    }
    if (name == "bootloader-no-ack" && args == 0) {
        simSetBootloaderNoAck(true);
        return true;
    }
    if (name == "driver-busy" && args == 1 && __tarnholdSimNumber(f[1], a)) {
        simSetDriverBusyPolls(static_cast<int>(a));
        return true;
    }
    if ((name == "power-loss" || name == "host-power-loss") && args == 1 && __tarnholdSimNumber(f[1], a)) {
        simPowerLossAfter(static_cast<int>(a));
        control.hostPowerLoss = name == "host-power-loss";
        return true;
    }
    for (const tarnholdSimPart &part : __tarnholdSimParts()) {
        if (const int done = part.fault != nullptr ? part.fault(f, error) : -1; done >= 0) {
            return done == 1;
        }
    }
    error = "unknown fault '" + name + "' or wrong arguments";
    return false;
}

bool __tarnholdSimModuleCommand(const std::vector<std::string> &words, std::string &error)
{
    std::vector<std::string> modules;
    for (size_t i = 1; i < words.size(); ++i) {
        if (words[i][0] != '-') {
            modules.push_back(words[i]);
        }
    }
    const bool unload = words[0] == "rmmod";
    for (const std::string &module : modules) {
        if (module != TARNHOLD_SIM_MODULE) {
            error = unload ? "Module " + module + " is not currently loaded" : "Module " + module + " not found";
            return false;
        }
    }
    if (modules.empty()) {
        error = "missing module name";
        return false;
    }
    if (unload) {
        if (!control.moduleLoaded) {
            error = std::string("Module ") + TARNHOLD_SIM_MODULE + " is not currently loaded";
            return false;
        }
        control.moduleLoaded = false;
        simModuleUnload();
        return true;
    }
    if (!control.moduleLoaded) {
        // A loaded module is not loaded again (modprobe succeeds quietly).
        control.moduleLoaded = true;
        simModuleLoad();
        if (control.unplugged) {
            simSetNodePresent(false);
        }
    }
    return true;
}

std::string __tarnholdSimState()
{
    const simSlot slot4 = simGetSlot(4);
    long modeIndex = static_cast<long>(simGetMode());
    const char *mode = "?";
    for (const auto &entry : TARNHOLD_SIM_MODES) {
        if (entry.value == modeIndex) {
            mode = entry.name;
        }
    }
    char line[200];
    std::snprintf(line, sizeof(line), "mode=%s node=%s cable=%s module=%s slot4-word0=%" PRIu32 " slot4-len=%u\n",
                  mode, simNodePresent() ? "present" : "absent", control.unplugged ? "out" : "in",
                  control.moduleLoaded ? "loaded" : "unloaded", slot4.word0, slot4.len);
    return line;
}

bool __tarnholdSimRunLocked(const std::vector<std::string> &words, const std::string &line, std::string &out,
                            std::string &error)
{
    const std::string &command = words[0];
    if (command == "ping") {
        return true;
    }
    if (command == "rmmod" || command == "modprobe") {
        return __tarnholdSimModuleCommand(words, error);
    }
    if (command == "unplug" && words.size() == 1) {
        tarnholdSimControlSetUnplugged(true);
        return true;
    }
    if (command == "plug" && words.size() == 1) {
        tarnholdSimControlSetUnplugged(false);
        return true;
    }
    if (command == "mode" && words.size() == 2) {
        long mode = 0;
        if (!__tarnholdSimLookup(TARNHOLD_SIM_MODES, words[1], mode, false)) {
            error = "mode app|boot|dead expected";
            return false;
        }
        simSetMode(static_cast<simMode>(mode));
        return true;
    }
    if (command == "platform" && words.size() >= 2) {
        // The text is the rest of the line, blanks inside it included.
        simSetPlatformText(line.substr(line.find(words[1], line.find(command) + command.size())));
        return true;
    }
    if (command == "fault" && words.size() == 2) {
        return tarnholdSimControlApplyFault(words[1], error);
    }
    if (command == "events" && words.size() == 1) {
        out = tarnholdSimControlEventText();
        return true;
    }
    if (command == "clear-events" && words.size() == 1) {
        simClearEvents();
        return true;
    }
    if (command == "state" && words.size() == 1) {
        out = __tarnholdSimState();
        return true;
    }
    if (command == "save" && words.size() == 2) {
        if (!simSaveState(words[1])) {
            error = "cannot save the state to " + words[1];
            return false;
        }
        return true;
    }
    for (const tarnholdSimPart &part : __tarnholdSimParts()) {
        if (const int done = part.command != nullptr ? part.command(words, out, error) : -1; done >= 0) {
            return done == 1;
        }
    }
    error = "unknown command '" + command + "' or wrong arguments";
    return false;
}

} // namespace

bool tarnholdSimControlNumber(const std::string &text, long long &value)
{
    if (text.empty()) {
        return false;
    }
    errno = 0;
    char *end = nullptr;
    value = std::strtoll(text.c_str(), &end, 0);
    return errno == 0 && *end == '\0';
}

void tarnholdSimControlSetUnplugged(bool unplugged)
{
    control.unplugged = unplugged;
    if (unplugged) {
        simSetNodePresent(false);
    } else if (control.moduleLoaded) {
        simSetNodePresent(true);
    }
}

bool tarnholdSimControlUnplugged()
{
    return control.unplugged;
}

bool tarnholdSimControlApplyFault(const std::string &fault, std::string &error)
{
    const std::vector<std::string> fields = __tarnholdSimSplit(fault, ':');
    if (fields[0].empty()) {
        error = "empty fault";
        return false;
    }
    return __tarnholdSimFault(fields, error);
}

bool tarnholdSimControlHostPowerLossArmed()
{
    return control.hostPowerLoss;
}

bool tarnholdSimControlRun(const std::string &line, std::string &out, std::string &error)
{
    std::string clean = line;
    for (char &c : clean) {
        if (c == '\t' || c == '\r') {
            c = ' ';
        }
    }
    while (!clean.empty() && clean.back() == ' ') {
        clean.pop_back();
    }
    const std::vector<std::string> words = __tarnholdSimWords(clean);
    if (words.empty()) {
        error = "empty command";
        return false;
    }
    std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
    // Descriptors closed before this command count as closed before it.
    control.frontEnd.sweep();
    const bool ok = __tarnholdSimRunLocked(words, clean, out, error);
    control.frontEnd.sync();
    return ok;
}

bool tarnholdSimControlWriteAll(int fd, const std::string &text)
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool tarnholdSimControlFeed(std::string &pending, std::string_view data, std::string &replies)
{
    pending.append(data);
    size_t newline;
    while ((newline = pending.find('\n')) != std::string::npos) {
        const std::string line = pending.substr(0, newline);
        pending.erase(0, newline + 1);
        std::string out;
        std::string error;
        replies += tarnholdSimControlRun(line, out, error) ? out + "ok\n" : "error: " + error + "\n";
    }
    if (pending.size() > TARNHOLD_SIM_MAX_LINE) {
        replies += "error: line too long\n";
        return false;
    }
    return true;
}

bool tarnholdSimControlSocketAddress(const std::string &path, sockaddr_un &addr, std::string &error)
{
    addr = {};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(addr.sun_path)) {
        error = "control socket path '" + path + "' is empty or too long";
        return false;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return true;
}

int tarnholdSimControlListenSocket(const std::string &path, std::string &error)
{
    sockaddr_un addr;
    if (!tarnholdSimControlSocketAddress(path, addr, error)) {
        return -1;
    }
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
        ::unlink(path.c_str()); // left over from an earlier run
    }
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) != 0 || ::listen(fd, 8) != 0) {
        error = "cannot listen on " + path + ": " + std::strerror(errno);
        if (fd >= 0) {
            ::close(fd);
        }
        return -1;
    }
    return fd;
}

void tarnholdSimControlSetFrontEnd(const tarnholdSimFrontEnd &frontEnd)
{
    control.frontEnd = frontEnd;
}

std::mutex &tarnholdSimModelLock()
{
    static std::mutex lock;
    return lock;
}

int tarnholdSimControlModuleCommand(int argc, char **argv)
{
    const char *slash = std::strrchr(argv[0], '/');
    const std::string tool = slash != nullptr ? slash + 1 : argv[0];
    std::string line = tool;
    for (int i = 1; i < argc; ++i) {
        line += ' ';
        line += argv[i];
    }
    line += '\n';
    const char *path = std::getenv(TARNHOLD_SIM_CONTROL_ENV);
    sockaddr_un addr;
    std::string error;
    if (path == nullptr || !tarnholdSimControlSocketAddress(path, addr, error)) {
        std::fprintf(stderr, "%s: not running inside tarnhold-sim (%s is not set)\n", tool.c_str(),
                     TARNHOLD_SIM_CONTROL_ENV);
        return 1;
    }
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) != 0 ||
        !tarnholdSimControlWriteAll(fd, line)) {
        std::fprintf(stderr, "%s: cannot reach tarnhold-sim at %s: %s\n", tool.c_str(), path, std::strerror(errno));
        if (fd >= 0) {
            ::close(fd);
        }
        return 1;
    }
    std::string reply;
    char buffer[256];
    ssize_t n;
    while (reply.find('\n') == std::string::npos && (n = ::read(fd, buffer, sizeof(buffer))) > 0) {
        reply.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    if (reply.rfind("ok\n", 0) == 0) {
        return 0;
    }
    const std::string reason = reply.rfind("error: ", 0) == 0 ? reply.substr(7, reply.find('\n') - 7) : "no answer";
    std::fprintf(stderr, "%s: ERROR: %s\n", tool.c_str(), reason.c_str());
    return 1;
}

std::string tarnholdSimControlEventText()
{
    std::string text;
    char line[160];
    for (const simEvent &e : simEvents()) {
        const auto kind = static_cast<size_t>(e.kind);
        std::snprintf(line, sizeof(line),
                      "%s code=%u seq=%u request=0x%08" PRIx32 " address=0x%08" PRIx32 " len=%" PRIu32
                      " t=%" PRIu64 "\n",
                      kind < TARNHOLD_SIM_EVENT_NAMES.size() ? TARNHOLD_SIM_EVENT_NAMES[kind] : "UNKNOWN",
                      static_cast<unsigned>(e.code), static_cast<unsigned>(e.seq), e.request, e.address, e.len,
                      e.atUs);
        text += line;
    }
    return text;
}

const char *tarnholdSimControlUsage()
{
    return "Control commands (one per line on the control socket; answered by\n"
           "'ok' after any output, or 'error: REASON'):\n"
           "  rmmod picdev | modprobe picdev   unload / load the driver (what the\n"
           "                                   child's rmmod and modprobe do)\n"
           "  unplug | plug                    pull / reconnect the microcontroller's cable\n"
           "  mode app|boot|dead               what the microcontroller runs\n"
           "  platform TEXT                    the platform text in slot 10\n"
           "  fault FAULT                      arm a fault (below)\n"
           "  events | clear-events            the model's event list as text lines\n"
           "  state                            one summary line\n"
           "  save FILE                        save the model state\n"
           "  ping\n"
           "Faults (FAULT for --fault and 'fault'):\n"
           "  ioctl:REQUEST:ERRNO[:COUNT]      REQUEST any|send|get-report|file-transfer|program|\n"
           "                                   program-done|pic32-available|pic32-setup|available|\n"
           "                                   fpga-setup|erase-fpga|erase-fpga-status|program-fpga|\n"
           "                                   clean-up|cpld-setup|erase-cpld|program-cpld|cpld-run|NUMBER,\n"
           "                                   ERRNO EAGAIN|EIO|EBADF|ENODEV|EINVAL|EFAULT|ENOENT|NUMBER\n"
           "  reply:none|wrong-seq|wrong-code-seq|no-reply[:COUNT]\n"
           "  reply-delay-reads:READS          replies readable only after READS more reads\n"
           "  reply-delay:CODE:MICROSECONDS    replies to CODE readable only that much later\n"
           "  slot-unreadable:SLOT[:COUNT]     COUNT -1: always\n"
           "  bootloader-no-ack                set-up and availability never acknowledged\n"
           "  driver-busy:POLLS                the next POLLS availability polls answer busy\n"
           "  power-loss:STEPS                 the microcontroller loses power after STEPS more\n"
           "                                   bootloader steps; the next module load brings it\n"
           "                                   back in its bootloader\n"
           "  host-power-loss:STEPS            the same for the whole appliance: the child is\n"
           "                                   killed at that moment (exit status 137)\n";
}
