// The daemon core: command line, daemon start, signals and crash log, the
// request FIFO and the request loop.
#include "main.h"

#include "mainFifo.h"

#include "daemonLib.h"
#include "daemonNotify.h"
#include "evmLog.h"
#include "flashGuard.h"
#include "qxUsb.h"
#include "scsiCtrl.h"
#include "sysRecord.h"
#include "sysSeam.h"
#include "uniqueFd.h"
#include "usbDaemonRequest.h"
#include "usbMgmt.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <execinfo.h>
#include <fcntl.h>
#include <getopt.h>
#include <string_view>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

void signal_exit_handler(int sig);
void signal_pipe_handler(int sig);
void __mainExitOn(int sig);

// The end of the process on an exit signal, at once or after the flash that
// held it back: the exit handler's own course. Tests bind a recorder instead.
void (*mainCarryOutStop)(int sig) = __mainExitOn;

constexpr mainHeartbeatOps MAIN_HEARTBEAT_NONE = {
    .intervalSec = [] { return uint32_t{0}; },
    .beep = [] {},
};

constexpr mainHeartbeatOps MAIN_HEARTBEAT_SCSI_CTRL = {
    .intervalSec = [] { return static_cast<uint32_t>(scsiCtrlGetHeartBeepIntervalSec()); },
    .beep = [] { scsiCtrlHeartBeep(); },
};

// Bound to the controller heartbeat at start-up; without a controller its
// interval is 0 and the loop waits without a timeout and never beeps.
mainHeartbeatOps mainHeartbeat = MAIN_HEARTBEAT_NONE;

namespace {

constexpr const char *MAIN_SOURCE = "main";
constexpr const char *MAIN_PID_FILE = "/var/run/tarnhold.pid";
constexpr const char *MAIN_TAG_EXIT = "tarnhold(EXIT)";
constexpr const char *MAIN_TAG_SIGNAL = "tarnhold(ERROR/TERM)";
constexpr const char *MAIN_DEFAULT_FIRMWARE = "/usr/sbin/briska-pic-client.hex";
constexpr const char *MAIN_CRASH_LOG_FORMAT = "/var/crash/tarnhold-%d-%d.log";
constexpr size_t MAIN_CRASH_LOG_NAME_MAX = 64;
constexpr int MAIN_CRASH_FRAMES = 10;
constexpr size_t MAIN_FILE_NAME_SIZE = 300;
constexpr uint32_t MAIN_FILE_NAME_MAX_MINUS_ONE = 293; // names of 1 to 294 characters
constexpr suseconds_t MAIN_WAIT_SLACK_US = 10;
constexpr const char *MAIN_DAEMON_WORD = "--daemon";
constexpr size_t MAIN_STATE_PATH_MAX = 4096;

// Group names of 1 to 32 characters, as groupadd makes them; n - 1 taken
// unsigned, like the firmware file name's check.
constexpr size_t MAIN_GROUP_NAME_SIZE = 33;
constexpr uint32_t MAIN_GROUP_NAME_MAX_MINUS_ONE = 31;

constexpr char MAIN_PIPE_LINE[] = "signal_pipe_handler():: retry!\n";
static_assert(sizeof MAIN_PIPE_LINE - 1 == 31);

// Installed in this order; the first failure stops start-up.
constexpr std::array<int, 9> MAIN_EXIT_SIGNALS = {SIGINT, SIGHUP, SIGQUIT, SIGILL, SIGABRT,
                                                  SIGBUS, SIGFPE, SIGSEGV, SIGTERM};
static_assert(SIGINT == 2 && SIGHUP == 1 && SIGQUIT == 3 && SIGILL == 4 && SIGABRT == 6 && SIGBUS == 7 &&
              SIGFPE == 8 && SIGSEGV == 11 && SIGTERM == 15 && SIGPIPE == 13);

enum mainOption : int { MAIN_OPT_FILE = 1, MAIN_OPT_HELP, MAIN_OPT_DAEMON };

// "file" and "fifo-group" share one value on purpose: getopt_long then takes
// a prefix of both ("--f", "--fi") as the first, --file, as before the group
// option existed, instead of refusing it as ambiguous; the index tells them apart.
constexpr std::array<option, 5> MAIN_OPTIONS = {{
    {"file", required_argument, nullptr, MAIN_OPT_FILE},
    {"help", no_argument, nullptr, MAIN_OPT_HELP},
    {"daemon", no_argument, nullptr, MAIN_OPT_DAEMON},
    {"fifo-group", required_argument, nullptr, MAIN_OPT_FILE},
    {nullptr, 0, nullptr, 0},
}};
constexpr size_t MAIN_OPTION_FIFO_GROUP = 3;
static_assert(std::string_view(MAIN_OPTIONS[MAIN_OPTION_FIFO_GROUP].name) == "fifo-group");

struct {
    // Plain descriptors, not uniqueFd: the exit handler closes them itself and
    // then calls exit, which must not close them a second time.
    int fdDaemon = -1;
    int fdDummy = -1;
    int fdClient = -1;
    char fileName[MAIN_FILE_NAME_SIZE] = {};
    bool fileSelected = false;
    bool detach = false; // --daemon or an abbreviation of it was given
    // --fifo-group: the name, whether one was given, and whether the last one
    // given was refused (then the service does not start: it never falls
    // back to a FIFO open to everyone when a group was asked for).
    char fifoGroup[MAIN_GROUP_NAME_SIZE] = {};
    bool fifoGroupGiven = false;
    bool fifoGroupRefused = false;
    uint64_t lastTick = 0;
    usbDaemonRequest record = {};
} mainPrivateMembers;

void tarnholdUsage(const char *argv0)
{
    fprintf(stderr, "Usage: %s --%s \n", argv0, "daemon");
    fprintf(stderr, "\t %s --%s \n", argv0, "help");
    fprintf(stderr, "\t %s --%s %s\n", argv0, "file", MAIN_DEFAULT_FIRMWARE);
}

// Copies an option's value into its field: 1 to maxMinusOne + 1 characters,
// n - 1 taken unsigned so that the empty value wraps round and is refused too
// (an argument holds at most 128 KiB, so no long one wraps back in). False,
// and the field untouched, when refused.
bool __mainCopyValue(const char *value, uint32_t maxMinusOne, char *field)
{
    size_t n = strlen(value);
    if (static_cast<uint32_t>(n - 1) > maxMinusOne) {
        return false;
    }
    memcpy(field, value, n);
    field[n] = '\0';
    return true;
}

void __mainTakeFileName(const char *name)
{
    auto &m = mainPrivateMembers;
    evm_log(0, MAIN_SOURCE, __LINE__, "platform input: %s", evmLogEscape(name));
    static_assert(sizeof m.fileName > MAIN_FILE_NAME_MAX_MINUS_ONE + 1);
    if (!__mainCopyValue(name, MAIN_FILE_NAME_MAX_MINUS_ONE, m.fileName)) {
        evm_log(0, MAIN_SOURCE, __LINE__, "INVALID FILE NAME INPUT");
        return;
    }
    m.fileSelected = true;
}

void __mainTakeFifoGroup(const char *name)
{
    auto &m = mainPrivateMembers;
    m.fifoGroupGiven = true;
    static_assert(sizeof m.fifoGroup > MAIN_GROUP_NAME_MAX_MINUS_ONE + 1);
    m.fifoGroupRefused = !__mainCopyValue(name, MAIN_GROUP_NAME_MAX_MINUS_ONE, m.fifoGroup);
    if (m.fifoGroupRefused) {
        evm_log(0, MAIN_SOURCE, __LINE__, "INVALID GROUP NAME INPUT");
    }
}

// False when the process is to end now (usage shown). getopt's own line
// about a bad option comes before the usage text.
bool __mainParseOptions(int argc, char **argv)
{
    int opt;
    int index = -1;
    while ((opt = getopt_long(argc, argv, "", MAIN_OPTIONS.data(), &index)) != -1) {
        switch (opt) {
        case MAIN_OPT_FILE:
            if (index == static_cast<int>(MAIN_OPTION_FIFO_GROUP)) {
                __mainTakeFifoGroup(optarg);
            } else {
                __mainTakeFileName(optarg);
            }
            break;
        case MAIN_OPT_DAEMON:
            evm_log(0, MAIN_SOURCE, __LINE__, "%s started in daemon mode", argv[0]);
            mainPrivateMembers.detach = true;
            break;
        case MAIN_OPT_HELP:
        default:
            tarnholdUsage(argv[0]);
            return false;
        }
    }
    return true;
}

// The stops a flash under way holds back; the crash signals never wait.
bool __mainStopDeferrable(int sig) { return sig == SIGTERM || sig == SIGINT || sig == SIGHUP; }

int __mainStartupFailed()
{
    daemon_stop(MAIN_TAG_EXIT, MAIN_PID_FILE);
    return 1;
}

int32_t __mainInstallSignals()
{
    struct sigaction action = {};
    action.sa_handler = signal_exit_handler;
    sigfillset(&action.sa_mask);
    for (int sig : MAIN_EXIT_SIGNALS) {
        // No restart: the loop's wait simply ends and the next pass starts.
        // The stops a flash holds back restart what they interrupt, so a
        // driver request in the middle of a flash does not fail for them
        // (select is never restarted, and the waits resume themselves).
        action.sa_flags = __mainStopDeferrable(sig) ? SA_RESTART : 0;
        if (sigaction(sig, &action, nullptr) != 0) {
            evm_log(0, MAIN_SOURCE, __LINE__, "sigaction: %s", strerror(errno));
            return -1;
        }
    }
    action.sa_handler = signal_pipe_handler;
    action.sa_flags = 0;
    if (sigaction(SIGPIPE, &action, nullptr) != 0) {
        evm_log(0, MAIN_SOURCE, __LINE__, "sigaction(PIPE): %s", strerror(errno));
        return -1;
    }
    return 0;
}

void __mainResetOptions()
{
    auto &m = mainPrivateMembers;
    memset(m.fileName, 0, sizeof m.fileName);
    m.fileSelected = false;
    m.detach = false;
    m.fifoGroupGiven = false;
    m.fifoGroupRefused = false;
}

// Start-up from the firmware decision on, then the loop. A replay has no pid
// file or FIFO of its own to remove when start-up fails.
int __mainServe(bool replay)
{
    auto &m = mainPrivateMembers;
    // A replay writes no history, sends no events and takes no lock: it runs
    // on a developer's machine, not on the appliance.
    if (!replay) {
        // The history file's folder: the path up to its last '/'.
        char path[MAIN_STATE_PATH_MAX];
        const bool found = flashHistoryPath(path);
        if (found) {
            *strrchr(path, '/') = '\0';
        } else {
            evm_log(0, MAIN_SOURCE, __LINE__, "flash history: no usable state folder; none kept");
        }
        flashGuardInit(FLASH_GUARD_SYSTEM, found ? path : nullptr, [](int sig) { mainCarryOutStop(sig); });
    }
    if (usbMgmtInit(m.fileSelected ? m.fileName : nullptr) != 0) {
        evm_log(0, MAIN_SOURCE, __LINE__, "usbMgmtInit: failed");
        return replay ? 1 : __mainStartupFailed();
    }
    // A missing controller, or no udev, only means no heartbeat.
    scsiCtrlInit();
    mainHeartbeat = MAIN_HEARTBEAT_SCSI_CTRL;

    for (;;) {
        mainLoopPass();
    }
}

} // namespace

// Ends the process on the exit set of signals. It formats text, writes a file
// and calls exit inside a handler; the backtrace machinery was loaded at
// start-up so that no library is loaded here. A stop that comes while a flash
// is written is only noted, and carried out through here once it has ended.
void signal_exit_handler(int sig)
{
    if (__mainStopDeferrable(sig)) {
        const int savedErrno = errno;
        const bool deferred = flashGuardDefer(sig);
        errno = savedErrno;
        if (deferred) {
            return;
        }
    }
    mainCarryOutStop(sig);
    // Not reached in the service. Code after the call keeps this handler's
    // frame in the crash log's backtrace (no tail call).
    __asm__ volatile("" ::: "memory");
}

void __mainExitOn(int sig)
{
    auto &m = mainPrivateMembers;
    sysRecordExit(sig);
    if (sig != SIGTERM) {
        char name[MAIN_CRASH_LOG_NAME_MAX];
        snprintf(name, sizeof name, MAIN_CRASH_LOG_FORMAT, static_cast<int>(getpid()), sig);
        {
            // Never through a symbolic link: /var/crash may be writable by others.
            uniqueFd crashLog(open(name, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
            if (crashLog.valid()) {
                void *frames[MAIN_CRASH_FRAMES];
                int count = backtrace(frames, MAIN_CRASH_FRAMES);
                backtrace_symbols_fd(frames, count, crashLog.get());
                fsync(crashLog.get());
            }
        }
        char line[64];
        int len = snprintf(line, sizeof line, "signal_exit_handler(sig: %d):: cleaning up!\n", sig);
        if (len > 0) {
            ssize_t ignored = write(STDERR_FILENO, line, static_cast<size_t>(len));
            (void)ignored;
        }
        for (int *fd : {&m.fdDaemon, &m.fdDummy, &m.fdClient}) {
            if (*fd != -1) {
                close(*fd);
                *fd = -1;
            }
        }
        unlink(USB_DAEMON_FIFO);
    }
    daemon_stop(MAIN_TAG_SIGNAL, MAIN_PID_FILE);
    exit(0);
}

// Only says so: the failed write is reported by the request loop.
void signal_pipe_handler(int)
{
    int savedErrno = errno;
    ssize_t ignored = write(STDERR_FILENO, MAIN_PIPE_LINE, sizeof MAIN_PIPE_LINE - 1);
    (void)ignored;
    errno = savedErrno;
}

int mainRun(int argc, char **argv)
{
    auto &m = mainPrivateMembers;
    __mainResetOptions();
    daemonNotifyInit();
    if (!__mainParseOptions(argc, argv)) {
        return 0;
    }

    // The support library looks for "--daemon" itself; it is handed the
    // words as the parse above understood them, so "--dae" detaches too and
    // a file named "--daemon" does not.
    std::array<char *, 3> startArgv = {argv[0], m.detach ? const_cast<char *>(MAIN_DAEMON_WORD) : nullptr, nullptr};
    daemon_start(m.detach ? 2 : 1, startArgv.data(), MAIN_PID_FILE);

    // Loads the unwinder now: the first backtrace() loads a library, which
    // must not happen inside the exit handler.
    void *frame = nullptr;
    backtrace(&frame, 1);

    if (__mainInstallSignals() != 0 ||
        mainFifoSetGroup(m.fifoGroupGiven ? m.fifoGroup : nullptr, m.fifoGroupRefused) != 0 ||
        mainFifoOpen(m.fdDaemon, m.fdDummy) != 0) {
        return __mainStartupFailed();
    }
    printf("fdDaemon: %d, fdDummy: %d\n", m.fdDaemon, m.fdDummy);
    fflush(stdout);
    sysRecordStart(argc, argv, m.fdDaemon);
    return __mainServe(false);
}

int mainReplay(int argc, char **argv, int requestFd, uint64_t watchdogSliceUs)
{
    auto &m = mainPrivateMembers;
    __mainResetOptions();
    optind = 0;
    daemonNotifyInitSlice(watchdogSliceUs);
    if (!__mainParseOptions(argc, argv)) {
        return 0;
    }
    // The group's replies rule as on the appliance, where the desk knows the
    // group; without it replies are not judged by owner.
    (void)mainFifoSetGroup(m.fifoGroupGiven && !m.fifoGroupRefused ? m.fifoGroup : nullptr, false);
    m.fdDaemon = requestFd;
    m.lastTick = 0;
    mainFifoSetRequest(requestFd);
    return __mainServe(true);
}

void mainLoopPass()
{
    auto &m = mainPrivateMembers;
    fd_set readSet;
    FD_ZERO(&readSet);
    FD_SET(m.fdDaemon, &readSet);

    // Ready once the loop is about to wait for its first request; after an
    // upgrade request the serving line comes back.
    daemonNotifyServing();
    daemonNotifyWatchdog();

    // Asked afresh on every pass: the heartbeat may come and go.
    uint32_t interval = mainHeartbeat.intervalSec();
    const uint64_t sliceUs = daemonNotifyWatchdogSliceUs();
    if (interval != 0) {
        timeval timeout = {.tv_sec = static_cast<time_t>(interval), .tv_usec = MAIN_WAIT_SLACK_US};
        platformSys.select(m.fdDaemon + 1, &readSet, nullptr, nullptr, &timeout);
        // Whatever ended the wait: at most one beat per wall-clock second.
        uint64_t now = getMsSince1970() / 1000;
        if (now != m.lastTick) {
            mainHeartbeat.beep();
            m.lastTick = now;
        }
    } else if (sliceUs != 0) {
        // Without a heartbeat the wait has no timeout of its own; under a
        // watchdog an idle loop must still wake to send its keep-alive.
        timeval timeout = {.tv_sec = static_cast<time_t>(sliceUs / 1000000u),
                           .tv_usec = static_cast<suseconds_t>(sliceUs % 1000000u)};
        platformSys.select(m.fdDaemon + 1, &readSet, nullptr, nullptr, &timeout);
    } else {
        platformSys.select(m.fdDaemon + 1, &readSet, nullptr, nullptr, nullptr);
    }
    if (!FD_ISSET(m.fdDaemon, &readSet)) {
        return;
    }

    // Only a whole record is trusted; anything shorter is dropped silently.
    ssize_t n = platformSys.read(m.fdDaemon, &m.record, sizeof m.record);
    if (n != static_cast<ssize_t>(sizeof m.record)) {
        return;
    }
    // A link closed at run time (the board dropped off the bus, a re-open that
    // found no node) heals here, between requests, never inside one; only a
    // request for the microcontroller tries, so host-held ones stay as they are.
    if (usbMgmtUsesLink(m.record.cmd[QX_REPORT_CODE])) {
        qxUsbHeal();
    }
    m.record.result = usbMgmtCmd(m.record.cmd, m.record.resp);
    mainFifoReply(m.record, m.fdClient);
    // A stop held back by a flash ends the process once its client has the
    // answer, before anything queued behind it is read.
    if (const int sig = flashGuardStopDue(); sig != 0) {
        mainCarryOutStop(sig);
    }
}

void mainLoopSetRequestFd(int fd)
{
    mainPrivateMembers.fdDaemon = fd;
    mainPrivateMembers.lastTick = 0;
    mainFifoSetRequest(fd);
}
