// The service's own cost per request. A relayed one: the driver answers at
// once and sleeps cost nothing, so what is left is dispatch, the link and the
// relay. A host-answered one: the loop and the FIFOs. Each with and without
// the recorder writing every exchange to a file (TARNHOLD_RECORD as the
// service gets it).
#include "evmLog.h"
#include "main.h"
#include "qxUsb.h"
#include "sysRecord.h"
#include "sysSeam.h"
#include "uniqueFd.h"
#include "usbDaemonRequest.h"
#include "usbMgmt.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <string>
#include <cstring>
#include <unistd.h>

namespace {

constexpr int BENCH_NODE_FD = 77;
constexpr const char *BENCH_RECORDING = "/var/tmp/benchRelay.rec";
// On tmpfs, as the request FIFO's clients' folders are: a FIFO on a disk
// file system pays for the time stamp of every write.
constexpr const char *BENCH_REPLY_FIFO = "/dev/shm/benchRelay-reply";

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

// Recording as the service does when TARNHOLD_RECORD names a file.
void __benchRecord(bool on, int requestFd)
{
    if (on) {
        setenv("TARNHOLD_RECORD", BENCH_RECORDING, 1);
        std::array<char *, 2> argv = {const_cast<char *>("tarnhold"), nullptr};
        sysRecordStart(1, argv.data(), requestFd);
        unsetenv("TARNHOLD_RECORD");
    }
}

void __benchRecordStop()
{
    sysRecordStop();
    unlink(BENCH_RECORDING);
    unlink((std::string(BENCH_RECORDING) + ".1").c_str());
}

void BM_RelayedRequest(benchmark::State &state)
{
    platformSys.open = benchOpen;
    platformSys.close = benchClose;
    platformSys.ioctl = benchIoctl;
    platformSys.usleep = benchUsleep;
    evmLogSetSink(benchQuietLog); // the open line, once per run of the loop
    const bool recording = state.range(1) != 0;
    __benchRecord(recording, -1);
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
    __benchRecordStop();
    platformSys = PLATFORM_SYS_LIBC;
    evmLogSetSink(nullptr);
}

// A request the service answers itself (a code without handler), through the
// loop: the request pipe, the dispatch and the reply FIFO's checks, open,
// write and close; with the second argument 1 also every record of it.
void BM_HostAnsweredRequest(benchmark::State &state)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0 || mkfifo(BENCH_REPLY_FIFO, 0600) != 0) {
        state.SkipWithError("no request pipe or reply FIFO");
        return;
    }
    const uniqueFd requestRead(fds[0]), requestWrite(fds[1]);
    const uniqueFd reply(open(BENCH_REPLY_FIFO, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    mainLoopSetRequestFd(requestRead.get());
    __benchRecord(state.range(0) != 0, requestRead.get());
    usbDaemonRequest record = {};
    std::strcpy(record.clientFifo, BENCH_REPLY_FIFO);
    record.cmd[QX_REPORT_CODE] = 200;
    usbDaemonRequest answer = {};
    for (auto _ : state) {
        if (write(requestWrite.get(), &record, sizeof record) != ssize_t(sizeof record) ||
            (mainLoopPass(), read(reply.get(), &answer, sizeof answer)) != ssize_t(sizeof answer)) {
            state.SkipWithError("no answer");
            break;
        }
    }
    __benchRecordStop();
    unlink(BENCH_REPLY_FIFO);
}

} // namespace

// SET_LEDS and GET_INFO (the latter is one the raw trace keeps quiet; the relay never traces).
BENCHMARK(BM_RelayedRequest)->ArgNames({"code", "recording"})->ArgsProduct({{QX_HID_CMD_SET_LEDS, QX_HID_CMD_GET_INFO}, {0, 1}});

BENCHMARK(BM_HostAnsweredRequest)->ArgName("recording")->Arg(0)->Arg(1);

BENCHMARK_MAIN();
