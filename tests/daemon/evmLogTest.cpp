// evm_log while a line goes out: sent exit signals wait, faults reach their handler at once; the copy on
// standard error and the journal.
#include "daemonHarness.h"
#include "evmLog.h"
#include "uniqueFd.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int FAULT_EXIT = 42;
constexpr int SENT_EXIT = 43;
constexpr std::array FAULTS = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};
constexpr std::array EXIT_SIGNALS = {SIGHUP, SIGINT, SIGQUIT, SIGABRT, SIGTERM, SIGSEGV, SIGBUS, SIGILL, SIGFPE};

bool isFault(int sig) { return std::ranges::find(FAULTS, sig) != FAULTS.end(); }

// In the child: standard error is a full pipe, so evm_log blocks inside its write for as long as the test wants.
[[noreturn]] void __logIntoFullPipe()
{
    int fds[2];
    if (pipe2(fds, O_NONBLOCK) != 0 || dup2(fds[1], STDERR_FILENO) < 0) {
        _exit(1);
    }
    char filler[4096] = {};
    while (write(STDERR_FILENO, filler, sizeof filler) > 0) {
    }
    fcntl(STDERR_FILENO, F_SETFL, 0);
    for (int sig : EXIT_SIGNALS) {
        signal(sig, [](int s) { _exit(isFault(s) ? FAULT_EXIT : SENT_EXIT); });
    }
    evmLogSetSink(nullptr);
    evm_log(0, "main", __LINE__, "a line that cannot go out");
    _exit(0);
}

TEST(evmLogTest, whileALineGoesOutOnlySentExitSignalsWaitAndFaultsReachTheirHandler)
{
    for (int fault : FAULTS) {
        SCOPED_TRACE(fault);
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            __logIntoFullPipe();
        }
        // The child blocks nothing until evm_log does.
        uint64_t blocked = 0;
        daemonHarnessPoll(5000, [&] {
            const std::string status = daemonHarnessReadFile("/proc/" + std::to_string(child) + "/status");
            const size_t at = status.find("\nSigBlk:");
            return (blocked = at == std::string::npos ? 0 : std::strtoull(&status[at + 8], nullptr, 16)) != 0;
        });
        for (int sig : EXIT_SIGNALS) {
            EXPECT_EQ((blocked >> (sig - 1)) & 1U, isFault(sig) ? 0U : 1U) << sig;
        }
        // A sent SIGTERM waits; the fault does not.
        kill(child, SIGTERM);
        kill(child, fault);
        int status = 0;
        if (!daemonHarnessPoll(5000, [&] { return waitpid(child, &status, WNOHANG) == child; })) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
        }
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == FAULT_EXIT) << status;
    }
}

// Under systemd standard error is the journal's stream, which already gets the line from syslog: no copy there.
// Any other standard error (a terminal, the tests' pipe, a stale variable inherited by a child) keeps it, and so
// does a variable that is not exactly DEVICE:INODE.
TEST(evmLogTest, theCopyOnStandardErrorIsLeftOutOnlyWhenStandardErrorIsTheJournalStream)
{
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
    const uniqueFd readEnd(fds[0]), writeEnd(fds[1]), saved(dup(STDERR_FILENO));
    ASSERT_GE(dup2(writeEnd.get(), STDERR_FILENO), 0);
    struct stat st = {};
    fstat(writeEnd.get(), &st);
    const std::string self = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
    const std::string other = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino + 1);
    evmLogSetSink(nullptr);
    std::string copied;
    for (const std::string &stream : {self, other, self + "x", std::string()}) {
        unsetenv("JOURNAL_STREAM");
        if (!stream.empty()) {
            setenv("JOURNAL_STREAM", stream.c_str(), 1);
        }
        evm_log(6, "main", 1, "journal %s", stream.c_str());
        char buf[512];
        const ssize_t n = read(readEnd.get(), buf, sizeof buf);
        copied += n > 0 ? std::string(buf, static_cast<size_t>(n)) : "-\n";
    }
    unsetenv("JOURNAL_STREAM");
    dup2(saved.get(), STDERR_FILENO);
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(copied, "-\ntarnhold[" + pid + "] <6> main:1: journal " + other + "\ntarnhold[" + pid +
                          "] <6> main:1: journal " + self + "x\ntarnhold[" + pid + "] <6> main:1: journal \n");
}

} // namespace
