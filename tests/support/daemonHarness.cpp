// Black-box runs of the real binaries in a private mount namespace.
#include "daemonHarness.h"

#include "uniqueFd.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct {
    bool isolated = false;
} daemonHarnessPrivateMembers;

// In the child after fork: only async-signal-safe calls until exec.
[[noreturn]] void __daemonHarnessExec(char *const *argv, const char *outPath, const char *errPath, mode_t mask)
{
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL); // dies with the test process, whatever way that ends
    umask(mask);
    int fds[3] = {open("/dev/null", O_RDONLY), open(outPath, O_WRONLY | O_CREAT | O_TRUNC, 0644),
                  open(errPath, O_WRONLY | O_CREAT | O_TRUNC, 0644)};
    for (int i = 0; i < 3; ++i) {
        if (fds[i] < 0 || dup2(fds[i], i) < 0) { // standard input, output, error
            _exit(126);
        }
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(argv[0], argv);
    _exit(127);
}

// Mounts a fresh tmpfs on `dir`, keeping the checkout and build folders that lie below it: each is opened before
// the mount and bound back onto an empty folder of the same name in the fresh tmpfs.
std::string __daemonHarnessFreshDir(const std::string &dir, const char *options)
{
    std::vector<std::pair<std::string, uniqueFd>> kept;
    for (std::string path : {TARNHOLD_BINARY, TARNHOLD_SIM_BINARY, TARNHOLD_SUPPORT_SOURCE_DIR}) {
        // The folder right below `dir` that holds `path` ("/tmp/x" for "/tmp/x/build/tarnhold"), "" when none does.
        std::string top = path.starts_with(dir + "/") ? path.substr(0, path.find('/', dir.size() + 1)) : "";
        if (!top.empty() && std::ranges::none_of(kept, [&](const auto &k) { return k.first == top; })) {
            uniqueFd fd(open(top.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
            if (!fd.valid()) {
                return top + ": " + strerror(errno);
            }
            kept.emplace_back(top, std::move(fd));
        }
    }
    if ((mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) ||
        mount("tmpfs", dir.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options) != 0) {
        return "tmpfs on " + dir + ": " + strerror(errno);
    }
    for (const auto &[top, fd] : kept) {
        std::string from = "/proc/self/fd/" + std::to_string(fd.get());
        if (mkdir(top.c_str(), 0755) != 0 || mount(from.c_str(), top.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
            return "keeping " + top + ": " + strerror(errno);
        }
    }
    return "";
}

} // namespace

std::string daemonHarnessIsolate()
{
    // Private mounts: nothing mounted from here on may reach the host's namespace.
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return std::string("a private mount namespace: ") + strerror(errno);
    }
    for (const auto &[path, options] : {std::pair{"/tmp", "mode=1777"}, {"/var/run", "mode=0755"},
                                        {"/var/crash", "mode=0755"}}) { // /var/crash is often missing
        if (std::string why = __daemonHarnessFreshDir(path, options); !why.empty()) {
            return why;
        }
    }
    // The flash history goes to the fresh /tmp, never the host's /var/lib/tarnhold.
    setenv("STATE_DIRECTORY", DAEMON_HARNESS_STATE_DIR, 1);
    daemonHarnessPrivateMembers.isolated = true;
    return "";
}

daemonHarnessCommand daemonHarnessOnAppliance(const std::string &image, std::vector<std::string> args, mode_t umask)
{
    return {{TARNHOLD_SIM_BINARY, "--flash-image", image, "--"}, TARNHOLD_BINARY, std::move(args), umask};
}

bool daemonHarnessWriteImage(const std::string &path)
{
    // Address 0x1D01xxxx; bytes 0..15 at 0 and 16..31 at 0x1000: two PROGRAM packets with a gap between.
    static const std::string IMAGE = ":020000041D01DC\n:10000000000102030405060708090A0B0C0D0E0F78\n"
                                     ":10100000101112131415161718191A1B1C1D1E1F68\n:00000001FF\n";
    std::ofstream(path) << IMAGE;
    return daemonHarnessReadFile(path) == IMAGE;
}

usbDaemonRequest daemonHarnessRecord(uint8_t code)
{
    usbDaemonRequest record = {};
    record.cmd[0] = code;
    return record;
}

std::string daemonHarnessReadFile(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

daemonHarness::~daemonHarness()
{
    if (pid_ >= 0 && !reaped_) {
        kill(-pid_, SIGKILL); // the group it leads: the daemon inside a wrapper too
        waitpid(pid_, nullptr, 0);
    }
}

bool daemonHarness::start(const daemonHarnessCommand &command)
{
    std::string dir = "/var/run/daemon-harness.XXXXXX";
    if (pid_ >= 0 || (!daemonHarnessPrivateMembers.isolated && !daemonHarnessIsolate().empty()) ||
        mkdtemp(dir.data()) == nullptr) {
        return false;
    }
    outDir_ = dir;
    std::vector<std::string> args = command.wrapper;
    args.push_back(command.binary);
    args.insert(args.end(), command.args.begin(), command.args.end());
    std::vector<char *> argv(args.size() + 1, nullptr);
    std::transform(args.begin(), args.end(), argv.begin(), [](std::string &a) { return a.data(); });
    std::string outPath = outDir_ + "/stdout";
    std::string errPath = outDir_ + "/stderr";
    pid_t pid = fork();
    if (pid == 0) {
        __daemonHarnessExec(argv.data(), outPath.c_str(), errPath.c_str(), command.umask);
    }
    setpgid(pid, pid); // also here, so the group exists whichever side runs first
    pid_ = pid;
    return pid > 0;
}

int daemonHarness::runToEnd(const daemonHarnessCommand &command, int timeoutMs)
{
    return start(command) ? exitStatus(0, timeoutMs) : -1;
}

int daemonHarness::exitStatus(int sig, int timeoutMs)
{
    int status = 0;
    const bool ended = pid_ >= 0 && !reaped_ && (sig == 0 || signalDaemon(sig)) &&
                       daemonHarnessPoll(timeoutMs, [&] { return waitpid(pid_, &status, WNOHANG) == pid_; });
    reaped_ = reaped_ || ended;
    return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

pid_t daemonHarness::daemonPid() const
{
    pid_t pid = atoi(daemonHarnessReadFile("/var/run/tarnhold.pid").c_str());
    return pid > 0 ? pid : -1;
}

bool daemonHarness::waitReady(int timeoutMs) const
{
    return daemonHarnessPoll(timeoutMs, [&] { return stdoutText().find("fdDaemon: ") != std::string::npos; });
}

// Only processes in this namespace are the test's: a stale pid file must never lead to one of the host's.
bool daemonHarness::signalDaemon(int sig) const
{
    pid_t pid = daemonPid();
    struct stat ours = {}, theirs = {};
    std::string path = "/proc/" + std::to_string(pid) + "/ns/mnt";
    return pid > 0 && stat("/proc/self/ns/mnt", &ours) == 0 && stat(path.c_str(), &theirs) == 0 &&
           ours.st_ino == theirs.st_ino && kill(pid, sig) == 0;
}

std::vector<std::string> daemonHarness::logTexts(const std::string &source) const
{
    std::vector<std::string> texts;
    std::string text = stderrText();
    // Only whole lines ("tarnhold[pid] <level> source:line: text"): the last one may still be being written. No
    // std::regex: its inlined matcher sets off -Wmaybe-uninitialized in the sanitizer build.
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
        std::string line = text.substr(at, end - at);
        char from[64] = {};
        int start = 0;
        if (sscanf(line.c_str(), "tarnhold[%*u] <%*d> %63[^:]:%*u:%n", from, &start) == 1 && start > 0 &&
            line[size_t(start)] == ' ' && (source.empty() || source == from)) {
            texts.push_back(line.substr(size_t(start) + 1));
        }
    }
    return texts;
}

std::pair<int, std::string> daemonHarnessCtl(std::vector<std::string> args, int timeoutMs)
{
    daemonHarness ctl;
    const int status = ctl.runToEnd({.binary = TARNHOLDCTL_BINARY, .args = std::move(args)}, timeoutMs);
    return {status, ctl.stdoutText() + ctl.stderrText()};
}
