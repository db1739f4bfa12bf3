// Running tarnhold-sim from the system tests.
#include "systemSupport.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <ftw.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

int __systemRemoveEntry(const char *path, const struct stat *, int, FTW *)
{
    return ::remove(path);
}

std::string __systemSelf()
{
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof(self) - 1);
    return n > 0 ? std::string(self, static_cast<size_t>(n)) : std::string();
}

} // namespace

systemTempDir::systemTempDir()
{
    char pattern[] = "/tmp/tarnhold-system.XXXXXX";
    const char *made = ::mkdtemp(pattern);
    path_ = made != nullptr ? made : "";
}

systemTempDir::~systemTempDir()
{
    if (!path_.empty()) {
        ::nftw(path_.c_str(), &__systemRemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    }
}

systemRun systemRunCommand(const std::vector<std::string> &argv, const std::vector<std::string> &env, int timeoutMs)
{
    systemRun run;
    systemTempDir dir;
    const std::string outPath = dir.file("out");
    const std::string errPath = dir.file("err");
    std::vector<char *> args;
    for (const auto &a : argv) {
        args.push_back(const_cast<char *>(a.c_str()));
    }
    args.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out < 0 || err < 0 || ::dup2(out, STDOUT_FILENO) < 0 || ::dup2(err, STDERR_FILENO) < 0) {
            ::_exit(126);
        }
        for (const auto &e : env) {
            ::putenv(const_cast<char *>(e.c_str()));
        }
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    // A real process: its end is awaited on real time, with a bound.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    pid_t done = 0;
    while ((done = ::waitpid(pid, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (done == 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
    } else if (WIFEXITED(status)) {
        run.status = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        run.status = 128 + WTERMSIG(status);
    }
    run.out = systemReadFile(outPath);
    run.err = systemReadFile(errPath);
    return run;
}

systemRun systemRunProbe(const std::vector<std::string> &simArgs, const std::string &probe, int timeoutMs)
{
    std::vector<std::string> argv = {TARNHOLD_SIM_BINARY};
    argv.insert(argv.end(), simArgs.begin(), simArgs.end());
    argv.push_back("--");
    argv.push_back(__systemSelf());
    return systemRunCommand(argv, {std::string(SYSTEM_PROBE_ENV) + "=" + probe}, timeoutMs);
}

std::vector<std::string> systemLines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> systemEvents(const std::string &logText, size_t fields)
{
    std::vector<std::string> events;
    for (const std::string &line : systemLines(logText)) {
        std::istringstream words(line);
        std::string word;
        std::string cut;
        for (size_t i = 0; i < fields && words >> word; ++i) {
            cut += (i == 0 ? "" : " ") + word;
        }
        events.push_back(cut);
    }
    return events;
}

std::string systemHexRecord(uint8_t type, uint16_t address, const std::vector<uint8_t> &data)
{
    uint8_t sum = static_cast<uint8_t>(data.size() + (address >> 8) + (address & 0xFF) + type);
    char text[16];
    std::snprintf(text, sizeof(text), ":%02X%04X%02X", static_cast<unsigned>(data.size()), address, type);
    std::string line = text;
    for (uint8_t b : data) {
        std::snprintf(text, sizeof(text), "%02X", b);
        line += text;
        sum = static_cast<uint8_t>(sum + b);
    }
    std::snprintf(text, sizeof(text), "%02X\r\n", static_cast<uint8_t>(-sum) & 0xFF);
    return line + text;
}

std::string systemHexFile(const std::vector<uint8_t> &image)
{
    std::string text = systemHexRecord(4, 0, {0x1D, 0x01});
    for (size_t at = 0; at < image.size(); at += 16) {
        const size_t n = std::min<size_t>(16, image.size() - at);
        text += systemHexRecord(0, static_cast<uint16_t>(at),
                                std::vector<uint8_t>(image.begin() + static_cast<long>(at),
                                                     image.begin() + static_cast<long>(at + n)));
    }
    return text + systemHexRecord(1, 0, {});
}

std::string systemControl(const std::string &socketPath, const std::string &line)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof(addr.sun_path)) {
        return "";
    }
    std::memcpy(addr.sun_path, socketPath.c_str(), socketPath.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::string reply;
    const std::string request = line + "\n";
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0 &&
        ::write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
        char buffer[4096];
        ssize_t n;
        // The answer ends with its "ok" or "error: " line.
        while ((n = ::read(fd, buffer, sizeof(buffer))) > 0) {
            reply.append(buffer, static_cast<size_t>(n));
            if (reply.back() != '\n') {
                continue;
            }
            const size_t last = reply.size() >= 2 ? reply.rfind('\n', reply.size() - 2) : std::string::npos;
            const std::string tail = last == std::string::npos ? reply : reply.substr(last + 1);
            if (tail == "ok\n" || tail.rfind("error: ", 0) == 0) {
                break;
            }
        }
    }
    if (fd >= 0) {
        ::close(fd);
    }
    return reply;
}

std::string systemReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool systemWriteFile(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}
