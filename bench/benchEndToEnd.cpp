// End-to-end latency of one request: client library -> request FIFO ->
// tarnhold -> emulated ioctl under umockdev -> model -> reply FIFO, with
// the real binaries (tarnhold-sim around tarnhold) in a private mount
// namespace. Three codes split the figure: a relayed GET_INFO (two ioctls
// and the relay's fixed 2 ms wait before its first read), a host-held
// indicator (no ioctl) and a refused code (dispatcher only).
// Needs root (the namespace).
#include "tarnholdClient.h"
#include "usbDaemonRequest.h"

#include <benchmark/benchmark.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char *BENCH_HEX = "/tmp/bench-app.hex";
constexpr const char *BENCH_LOG = "/tmp/bench-daemon.log";
constexpr int BENCH_READY_MS = 60000;
constexpr uint8_t BENCH_BAY = 3;

struct {
    pid_t sim = -1;
} benchEndToEndPrivateMembers;

auto &E = benchEndToEndPrivateMembers;

bool __benchIsolate()
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        std::fprintf(stderr, "benchEndToEnd: cannot make a private mount namespace: %s\n", std::strerror(errno));
        return false;
    }
    for (const char *dir : {"/tmp", "/var/run"}) {
        if (mount("tmpfs", dir, "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0) {
            std::fprintf(stderr, "benchEndToEnd: cannot mount tmpfs on %s: %s\n", dir, std::strerror(errno));
            return false;
        }
    }
    return true;
}

// 1 KiB of application as Intel HEX, the same image tarnhold-sim is told
// the microcontroller already runs: start-up finds it up to date.
bool __benchWriteImage()
{
    std::ofstream out(BENCH_HEX, std::ios::trunc);
    auto record = [&](uint8_t type, uint16_t address, const std::vector<uint8_t> &data) {
        uint8_t sum = static_cast<uint8_t>(data.size() + (address >> 8) + (address & 0xFF) + type);
        char text[8];
        std::snprintf(text, sizeof(text), ":%02X", static_cast<unsigned>(data.size()));
        out << text;
        std::snprintf(text, sizeof(text), "%04X%02X", address, type);
        out << text;
        for (uint8_t b : data) {
            std::snprintf(text, sizeof(text), "%02X", b);
            out << text;
            sum = static_cast<uint8_t>(sum + b);
        }
        std::snprintf(text, sizeof(text), "%02X\n", static_cast<uint8_t>(-sum) & 0xFF);
        out << text;
    };
    record(4, 0, {0x1D, 0x01});
    for (uint16_t at = 0; at < 1024; at += 16) {
        std::vector<uint8_t> data(16);
        for (size_t i = 0; i < data.size(); ++i) {
            data[i] = static_cast<uint8_t>(at + i * 3);
        }
        record(0, at, data);
    }
    record(1, 0, {});
    return static_cast<bool>(out);
}

int __benchExchange(uint8_t code, usbDaemonRequest &record, int timeoutMs)
{
    record = usbDaemonRequest{};
    record.cmd[0] = code;
    record.cmd[3] = BENCH_BAY;
    tarnholdClientParams params;
    params.timeoutMs = timeoutMs;
    return tarnholdClientExchange(record, params);
}

bool __benchStart()
{
    if (!__benchIsolate() || !__benchWriteImage()) {
        return false;
    }
    E.sim = fork();
    if (E.sim == 0) {
        const int log = open(BENCH_LOG, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int null = open("/dev/null", O_RDWR);
        dup2(null, STDIN_FILENO);
        dup2(null, STDOUT_FILENO);
        dup2(log, STDERR_FILENO);
        execl(TARNHOLD_SIM_BINARY, TARNHOLD_SIM_BINARY, "--flash-image", BENCH_HEX, "--", TARNHOLD_BINARY, "--file",
              BENCH_HEX, nullptr);
        _exit(127);
    }
    // The daemon answers once start-up is over; until its FIFO exists the
    // client finds no daemon and tries again.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(BENCH_READY_MS);
    usbDaemonRequest record{};
    while (std::chrono::steady_clock::now() < deadline) {
        const int rc = __benchExchange(200, record, BENCH_READY_MS);
        if (rc == 0) {
            return true;
        }
        if (!tarnholdClientIsNoDaemon(rc)) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::fprintf(stderr, "benchEndToEnd: the daemon did not come up; its log:\n");
    std::ifstream log(BENCH_LOG);
    std::fprintf(stderr, "%s", std::string(std::istreambuf_iterator<char>(log), {}).c_str());
    return false;
}

void __benchStop()
{
    if (E.sim > 0) {
        kill(E.sim, SIGTERM); // forwarded to the daemon
        int status = 0;
        waitpid(E.sim, &status, 0);
        E.sim = -1;
    }
}

void BM_endToEnd(benchmark::State &state, uint8_t code)
{
    usbDaemonRequest record{};
    for (auto _ : state) {
        const int rc = __benchExchange(code, record, 10000);
        if (rc != 0 || (code != 200 && record.result != 0)) {
            state.SkipWithError("exchange failed");
            break;
        }
        benchmark::DoNotOptimize(record);
    }
}

BENCHMARK_CAPTURE(BM_endToEnd, relayedGetInfo, uint8_t{9})->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_endToEnd, hostHeldIndicator, uint8_t{32})->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_endToEnd, refusedCode, uint8_t{200})->Unit(benchmark::kMicrosecond)->UseRealTime();

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    if (!__benchStart()) {
        __benchStop();
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    __benchStop();
    benchmark::Shutdown();
    return 0;
}
