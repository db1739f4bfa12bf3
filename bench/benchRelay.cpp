// The service's own cost per relayed request: the driver answers at once and
// sleeps cost nothing, so what is left is dispatch, the link and the relay;
// with the second argument 1, and with the recorder writing every exchange
// to a file (TARNHOLD_RECORD as the service gets it).
#include "evmLog.h"
#include "qxUsb.h"
#include "sysRecord.h"
#include "sysSeam.h"
#include "usbMgmt.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <cstring>
#include <unistd.h>

namespace {

constexpr int BENCH_NODE_FD = 77;
constexpr const char *BENCH_RECORDING = "/var/tmp/benchRelay.rec";

// The last report sent, handed straight back as the reply.
uint8_t benchLastSent[QX_REPORT_SIZE];

int benchOpen(const char *, int, mode_t)
{
    return BENCH_NODE_FD;
}

int benchClose(int)
{
    return 0;
}

int benchIoctl(int, unsigned long request, void *arg)
{
    auto *block = static_cast<picHidIoctlArg *>(arg);
    if (request == PIC_HID_GET_REPORT) {
        std::memcpy(block->report, benchLastSent, QX_REPORT_SIZE);
    } else {
        std::memcpy(benchLastSent, block->report, QX_REPORT_SIZE);
    }
    return 0;
}

int benchUsleep(useconds_t)
{
    return 0;
}

void benchQuietLog(int, const char *, int, const char *) {}

void BM_RelayedRequest(benchmark::State &state)
{
    platformSys.open = benchOpen;
    platformSys.close = benchClose;
    platformSys.ioctl = benchIoctl;
    platformSys.usleep = benchUsleep;
    evmLogSetSink(benchQuietLog); // the open line, once per run of the loop
    const bool recording = state.range(1) != 0;
    if (recording) {
        setenv("TARNHOLD_RECORD", BENCH_RECORDING, 1);
        char name[] = "tarnhold";
        char *argv[] = {name, nullptr};
        sysRecordStart(1, argv, -1);
        unsetenv("TARNHOLD_RECORD");
    }
    if (qxUsbInit() != 0 || sysRecordOn() != recording) {
        state.SkipWithError("link did not open, or the recorder did not start");
        return;
    }
    qxUsbBlock cmd{};
    qxUsbBlock resp{};
    cmd[QX_REPORT_CODE] = static_cast<uint8_t>(state.range(0));
    cmd[QX_REPORT_PAYLOAD] = 0x55;
    for (auto _ : state) {
        const int32_t rc = usbMgmtCmd(cmd, resp);
        if (rc != 0) {
            state.SkipWithError("relay failed");
            break;
        }
        benchmark::DoNotOptimize(resp.data());
    }
    qxUsbCleanUp();
    sysRecordStop();
    unlink(BENCH_RECORDING);
    unlink((std::string(BENCH_RECORDING) + ".1").c_str());
    platformSys = PLATFORM_SYS_LIBC;
    evmLogSetSink(nullptr);
}

} // namespace

// SET_LEDS and GET_INFO (the latter is one the raw trace keeps quiet; the relay never traces).
BENCHMARK(BM_RelayedRequest)->ArgNames({"code", "recording"})->ArgsProduct({{QX_HID_CMD_SET_LEDS, QX_HID_CMD_GET_INFO}, {0, 1}});

BENCHMARK_MAIN();
