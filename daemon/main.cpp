// The daemon core: command line, daemon start, signals and crash log, the
// request FIFO and the request loop.
#include "main.h"

#include "daemonLib.h"
#include "evmLog.h"
#include "qxUsb.h"
#include "scsiCtrl.h"
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
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

void signal_exit_handler(int sig);
void signal_pipe_handler(int sig);

const mainHeartbeatOps MAIN_HEARTBEAT_NONE = {
    .intervalSec = [] { return uint32_t{0}; },
    .beep = [] {},
};

const mainHeartbeatOps MAIN_HEARTBEAT_SCSI_CTRL = {
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
constexpr const char *MAIN_REPLY_NOT_FIFO = "not a FIFO";
constexpr const char *MAIN_DAEMON_WORD = "--daemon";

constexpr char MAIN_PIPE_LINE[] = "signal_pipe_handler():: retry!\n";
static_assert(sizeof MAIN_PIPE_LINE - 1 == 31);

// Installed in this order; the first failure stops start-up.
constexpr std::array<int, 9> MAIN_EXIT_SIGNALS = {SIGINT, SIGHUP, SIGQUIT, SIGILL, SIGABRT,
                                                  SIGBUS, SIGFPE, SIGSEGV, SIGTERM};
static_assert(SIGINT == 2 && SIGHUP == 1 && SIGQUIT == 3 && SIGILL == 4 && SIGABRT == 6 && SIGBUS == 7 &&
              SIGFPE == 8 && SIGSEGV == 11 && SIGTERM == 15 && SIGPIPE == 13);

enum mainOption : int { MAIN_OPT_FILE = 1, MAIN_OPT_HELP, MAIN_OPT_DAEMON };

constexpr std::array<option, 4> MAIN_OPTIONS = {{
    {"file", required_argument, nullptr, MAIN_OPT_FILE},
    {"help", no_argument, nullptr, MAIN_OPT_HELP},
    {"daemon", no_argument, nullptr, MAIN_OPT_DAEMON},
    {nullptr, 0, nullptr, 0},
}};

struct {
    // Plain descriptors, not uniqueFd: the exit handler closes them itself and
    // then calls exit, which must not close them a second time.
    int fdDaemon = -1;
    int fdDummy = -1;
    int fdClient = -1;
    char fileName[MAIN_FILE_NAME_SIZE] = {};
    bool fileSelected = false;
    bool detach = false; // --daemon or an abbreviation of it was given
    uint64_t lastTick = 0;
    usbDaemonRequest record = {};
} mainPrivateMembers;

void tarnholdUsage(const char *argv0)
{
    fprintf(stderr, "Usage: %s --%s \n", argv0, "daemon");
    fprintf(stderr, "\t %s --%s \n", argv0, "help");
    fprintf(stderr, "\t %s --%s %s\n", argv0, "file", MAIN_DEFAULT_FIRMWARE);
}

void __mainTakeFileName(const char *name)
{
    auto &m = mainPrivateMembers;
    evm_log(0, MAIN_SOURCE, __LINE__, "platform input: %s", name);
    size_t n = strlen(name);
    // n - 1 taken unsigned: the empty name wraps round and is refused too
    // (an argument holds at most 128 KiB, so no long one wraps back in).
    if (static_cast<uint32_t>(n - 1) > MAIN_FILE_NAME_MAX_MINUS_ONE) {
        evm_log(0, MAIN_SOURCE, __LINE__, "INVALID FILE NAME INPUT");
        return;
    }
    memcpy(m.fileName, name, n);
    m.fileName[n] = '\0';
    m.fileSelected = true;
}

// False when the process is to end now (usage shown). getopt's own line
// about a bad option comes before the usage text.
bool __mainParseOptions(int argc, char **argv)
{
    int opt;
    while ((opt = getopt_long(argc, argv, "", MAIN_OPTIONS.data(), nullptr)) != -1) {
        switch (opt) {
        case MAIN_OPT_FILE:
            __mainTakeFileName(optarg);
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
    action.sa_flags = 0; // no restart: the loop's wait simply ends and the next pass starts
    for (int sig : MAIN_EXIT_SIGNALS) {
        if (sigaction(sig, &action, nullptr) != 0) {
            evm_log(0, MAIN_SOURCE, __LINE__, "sigaction: %s", strerror(errno));
            return -1;
        }
    }
    action.sa_handler = signal_pipe_handler;
    if (sigaction(SIGPIPE, &action, nullptr) != 0) {
        evm_log(0, MAIN_SOURCE, __LINE__, "sigaction(PIPE): %s", strerror(errno));
        return -1;
    }
    return 0;
}

int32_t __mainOpenRequestFifo()
{
    auto &m = mainPrivateMembers;
    // The FIFO must be 0666 whatever umask the daemon was started with; a
    // chmod after creation would race with a swap of the path in /tmp.
    mode_t oldMask = umask(0);
    int rc = mkfifo(USB_DAEMON_FIFO, 0666);
    int err = errno;
    umask(oldMask);
    if (rc != 0) {
        if (err != EEXIST) {
            evm_log(0, MAIN_SOURCE, __LINE__, "Error creating USB_DAEMON_FIFO: %s", strerror(err));
            return -1;
        }
        evm_log(0, MAIN_SOURCE, __LINE__, "%s already exist, don't have to create it again!", USB_DAEMON_FIFO);
    }

    // Whatever was found at the path must be a FIFO itself, not a file, a
    // device or a symbolic link to one.
    struct stat st = {};
    if (lstat(USB_DAEMON_FIFO, &st) != 0) {
        evm_log(0, MAIN_SOURCE, __LINE__, "%s: %s", USB_DAEMON_FIFO, strerror(errno));
        return -1;
    }
    if (!S_ISFIFO(st.st_mode)) {
        evm_log(0, MAIN_SOURCE, __LINE__, "%s is not a FIFO, giving up", USB_DAEMON_FIFO);
        return -1;
    }
    // A failed open stops start-up like the other failures.
    uniqueFd reader(open(USB_DAEMON_FIFO, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!reader.valid()) {
        evm_log(0, MAIN_SOURCE, __LINE__, "open %s for reading: %s", USB_DAEMON_FIFO, strerror(errno));
        return -1;
    }
    // Our own write end keeps the read end from reporting end-of-file between
    // clients; the open does not block since the read end is open.
    uniqueFd dummy(open(USB_DAEMON_FIFO, O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!dummy.valid()) {
        evm_log(0, MAIN_SOURCE, __LINE__, "open %s for writing: %s", USB_DAEMON_FIFO, strerror(errno));
        return -1;
    }
    m.fdDaemon = reader.release();
    m.fdDummy = dummy.release();
    return 0;
}

// The reply goes only into a FIFO named within the record's field; anything
// else loses the reply with the "fdClient" line.
void __mainReply()
{
    auto &m = mainPrivateMembers;
    const char *path = m.record.clientFifo;
    // The path is read only within its field: without a NUL there, no reply.
    if (memchr(path, '\0', sizeof m.record.clientFifo) == nullptr) {
        evm_log(0, MAIN_SOURCE, __LINE__, "fdClient: %d - '%s'", -1, strerror(ENAMETOOLONG));
        return;
    }
    // Anything but a FIFO is never opened (opening a device node can have side
    // effects); the open is checked again after, so a swap of the path in
    // between still cannot redirect the reply. O_NOCTTY: a terminal named here
    // never becomes the daemon's controlling terminal.
    struct stat st = {};
    if (stat(path, &st) == 0 && !S_ISFIFO(st.st_mode)) {
        evm_log(0, MAIN_SOURCE, __LINE__, "fdClient: %d - '%s'", -1, MAIN_REPLY_NOT_FIFO);
        return;
    }
    uniqueFd client(open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    m.fdClient = client.get();
    if (!client.valid()) {
        evm_log(0, MAIN_SOURCE, __LINE__, "fdClient: %d - '%s'", m.fdClient, strerror(errno));
        return;
    }
    if (fstat(client.get(), &st) != 0 || !S_ISFIFO(st.st_mode)) {
        m.fdClient = -1;
        evm_log(0, MAIN_SOURCE, __LINE__, "fdClient: %d - '%s'", -1, MAIN_REPLY_NOT_FIFO);
        return;
    }
    if (write(client.get(), &m.record, sizeof m.record) == -1) {
        evm_log(0, MAIN_SOURCE, __LINE__, "tarnhold:main: write - '%s'", strerror(errno));
    }
    // Cleared before the close so the exit handler never closes it twice.
    m.fdClient = -1;
}

} // namespace

// Ends the process on the exit set of signals. It formats text, writes a file
// and calls exit inside a handler; the backtrace machinery was loaded at
// start-up so that no library is loaded here.
void signal_exit_handler(int sig)
{
    auto &m = mainPrivateMembers;
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
    memset(m.fileName, 0, sizeof m.fileName);
    m.fileSelected = false;
    m.detach = false;
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

    if (__mainInstallSignals() != 0 || __mainOpenRequestFifo() != 0) {
        return __mainStartupFailed();
    }
    printf("fdDaemon: %d, fdDummy: %d\n", m.fdDaemon, m.fdDummy);
    fflush(stdout);

    if (usbMgmtInit(m.fileSelected ? m.fileName : nullptr) != 0) {
        evm_log(0, MAIN_SOURCE, __LINE__, "usbMgmtInit: failed");
        return __mainStartupFailed();
    }
    // A missing controller, or no udev, only means no heartbeat.
    scsiCtrlInit();
    mainHeartbeat = MAIN_HEARTBEAT_SCSI_CTRL;

    for (;;) {
        mainLoopPass();
    }
}

void mainLoopPass()
{
    auto &m = mainPrivateMembers;
    fd_set readSet;
    FD_ZERO(&readSet);
    FD_SET(m.fdDaemon, &readSet);

    // Asked afresh on every pass: the heartbeat may come and go.
    uint32_t interval = mainHeartbeat.intervalSec();
    if (interval != 0) {
        timeval timeout = {.tv_sec = static_cast<time_t>(interval), .tv_usec = MAIN_WAIT_SLACK_US};
        platformSys.select(m.fdDaemon + 1, &readSet, nullptr, nullptr, &timeout);
        // Whatever ended the wait: at most one beat per wall-clock second.
        uint64_t now = getMsSince1970() / 1000;
        if (now != m.lastTick) {
            mainHeartbeat.beep();
            m.lastTick = now;
        }
    } else {
        platformSys.select(m.fdDaemon + 1, &readSet, nullptr, nullptr, nullptr);
    }
    if (!FD_ISSET(m.fdDaemon, &readSet)) {
        return;
    }

    // Only a whole record is trusted; anything shorter is dropped silently.
    ssize_t n = read(m.fdDaemon, &m.record, sizeof m.record);
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
    __mainReply();
}

void mainLoopSetRequestFd(int fd)
{
    mainPrivateMembers.fdDaemon = fd;
    mainPrivateMembers.lastTick = 0;
}
