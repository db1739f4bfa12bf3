// FPGA upgrade: load the configuration file, have the microcontroller set up
// and erase the FPGA, hand the driver the file in chunks of 256-byte pages and
// confirm the clean-up. The driver reads the pages out of `data` by address,
// after the chunk's own request has returned.
#include "fpgaUpgrade.h"

#include "evmLog.h"
#include "flashGuard.h"
#include "leBytes.h"
#include "sysSeam.h"
#include "usbMgmt.h"
#include "usbMgmtUpload.h"

#include <algorithm>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr const char *FPGA_LOG_SOURCE = "fpgaUpgrade";

constexpr size_t FPGA_BLOCK_SIZE = 1024; // the unit of the upgrade size walk
constexpr uint8_t FPGA_FILL = 0xFF;

constexpr size_t FPGA_STATUS_STATE = 3;     // 32-bit state in a status report
constexpr size_t FPGA_PATH = 3;             // the path's first byte in the command block

constexpr uint32_t FPGA_STATE_ERASED = 1;
constexpr uint32_t FPGA_STATE_CLEANED_UP = 3;

constexpr useconds_t FPGA_ERASE_WAIT_US = 55000000;
constexpr int FPGA_ERASE_QUERIES = 80;
constexpr useconds_t FPGA_ERASE_QUERY_PAUSE_US = 1000000;
constexpr useconds_t FPGA_REPORT_WAIT_US = 20000;
constexpr int FPGA_CLEAN_UP_TRIES = 3;
constexpr useconds_t FPGA_CLEAN_UP_WAIT_US = 2000000;

static_assert(FPGA_DATA_SIZE >= FPGA_FILE_SIZE_MAX + FPGA_BLOCK_SIZE, "the size walk's last block lies in data");
static_assert((FPGA_FILE_SIZE_MAX / FPGA_PAGE_SIZE) < (1u << 24), "a page index fits the chunk's 24 bits");
static_assert(FPGA_PAGE_SIZE == USB_MGMT_UPLOAD_PAGE_SIZE && FPGA_CHUNK_PAGES == USB_MGMT_UPLOAD_CHUNK_PAGES);

// Capacity polled every 50 ms, given up after 30 s (600 polls).
constexpr usbMgmtUploadRules FPGA_UPLOAD = {
    .logSource = FPGA_LOG_SOURCE,
    .minSize = FPGA_FILE_SIZE_MIN,
    .maxSize = FPGA_FILE_SIZE_MAX,
    .logFileSize = true,
    .chunkRequest = PIC_HID_PROGRAM_FPGA,
    .roomPollUs = 50000,
    .roomPolls = 600,
    .progress = "FPGA upgrade in progress",
};

struct {
    int32_t upgradeSize = 0;
    size_t fileSize = 0; // of the file last loaded
    // On a page boundary, so that every page of it can be handed back.
    alignas(4096) uint8_t data[FPGA_DATA_SIZE] = {};
} fpgaUpgradePrivateMembers;

auto &fpgaImage = fpgaUpgradePrivateMembers;

int32_t __fpgaSend(uint32_t request, uint8_t seq, qxUsbBlock &resp)
{
    qxUsbBlock cmd{};
    usbMgmtIoBlock(cmd.data(), request, seq);
    resp.fill(0);
    return usbMgmtCmd(cmd, resp);
}

bool __fpgaIsStatus(const qxUsbBlock &report, uint8_t seq, uint32_t state)
{
    return report[QX_REPORT_CODE] == PIC_HID_ACK_URB && report[QX_REPORT_SEQ] == seq
        && report[QX_REPORT_STATUS] == 0 && leGet32(&report[FPGA_STATUS_STATE]) == state;
}

// After the status query or the clean-up command: one report, tested for `state`.
bool __fpgaReadStatus(qxUsbBlock &resp, uint8_t seq, uint32_t state)
{
    platformSysSleep(FPGA_REPORT_WAIT_US);
    // Cleared first, so a failed read cannot leave an old report behind.
    resp.fill(0);
    qxUsbGetReport(resp.data());
    return __fpgaIsStatus(resp, seq, state);
}

// The size to program: up to and including the first all-0xFF 1 KiB block, or
// the file's size rounded up to the next block.
int32_t __fpgaUpgradeSizeOf(size_t size)
{
    size_t end = 0;
    for (size_t start = 0;; start += FPGA_BLOCK_SIZE) {
        end = start + FPGA_BLOCK_SIZE;
        const uint8_t *block = &fpgaImage.data[start];
        if (std::all_of(block, block + FPGA_BLOCK_SIZE, [](uint8_t b) { return b == FPGA_FILL; }) || end >= size) {
            break;
        }
    }
    return static_cast<int32_t>(end);
}

// Hands the buffer's pages back once an upgrade has ended, so that one upgrade
// does not keep up to 16 MiB resident for the rest of the service's life; they
// read as zeros until the next load writes them. The driver has taken every
// chunk by then: each one handed over is followed by another request on the
// same descriptor (the next capacity query or the clean-up) or by its close.
// Whole pages inside the buffer only: a page shared with other data stays.
void __fpgaReleaseData()
{
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto begin = reinterpret_cast<uintptr_t>(fpgaImage.data);
    const uintptr_t first = (begin + page - 1) & ~(page - 1);
    const uintptr_t last = (begin + sizeof fpgaImage.data) & ~(page - 1);
    if (last > first) {
        // The range as a pointer into the buffer itself, not one made from a number.
        madvise(&fpgaImage.data[first - begin], last - first, MADV_DONTNEED);
    }
}

int32_t __fpgaUpgradeSteps()
{
    int32_t rc = fpgaUpgradeEraseFpga();
    if (rc != 0) {
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Error erasing FPGA!!!!!");
        flashGuardEnd(rc, "erasing the FPGA failed");
        return rc;
    }
    evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-*****FPGA ERASE DONE*****");

    rc = fpgaProgramConfig();
    if (rc != 0) {
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Error programming the configurator!!!!!");
        flashGuardEnd(rc, "handing the pages over failed");
        return rc;
    }
    evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-*****FPGA PROGRAM DONE*****");

    rc = fpgaUpgradeCleanUp();
    if (rc != 0) {
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Error GPGA Upgrade Clean Up!!!!!");
    } else {
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-*****FPGA PROGRAM SUCCEFUL!!!!!!!!!!!!*****");
    }
    flashGuardEnd(rc, "the clean-up was not confirmed");
    return rc;
}

int32_t __fpgaUpgradeRun(const char *path)
{
    const int32_t rc = fpgaUpgradeFileInit(path);
    if (rc != 0) {
        return rc;
    }
    evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-_this->upgradeSize: %dk", fpgaImage.upgradeSize / 1024);
    // Nothing has touched the FPGA before the erase: from here on it is a flash.
    uint8_t digest[FLASH_HISTORY_DIGEST_SIZE];
    flashGuardMd5(fpgaImage.data, fpgaImage.fileSize, digest);
    flashGuardBegin(flashWhat::FPGA, path, fpgaImage.fileSize, digest,
                    static_cast<uint32_t>(fpgaImage.upgradeSize) / FPGA_PAGE_SIZE);
    return __fpgaUpgradeSteps();
}

} // namespace

int32_t fpgaUpgradeFileInit(const char *path)
{
    evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-%s:: fileName: %s", "fpgaUpgradeFileInit", evmLogEscape(path));
    const ssize_t size = usbMgmtUploadFileSize(FPGA_UPLOAD, path);
    if (size < 0) {
        return -1;
    }
    const ssize_t got = usbMgmtUploadReadFile(FPGA_UPLOAD, path, fpgaImage.data, static_cast<size_t>(size));
    if (got < 0) {
        return -1;
    }
    if (got != size) {
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-fread error rc: %d", static_cast<int>(got));
        return -1;
    }
    // 0xFF only as far as anything reads: the size walk looks at blocks that
    // start inside the file, and the driver at no more than the walk found.
    // Filling to the buffer's end would make all 16 MiB resident.
    const size_t readEnd = (static_cast<size_t>(size) + FPGA_BLOCK_SIZE - 1) / FPGA_BLOCK_SIZE * FPGA_BLOCK_SIZE;
    std::fill(&fpgaImage.data[size], &fpgaImage.data[readEnd], FPGA_FILL);
    fpgaImage.upgradeSize = __fpgaUpgradeSizeOf(static_cast<size_t>(size));
    fpgaImage.fileSize = static_cast<size_t>(size);
    return 0;
}

int32_t fpgaUpgradeEraseFpga()
{
    qxUsbBlock resp{};
    int32_t rc = __fpgaSend(PIC_HID_FPGA_UPGRADE_SETUP, 0, resp);
    if (rc != 0) {
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-PIC_HID_FPGA_UPGRADE_SETUP rc: %d", rc);
        return rc;
    }
    rc = __fpgaSend(PIC_HID_ERASE_FPGA, 0, resp);
    if (rc != 0) {
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-PIC_HID_ERASE_FPGA rc: %d", rc);
        return rc;
    }
    platformSysSleep(FPGA_ERASE_WAIT_US);
    for (int query = 0; query < FPGA_ERASE_QUERIES; ++query) {
        const uint8_t seq = qxUsbGetNextSeqNumber();
        rc = __fpgaSend(PIC_HID_ERASE_FPGA_STATUS, seq, resp);
        if (rc != 0) {
            evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-PIC_HID_ERASE_FPGA rc: %d", rc);
            return rc;
        }
        if (__fpgaReadStatus(resp, seq, FPGA_STATE_ERASED)) {
            return 0;
        }
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-PIC_HID_ERASE_FPGA rc: %d", 0);
        platformSysSleep(FPGA_ERASE_QUERY_PAUSE_US);
    }
    return -1;
}

int32_t fpgaProgramConfig()
{
    const uint32_t pages = (static_cast<uint32_t>(fpgaImage.upgradeSize) + FPGA_PAGE_SIZE - 1) / FPGA_PAGE_SIZE;
    return usbMgmtUploadPages(FPGA_UPLOAD, fpgaImage.data, pages);
}

int32_t fpgaUpgradeCleanUp()
{
    qxUsbBlock resp{};
    for (int attempt = 0; attempt < FPGA_CLEAN_UP_TRIES; ++attempt) {
        platformSysSleep(FPGA_CLEAN_UP_WAIT_US);
        const uint8_t seq = qxUsbGetNextSeqNumber();
        const int32_t rc = __fpgaSend(PIC_HID_PROGRAM_CLEAN_UP, seq, resp);
        if (rc != 0) {
            evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-PIC_HID_PROGRAM_CLEAN_UP rc: %d", rc);
            return rc;
        }
        if (__fpgaReadStatus(resp, seq, FPGA_STATE_CLEANED_UP)) {
            return 0;
        }
    }
    return -1;
}

int32_t fpgaUpgradeStart(const qxUsbBlock &cmd)
{
    // The path must end inside the command block: a request without its NUL
    // there is refused rather than cut, so nothing behind the block is read
    // and no other file than the one named is ever programmed.
    const auto *path = reinterpret_cast<const char *>(&cmd[FPGA_PATH]);
    if (std::memchr(path, '\0', QX_BLOCK_SIZE - FPGA_PATH) == nullptr) {
        evm_log(0, FPGA_LOG_SOURCE, __LINE__,
                "QX_TRACE_FILE-error file name does not end within the command block (at most %d characters)",
                static_cast<int>(QX_BLOCK_SIZE - FPGA_PATH - 1));
        return -1;
    }
    const int32_t rc = __fpgaUpgradeRun(path);
    __fpgaReleaseData();
    return rc;
}

fpgaUpgradeView fpgaUpgradeGetView()
{
    return {fpgaImage.upgradeSize, fpgaImage.data};
}
