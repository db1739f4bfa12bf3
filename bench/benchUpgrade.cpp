// The FPGA and CPLD upgrades' own costs: the programming walk of a 16 MiB
// FPGA file against a driver that always has room (sleeps cost nothing
// here), the 16 MiB file load beside dd reading the same file from the page
// cache, and the bit-by-bit CRC over the largest CPLD file.
#include "cpldUpgrade.h"
#include "evmLog.h"
#include "fpgaUpgrade.h"
#include "qxUsb.h"
#include "sysSeam.h"

#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr int BENCH_NODE_FD = 1 << 20; // never a real descriptor
constexpr size_t BENCH_FPGA_SIZE = 16u << 20;
constexpr const char *BENCH_FPGA_FILE = "/tmp/benchUpgrade-16MiB.bin";

struct {
    uint64_t chunks = 0;
    uint64_t pages = 0;
    uint8_t firstByte = 0;
} benchDriver;

int __benchOpen(const char *path, int flags, mode_t mode)
{
    if (strcmp(path, QX_USB_DEVICE_PATH) == 0) {
        return BENCH_NODE_FD;
    }
    return PLATFORM_SYS_LIBC.open(path, flags, mode);
}

int __benchClose(int fd) { return fd == BENCH_NODE_FD ? 0 : PLATFORM_SYS_LIBC.close(fd); }

// Room at once for every chunk; a chunk's first page is touched by address.
int __benchIoctl(int fd, unsigned long request, void *arg)
{
    if (fd != BENCH_NODE_FD) {
        errno = EBADF;
        return -1;
    }
    auto *block = static_cast<picHidIoctlArg *>(arg);
    const uint32_t io = static_cast<uint32_t>(request);
    if (io == PIC_HID_IS_URB_AVAILABLE) {
        block->report[QX_REPORT_CODE] = PIC_HID_ACK_URB;
        block->report[QX_REPORT_SEQ] ^= PIC_HID_ACK_SEQ_XOR;
        block->report[QX_REPORT_STATUS] = 0;
    } else if (io == PIC_HID_PROGRAM_FPGA) {
        uint64_t address = 0;
        memcpy(&address, &block->report[12], sizeof address);
        benchDriver.firstByte ^= *reinterpret_cast<const uint8_t *>(static_cast<uintptr_t>(address));
        benchDriver.pages += block->report[11];
        ++benchDriver.chunks;
    }
    return 0;
}

int __benchUsleep(useconds_t) { return 0; }

void __benchDropLine(int, const char *, int, const char *) {}

bool __benchWriteFile()
{
    std::vector<uint8_t> bytes(BENCH_FPGA_SIZE);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(i * 31 + (i >> 10)) & 0x7F; // never a blank 1 KiB block
    }
    FILE *f = fopen(BENCH_FPGA_FILE, "wb");
    if (f == nullptr) {
        return false;
    }
    const bool ok = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return fclose(f) == 0 && ok;
}

struct benchSeam {
    benchSeam() : saved(platformSys)
    {
        platformSys.open = __benchOpen;
        platformSys.close = __benchClose;
        platformSys.ioctl = __benchIoctl;
        platformSys.usleep = __benchUsleep;
        evmLogSetSink(__benchDropLine);
        evmLogSetEcho(false);
    }
    ~benchSeam()
    {
        qxUsbCleanUp();
        evmLogSetSink(nullptr);
        platformSys = saved;
    }
    platformSysOps saved;
};

void BM_fpgaProgramWalk16MiB(benchmark::State &state)
{
    benchSeam seam;
    if (!__benchWriteFile() || fpgaUpgradeFileInit(BENCH_FPGA_FILE) != 0 || qxUsbInit() != 0) {
        state.SkipWithError("file or link not ready");
        return;
    }
    benchDriver = {};
    for (auto _ : state) {
        if (fpgaProgramConfig() != 0) {
            state.SkipWithError("programming failed");
            break;
        }
    }
    const auto runs = static_cast<double>(state.iterations());
    state.counters["chunks/run"] = benchmark::Counter(static_cast<double>(benchDriver.chunks) / runs);
    state.counters["pages/run"] = benchmark::Counter(static_cast<double>(benchDriver.pages) / runs);
}

// Measured beside BM_dd16MiBToDevNull in the same run, on the same cached file.
void BM_fpgaFileLoad16MiB(benchmark::State &state)
{
    benchSeam seam;
    if (!__benchWriteFile()) {
        state.SkipWithError("file not written");
        return;
    }
    for (auto _ : state) {
        if (fpgaUpgradeFileInit(BENCH_FPGA_FILE) != 0) {
            state.SkipWithError("load failed");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(BENCH_FPGA_SIZE));
}

void BM_dd16MiBToDevNull(benchmark::State &state)
{
    const std::string command = std::string("dd if=") + BENCH_FPGA_FILE + " of=/dev/null bs=16M status=none";
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::system(command.c_str()));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(BENCH_FPGA_SIZE));
}

void BM_cpldCrc51200(benchmark::State &state)
{
    std::vector<uint8_t> bytes(CPLD_DATA_SIZE);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(i * 13 + 5);
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(cpldUpgradeCrc(bytes.data(), bytes.size()));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes.size()));
}

BENCHMARK(BM_fpgaProgramWalk16MiB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_fpgaFileLoad16MiB)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_dd16MiBToDevNull)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_cpldCrc51200)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
