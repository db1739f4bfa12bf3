#include "daemonLib.h"

#include "evmLog.h"
#include "sysSeam.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct {
    int pidFd = -1;
} daemonLibPrivateMembers;

bool __daemonWantsDetach(int argc, char **argv)
{
    for (int i = 1; i < argc && argv[i] != nullptr; ++i) {
        if (strcmp(argv[i], "--daemon") == 0) {
            return true;
        }
    }
    return false;
}

void __daemonDetach()
{
    pid_t pid = fork();
    if (pid < 0) {
        evm_log(6, "daemon", __LINE__, "fork: %s", strerror(errno));
        return;
    }
    if (pid > 0) {
        _exit(0);
    }
    setsid();
    if (chdir("/") != 0) {
        evm_log(6, "daemon", __LINE__, "chdir: %s", strerror(errno));
    }
    int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (devNull >= 0) {
        dup2(devNull, STDIN_FILENO);
        dup2(devNull, STDOUT_FILENO);
        dup2(devNull, STDERR_FILENO);
        if (devNull > STDERR_FILENO) {
            close(devNull);
        }
    }
}

} // namespace

extern "C" int daemon_start(int argc, char **argv, const char *pidFilePath)
{
    auto &m = daemonLibPrivateMembers;
    int fd = open(pidFilePath, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) {
        fprintf(stderr, "tarnhold: cannot open pid file %s: %s\n", pidFilePath, strerror(errno));
        exit(1);
    }
    // flock belongs to the open file description, so it survives the fork below.
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        char other[32] = {};
        ssize_t n = pread(fd, other, sizeof other - 1, 0);
        if (n > 0 && other[n - 1] == '\n') {
            other[n - 1] = '\0';
        }
        fprintf(stderr, "tarnhold: already running (pid %s, pid file %s)\n", n > 0 ? other : "?", pidFilePath);
        close(fd);
        exit(1);
    }
    if (__daemonWantsDetach(argc, argv)) {
        __daemonDetach();
    }
    char text[32];
    int len = snprintf(text, sizeof text, "%d\n", static_cast<int>(getpid()));
    if (ftruncate(fd, 0) != 0 || pwrite(fd, text, static_cast<size_t>(len), 0) != len) {
        evm_log(6, "daemon", __LINE__, "cannot write pid file %s: %s", pidFilePath, strerror(errno));
    }
    m.pidFd = fd;
    return 0;
}

extern "C" void daemon_stop(const char *tag, const char *pidFilePath)
{
    auto &m = daemonLibPrivateMembers;
    evm_log(0, "daemon", __LINE__, "%s stopped", tag);
    if (m.pidFd >= 0) {
        unlink(pidFilePath);
        close(m.pidFd);
        m.pidFd = -1;
    }
}

extern "C" uint64_t getMsSince1970(void) { return platformSys.msSince1970(); }
