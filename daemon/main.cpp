// The daemon core: command line, daemon start, signals and crash log, the
// request FIFO and the request loop.
#include "main.h"

#include "daemonLib.h"
#include "daemonNotify.h"
#include "evmLog.h"
#include "qxUsb.h"
#include "scsiCtrl.h"
#include "seamFd.h"
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
#include <grp.h>
#include <string_view>
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

// Group names of 1 to 32 characters, as groupadd makes them; n - 1 taken
// unsigned, like the firmware file name's check.
constexpr size_t MAIN_GROUP_NAME_SIZE = 33;
constexpr uint32_t MAIN_GROUP_NAME_MAX_MINUS_ONE = 31;
// Without --fifo-group every local account writes requests (the protocol's
// mode); with it only root and the group's members, who cannot read other
// clients' records out of it.
constexpr mode_t MAIN_FIFO_MODE_OPEN = 0666;
constexpr mode_t MAIN_FIFO_MODE_GROUP = 0620;
// Made anew at most this often when the path keeps being swapped under us.
constexpr int MAIN_FIFO_TRIES = 3;
constexpr size_t MAIN_GROUP_BUF_SIZE = 16384;

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
    evm_log(0, MAIN_SOURCE, __LINE__, "platform input: %s", name);
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

// What was found at the request FIFO's path, in words for the log.
const char *__mainNodeKind(mode_t mode)
{
    return S_ISFIFO(mode)   ? "a FIFO"
           : S_ISLNK(mode)  ? "a symbolic link"
           : S_ISREG(mode)  ? "a regular file"
           : S_ISDIR(mode)  ? "a directory"
           : S_ISSOCK(mode) ? "a socket"
                            : "a device node";
}

// The group the request FIFO is given: --fifo-group's, else the service's own.
int32_t __mainFifoGroupId(gid_t &gid)
{
    auto &m = mainPrivateMembers;
    if (!m.fifoGroupGiven) {
        gid = getegid();
        return 0;
    }
    // Start-up only: the lookup may allocate (NSS); the loop never repeats it.
    std::array<char, MAIN_GROUP_BUF_SIZE> buf;
    group entry = {};
    group *found = nullptr;
    if (m.fifoGroupRefused || getgrnam_r(m.fifoGroup, &entry, buf.data(), buf.size(), &found) != 0 ||
        found == nullptr) {
        evm_log(0, MAIN_SOURCE, __LINE__, "%s: no group '%s' to give it to", USB_DAEMON_FIFO,
                m.fifoGroupRefused ? "" : m.fifoGroup);
        return -1;
    }
    gid = found->gr_gid;
    return 0;
}

// Anything at the path but the service's own FIFO is not trusted: removed, so
// that a fresh one is made. False after saying why it could not be.
bool __mainRemoveFound(const struct stat &st)
{
    evm_log(0, MAIN_SOURCE, __LINE__, "%s: found %s owned by uid %u (mode %04o), not the service's own FIFO; made anew",
            USB_DAEMON_FIFO, __mainNodeKind(st.st_mode), static_cast<unsigned>(st.st_uid),
            static_cast<unsigned>(st.st_mode & 07777));
    int rc = S_ISDIR(st.st_mode) ? rmdir(USB_DAEMON_FIFO) : unlink(USB_DAEMON_FIFO);
    if (rc != 0 && errno != ENOENT) {
        evm_log(0, MAIN_SOURCE, __LINE__, "%s: cannot remove it: %s", USB_DAEMON_FIFO, strerror(errno));
        return false;
    }
    return true;
}

// The read end of a FIFO that the service made and owns. The node is judged
// on the descriptor (opened without following a link), so a swap of the path
// between a look at it and the open is caught; a path that keeps changing
// under the service ends start-up.
int32_t __mainOpenOwnFifo(uniqueFd &reader)
{
    for (int tries = 0; tries < MAIN_FIFO_TRIES; ++tries) {
        // Made closed: nobody else opens it before its group and mode are set.
        mode_t oldMask = umask(0);
        int rc = mkfifo(USB_DAEMON_FIFO, 0600);
        int err = errno;
        umask(oldMask);
        if (rc != 0 && err != EEXIST) {
            evm_log(0, MAIN_SOURCE, __LINE__, "Error creating USB_DAEMON_FIFO: %s", strerror(err));
            return -1;
        }
        // Anything but a FIFO is never opened (opening a device node can have
        // side effects), only removed.
        struct stat st = {};
        if (rc != 0 && lstat(USB_DAEMON_FIFO, &st) == 0 && !S_ISFIFO(st.st_mode)) {
            if (!__mainRemoveFound(st)) {
                return -1;
            }
            continue;
        }
        reader.reset(open(USB_DAEMON_FIFO, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        if (!reader.valid()) {
            if (errno == ELOOP || errno == ENOENT) {
                continue; // swapped for a link, or removed, meanwhile: look again
            }
            evm_log(0, MAIN_SOURCE, __LINE__, "open %s for reading: %s", USB_DAEMON_FIFO, strerror(errno));
            return -1;
        }
        if (fstat(reader.get(), &st) != 0) {
            evm_log(0, MAIN_SOURCE, __LINE__, "%s: %s", USB_DAEMON_FIFO, strerror(errno));
            return -1;
        }
        if (S_ISFIFO(st.st_mode) && st.st_uid == geteuid()) {
            if (rc != 0) {
                evm_log(0, MAIN_SOURCE, __LINE__, "%s already exist, don't have to create it again!", USB_DAEMON_FIFO);
            }
            return 0;
        }
        // Another account's FIFO: its owner could shut other clients out or
        // read their records and answer them.
        reader.reset();
        if (!__mainRemoveFound(st)) {
            return -1;
        }
    }
    evm_log(0, MAIN_SOURCE, __LINE__, "%s is not a FIFO, giving up", USB_DAEMON_FIFO);
    return -1;
}

int32_t __mainOpenRequestFifo()
{
    auto &m = mainPrivateMembers;
    gid_t gid = 0;
    uniqueFd reader;
    if (__mainFifoGroupId(gid) != 0 || __mainOpenOwnFifo(reader) != 0) {
        return -1;
    }
    // Group and mode go on the descriptor, so they hold for the FIFO served
    // whatever the path names by now, and are set anew at every start, over a
    // FIFO of an earlier run too (one that was left open to everyone included).
    mode_t mode = m.fifoGroupGiven ? MAIN_FIFO_MODE_GROUP : MAIN_FIFO_MODE_OPEN;
    if (fchown(reader.get(), static_cast<uid_t>(-1), gid) != 0 || fchmod(reader.get(), mode) != 0) {
        evm_log(0, MAIN_SOURCE, __LINE__, "%s: cannot set its group and mode: %s", USB_DAEMON_FIFO, strerror(errno));
        return -1;
    }
    // Our own write end keeps the read end from reporting end-of-file between
    // clients. Non-blocking: the read end is open, so it never waits, and a
    // path swapped meanwhile for a FIFO nobody reads fails instead of hanging;
    // it must be the FIFO just opened.
    uniqueFd dummy(open(USB_DAEMON_FIFO, O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat readSt = {};
    struct stat writeSt = {};
    if (!dummy.valid() || fstat(reader.get(), &readSt) != 0 || fstat(dummy.get(), &writeSt) != 0 ||
        readSt.st_ino != writeSt.st_ino || readSt.st_dev != writeSt.st_dev) {
        evm_log(0, MAIN_SOURCE, __LINE__, "open %s for writing: %s", USB_DAEMON_FIFO,
                dummy.valid() ? "another node" : strerror(errno));
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
    if (platformSys.stat(path, &st) == 0 && !S_ISFIFO(st.st_mode)) {
        evm_log(0, MAIN_SOURCE, __LINE__, "fdClient: %d - '%s'", -1, MAIN_REPLY_NOT_FIFO);
        return;
    }
    seamFd client(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    m.fdClient = client.get();
    if (!client.valid()) {
        evm_log(0, MAIN_SOURCE, __LINE__, "fdClient: %d - '%s'", m.fdClient, strerror(errno));
        return;
    }
    if (platformSys.fstat(client.get(), &st) != 0 || !S_ISFIFO(st.st_mode)) {
        m.fdClient = -1;
        evm_log(0, MAIN_SOURCE, __LINE__, "fdClient: %d - '%s'", -1, MAIN_REPLY_NOT_FIFO);
        return;
    }
    if (platformSys.write(client.get(), &m.record, sizeof m.record) == -1) {
        evm_log(0, MAIN_SOURCE, __LINE__, "tarnhold:main: write - '%s'", strerror(errno));
    }
    // Cleared before the close so the exit handler never closes it twice.
    m.fdClient = -1;
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
// start-up so that no library is loaded here.
void signal_exit_handler(int sig)
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

    if (__mainInstallSignals() != 0 || __mainOpenRequestFifo() != 0) {
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
    m.fdDaemon = requestFd;
    m.lastTick = 0;
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
    __mainReply();
}

void mainLoopSetRequestFd(int fd)
{
    mainPrivateMembers.fdDaemon = fd;
    mainPrivateMembers.lastTick = 0;
}
