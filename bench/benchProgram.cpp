// The programming walk over the whole flash range against a driver that is
// always ready: the loader's own cost per run, the mandated sleeps left out
// (usleep does nothing here). A full image hands over every chunk; a sparse
// one is mostly availability polls over blank chunks.
#include "benchNode.h"
#include "evmLog.h"
#include "qxFile.h"
#include "qxLoader.h"
#include "qxUsb.h"
#include "sysSeam.h"

#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

struct {
    uint64_t packets = 0; // PROGRAM / PROGRAM_DONE requests seen
    uint8_t lastPacket[QX_REPORT_SIZE] = {};
} benchDriver;

// Acknowledges set-up and availability at once; takes a copy of each packet
// handed over by address, as the driver does.
int __benchIoctl(int fd, unsigned long request, void *arg)
{
    if (fd != BENCH_NODE_FD) {
        errno = EBADF;
        return -1;
    }
    auto *block = static_cast<picHidIoctlArg *>(arg);
    switch (static_cast<uint32_t>(request)) {
    case PIC_HID_PIC32_UPGRADE_SETUP:
    case PIC_HID_PIC32_IS_URB_AVAILABLE:
        block->report[QX_REPORT_CODE] = PIC_HID_ACK_PIC32;
        block->report[QX_REPORT_SEQ] ^= PIC_HID_ACK_SEQ_XOR;
        block->report[QX_REPORT_STATUS] = 0;
        return 0;
    case PIC_HID_PIC32_PROGRAM:
    case PIC_HID_PIC32_PROGRAM_DONE: {
        uint64_t address = 0;
        memcpy(&address, &block->report[12], sizeof address);
        memcpy(benchDriver.lastPacket, reinterpret_cast<const void *>(static_cast<uintptr_t>(address)),
               QX_REPORT_SIZE);
        ++benchDriver.packets;
        return 0;
    }
    default:
        return 0;
    }
}

int __benchUsleep(useconds_t) { return 0; }

void __benchDropLine(int, const char *, int, const char *) {}

// Writes `image` (offset 0 = the flash start) as an Intel HEX file, blank
// 16-byte lines left out, and loads it.
bool __benchLoad(const std::vector<uint8_t> &image)
{
    char path[] = "/tmp/benchProgram-XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0) {
        return false;
    }
    FILE *f = fdopen(fd, "w");
    if (f == nullptr) {
        close(fd);
        unlink(path);
        return false;
    }
    uint32_t upper = 0xFFFFFFFF;
    for (size_t off = 0; off < image.size(); off += 16) {
        bool blank = true;
        for (size_t i = 0; i < 16; ++i) {
            blank = blank && image[off + i] == 0xFF;
        }
        if (blank) {
            continue;
        }
        const uint32_t address = QX_FLASH_START + static_cast<uint32_t>(off);
        if (address >> 16 != upper) {
            upper = address >> 16;
            const unsigned sum = 2 + 4 + (upper >> 8) + (upper & 0xFF);
            fprintf(f, ":02000004%04X%02X\n", upper, (0x100 - (sum & 0xFF)) & 0xFF);
        }
        unsigned sum = 16 + ((address >> 8) & 0xFF) + (address & 0xFF);
        fprintf(f, ":10%04X00", address & 0xFFFF);
        for (size_t i = 0; i < 16; ++i) {
            fprintf(f, "%02X", image[off + i]);
            sum += image[off + i];
        }
        fprintf(f, "%02X\n", (0x100 - (sum & 0xFF)) & 0xFF);
    }
    fprintf(f, ":00000001FF\n");
    fclose(f);
    qxFileReset();
    const int32_t rc = qxFileInit(path);
    unlink(path);
    return rc == 0;
}

std::vector<uint8_t> __benchFullImage()
{
    std::vector<uint8_t> image(QX_FLASH_SIZE);
    for (size_t i = 0; i < image.size(); ++i) {
        image[i] = static_cast<uint8_t>(i * 31 + (i >> 8)) & 0x7F; // never 0xFF
    }
    return image;
}

// 96 KiB of code at the bottom, a 4 KiB table in the middle, the rest erased.
std::vector<uint8_t> __benchSparseImage()
{
    std::vector<uint8_t> image(QX_FLASH_SIZE, 0xFF);
    for (size_t i = 0; i < 96 * 1024; ++i) {
        image[i] = static_cast<uint8_t>(i * 7) & 0x7F;
    }
    for (size_t i = 0; i < 4096; ++i) {
        image[0x30000 + i] = static_cast<uint8_t>(i) & 0x7F;
    }
    return image;
}

void __benchProgram(benchmark::State &state, const std::vector<uint8_t> &image)
{
    const platformSysOps saved = platformSys;
    platformSys.open = benchNodeOpen;
    platformSys.close = benchNodeClose;
    platformSys.ioctl = __benchIoctl;
    platformSys.usleep = __benchUsleep;
    evmLogSetSink(__benchDropLine);
    evmLogSetEcho(false);

    if (!__benchLoad(image) || qxUsbInit() != 0) {
        state.SkipWithError("image or link not ready");
    } else {
        qxLoaderSetPacketDataSize();
        benchDriver.packets = 0;
        for (auto _ : state) {
            benchmark::DoNotOptimize(qxLoaderProgram());
        }
        state.counters["packets/run"] =
            benchmark::Counter(static_cast<double>(benchDriver.packets) / static_cast<double>(state.iterations()));
        benchmark::DoNotOptimize(benchDriver.lastPacket);
    }

    qxUsbCleanUp();
    evmLogSetSink(nullptr);
    platformSys = saved;
}

void BM_programFullImage(benchmark::State &state) { __benchProgram(state, __benchFullImage()); }
void BM_programSparseImage(benchmark::State &state) { __benchProgram(state, __benchSparseImage()); }

BENCHMARK(BM_programFullImage)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_programSparseImage)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
