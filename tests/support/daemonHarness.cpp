// Black-box runs of the tarnhold binary in a private mount namespace.
#include "daemonHarness.h"

#include "tarnholdClient.h"
#include "uniqueFd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <regex>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr const char *DAEMON_HARNESS_PID_FILE = "/var/run/tarnhold.pid";
constexpr int DAEMON_HARNESS_POLL_MS = 2;
constexpr int DAEMON_HARNESS_DETACH_WAIT_MS = 3000;

struct daemonHarnessMount {
    const char *path;
    const char *options;
};
constexpr std::array<daemonHarnessMount, 3> DAEMON_HARNESS_MOUNTS = {{
    {"/tmp", "mode=1777"},
    {"/var/run", "mode=0755"},
    {"/var/crash", "mode=0755"},
}};

struct {
    bool isolated = false;
} daemonHarnessPrivateMembers;

// Polls `done` until it holds or the time is up; these wait on real
// processes, so they run on real time.
template <typename Fn> bool __daemonHarnessPoll(int timeoutMs, Fn done)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (done()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(DAEMON_HARNESS_POLL_MS));
    }
}

std::vector<char *> __daemonHarnessArgv(const std::vector<std::string> &args)
{
    std::vector<char *> argv;
    for (const auto &a : args) {
        argv.push_back(const_cast<char *>(a.c_str()));
    }
    argv.push_back(nullptr);
    return argv;
}

// In the child after fork: only async-signal-safe calls until exec.
[[noreturn]] void __daemonHarnessExec(char *const *argv, const char *outPath, const char *errPath, mode_t mask)
{
    setpgid(0, 0);
    // Dies with the test process, whatever way that ends.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    umask(mask);
    int in = open("/dev/null", O_RDONLY);
    int out = open(outPath, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = open(errPath, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0 || err < 0 || dup2(in, STDIN_FILENO) < 0 || dup2(out, STDOUT_FILENO) < 0 ||
        dup2(err, STDERR_FILENO) < 0) {
        _exit(126);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(argv[0], argv);
    _exit(127);
}

std::string __daemonHarnessMakeDir(const char *base)
{
    std::string dir = std::string(base) + "/daemon-harness.XXXXXX";
    return mkdtemp(dir.data()) != nullptr ? dir : "";
}

// Only processes in this test's private mount namespace were started by it:
// a stale pid file must never lead to another process of the host.
bool __daemonHarnessOurs(pid_t pid)
{
    std::array<char, 64> ours = {};
    std::array<char, 64> theirs = {};
    std::string path = "/proc/" + std::to_string(pid) + "/ns/mnt";
    return readlink("/proc/self/ns/mnt", ours.data(), ours.size() - 1) > 0 &&
           readlink(path.c_str(), theirs.data(), theirs.size() - 1) > 0 && strcmp(ours.data(), theirs.data()) == 0;
}

bool __daemonHarnessReap(pid_t pid, int &status, int timeoutMs)
{
    return __daemonHarnessPoll(timeoutMs, [&] { return waitpid(pid, &status, WNOHANG) == pid; });
}

} // namespace

std::string daemonHarnessIsolate()
{
    if (unshare(CLONE_NEWNS) != 0) {
        return std::string("unshare(CLONE_NEWNS): ") + strerror(errno);
    }
    // Nothing mounted from here on may reach the host's namespace.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return std::string("making mounts private: ") + strerror(errno);
    }
    for (const auto &m : DAEMON_HARNESS_MOUNTS) {
        // /var/crash is often missing on a build machine: it needs a mount point.
        if (mkdir(m.path, 0755) != 0 && errno != EEXIST) {
            return std::string("mkdir ") + m.path + ": " + strerror(errno);
        }
        if (mount("tmpfs", m.path, "tmpfs", MS_NOSUID | MS_NODEV, m.options) != 0) {
            return std::string("mount tmpfs on ") + m.path + ": " + strerror(errno);
        }
    }
    daemonHarnessPrivateMembers.isolated = true;
    return "";
}

daemonHarnessCommand daemonHarnessDaemon(std::vector<std::string> args, mode_t umask)
{
    daemonHarnessCommand command;
    command.args = std::move(args);
    command.umask = umask;
    return command;
}

daemonHarnessCommand daemonHarnessProgram(const std::string &binary, std::vector<std::string> args)
{
    daemonHarnessCommand command;
    command.binary = binary;
    command.args = std::move(args);
    return command;
}

daemonHarnessCommand daemonHarnessOnAppliance(const std::string &image, std::vector<std::string> args, mode_t umask)
{
    daemonHarnessCommand command = daemonHarnessDaemon(std::move(args), umask);
    command.wrapper = {DAEMON_HARNESS_SIM_BINARY, "--flash-image", image, "--"};
    return command;
}

bool daemonHarnessWriteImage(const std::string &path)
{
    // Extended linear address 0x1D01, 16 data bytes 0..15 at offset 0, end of file.
    static constexpr const char *IMAGE = ":020000041D01DC\n"
                                         ":10000000000102030405060708090A0B0C0D0E0F78\n"
                                         ":00000001FF\n";
    uniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    size_t len = strlen(IMAGE);
    return fd.valid() && write(fd.get(), IMAGE, len) == static_cast<ssize_t>(len);
}

usbDaemonRequest daemonHarnessRecord(uint8_t code)
{
    usbDaemonRequest record = {};
    record.cmd[0] = code;
    return record;
}

std::string daemonHarnessReadFile(const std::string &path)
{
    uniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        return "";
    }
    std::string text;
    std::array<char, 4096> buf;
    ssize_t n;
    while ((n = read(fd.get(), buf.data(), buf.size())) > 0) {
        text.append(buf.data(), static_cast<size_t>(n));
    }
    return text;
}

bool daemonHarnessRun(const std::vector<std::string> &args, int &status, std::string &out, std::string &err,
                      int timeoutMs)
{
    std::string dir = __daemonHarnessMakeDir("/tmp");
    if (dir.empty()) {
        return false;
    }
    std::string outPath = dir + "/stdout";
    std::string errPath = dir + "/stderr";
    std::vector<char *> argv = __daemonHarnessArgv(args);
    pid_t pid = fork();
    if (pid < 0) {
        return false;
    }
    if (pid == 0) {
        __daemonHarnessExec(argv.data(), outPath.c_str(), errPath.c_str(), 022);
    }
    bool ended = __daemonHarnessReap(pid, status, timeoutMs);
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    out = daemonHarnessReadFile(outPath);
    err = daemonHarnessReadFile(errPath);
    unlink(outPath.c_str());
    unlink(errPath.c_str());
    rmdir(dir.c_str());
    return ended;
}

daemonHarness::~daemonHarness() { stop(); }

bool daemonHarness::start(const daemonHarnessCommand &command)
{
    if (pid_ >= 0) {
        return false;
    }
    if (!daemonHarnessPrivateMembers.isolated && !daemonHarnessIsolate().empty()) {
        return false;
    }
    // Not in /tmp, so that a test may put another file system there.
    outDir_ = __daemonHarnessMakeDir("/var/run");
    if (outDir_.empty()) {
        return false;
    }
    std::vector<std::string> args = command.wrapper;
    args.push_back(command.binary);
    args.insert(args.end(), command.args.begin(), command.args.end());
    argv0_ = command.binary;
    pidBefore_ = daemonPid();
    detaches_ = std::find(command.args.begin(), command.args.end(), "--daemon") != command.args.end();
    std::vector<char *> argv = __daemonHarnessArgv(args);
    std::string outPath = outDir_ + "/stdout";
    std::string errPath = outDir_ + "/stderr";
    pid_t pid = fork();
    if (pid < 0) {
        return false;
    }
    if (pid == 0) {
        __daemonHarnessExec(argv.data(), outPath.c_str(), errPath.c_str(), command.umask);
    }
    setpgid(pid, pid); // also here, so the group exists whichever side runs first
    pid_ = pid;
    reaped_ = false;
    return true;
}

pid_t daemonHarness::daemonPid() const
{
    std::string text = daemonHarnessReadFile(DAEMON_HARNESS_PID_FILE);
    char *end = nullptr;
    long pid = strtol(text.c_str(), &end, 10);
    return end != text.c_str() && pid > 0 ? static_cast<pid_t>(pid) : -1;
}

bool daemonHarness::waitForStdout(const std::string &text, int timeoutMs) const
{
    return __daemonHarnessPoll(timeoutMs, [&] { return stdoutText().find(text) != std::string::npos; });
}

bool daemonHarness::waitForStderr(const std::string &text, int timeoutMs) const
{
    return __daemonHarnessPoll(timeoutMs, [&] { return stderrText().find(text) != std::string::npos; });
}

bool daemonHarness::waitFifoReader(int timeoutMs) const
{
    // A write-only non-blocking open fails with ENXIO while nobody reads.
    return __daemonHarnessPoll(timeoutMs, [] { return uniqueFd(open(USB_DAEMON_FIFO, O_WRONLY | O_NONBLOCK)).valid(); });
}

bool daemonHarness::waitDaemonPid(int timeoutMs) const
{
    return __daemonHarnessPoll(timeoutMs, [this] { return daemonPid() > 0; });
}

bool daemonHarness::waitForLog(const std::string &text, int timeoutMs) const
{
    return __daemonHarnessPoll(timeoutMs, [&] {
        for (const auto &l : logLines()) {
            if (l.text == text) {
                return true;
            }
        }
        return false;
    });
}

bool daemonHarness::waitExit(int &status, int timeoutMs)
{
    if (pid_ < 0 || reaped_) {
        return false;
    }
    reaped_ = __daemonHarnessReap(pid_, status, timeoutMs);
    return reaped_;
}

bool daemonHarness::signalDaemon(int sig) const
{
    pid_t pid = daemonPid();
    return pid > 0 && __daemonHarnessOurs(pid) && kill(pid, sig) == 0;
}

void daemonHarness::stop()
{
    if (pid_ < 0) {
        return;
    }
    // A daemon that detached left the process group: reach it by its pid
    // file, which it may still be about to write (made, still empty).
    struct stat st = {};
    if (detaches_ && stat(DAEMON_HARNESS_PID_FILE, &st) == 0 && st.st_size == 0) {
        waitDaemonPid(DAEMON_HARNESS_DETACH_WAIT_MS);
    }
    pid_t detached = daemonPid();
    if (!reaped_) {
        kill(-pid_, SIGKILL);
        kill(pid_, SIGKILL);
        int status = 0;
        waitpid(pid_, &status, 0);
        reaped_ = true;
    }
    if (detached > 0 && detached != pid_ && detached != pidBefore_ && __daemonHarnessOurs(detached)) {
        kill(detached, SIGKILL);
    }
    pid_ = -1;
}

std::string daemonHarness::stdoutText() const { return daemonHarnessReadFile(outDir_ + "/stdout"); }

std::string daemonHarness::stderrText() const { return daemonHarnessReadFile(outDir_ + "/stderr"); }

std::vector<daemonHarnessLogLine> daemonHarness::logLines() const
{
    static const std::regex LINE(R"(^tarnhold\[(\d+)\] <(-?\d+)> ([^:]+):(\d+): (.*)$)");
    std::vector<daemonHarnessLogLine> lines;
    std::string text = stderrText();
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) {
            break; // a line still being written
        }
        std::string line = text.substr(at, end - at);
        at = end + 1;
        std::smatch m;
        if (std::regex_match(line, m, LINE)) {
            lines.push_back({std::stoi(m[1]), std::stoi(m[2]), m[3], std::stoi(m[4]), m[5]});
        }
    }
    return lines;
}

std::vector<std::string> daemonHarness::logTexts(const std::string &source) const
{
    std::vector<std::string> texts;
    for (const auto &l : logLines()) {
        if (source.empty() || l.source == source) {
            texts.push_back(l.text);
        }
    }
    return texts;
}

int daemonHarness::exchange(usbDaemonRequest &record, int timeoutMs) const
{
    tarnholdClientParams params;
    params.timeoutMs = timeoutMs;
    return tarnholdClientExchange(record, params);
}
