// Client side of the request FIFO.
#include "tarnholdClient.h"

#include "uniqueFd.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <grp.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *TARNHOLD_CLIENT_DIR_PATTERN = "%s/tarnhold-client.XXXXXX";
constexpr const char *TARNHOLD_CLIENT_FIFO_NAME = "reply";
constexpr size_t TARNHOLD_CLIENT_ERROR_SIZE = 256;
constexpr size_t TARNHOLD_CLIENT_PATH_SIZE = 256;

struct {
    char lastError[TARNHOLD_CLIENT_ERROR_SIZE] = {};
    const tarnholdClientParams *params = nullptr; // of the exchange under way, for its progress calls
    uint64_t startMs = 0;
} tarnholdClientPrivateMembers;

uint64_t __tarnholdClientMonotonicMs()
{
    timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

// NOLINTNEXTLINE(cert-dcl50-cpp): printf-like so that the compiler checks every format; a pack would not be
__attribute__((format(printf, 2, 3))) int __tarnholdClientFail(int rc, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    vsnprintf(tarnholdClientPrivateMembers.lastError, TARNHOLD_CLIENT_ERROR_SIZE, format, ap);
    va_end(ap);
    return rc;
}

// The private directory and the reply FIFO in it, removed on every path.
class __tarnholdClientReplyFifo {
public:
    __tarnholdClientReplyFifo() = default;
    __tarnholdClientReplyFifo(const __tarnholdClientReplyFifo &) = delete;
    __tarnholdClientReplyFifo &operator=(const __tarnholdClientReplyFifo &) = delete;
    ~__tarnholdClientReplyFifo()
    {
        if (fifoMade_) {
            unlink(fifo_.data());
        }
        if (dirMade_) {
            rmdir(dir_.data());
        }
    }

    // 0 or a negative errno (with the error text set).
    int make(const char *tmpDir)
    {
        int n = snprintf(dir_.data(), dir_.size(), TARNHOLD_CLIENT_DIR_PATTERN, tmpDir);
        if (n < 0 || static_cast<size_t>(n) >= dir_.size()) {
            return __tarnholdClientFail(-ENAMETOOLONG, "temporary directory name too long: %s", tmpDir);
        }
        if (mkdtemp(dir_.data()) == nullptr) { // mode 0700: only we (and root) reach the FIFO
            int err = errno;
            return __tarnholdClientFail(-err, "cannot make a directory in %s: %s", tmpDir, strerror(err));
        }
        dirMade_ = true;
        n = snprintf(fifo_.data(), fifo_.size(), "%s/%s", dir_.data(), TARNHOLD_CLIENT_FIFO_NAME);
        // The daemon reads the path only within the record's field.
        if (n < 0 || static_cast<size_t>(n) >= USB_DAEMON_CLIENT_FIFO_SIZE) {
            return __tarnholdClientFail(-ENAMETOOLONG, "reply FIFO path longer than %zu bytes: %s",
                                        USB_DAEMON_CLIENT_FIFO_SIZE - 1, dir_.data());
        }
        if (mkfifo(fifo_.data(), 0600) != 0) {
            int err = errno;
            return __tarnholdClientFail(-err, "cannot make the reply FIFO %s: %s", fifo_.data(), strerror(err));
        }
        fifoMade_ = true;
        return 0;
    }
    const char *path() const { return fifo_.data(); }

private:
    std::array<char, TARNHOLD_CLIENT_PATH_SIZE> dir_ = {};
    std::array<char, TARNHOLD_CLIENT_PATH_SIZE> fifo_ = {};
    bool dirMade_ = false;
    bool fifoMade_ = false;
};

// What is left of the deadline, never negative.
int __tarnholdClientRemainingMs(uint64_t deadline)
{
    uint64_t now = tarnholdClientSys.monotonicMs();
    return now >= deadline ? 0 : static_cast<int>(deadline - now);
}

// Waits for `events` on fd: 1 ready (revents set), 0 timed out, or a negative errno.
int __tarnholdClientWait(int fd, short events, uint64_t deadline, short &revents)
{
    const tarnholdClientParams *params = tarnholdClientPrivateMembers.params;
    const bool progress = params != nullptr && params->progress != nullptr;
    for (;;) {
        pollfd pfd = {.fd = fd, .events = events, .revents = 0};
        int waitMs = __tarnholdClientRemainingMs(deadline);
        if (progress) {
            waitMs = waitMs < TARNHOLD_CLIENT_PROGRESS_MS ? waitMs : TARNHOLD_CLIENT_PROGRESS_MS;
        }
        int rc = tarnholdClientSys.poll(&pfd, 1, waitMs);
        if (rc > 0) {
            revents = pfd.revents;
            return 1;
        }
        if (rc == 0 && progress && __tarnholdClientRemainingMs(deadline) > 0) {
            const uint64_t elapsedMs = tarnholdClientSys.monotonicMs() - tarnholdClientPrivateMembers.startMs;
            params->progress(params->progressCtx, elapsedMs);
            continue;
        }
        if (rc == 0) {
            return 0;
        }
        if (errno != EINTR) {
            return -errno;
        }
    }
}

// One write of the whole record. SIGPIPE is held back meanwhile so that a
// daemon that goes away gives EPIPE here instead of ending the caller.
ssize_t __tarnholdClientWriteRecord(int fd, const usbDaemonRequest &record)
{
    sigset_t pipeSet;
    sigset_t oldSet;
    sigemptyset(&pipeSet);
    sigaddset(&pipeSet, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSet, &oldSet);
    sigset_t pending;
    sigpending(&pending);
    bool wasPending = sigismember(&pending, SIGPIPE) == 1;

    ssize_t n = write(fd, &record, sizeof record);
    int err = errno;
    if (n < 0 && err == EPIPE && !wasPending) {
        const timespec zero = {};
        while (sigtimedwait(&pipeSet, nullptr, &zero) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &oldSet, nullptr);
    errno = err;
    return n;
}

// Refused at the open: who may send requests, and how one is let in.
int __tarnholdClientDenied(const char *requestFifo)
{
    struct stat st = {};
    char name[64];
    char buf[4096];
    group entry = {};
    group *found = nullptr;
    if (stat(requestFifo, &st) == 0 && getgrgid_r(st.st_gid, &entry, buf, sizeof buf, &found) != 0) {
        found = nullptr;
    }
    if (found != nullptr) {
        snprintf(name, sizeof name, "%s", found->gr_name);
    } else {
        snprintf(name, sizeof name, "%u", static_cast<unsigned>(st.st_gid));
    }
    return __tarnholdClientFail(-EACCES,
                                "permission denied: only root and members of group %s may send requests to %s; "
                                "an administrator grants it with: usermod -aG %s USER (then log in again)",
                                name, requestFifo, name);
}

// -EPERM: a FIFO at the request path that is not the service's.
int __tarnholdClientSend(const usbDaemonRequest &record, const char *requestFifo, int replyFd, uint64_t deadline)
{
    uniqueFd request(open(requestFifo, O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!request.valid()) {
        int err = errno;
        if (err == ENXIO) {
            return __tarnholdClientFail(-ENXIO, "no daemon reads %s", requestFifo);
        }
        if (err == ENOENT) {
            return __tarnholdClientFail(-ENOENT, "no daemon: %s does not exist", requestFifo);
        }
        if (err == EACCES) {
            return __tarnholdClientDenied(requestFifo);
        }
        if (err == ELOOP) {
            return __tarnholdClientFail(-EPERM, "%s is a symbolic link, not the service's FIFO: nothing sent",
                                        requestFifo);
        }
        return __tarnholdClientFail(-err, "cannot open %s: %s", requestFifo, strerror(err));
    }
    struct stat st = {};
    if (fstat(request.get(), &st) != 0 || !S_ISFIFO(st.st_mode)) {
        return __tarnholdClientFail(-EINVAL, "%s is not a FIFO", requestFifo);
    }
    if (st.st_uid != TARNHOLD_CLIENT_SERVICE_UID) {
        return __tarnholdClientFail(-EPERM,
                                    "%s belongs to uid %u, not to the service's account: nothing sent (an "
                                    "administrator removes it and restarts tarnhold)",
                                    requestFifo, static_cast<unsigned>(st.st_uid));
    }
    // With a group of its own the service writes replies only into FIFOs of
    // root or of its members: the group on the reply FIFO shows membership
    // (only a member may give it). Not a member: left as it is.
    if (st.st_gid != getegid() && fchown(replyFd, static_cast<uid_t>(-1), st.st_gid) != 0 && errno != EPERM) {
        int err = errno;
        return __tarnholdClientFail(-err, "cannot give the reply FIFO group %u: %s", static_cast<unsigned>(st.st_gid),
                                    strerror(err));
    }
    for (;;) {
        ssize_t n = __tarnholdClientWriteRecord(request.get(), record);
        if (n == static_cast<ssize_t>(sizeof record)) {
            return 0;
        }
        int err = n < 0 ? errno : EIO;
        if (err == EPIPE) {
            return __tarnholdClientFail(-ENXIO, "no daemon reads %s any more", requestFifo);
        }
        if (err != EAGAIN && err != EINTR) {
            return __tarnholdClientFail(-err, "cannot write to %s: %s", requestFifo, strerror(err));
        }
        // The FIFO is full: the daemon is busy with a long request.
        short revents = 0;
        int rc = __tarnholdClientWait(request.get(), POLLOUT, deadline, revents);
        if (rc == 0) {
            return __tarnholdClientFail(-ETIMEDOUT, "timed out: %s stays full", requestFifo);
        }
        if (rc < 0) {
            return __tarnholdClientFail(rc, "poll: %s", strerror(-rc));
        }
    }
}

int __tarnholdClientReceive(int fd, usbDaemonRequest &reply, uint64_t deadline)
{
    size_t got = 0;
    auto *bytes = reinterpret_cast<uint8_t *>(&reply);
    while (got < sizeof reply) {
        short revents = 0;
        int rc = __tarnholdClientWait(fd, POLLIN, deadline, revents);
        if (rc == 0) {
            return __tarnholdClientFail(-ETIMEDOUT, "timed out waiting for the reply");
        }
        if (rc < 0) {
            return __tarnholdClientFail(rc, "poll: %s", strerror(-rc));
        }
        ssize_t n = read(fd, bytes + got, sizeof reply - got);
        if (n > 0) {
            got += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            continue;
        }
        if (n < 0) {
            int err = errno;
            return __tarnholdClientFail(-err, "cannot read the reply: %s", strerror(err));
        }
        // End of file: the daemon's writer came and went without a whole record.
        return __tarnholdClientFail(-EPROTO, "the reply FIFO closed after %zu of %zu bytes", got, sizeof reply);
    }
    return 0;
}

} // namespace

const tarnholdClientSysOps TARNHOLD_CLIENT_SYS_LIBC = {
    .poll = ::poll,
    .monotonicMs = __tarnholdClientMonotonicMs,
};

tarnholdClientSysOps tarnholdClientSys = TARNHOLD_CLIENT_SYS_LIBC;

int tarnholdClientExchange(usbDaemonRequest &record, const tarnholdClientParams &params)
{
    tarnholdClientPrivateMembers.lastError[0] = '\0';
    tarnholdClientPrivateMembers.startMs = tarnholdClientSys.monotonicMs();
    uint64_t deadline =
        tarnholdClientPrivateMembers.startMs + static_cast<uint64_t>(params.timeoutMs < 0 ? 0 : params.timeoutMs);

    __tarnholdClientReplyFifo replyFifo;
    int rc = replyFifo.make(params.tmpDir);
    if (rc != 0) {
        return rc;
    }
    // Open for reading before the request goes out: the daemon's non-blocking
    // open of the reply FIFO fails while nobody reads it.
    uniqueFd reply(open(replyFifo.path(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!reply.valid()) {
        int err = errno;
        return __tarnholdClientFail(-err, "cannot open %s: %s", replyFifo.path(), strerror(err));
    }

    usbDaemonRequest out = record;
    memset(out.clientFifo, 0, sizeof out.clientFifo);
    memcpy(out.clientFifo, replyFifo.path(), strlen(replyFifo.path()));
    out.result = 0;
    rc = __tarnholdClientSend(out, params.requestFifo, reply.get(), deadline);
    if (rc != 0) {
        return rc;
    }
    usbDaemonRequest in = {};
    tarnholdClientPrivateMembers.params = &params;
    rc = __tarnholdClientReceive(reply.get(), in, deadline);
    tarnholdClientPrivateMembers.params = nullptr;
    if (rc != 0) {
        return rc;
    }
    record = in;
    return 0;
}

const char *tarnholdClientLastError() { return tarnholdClientPrivateMembers.lastError; }

bool tarnholdClientIsNoDaemon(int rc) { return rc == -ENOENT || rc == -ENXIO; }
