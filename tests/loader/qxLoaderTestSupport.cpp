// Test support for the loader tests: firmware images written as Intel HEX
// files, and a tap on the device node that records what goes over the wire,
// fails chosen requests and changes chosen answers.
#include "qxFile.h"
#include "qxUsb.h"
#include "simInProcess.h"
#include "sysSeam.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

namespace qxLoaderTest {

struct wireRecord {
    uint32_t request;
    std::array<uint8_t, QX_REPORT_SIZE> report;    // the block's report as handed to the driver
    std::array<uint8_t, QX_REPORT_SIZE> answer;    // the report after the driver answered
    std::array<uint8_t, QX_REPORT_SIZE> packet;    // PIC32 PROGRAM / PROGRAM_DONE: the packet named
    int err;                                       // 0, or the errno the request failed with
};

namespace {

constexpr int TAP_OPEN_LIMIT = 100;
constexpr size_t TAP_RECORD_LIMIT = 200000;

struct {
    platformSysOps below{};
    std::vector<wireRecord> records;
    std::function<int(uint32_t, const picHidIoctlArg &)> before;
    std::function<void(uint32_t, picHidIoctlArg &)> after;
    int openFailures = 0; // -1: always
    int openAttempts = 0;
    std::vector<uint64_t> openTimes; // virtual time of each attempt
} tapPrivateMembers;

auto &T = tapPrivateMembers;

int __tapOpen(const char *path, int flags, mode_t mode)
{
    if (strcmp(path, QX_USB_DEVICE_PATH) == 0) {
        ++T.openAttempts;
        T.openTimes.push_back(simVirtualNowUs());
        // A loop that never ends (a start-up upgrade going round for good)
        // runs into a missing node instead, and so comes to an end.
        if (T.openFailures != 0 || T.openAttempts > TAP_OPEN_LIMIT) {
            if (T.openFailures > 0) {
                --T.openFailures;
            }
            errno = ENOENT;
            return -1;
        }
    }
    return T.below.open(path, flags, mode);
}

uint64_t __tapLe64(const uint8_t *p)
{
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) {
        v = v << 8 | p[i];
    }
    return v;
}

int __tapIoctl(int fd, unsigned long request, void *arg)
{
    auto *block = static_cast<picHidIoctlArg *>(arg);
    const uint32_t req = static_cast<uint32_t>(request);
    wireRecord rec{};
    rec.request = req;
    if (block != nullptr) {
        memcpy(rec.report.data(), block->report, QX_REPORT_SIZE);
        if (req == PIC_HID_PIC32_PROGRAM || req == PIC_HID_PIC32_PROGRAM_DONE) {
            const auto *packet = reinterpret_cast<const uint8_t *>(static_cast<uintptr_t>(__tapLe64(&block->report[12])));
            if (packet != nullptr) {
                memcpy(rec.packet.data(), packet, QX_REPORT_SIZE);
            }
        }
    }
    if (T.before && block != nullptr) {
        if (const int err = T.before(req, *block); err != 0) {
            rec.err = err;
            T.records.push_back(rec);
            errno = err;
            return -1;
        }
    }
    const int rc = T.below.ioctl(fd, request, arg);
    rec.err = rc == 0 ? 0 : errno;
    if (rc == 0 && T.after && block != nullptr) {
        T.after(req, *block);
    }
    if (block != nullptr) {
        memcpy(rec.answer.data(), block->report, QX_REPORT_SIZE);
    }
    if (T.records.size() < TAP_RECORD_LIMIT) {
        T.records.push_back(rec);
    }
    errno = rec.err;
    return rc;
}

} // namespace

// Wraps the seam as it stands (the simulated appliance); installing again
// only starts afresh.
void tapInstall()
{
    if (platformSys.ioctl != __tapIoctl) {
        T.below = platformSys;
    }
    T.openTimes.clear();
    T.records.clear();
    T.before = nullptr;
    T.after = nullptr;
    T.openFailures = 0;
    T.openAttempts = 0;
    platformSys.open = __tapOpen;
    platformSys.ioctl = __tapIoctl;
}

void tapSetBefore(std::function<int(uint32_t, const picHidIoctlArg &)> before) { T.before = std::move(before); }

void tapSetAfter(std::function<void(uint32_t, picHidIoctlArg &)> after) { T.after = std::move(after); }

void tapSetOpenFailures(int count) { T.openFailures = count; }

int tapOpenAttempts() { return T.openAttempts; }

std::vector<uint64_t> tapOpenTimes() { return T.openTimes; }

void tapClear() { T.records.clear(); }

size_t tapCount(uint32_t request)
{
    return static_cast<size_t>(
        std::count_if(T.records.begin(), T.records.end(), [request](const wireRecord &r) { return r.request == request; }));
}

// The requests in the order they were issued, failed ones included.
std::vector<uint32_t> tapRequests()
{
    std::vector<uint32_t> out;
    for (const auto &r : T.records) {
        out.push_back(r.request);
    }
    return out;
}

// Reports that reached the driver with `request` and went through, for one
// command code (-1: any).
std::vector<std::array<uint8_t, QX_REPORT_SIZE>> tapReports(uint32_t request, int code)
{
    std::vector<std::array<uint8_t, QX_REPORT_SIZE>> out;
    for (const auto &r : T.records) {
        if (r.request == request && r.err == 0 && (code < 0 || r.report[QX_REPORT_CODE] == code)) {
            out.push_back(r.report);
        }
    }
    return out;
}

// The same reports as the driver answered them in the block.
std::vector<std::array<uint8_t, QX_REPORT_SIZE>> tapAnswers(uint32_t request)
{
    std::vector<std::array<uint8_t, QX_REPORT_SIZE>> out;
    for (const auto &r : T.records) {
        if (r.request == request && r.err == 0) {
            out.push_back(r.answer);
        }
    }
    return out;
}

// The packets that PIC32 PROGRAM / PROGRAM_DONE requests named, as they
// stood when the request was issued.
std::vector<std::array<uint8_t, QX_REPORT_SIZE>> tapPackets(uint32_t request)
{
    std::vector<std::array<uint8_t, QX_REPORT_SIZE>> out;
    for (const auto &r : T.records) {
        if (r.request == request && r.err == 0) {
            out.push_back(r.packet);
        }
    }
    return out;
}

// ---- Images -------------------------------------------------------------------

std::vector<uint8_t> blankImage() { return std::vector<uint8_t>(QX_FLASH_SIZE, 0xFF); }

// Writes `image` (offset 0 = the flash start) as 16-byte data records; lines
// that are all 0xFF are left out, but at least one record is written.
std::string writeHexFile(const std::vector<uint8_t> &image)
{
    static int serial = 0;
    std::string path = testing::TempDir() + "qxLoaderImage-" + std::to_string(getpid()) + "-" + std::to_string(serial++)
        + ".hex";
    FILE *f = fopen(path.c_str(), "w");
    EXPECT_NE(f, nullptr);
    if (f == nullptr) {
        return path;
    }
    uint32_t upper = 0xFFFFFFFF;
    bool any = false;
    for (size_t off = 0; off < image.size(); off += 16) {
        const size_t n = std::min<size_t>(16, image.size() - off);
        const bool blank = std::all_of(image.begin() + off, image.begin() + off + n, [](uint8_t b) { return b == 0xFF; });
        const bool last = off + 16 >= image.size();
        if (blank && (any || !last)) {
            continue;
        }
        any = true;
        const uint32_t address = QX_FLASH_START + static_cast<uint32_t>(off);
        if (address >> 16 != upper) {
            upper = address >> 16;
            const uint8_t sum = static_cast<uint8_t>(2 + 4 + (upper >> 8) + (upper & 0xFF));
            fprintf(f, ":02000004%04X%02X\n", upper, static_cast<uint8_t>(-sum) & 0xFF);
        }
        uint32_t sum = static_cast<uint32_t>(n) + ((address >> 8) & 0xFF) + (address & 0xFF);
        fprintf(f, ":%02X%04X00", static_cast<unsigned>(n), address & 0xFFFF);
        for (size_t i = 0; i < n; ++i) {
            fprintf(f, "%02X", image[off + i]);
            sum += image[off + i];
        }
        fprintf(f, "%02X\n", static_cast<uint8_t>(-static_cast<uint8_t>(sum)) & 0xFF);
    }
    fprintf(f, ":00000001FF\n");
    fclose(f);
    return path;
}

int32_t loadImage(const std::vector<uint8_t> &image)
{
    const std::string path = writeHexFile(image);
    qxFileReset();
    const int32_t rc = qxFileInit(path.c_str());
    unlink(path.c_str());
    return rc;
}

} // namespace qxLoaderTest
