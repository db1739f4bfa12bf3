// The request FIFO's making and the replies' rules. The service is root:
// every path a client names is judged on the descriptor it opens, and nothing
// a client could place at the FIFO's path keeps the service from starting.
#include "mainFifo.h"

#include "evmLog.h"
#include "seamFd.h"
#include "sysSeam.h"
#include "uniqueFd.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *MAIN_FIFO_SOURCE = "main";
// Without --fifo-group every local account writes requests (the protocol's
// mode); with it only root and the group's members, who cannot read other
// clients' records out of it.
constexpr mode_t MAIN_FIFO_MODE_OPEN = 0666;
constexpr mode_t MAIN_FIFO_MODE_GROUP = 0620;
// The FIFO is made aside under this name and a random suffix, then put in place.
constexpr char MAIN_FIFO_ASIDE_FORMAT[] = "%s.%s";
constexpr size_t MAIN_FIFO_SUFFIX_LEN = 8;
constexpr int MAIN_FIFO_ASIDE_TRIES = 16;
// Swaps at the path that undo one another this often in a row end start-up.
constexpr int MAIN_FIFO_PLACE_TRIES = 64;
constexpr size_t MAIN_FIFO_GROUP_BUF_SIZE = 16384;
// Members remembered for the reply rule; more are looked up again.
constexpr size_t MAIN_FIFO_MEMBERS_MAX = 256;
constexpr const char *MAIN_FIFO_GROUP_FILE = "/etc/group";
constexpr const char *MAIN_FIFO_PASSWD_FILE = "/etc/passwd";
constexpr const char *MAIN_FIFO_NOT_FIFO = "not a FIFO";

struct mainFifoStamp {
    dev_t dev = 0;
    ino_t ino = 0;
    timespec mtime = {};
    bool operator==(const mainFifoStamp &o) const
    {
        return dev == o.dev && ino == o.ino && mtime.tv_sec == o.mtime.tv_sec && mtime.tv_nsec == o.mtime.tv_nsec;
    }
};

struct {
    bool grouped = false;
    char groupName[64] = {};
    gid_t gid = 0;
    // Who is in the group: its member list and the accounts whose own group it is.
    std::array<uid_t, MAIN_FIFO_MEMBERS_MAX> members = {};
    size_t memberCount = 0;
    // The account files the list was made from: a change makes it anew.
    mainFifoStamp groupStamp, passwdStamp;
    // The request FIFO's node: never a reply's.
    dev_t requestDev = 0;
    ino_t requestIno = 0;
    bool requestKnown = false;
} mainFifoPrivateMembers;

// What was found at a path, in words for the log.
const char *__mainFifoNodeKind(mode_t mode)
{
    return S_ISFIFO(mode)   ? "a FIFO"
           : S_ISLNK(mode)  ? "a symbolic link"
           : S_ISREG(mode)  ? "a regular file"
           : S_ISDIR(mode)  ? "a directory"
           : S_ISSOCK(mode) ? "a socket"
                            : "a device node";
}

mainFifoStamp __mainFifoStampOf(const char *path)
{
    struct stat st = {};
    mainFifoStamp s;
    if (::stat(path, &st) == 0) {
        s = {st.st_dev, st.st_ino, st.st_mtim};
    }
    return s;
}

void __mainFifoAddMember(uid_t uid)
{
    auto &m = mainFifoPrivateMembers;
    if (m.memberCount < m.members.size()) {
        m.members[m.memberCount++] = uid;
    }
}

// The group's members by uid: its member list, and every account whose own
// group it is. Made at start-up and again only when the account files change.
void __mainFifoLoadMembers()
{
    auto &m = mainFifoPrivateMembers;
    m.memberCount = 0;
    m.groupStamp = __mainFifoStampOf(MAIN_FIFO_GROUP_FILE);
    m.passwdStamp = __mainFifoStampOf(MAIN_FIFO_PASSWD_FILE);
    std::array<char, MAIN_FIFO_GROUP_BUF_SIZE> buf;
    group entry = {};
    group *found = nullptr;
    if (getgrgid_r(m.gid, &entry, buf.data(), buf.size(), &found) == 0 && found != nullptr) {
        for (char **name = found->gr_mem; *name != nullptr; ++name) {
            std::array<char, MAIN_FIFO_GROUP_BUF_SIZE> pwBuf;
            passwd pw = {};
            passwd *account = nullptr;
            if (getpwnam_r(*name, &pw, pwBuf.data(), pwBuf.size(), &account) == 0 && account != nullptr) {
                __mainFifoAddMember(account->pw_uid);
            }
        }
    }
    setpwent();
    while (passwd *account = getpwent()) {
        if (account->pw_gid == m.gid) {
            __mainFifoAddMember(account->pw_uid);
        }
    }
    endpwent();
}

bool __mainFifoIsMember(uid_t uid)
{
    auto &m = mainFifoPrivateMembers;
    for (int pass = 0; pass < 2; ++pass) {
        for (size_t i = 0; i < m.memberCount; ++i) {
            if (m.members[i] == uid) {
                return true;
            }
        }
        // A member added since (usermod -aG) counts once the files say so.
        if (pass == 0 && (!(__mainFifoStampOf(MAIN_FIFO_GROUP_FILE) == m.groupStamp) ||
                          !(__mainFifoStampOf(MAIN_FIFO_PASSWD_FILE) == m.passwdStamp))) {
            __mainFifoLoadMembers();
        } else {
            break;
        }
    }
    return false;
}

// Moves what is at the FIFO's path out of the way: exchanged with the FIFO
// made aside, so the path is never empty and nothing in the found thing is
// followed or opened. 1 when there was nothing to move.
int __mainFifoPlace(const char *aside)
{
    for (int tries = 0; tries < MAIN_FIFO_PLACE_TRIES; ++tries) {
        if (renameat2(AT_FDCWD, aside, AT_FDCWD, USB_DAEMON_FIFO, RENAME_NOREPLACE) == 0) {
            return 1;
        }
        if (errno != EEXIST) {
            evm_log(0, MAIN_FIFO_SOURCE, __LINE__, "Error creating USB_DAEMON_FIFO: %s", strerror(errno));
            return -1;
        }
        struct stat st = {};
        const bool seen = lstat(USB_DAEMON_FIFO, &st) == 0;
        if (renameat2(AT_FDCWD, aside, AT_FDCWD, USB_DAEMON_FIFO, RENAME_EXCHANGE) == 0) {
            evm_log(0, MAIN_FIFO_SOURCE, __LINE__,
                    "%s: found %s owned by uid %u (mode %04o), not the service's own FIFO; moved to %s",
                    USB_DAEMON_FIFO, seen ? __mainFifoNodeKind(st.st_mode) : "something",
                    static_cast<unsigned>(st.st_uid), static_cast<unsigned>(st.st_mode & 07777), aside);
            return 0;
        }
        if (errno != ENOENT) {
            evm_log(0, MAIN_FIFO_SOURCE, __LINE__, "Error creating USB_DAEMON_FIFO: %s", strerror(errno));
            return -1;
        }
    }
    evm_log(0, MAIN_FIFO_SOURCE, __LINE__, "%s keeps changing under the service, giving up", USB_DAEMON_FIFO);
    return -1;
}

// A fresh FIFO of the service's own under a name beside the path, both ends
// open; closed to everyone (0600) until its group and mode are set.
int32_t __mainFifoMakeAside(char (&aside)[64], uniqueFd &reader, uniqueFd &writer)
{
    for (int tries = 0; tries < MAIN_FIFO_ASIDE_TRIES; ++tries) {
        std::array<unsigned char, MAIN_FIFO_SUFFIX_LEN> noise = {};
        if (getrandom(noise.data(), noise.size(), 0) != static_cast<ssize_t>(noise.size())) {
            evm_log(0, MAIN_FIFO_SOURCE, __LINE__, "Error creating USB_DAEMON_FIFO: %s", strerror(errno));
            return -1;
        }
        char suffix[MAIN_FIFO_SUFFIX_LEN + 1];
        for (size_t i = 0; i < noise.size(); ++i) {
            suffix[i] = "abcdefghijklmnopqrstuvwxyz012345"[noise[i] % 32];
        }
        suffix[MAIN_FIFO_SUFFIX_LEN] = '\0';
        snprintf(aside, sizeof aside, MAIN_FIFO_ASIDE_FORMAT, USB_DAEMON_FIFO, suffix);
        const mode_t oldMask = umask(0);
        const int rc = mkfifo(aside, 0600);
        const int err = errno;
        umask(oldMask);
        if (rc != 0 && err == EEXIST) {
            continue;
        }
        if (rc != 0) {
            evm_log(0, MAIN_FIFO_SOURCE, __LINE__, "Error creating USB_DAEMON_FIFO: %s", strerror(err));
            return -1;
        }
        // The sticky /tmp keeps others from swapping root's entry; the
        // descriptors are checked all the same.
        reader.reset(open(aside, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        writer.reset(open(aside, O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        struct stat r = {};
        struct stat w = {};
        if (reader.valid() && writer.valid() && fstat(reader.get(), &r) == 0 && fstat(writer.get(), &w) == 0 &&
            S_ISFIFO(r.st_mode) && r.st_uid == geteuid() && r.st_ino == w.st_ino && r.st_dev == w.st_dev) {
            return 0;
        }
        evm_log(0, MAIN_FIFO_SOURCE, __LINE__, "open %s: %s", aside, reader.valid() && writer.valid() ? "another node" : strerror(errno));
        unlink(aside);
        return -1;
    }
    evm_log(0, MAIN_FIFO_SOURCE, __LINE__, "Error creating USB_DAEMON_FIFO: %s", strerror(EEXIST));
    return -1;
}

// The FIFO an earlier run of the service left at the path, both ends open:
// kept, so clients that already wait on it through a restart are served.
bool __mainFifoOpenOwn(uniqueFd &reader, uniqueFd &writer)
{
    struct stat found = {};
    if (lstat(USB_DAEMON_FIFO, &found) != 0 || !S_ISFIFO(found.st_mode) || found.st_uid != geteuid()) {
        return false;
    }
    reader.reset(open(USB_DAEMON_FIFO, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    writer.reset(open(USB_DAEMON_FIFO, O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat r = {};
    struct stat w = {};
    const bool own = reader.valid() && writer.valid() && fstat(reader.get(), &r) == 0 &&
                     fstat(writer.get(), &w) == 0 && S_ISFIFO(r.st_mode) && r.st_uid == geteuid() &&
                     r.st_ino == found.st_ino && r.st_dev == found.st_dev && w.st_ino == r.st_ino && w.st_dev == r.st_dev;
    if (!own) {
        reader.reset();
        writer.reset();
    }
    return own;
}

void __mainFifoRefuse(const char *path, const char *why)
{
    evm_log(0, MAIN_FIFO_SOURCE, __LINE__, "no reply to '%s': %s", evmLogEscape(path), why);
}

} // namespace

int32_t mainFifoSetGroup(const char *name, bool refused)
{
    auto &m = mainFifoPrivateMembers;
    m.grouped = name != nullptr || refused;
    if (!m.grouped) {
        return 0;
    }
    std::array<char, MAIN_FIFO_GROUP_BUF_SIZE> buf;
    group entry = {};
    group *found = nullptr;
    if (refused || getgrnam_r(name, &entry, buf.data(), buf.size(), &found) != 0 || found == nullptr) {
        evm_log(0, MAIN_FIFO_SOURCE, __LINE__, "%s: no group '%s' to give it to", USB_DAEMON_FIFO,
                refused ? "" : evmLogEscape(name));
        return -1;
    }
    m.gid = found->gr_gid;
    snprintf(m.groupName, sizeof m.groupName, "%s", name);
    __mainFifoLoadMembers();
    return 0;
}

int32_t mainFifoOpen(int &fdDaemon, int &fdDummy)
{
    auto &m = mainFifoPrivateMembers;
    uniqueFd reader;
    uniqueFd writer;
    char aside[64] = {};
    const bool own = __mainFifoOpenOwn(reader, writer);
    if (!own && __mainFifoMakeAside(aside, reader, writer) != 0) {
        return -1;
    }
    // Group and mode go on the descriptor, set anew at every start, over a
    // FIFO of an earlier run too (one that was left open to everyone included).
    const gid_t gid = m.grouped ? m.gid : getegid();
    const mode_t mode = m.grouped ? MAIN_FIFO_MODE_GROUP : MAIN_FIFO_MODE_OPEN;
    if (fchown(reader.get(), static_cast<uid_t>(-1), gid) != 0 || fchmod(reader.get(), mode) != 0) {
        evm_log(0, MAIN_FIFO_SOURCE, __LINE__, "%s: cannot set its group and mode: %s", USB_DAEMON_FIFO, strerror(errno));
        if (!own) {
            unlink(aside);
        }
        return -1;
    }
    if (own) {
        evm_log(0, MAIN_FIFO_SOURCE, __LINE__, "%s already exist, don't have to create it again!", USB_DAEMON_FIFO);
    } else if (__mainFifoPlace(aside) < 0) {
        unlink(aside);
        return -1;
    }
    fdDaemon = reader.release();
    fdDummy = writer.release();
    mainFifoSetRequest(fdDaemon);
    return 0;
}

void mainFifoSetRequest(int fd)
{
    auto &m = mainFifoPrivateMembers;
    struct stat st = {};
    m.requestKnown = fd >= 0 && ::fstat(fd, &st) == 0;
    m.requestDev = st.st_dev;
    m.requestIno = st.st_ino;
}

void mainFifoReply(const usbDaemonRequest &record, int &fdClient)
{
    auto &m = mainFifoPrivateMembers;
    const char *path = record.clientFifo;
    // The path is read only within its field: without a NUL there, no reply.
    if (memchr(path, '\0', sizeof record.clientFifo) == nullptr) {
        evm_log(0, MAIN_FIFO_SOURCE, __LINE__, "fdClient: %d - '%s'", -1, strerror(ENAMETOOLONG));
        return;
    }
    // O_NOCTTY: nothing named here becomes the daemon's controlling terminal.
    seamFd client(platformSys.openNoLinks(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0));
    if (!client.valid()) {
        const int err = errno;
        if (err == ELOOP || err == EXDEV) {
            __mainFifoRefuse(path, err == ELOOP ? "a symbolic link in the path" : "a path under /proc");
        } else {
            evm_log(0, MAIN_FIFO_SOURCE, __LINE__, "fdClient: %d - '%s'", -1,
                    err == ENOTSUP ? MAIN_FIFO_NOT_FIFO : strerror(err));
        }
        return;
    }
    struct stat st = {};
    if (platformSys.fstat(client.get(), &st) != 0 || !S_ISFIFO(st.st_mode)) {
        evm_log(0, MAIN_FIFO_SOURCE, __LINE__, "fdClient: %d - '%s'", -1, MAIN_FIFO_NOT_FIFO);
        return;
    }
    // Its own FIFO would hand the reply back to the service as the next request.
    if (m.requestKnown && st.st_dev == m.requestDev && st.st_ino == m.requestIno) {
        __mainFifoRefuse(path, "the request FIFO itself");
        return;
    }
    // A member's FIFO: by the account files, or by its group, which only a
    // member could give it (tarnholdctl does, for a member by login only).
    if (m.grouped && st.st_uid != 0 && st.st_gid != m.gid && !__mainFifoIsMember(st.st_uid)) {
        char why[160];
        snprintf(why, sizeof why, "a FIFO of uid %u, who is not in group %.63s", static_cast<unsigned>(st.st_uid),
                 m.groupName);
        __mainFifoRefuse(path, why);
        return;
    }
    fdClient = client.get();
    if (platformSys.write(client.get(), &record, sizeof record) == -1) {
        evm_log(0, MAIN_FIFO_SOURCE, __LINE__, "tarnhold:main: write - '%s'", strerror(errno));
    }
    // Cleared before the close so the exit handler never closes it twice.
    fdClient = -1;
}
