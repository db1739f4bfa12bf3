// The FPGA and CPLD upgrades' own costs: the programming walk of a 16 MiB
// FPGA file against a driver that always has room (sleeps cost nothing
// here), the 16 MiB file load beside dd reading the same file from the page
// cache, the bit-by-bit CRC over the largest CPLD file, and the heap
// allocations of a whole FPGA and CPLD upgrade on the simulated appliance
// (there must be none); and the service's resident memory before, during
// and after a whole FPGA upgrade of 1 MiB and of 16 MiB: at most the file's
// size plus 1 MiB above the idle figure during it, within 1 MiB of the idle
// figure after it (a missed goal fails the run).
#include "benchNode.h"
#include "cpldUpgrade.h"
#include "evmLog.h"
#include "fpgaUpgrade.h"
#include "qxUsb.h"
#include "simInProcess.h"
#include "sysSeam.h"
#include "usbMgmt.h"

#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

extern "C" void *__libc_malloc(size_t);

namespace {

constexpr size_t BENCH_FPGA_SIZE = 16u << 20;
constexpr const char *BENCH_FPGA_FILE = "/tmp/benchUpgrade-16MiB.bin";

struct {
    uint64_t chunks = 0;
    uint64_t pages = 0;
    uint8_t firstByte = 0;
    uint8_t statusSeq = 0;    // the last status query or clean-up, answered by the next report read
    uint32_t statusState = 0;
    uint64_t residentAtCleanUpKiB = 0;
} benchDriver;

uint64_t __benchResidentKiB()
{
    unsigned long pages = 0;
    unsigned long resident = 0;
    FILE *f = fopen("/proc/self/statm", "r");
    if (f == nullptr) {
        return 0;
    }
    const bool ok = fscanf(f, "%lu %lu", &pages, &resident) == 2;
    fclose(f);
    return ok ? resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024 : 0;
}

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
    } else if (io == PIC_HID_ERASE_FPGA_STATUS || io == PIC_HID_PROGRAM_CLEAN_UP) {
        benchDriver.statusSeq = block->report[QX_REPORT_SEQ];
        benchDriver.statusState = io == PIC_HID_ERASE_FPGA_STATUS ? 1 : 3;
        if (io == PIC_HID_PROGRAM_CLEAN_UP) {
            benchDriver.residentAtCleanUpKiB = __benchResidentKiB(); // every page handed over by now
        }
    } else if (io == PIC_HID_GET_REPORT) {
        memset(block->report, 0, sizeof block->report);
        block->report[QX_REPORT_CODE] = PIC_HID_ACK_URB;
        block->report[QX_REPORT_SEQ] = benchDriver.statusSeq;
        memcpy(&block->report[3], &benchDriver.statusState, sizeof benchDriver.statusState);
    }
    return 0;
}

int __benchUsleep(useconds_t) { return 0; }

void __benchDropLine(int, const char *, int, const char *) {}

bool __benchWriteFile(const char *path = BENCH_FPGA_FILE, size_t size = BENCH_FPGA_SIZE)
{
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(i * 31 + (i >> 10)) & 0x7F; // never a blank 1 KiB block
    }
    FILE *f = fopen(path, "wb");
    if (f == nullptr) {
        return false;
    }
    const bool ok = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return fclose(f) == 0 && ok;
}

struct benchSeam {
    benchSeam() : saved(platformSys)
    {
        platformSys.open = benchNodeOpen;
        platformSys.close = benchNodeClose;
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

// One whole FPGA upgrade of `MiB` through the dispatcher; the resident set
// read before, at the clean-up (every page handed to the driver) and after.
void BM_fpgaUpgradeResident(benchmark::State &state)
{
    const auto size = static_cast<size_t>(state.range(0)) << 20;
    const std::string path = "/tmp/benchUpgrade-resident-" + std::to_string(state.range(0)) + "MiB.bin";
    benchSeam seam;
    if (!__benchWriteFile(path.c_str(), size) || qxUsbInit() != 0) {
        state.SkipWithError("file or link not ready");
        return;
    }
    qxUsbBlock cmd{};
    cmd[QX_REPORT_CODE] = QX_HID_CMD_FPGA_UPGRADE;
    memcpy(&cmd[QX_REPORT_PAYLOAD], path.c_str(), path.size() + 1);
    // Idle once, before the first upgrade: later runs are held to that figure.
    const uint64_t idle = __benchResidentKiB();
    uint64_t after = 0;
    for (auto _ : state) {
        qxUsbBlock resp{};
        if (usbMgmtCmd(cmd, resp) != 0) {
            state.SkipWithError("upgrade failed");
            break;
        }
        after = __benchResidentKiB();
    }
    unlink(path.c_str());
    const uint64_t during = benchDriver.residentAtCleanUpKiB;
    state.counters["residentIdleKiB"] = benchmark::Counter(static_cast<double>(idle));
    state.counters["residentDuringKiB"] = benchmark::Counter(static_cast<double>(during));
    state.counters["residentAfterKiB"] = benchmark::Counter(static_cast<double>(after));
    if (during > idle + (size >> 10) + 1024 || after > idle + 1024) {
        state.SkipWithError("resident memory above its goal");
    }
}

struct {
    bool counting = false;
    int inSeam = 0; // the model may allocate; only the service's own code counts
    uint64_t allocations = 0;
    platformSysOps model = {};
} benchHeap;

template <typename Fn, typename... Args> auto __benchInModel(Fn fn, Args... args)
{
    ++benchHeap.inSeam;
    auto rc = fn(args...);
    --benchHeap.inSeam;
    return rc;
}

bool __benchWriteCpldFile(const char *path)
{
    std::vector<uint8_t> b(CPLD_DATA_SIZE);
    for (size_t i = 0; i < b.size(); ++i) {
        b[i] = static_cast<uint8_t>(i * 13 + 5);
    }
    const uint8_t head[] = {'J', 'A', 'M', 1};
    memcpy(b.data(), head, sizeof head);
    const uint32_t offset = CPLD_DATA_SIZE - 2;
    const uint8_t offsetBe[] = {0, 0, static_cast<uint8_t>(offset >> 8), static_cast<uint8_t>(offset)};
    memcpy(&b[40], offsetBe, sizeof offsetBe);
    const uint16_t crc = cpldUpgradeCrc(b.data(), offset);
    b[offset] = static_cast<uint8_t>(crc >> 8);
    b[offset + 1] = static_cast<uint8_t>(crc);
    FILE *f = fopen(path, "wb");
    return f != nullptr && fwrite(b.data(), 1, b.size(), f) == b.size() && fclose(f) == 0;
}

// Whole upgrades on the model, allocations counted outside the model's own
// calls; any allocation fails the run.
void BM_upgradeHeapAllocations(benchmark::State &state)
{
    constexpr const char *CPLD_FILE = "/tmp/benchUpgrade-cpld.jbc";
    simInProcessInstall();
    evmLogSetSink(__benchDropLine);
    evmLogSetEcho(false);
    const time_t zero = 0;
    struct tm local = {};
    localtime_r(&zero, &local); // the time zone is read before counting
    benchHeap.model = platformSys;
    platformSys.ioctl = [](int fd, unsigned long r, void *a) {
        return __benchInModel(benchHeap.model.ioctl, fd, r, a);
    };
    platformSys.usleep = [](useconds_t us) { return __benchInModel(benchHeap.model.usleep, us); };
    platformSys.open = [](const char *p, int f, mode_t m) { return __benchInModel(benchHeap.model.open, p, f, m); };
    platformSys.read = [](int fd, void *b, size_t n) { return __benchInModel(benchHeap.model.read, fd, b, n); };
    platformSys.msSince1970 = [] { return __benchInModel(benchHeap.model.msSince1970); };
    if (!__benchWriteFile() || !__benchWriteCpldFile(CPLD_FILE) || qxUsbInit() != 0) {
        state.SkipWithError("files or link not ready");
    }
    benchHeap.allocations = 0;
    for (auto _ : state) {
        for (auto [code, path] :
             {std::pair{QX_HID_CMD_FPGA_UPGRADE, BENCH_FPGA_FILE}, std::pair{QX_HID_CMD_CPLD_UPGRADE, CPLD_FILE}}) {
            qxUsbBlock cmd{};
            qxUsbBlock resp{};
            cmd[QX_REPORT_CODE] = code;
            memcpy(&cmd[QX_REPORT_PAYLOAD], path, strlen(path) + 1);
            benchHeap.counting = true;
            const int32_t rc = usbMgmtCmd(cmd, resp);
            benchHeap.counting = false;
            if (rc != 0) {
                state.SkipWithError("upgrade failed");
            }
        }
    }
    state.counters["allocations"] = benchmark::Counter(static_cast<double>(benchHeap.allocations));
    if (benchHeap.allocations != 0) {
        state.SkipWithError("an upgrade allocated on the heap");
    }
    qxUsbCleanUp();
    simInProcessUninstall();
    evmLogSetSink(nullptr);
}

BENCHMARK(BM_fpgaProgramWalk16MiB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_fpgaFileLoad16MiB)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_dd16MiBToDevNull)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_cpldCrc51200)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_fpgaUpgradeResident)->Arg(1)->Arg(16)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_upgradeHeapAllocations)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace

// operator new takes its memory from malloc: one hook counts both.
extern "C" void *malloc(size_t n)
{
    benchHeap.allocations += benchHeap.counting && benchHeap.inSeam == 0 ? 1 : 0;
    return __libc_malloc(n);
}

BENCHMARK_MAIN();
