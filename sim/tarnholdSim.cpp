// tarnhold-sim: runs a command (tarnhold by default) on the simulated
// appliance and exits with its status. Invoked as rmmod or modprobe (the
// links it puts on the child's PATH) it is the module command instead.
#include "tarnholdSim.h"
#include "tarnholdSimHostBus.h"
#include "tarnholdSimReplay.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <glob.h>
#include <link.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int TARNHOLD_SIM_EXIT_USAGE = 2; // set-up failed before the command ran
constexpr int TARNHOLD_SIM_DRAIN_MS = 1000;
constexpr const char *TARNHOLD_SIM_DEFAULT_COMMAND = "tarnhold";
constexpr const char *TARNHOLD_SIM_PRELOAD = "libumockdev-preload.so.0";
constexpr std::array<const char *, 3> TARNHOLD_SIM_FAKETIME_LIBS = {
    "/usr/lib/*/faketime/libfaketime.so.1",
    "/usr/lib/faketime/libfaketime.so.1",
    "/usr/local/lib/faketime/libfaketime.so.1",
};
constexpr std::array<int, 8> TARNHOLD_SIM_FORWARDED_SIGNALS = {SIGTERM, SIGINT, SIGHUP, SIGQUIT,
                                                               SIGSEGV, SIGABRT, SIGUSR1, SIGUSR2};

struct tarnholdSimOptions {
    tarnholdSimModelOptions model;
    std::string faketime;
    std::vector<std::string> command;
};

struct {
    std::atomic<pid_t> child{0};
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    double clockRate = 1.0; // the model's clock runs as fast as the child's faked one
    int childStatus = 0;
    GMainLoop *loop = nullptr;
} tarnholdSimPrivateMembers;

auto &simRun = tarnholdSimPrivateMembers;

void __tarnholdSimUsage(FILE *out)
{
    std::fprintf(out,
                 "Usage: tarnhold-sim [OPTION...] [--] [COMMAND [ARG...]]\n"
                 "Runs COMMAND (default: tarnhold, found on PATH) on a simulated appliance:\n"
                 "a umockdev testbed with the device node /dev/%s, whose ioctls reach the\n"
                 "model of the picdev driver and the PIC32, the microcontroller's USB device\n"
                 "04D8:003C under /dev/bus/usb for libusb's port reset, and rmmod/modprobe on\n"
                 "the command's PATH. Exits with the command's status (128+N when signal N\n"
                 "ended it); SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGSEGV, SIGABRT, SIGUSR1 and\n"
                 "SIGUSR2 sent to tarnhold-sim go to the command. Status %d: set-up failed.\n"
                 "\n"
                 "%s"
                 "  --faketime VALUE    run the command under libfaketime with FAKETIME=VALUE,\n"
                 "                      e.g. \"+0 x50\"; the model's clock follows the rate\n"
                 "%s"
                 "  --help              this text\n"
                 "%s"
                 "\n%s%s"
                 "Control commands of the fan controller's I2C bus and the PCI bus:\n%s"
                 "Their faults (FAULT for --fault and 'fault'):\n%s",
                 TARNHOLD_SIM_NODE_NAME, TARNHOLD_SIM_EXIT_USAGE, tarnholdSimModelOptionUsage(),
                 tarnholdSimHostBusOptionUsage(), tarnholdSimReplayUsage(),
                 tarnholdSimControlUsage(), tarnholdSimUpgradeUsage(), tarnholdSimHostBusCommandUsage(),
                 tarnholdSimHostBusFaultUsage());
}

uint64_t __tarnholdSimNowUs()
{
    const auto elapsed = std::chrono::steady_clock::now() - simRun.start;
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(elapsed).count();
    return static_cast<uint64_t>(static_cast<double>(us) * simRun.clockRate);
}

bool __tarnholdSimParse(int argc, char **argv, tarnholdSimOptions &o)
{
    enum { FAKETIME = 1, HELP, SCSI_CTRL };
    std::vector<option> longOptions(TARNHOLD_SIM_MODEL_OPTIONS.begin(), TARNHOLD_SIM_MODEL_OPTIONS.end());
    longOptions.insert(longOptions.end(), {
                                              {"faketime", required_argument, nullptr, FAKETIME},
                                              {"help", no_argument, nullptr, HELP},
                                              {"scsi-ctrl", optional_argument, nullptr, SCSI_CTRL},
                                              {nullptr, 0, nullptr, 0},
                                          });
    int opt;
    // "+": the first word that is not an option starts the command.
    while ((opt = getopt_long(argc, argv, "+", longOptions.data(), nullptr)) != -1) {
        if (tarnholdSimModelOption(opt, optarg, o.model)) {
            continue;
        }
        switch (opt) {
        case FAKETIME: o.faketime = optarg; break;
        case HELP: __tarnholdSimUsage(stdout); std::exit(0);
        case SCSI_CTRL:
            if (std::string error; !tarnholdSimHostBusAddPci(optarg != nullptr ? optarg : "", error)) {
                std::fprintf(stderr, "tarnhold-sim: --scsi-ctrl: %s\n", error.c_str());
                return false;
            }
            break;
        default: __tarnholdSimUsage(stderr); return false;
        }
    }
    for (int i = optind; i < argc; ++i) {
        o.command.emplace_back(argv[i]);
    }
    if (o.command.empty()) {
        o.command.emplace_back(TARNHOLD_SIM_DEFAULT_COMMAND);
    }
    return true;
}

bool __tarnholdSimFail(const std::string &message)
{
    std::fprintf(stderr, "tarnhold-sim: %s\n", message.c_str());
    return false;
}

std::string __tarnholdSimFindFaketime()
{
    if (const char *own = std::getenv("TARNHOLD_SIM_FAKETIME_LIB"); own != nullptr) {
        return own;
    }
    for (const char *pattern : TARNHOLD_SIM_FAKETIME_LIBS) {
        glob_t found{};
        std::string path;
        if (::glob(pattern, 0, nullptr, &found) == 0 && found.gl_pathc > 0) {
            path = found.gl_pathv[0];
        }
        globfree(&found);
        if (!path.empty()) {
            return path;
        }
    }
    return {};
}

// Whether tarnhold-sim itself, and so the build it belongs to, carries
// AddressSanitizer.
bool __tarnholdSimSanitized()
{
    bool found = false;
    dl_iterate_phdr(
        [](dl_phdr_info *info, size_t, void *data) {
            const char *name = info->dlpi_name;
            if (name != nullptr && std::strstr(name, "libasan.so") != nullptr) {
                *static_cast<bool *>(data) = true;
                return 1;
            }
            return 0;
        },
        &found);
    return found;
}

double __tarnholdSimFaketimeRate(const std::string &value)
{
    const size_t x = value.find('x');
    if (x == std::string::npos) {
        return 1.0;
    }
    const double rate = std::strtod(value.c_str() + x + 1, nullptr);
    return rate > 0 ? rate : 1.0;
}

// rmmod and modprobe on the child's PATH are links to this program.
bool __tarnholdSimModuleCommands(std::string &binDir)
{
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0) {
        return __tarnholdSimFail("cannot find its own executable");
    }
    self[n] = '\0';
    binDir = tarnholdSimBedRoot() + "/bin";
    if (::mkdir(binDir.c_str(), 0755) != 0 && errno != EEXIST) {
        return __tarnholdSimFail("cannot create " + binDir);
    }
    for (const char *tool : {"rmmod", "modprobe"}) {
        const std::string link = binDir + "/" + tool;
        if (::symlink(self, link.c_str()) != 0 && errno != EEXIST) {
            return __tarnholdSimFail("cannot create " + link);
        }
    }
    return true;
}

bool __tarnholdSimChildEnvironment(const tarnholdSimOptions &o, const std::string &binDir,
                                   const std::string &controlPath)
{
    std::string preload = TARNHOLD_SIM_PRELOAD;
    if (__tarnholdSimSanitized()) {
        // A sanitized child finds its runtime behind the preloads. Putting
        // the runtime first instead would preload it into every plain
        // program too (the shell of the module commands), and with
        // libfaketime beside it such a program hangs at start.
        std::string options = "verify_asan_link_order=0";
        if (const char *old = std::getenv("ASAN_OPTIONS"); old != nullptr && old[0] != '\0') {
            options = std::string(old) + ":" + options;
        }
        setenv("ASAN_OPTIONS", options.c_str(), 1);
    }
    if (!o.faketime.empty()) {
        const std::string lib = __tarnholdSimFindFaketime();
        if (lib.empty()) {
            return __tarnholdSimFail("--faketime: libfaketime.so.1 not found (Debian package libfaketime)");
        }
        preload += ":" + lib;
        setenv("FAKETIME", o.faketime.c_str(), 1);
        setenv("FAKETIME_NO_CACHE", "1", 1);
        simRun.clockRate = __tarnholdSimFaketimeRate(o.faketime);
    }
    if (const char *old = std::getenv("LD_PRELOAD"); old != nullptr && old[0] != '\0') {
        preload += std::string(":") + old;
    }
    const char *path = std::getenv("PATH");
    const std::string newPath = binDir + ":" + (path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin");
    setenv("LD_PRELOAD", preload.c_str(), 1);
    setenv("UMOCKDEV_DIR", tarnholdSimBedRoot().c_str(), 1);
    setenv("PATH", newPath.c_str(), 1);
    setenv(TARNHOLD_SIM_CONTROL_ENV, controlPath.c_str(), 1);
    return true;
}

// Signals for tarnhold-sim are meant for the command. A fault of
// tarnhold-sim itself (a SIGSEGV the kernel raised) is not forwarded: the
// default action ends it.
void __tarnholdSimForward(int sig, siginfo_t *info, void *)
{
    if ((sig == SIGSEGV || sig == SIGABRT) && info != nullptr && info->si_code > 0) {
        std::signal(sig, SIG_DFL);
        return;
    }
    const pid_t child = simRun.child.load();
    if (child > 0) {
        ::kill(child, sig);
    }
}

void __tarnholdSimChildExited(GPid, gint status, gpointer)
{
    simRun.childStatus = status;
    g_main_loop_quit(simRun.loop);
}

gboolean __tarnholdSimSweepTimer(gpointer)
{
    std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
    tarnholdSimBedSweep();
    // A board off the bus comes back on the clock, with nobody asking.
    tarnholdSimBedSync();
    return G_SOURCE_CONTINUE;
}

pid_t __tarnholdSimSpawn(const std::vector<std::string> &command)
{
    std::vector<char *> args;
    for (const std::string &word : command) {
        args.push_back(const_cast<char *>(word.c_str()));
    }
    args.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::execvp(args[0], args.data());
        std::fprintf(stderr, "tarnhold-sim: cannot run %s: %s\n", args[0], std::strerror(errno));
        ::_exit(127);
    }
    return pid;
}

int __tarnholdSimExitStatus(int status)
{
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return 1;
}

bool __tarnholdSimFinish(const tarnholdSimOptions &o)
{
    tarnholdSimBedDrain(TARNHOLD_SIM_DRAIN_MS);
    std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
    tarnholdSimBedSweep();
    return tarnholdSimModelFinish("tarnhold-sim", o.model);
}

} // namespace

int main(int argc, char **argv)
{
    const char *slash = std::strrchr(argv[0], '/');
    const std::string name = slash != nullptr ? slash + 1 : argv[0];
    if (name == "rmmod" || name == "modprobe") {
        return tarnholdSimControlModuleCommand(argc, argv);
    }

    if (argc > 1 && std::strcmp(argv[1], "--replay") == 0) {
        return tarnholdSimReplayMain(argc, argv);
    }

    tarnholdSimControlSetFrontEnd(
        {&tarnholdSimBedSweep, &tarnholdSimBedSync, {&tarnholdSimHostBusFault, &tarnholdSimHostBusCommand}});
    simSetClock(&__tarnholdSimNowUs);
    tarnholdSimOptions options;
    if (!__tarnholdSimParse(argc, argv, options) || !tarnholdSimModelSetUp("tarnhold-sim", options.model)) {
        return TARNHOLD_SIM_EXIT_USAGE;
    }
    std::string error;
    std::string binDir;
    if (!tarnholdSimBedStart(error)) {
        __tarnholdSimFail(error);
        tarnholdSimBedStop();
        return TARNHOLD_SIM_EXIT_USAGE;
    }
    const std::string internalControl = tarnholdSimBedRoot() + "/control";
    if (!tarnholdSimControlListen(internalControl, error) ||
        (!options.model.control.empty() && !tarnholdSimControlListen(options.model.control, error))) {
        __tarnholdSimFail(error);
        tarnholdSimControlStop();
        tarnholdSimBedStop();
        return TARNHOLD_SIM_EXIT_USAGE;
    }
    if (!__tarnholdSimModuleCommands(binDir) || !__tarnholdSimChildEnvironment(options, binDir, internalControl)) {
        tarnholdSimControlStop();
        tarnholdSimBedStop();
        return TARNHOLD_SIM_EXIT_USAGE;
    }

    simRun.loop = g_main_loop_new(nullptr, FALSE);
    const pid_t child = __tarnholdSimSpawn(options.command);
    simRun.child.store(child);
    tarnholdSimBedSetHostPid(child);
    struct sigaction action {};
    action.sa_sigaction = &__tarnholdSimForward;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (int sig : TARNHOLD_SIM_FORWARDED_SIGNALS) {
        sigaction(sig, &action, nullptr);
    }
    g_child_watch_add(child, &__tarnholdSimChildExited, nullptr);
    g_timeout_add(20, &__tarnholdSimSweepTimer, nullptr);
    g_main_loop_run(simRun.loop);
    simRun.child.store(0);

    if (tarnholdSimBedHostPowerLost()) {
        std::fprintf(stderr, "tarnhold-sim: the appliance lost power; the command went down with it\n");
    }
    const bool saved = __tarnholdSimFinish(options);
    tarnholdSimControlStop();
    tarnholdSimBedStop();
    g_main_loop_unref(simRun.loop);
    const int status = __tarnholdSimExitStatus(simRun.childStatus);
    return saved || status != 0 ? status : TARNHOLD_SIM_EXIT_USAGE;
}
