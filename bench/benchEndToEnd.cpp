// End-to-end latency of one request: client library -> request FIFO ->
// tarnhold -> emulated ioctl under umockdev -> model -> reply FIFO, with
// the real binaries (tarnhold-sim around tarnhold) in a private mount
// namespace. Three codes split the figure: a relayed GET_INFO (two ioctls
// and the relay's fixed 2 ms wait before its first read), a host-held
// indicator (no ioctl) and a refused code (dispatcher only).
// Needs root (the namespace).
#include "daemonHarness.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

namespace {

constexpr const char *BENCH_HEX = "/tmp/bench-app.hex";
constexpr int BENCH_READY_MS = 60000;
constexpr uint8_t BENCH_BAY = 3;

int __benchExchange(uint8_t code, usbDaemonRequest &record, int timeoutMs)
{
    record = daemonHarnessRecord(code);
    record.cmd[3] = BENCH_BAY;
    return tarnholdClientExchange(record, {.timeoutMs = timeoutMs});
}

// The daemon inside tarnhold-sim, in a private namespace; the flash already
// holds the image, so start-up finds it current and the daemon serves.
bool __benchStart(daemonHarness &daemon)
{
    const std::string why = daemonHarnessIsolate();
    if (!why.empty() || !daemonHarnessWriteImage(BENCH_HEX) ||
        !daemon.start(daemonHarnessOnAppliance(BENCH_HEX, {"--file", BENCH_HEX})) || !daemon.waitReady(BENCH_READY_MS)) {
        std::fprintf(stderr, "benchEndToEnd: the daemon did not come up %s; its log:\n%s", why.c_str(),
                     daemon.stderrText().c_str());
        return false;
    }
    return true;
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
    daemonHarness daemon; // killed with tarnhold-sim when it goes out of scope
    if (!__benchStart(daemon)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
