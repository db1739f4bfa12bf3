// One heartbeat pass (open, read 2 bytes at 0x300, write 2 bytes there, close)
// against a SCSI controller in a umockdev testbed. It runs itself again under
// umockdev's preload when started without it; the preload's path redirection
// of the open is part of the figure.
#include "scsiCtrl.h"
#include "simPci.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

void benchHeartBeep(benchmark::State &state)
{
    UMockdevTestbed *testbed = umockdev_testbed_new();
    simPciAdd(testbed, simPciDevice{}, 3);
    // The lookup prints its match; keep the benchmark's table clean.
    fflush(stdout);
    const int savedStdout = dup(STDOUT_FILENO);
    FILE *devNull = freopen("/dev/null", "w", stdout);
    scsiCtrlInit();
    fflush(stdout);
    dup2(savedStdout, STDOUT_FILENO);
    close(savedStdout);
    (void)devNull;
    if (scsiCtrlGetHeartBeepIntervalSec() != 1) {
        state.SkipWithError("no controller found in the testbed");
    } else {
        for (auto _ : state) {
            benchmark::DoNotOptimize(scsiCtrlHeartBeep());
        }
    }
    g_object_unref(testbed);
}
BENCHMARK(benchHeartBeep)->MeasureProcessCPUTime()->UseRealTime();

constexpr const char *BENCH_PRELOAD = "libumockdev-preload.so.0";

} // namespace

int main(int argc, char **argv)
{
    const char *preload = getenv("LD_PRELOAD");
    if (preload == nullptr || strstr(preload, "libumockdev-preload") == nullptr) {
        setenv("LD_PRELOAD", BENCH_PRELOAD, 1);
        execv("/proc/self/exe", argv);
        perror("benchHeartbeat: cannot run itself under the umockdev preload");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
