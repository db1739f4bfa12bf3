// FPGA upgrade: load the configuration file, have the microcontroller set up
// and erase the FPGA, hand the driver the file in chunks of 256-byte pages and
// confirm the clean-up. The driver reads the pages out of `data` by address,
// after the chunk's own request has returned.
#include "fpgaUpgrade.h"

#include "evmLog.h"
#include "leBytes.h"
#include "sysSeam.h"
#include "uniqueFd.h"
#include "usbMgmt.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr const char *FPGA_LOG_SOURCE = "fpgaUpgrade";

constexpr size_t FPGA_BLOCK_SIZE = 1024; // the unit of the upgrade size walk
constexpr uint8_t FPGA_FILL = 0xFF;

// IO command block: request number at bytes 3-6; chunk fields from byte 7.
constexpr size_t FPGA_IO_REQUEST = 3;
constexpr size_t FPGA_CHUNK_FIRST_PAGE = 7; // 24-bit
constexpr size_t FPGA_CHUNK_COUNT = 11;     // also the capacity query's 30
constexpr size_t FPGA_CHUNK_ADDRESS = 12;   // 64-bit
constexpr size_t FPGA_STATUS_STATE = 3;     // 32-bit state in a status report
constexpr size_t FPGA_PATH = 3;             // the path's first byte in the command block

constexpr uint32_t FPGA_STATE_ERASED = 1;
constexpr uint32_t FPGA_STATE_CLEANED_UP = 3;

constexpr useconds_t FPGA_ERASE_WAIT_US = 55000000;
constexpr int FPGA_ERASE_QUERIES = 80;
constexpr useconds_t FPGA_ERASE_QUERY_PAUSE_US = 1000000;
constexpr useconds_t FPGA_REPORT_WAIT_US = 20000;
constexpr useconds_t FPGA_CAPACITY_POLL_US = 50000;
// The driver frees room within milliseconds of a chunk going out; one that
// stays full for 30 s (600 polls of 50 ms) has stopped moving, so the upgrade
// gives up instead of holding every other client for ever.
constexpr uint32_t FPGA_CAPACITY_POLLS = 600;
constexpr int FPGA_CLEAN_UP_TRIES = 3;
constexpr useconds_t FPGA_CLEAN_UP_WAIT_US = 2000000;

static_assert(FPGA_DATA_SIZE >= FPGA_FILE_SIZE_MAX + FPGA_BLOCK_SIZE, "the size walk's last block lies in data");
static_assert((FPGA_FILE_SIZE_MAX / FPGA_PAGE_SIZE) < (1u << 24), "a page index fits the chunk's 24 bits");
static_assert(FPGA_CHUNK_ADDRESS + 8 <= QX_REPORT_SIZE);

struct {
    int32_t upgradeSize = 0;
    uint8_t data[FPGA_DATA_SIZE] = {};
} fpgaUpgradePrivateMembers;

auto &fpgaImage = fpgaUpgradePrivateMembers;

// An IO command for `request`; byte 1 is the sequence number (0 where none is taken).
void __fpgaIoBlock(uint8_t *report, uint32_t request, uint8_t seq)
{
    report[QX_REPORT_CODE] = QX_HID_CMD_IO_CMD;
    report[QX_REPORT_SEQ] = seq;
    lePut32(&report[FPGA_IO_REQUEST], request);
}

int32_t __fpgaSend(uint32_t request, uint8_t seq, qxUsbBlock &resp)
{
    qxUsbBlock cmd{};
    __fpgaIoBlock(cmd.data(), request, seq);
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
    platformSys.usleep(FPGA_REPORT_WAIT_US);
    // Cleared first, so a failed read cannot leave an old report behind.
    resp.fill(0);
    qxUsbGetReport(resp.data());
    return __fpgaIsStatus(resp, seq, state);
}

// Reads the whole file into data; the count read, or -1 when the file cannot
// be read at all (logged here).
ssize_t __fpgaReadFile(const char *path, size_t size)
{
    // Opened without blocking and checked once open: a FIFO or a device that
    // stat passed must neither hold the service nor be taken for a file.
    uniqueFd fd(platformSys.open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC, 0));
    if (!fd.valid()) {
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-error opening file: %s - '%s'", path,
                std::strerror(errno));
        return -1;
    }
    struct stat st = {};
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        const char *reason = S_ISDIR(st.st_mode) ? std::strerror(EISDIR) : "not a regular file";
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-error opening file: %s - '%s'", path, reason);
        return -1;
    }
    evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-st.st_size: %ld", static_cast<long>(size));
    // One read as far as the system gives it; continued only where it stops early.
    size_t got = 0;
    while (got < size) {
        const ssize_t n = platformSys.read(fd.get(), &fpgaImage.data[got], size - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(got);
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

enum class fpgaRoom : uint8_t { FREE, FAILED, STAYED_BUSY };

// Polls the driver until it has room for a chunk, at most FPGA_CAPACITY_POLLS times.
fpgaRoom __fpgaWaitForRoom(int32_t &rc)
{
    for (uint32_t poll = 0; poll < FPGA_CAPACITY_POLLS; ++poll) {
        picHidIoctlArg query{};
        const uint8_t seq = qxUsbGetNextSeqNumber();
        __fpgaIoBlock(query.report, PIC_HID_IS_URB_AVAILABLE, seq);
        query.report[FPGA_CHUNK_COUNT] = FPGA_CHUNK_PAGES;
        rc = qxUsbRawIoctCmd(&query);
        if (rc != 0) {
            evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-PIC_HID_IS_URB_AVAILABLE rc: %d", rc);
            return fpgaRoom::FAILED;
        }
        if (query.report[QX_REPORT_CODE] == PIC_HID_ACK_URB
            && query.report[QX_REPORT_SEQ] == (seq ^ PIC_HID_ACK_SEQ_XOR) && query.report[QX_REPORT_STATUS] == 0) {
            return fpgaRoom::FREE;
        }
        platformSys.usleep(FPGA_CAPACITY_POLL_US);
    }
    evm_log(0, FPGA_LOG_SOURCE, __LINE__,
            "QX_TRACE_FILE-PIC_HID_IS_URB_AVAILABLE: driver still busy after %u polls, giving up",
            static_cast<unsigned>(FPGA_CAPACITY_POLLS));
    rc = -1;
    return fpgaRoom::STAYED_BUSY;
}

} // namespace

int32_t fpgaUpgradeFileInit(const char *path)
{
    evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-%s:: fileName: %s", "fpgaUpgradeFileInit", path);
    struct stat st = {};
    if (stat(path, &st) != 0) {
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-error finding file: %s", path);
        return -1;
    }
    if (st.st_size < FPGA_FILE_SIZE_MIN || st.st_size > FPGA_FILE_SIZE_MAX) {
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-error wrong file size: %ld [min: %d], [max: %d]",
                static_cast<long>(st.st_size), FPGA_FILE_SIZE_MIN, FPGA_FILE_SIZE_MAX);
        return -1;
    }
    const auto size = static_cast<size_t>(st.st_size);
    const ssize_t got = __fpgaReadFile(path, size);
    if (got < 0) {
        return -1;
    }
    if (static_cast<size_t>(got) != size) {
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-fread error rc: %d", static_cast<int>(got));
        return -1;
    }
    std::fill(&fpgaImage.data[size], std::end(fpgaImage.data), FPGA_FILL);
    fpgaImage.upgradeSize = __fpgaUpgradeSizeOf(size);
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
    platformSys.usleep(FPGA_ERASE_WAIT_US);
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
        platformSys.usleep(FPGA_ERASE_QUERY_PAUSE_US);
    }
    return -1;
}

int32_t fpgaProgramConfig()
{
    const uint32_t pages = (static_cast<uint32_t>(fpgaImage.upgradeSize) + FPGA_PAGE_SIZE - 1) / FPGA_PAGE_SIZE;
    uint32_t next = 0;
    while (next < pages) {
        int32_t rc = 0;
        if (__fpgaWaitForRoom(rc) != fpgaRoom::FREE) {
            return rc;
        }
        const uint32_t count = std::min(FPGA_CHUNK_PAGES, pages - next);
        qxUsbBlock cmd{};
        qxUsbBlock resp{};
        __fpgaIoBlock(cmd.data(), PIC_HID_PROGRAM_FPGA, qxUsbGetNextSeqNumber());
        lePut24(&cmd[FPGA_CHUNK_FIRST_PAGE], next);
        cmd[FPGA_CHUNK_COUNT] = static_cast<uint8_t>(count);
        lePut64(&cmd[FPGA_CHUNK_ADDRESS], reinterpret_cast<uintptr_t>(&fpgaImage.data[FPGA_PAGE_SIZE * next]));
        rc = usbMgmtCmd(cmd, resp);
        if (rc != 0) {
            return rc;
        }
        next += count;
    }
    return 0;
}

int32_t fpgaUpgradeCleanUp()
{
    qxUsbBlock resp{};
    for (int attempt = 0; attempt < FPGA_CLEAN_UP_TRIES; ++attempt) {
        platformSys.usleep(FPGA_CLEAN_UP_WAIT_US);
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
    int32_t rc = fpgaUpgradeFileInit(path);
    if (rc != 0) {
        return rc;
    }
    evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-_this->upgradeSize: %dk", fpgaImage.upgradeSize / 1024);

    rc = fpgaUpgradeEraseFpga();
    if (rc != 0) {
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Error erasing FPGA!!!!!");
        return rc;
    }
    evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-*****FPGA ERASE DONE*****");

    rc = fpgaProgramConfig();
    if (rc != 0) {
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Error programming the configurator!!!!!");
        return rc;
    }
    evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-*****FPGA PROGRAM DONE*****");

    rc = fpgaUpgradeCleanUp();
    if (rc != 0) {
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Error GPGA Upgrade Clean Up!!!!!");
    } else {
        evm_log(0, FPGA_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-*****FPGA PROGRAM SUCCEFUL!!!!!!!!!!!!*****");
    }
    return rc;
}

fpgaUpgradeView fpgaUpgradeGetView()
{
    return {fpgaImage.upgradeSize, fpgaImage.data};
}
