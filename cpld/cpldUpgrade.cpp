// CPLD upgrade: the byte-code file and its CRC, setup and erase, the CPLD
// record, the file in chunks of 256-byte pages handed to the driver by
// address, the run, and the record read back before and after it.
#include "cpldUpgrade.h"

#include "evmLog.h"
#include "leBytes.h"
#include "sysSeam.h"
#include "uniqueFd.h"
#include "usbMgmt.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr const char *CPLD_LOG_SOURCE = "cpldUpgrade";

constexpr size_t CPLD_PATH = 3;

// IO command block and chunk fields, as for the FPGA.
constexpr size_t CPLD_IO_REQUEST = 3;
constexpr size_t CPLD_CHUNK_FIRST_PAGE = 7;
constexpr size_t CPLD_CHUNK_COUNT = 11;
constexpr size_t CPLD_CHUNK_ADDRESS = 12;

constexpr useconds_t CPLD_RECORD_WAIT_US = 1000000;
constexpr useconds_t CPLD_RECORD_REREAD_US = 10000;
constexpr int CPLD_RECORD_REREADS = 3;
constexpr useconds_t CPLD_CAPACITY_POLL_US = 1000000;
// The driver frees room within milliseconds; one still full after 30 polls
// of 1 s has stopped moving, and the handler's second attempt starts afresh.
constexpr uint32_t CPLD_CAPACITY_POLLS = 30;
constexpr useconds_t CPLD_RUN_WAIT_US = 20000000;
constexpr useconds_t CPLD_REPORT_FIRST_WAIT_US = 2000000;
constexpr useconds_t CPLD_REPORT_BACKOFF_US = 200000;
constexpr int CPLD_REPORT_REREADS = 6;

constexpr uint32_t CPLD_STATE_WRITTEN = 0xFFFFFFFF;
constexpr uint32_t CPLD_STATE_RUN = 0;

constexpr const char *CPLD_STAMP_FORMAT = "%s %d-%d-%d %d:%d:%d";
constexpr const char *CPLD_STAMP_PREFIX = "time :";

static_assert(CPLD_CHUNK_ADDRESS + 8 <= QX_REPORT_SIZE);
static_assert(CPLD_DATA_SIZE / CPLD_PAGE_SIZE == 200);
// The longest stamp (a four-digit year) and its NUL stay inside the report.
static_assert(CPLD_RECORD_STAMP + sizeof "time : 2026-12-31 23:59:59" <= QX_REPORT_SIZE);

struct {
    int32_t upgradeSize = 0;
    uint16_t expectedCrc = 0;
    uint8_t data[CPLD_DATA_SIZE] = {};
} cpldUpgradePrivateMembers;

auto &cpldImage = cpldUpgradePrivateMembers;


void __cpldIoBlock(uint8_t *report, uint32_t request, uint8_t seq)
{
    report[QX_REPORT_CODE] = QX_HID_CMD_IO_CMD;
    report[QX_REPORT_SEQ] = seq;
    lePut32(&report[CPLD_IO_REQUEST], request);
}

int32_t __cpldSend(uint32_t request)
{
    qxUsbBlock cmd{};
    qxUsbBlock resp{};
    __cpldIoBlock(cmd.data(), request, 0);
    return usbMgmtCmd(cmd, resp);
}

ssize_t __cpldReadFile(const char *path, size_t size)
{
    // Opened without blocking and checked once open: a FIFO or a device that
    // stat passed must neither hold the service nor be taken for a file.
    uniqueFd fd(platformSys.open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC, 0));
    if (!fd.valid()) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-error opening file: %s - '%s'", path,
                std::strerror(errno));
        return -1;
    }
    struct stat st = {};
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        const char *reason = S_ISDIR(st.st_mode) ? std::strerror(EISDIR) : "not a regular file";
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-error opening file: %s - '%s'", path, reason);
        return -1;
    }
    size_t got = 0;
    while (got < size) {
        const ssize_t n = platformSys.read(fd.get(), &cpldImage.data[got], size - got);
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

// The time stamp text of the record, from the seam's clock in local time.
void __cpldStamp(uint8_t *block)
{
    const uint64_t ms = platformSys.msSince1970 != nullptr ? platformSys.msSince1970()
                                                           : static_cast<uint64_t>(time(nullptr)) * 1000u;
    const auto seconds = static_cast<time_t>(ms / 1000u);
    struct tm local = {}; // all zero when the local time cannot be had
    localtime_r(&seconds, &local);
    char *text = reinterpret_cast<char *>(&block[CPLD_RECORD_STAMP]);
    std::snprintf(text, QX_BLOCK_SIZE - CPLD_RECORD_STAMP, CPLD_STAMP_FORMAT, CPLD_STAMP_PREFIX, local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    block[CPLD_RECORD_STAMP_LEN] = static_cast<uint8_t>(std::strlen(text));
}

enum class cpldRoom : uint8_t { FREE, FAILED, STAYED_BUSY };

cpldRoom __cpldWaitForRoom(int32_t &rc)
{
    for (uint32_t poll = 0; poll < CPLD_CAPACITY_POLLS; ++poll) {
        picHidIoctlArg query{};
        const uint8_t seq = qxUsbGetNextSeqNumber();
        __cpldIoBlock(query.report, PIC_HID_IS_URB_AVAILABLE, seq);
        query.report[CPLD_CHUNK_COUNT] = CPLD_CHUNK_PAGES;
        rc = qxUsbRawIoctCmd(&query);
        if (rc != 0) {
            evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-PIC_HID_IS_URB_AVAILABLE rc: %d", rc);
            return cpldRoom::FAILED;
        }
        if (query.report[QX_REPORT_CODE] == PIC_HID_ACK_URB
            && query.report[QX_REPORT_SEQ] == (seq ^ PIC_HID_ACK_SEQ_XOR) && query.report[QX_REPORT_STATUS] == 0) {
            return cpldRoom::FREE;
        }
        platformSys.usleep(CPLD_CAPACITY_POLL_US);
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__,
            "QX_TRACE_FILE-PIC_HID_IS_URB_AVAILABLE: driver still busy after %u polls, giving up",
            static_cast<unsigned>(CPLD_CAPACITY_POLLS));
    rc = -1;
    return cpldRoom::STAYED_BUSY;
}

int32_t cpldWaitForReport(const qxUsbBlock &cmd, qxUsbBlock &resp)
{
    resp.fill(0);
    platformSys.usleep(CPLD_REPORT_FIRST_WAIT_US);
    int32_t rc = qxUsbGetReport(resp.data());
    useconds_t wait = CPLD_REPORT_BACKOFF_US;
    for (int reread = 0; reread < CPLD_REPORT_REREADS && resp[QX_REPORT_SEQ] != cmd[QX_REPORT_SEQ]; ++reread) {
        platformSys.usleep(wait);
        wait *= 2;
        resp.fill(0);
        rc = qxUsbGetReport(resp.data());
    }
    if (rc != 0) {
        return rc;
    }
    if (resp[QX_REPORT_SEQ] == cmd[QX_REPORT_SEQ]) {
        return 0;
    }
    return resp[QX_REPORT_CODE] == cmd[QX_REPORT_CODE] ? 0 : 1;
}

// The record read back: size, CRC and the state word the step requires.
int32_t __cpldReadBack(useconds_t waitUs, uint32_t state)
{
    if (waitUs != 0) {
        platformSys.usleep(waitUs);
    }
    qxUsbBlock cmd{};
    qxUsbBlock resp{};
    cmd[QX_REPORT_CODE] = QX_HID_CMD_CPLD_INFO;
    if (cpldInfo(cmd, resp) != 0) {
        return -1;
    }
    const bool same = leGet16(&resp[CPLD_RECORD_CRC_BYTE]) == cpldImage.expectedCrc
        && leGet32(&resp[CPLD_RECORD_STATE_BYTE]) == state
        && leGet16(&resp[CPLD_RECORD_SIZE_BYTE]) == static_cast<uint16_t>(cpldImage.upgradeSize);
    return same ? 0 : -1;
}

// Clears the record after a failure from the CRC check on; its own outcome
// changes nothing.
void __cpldClearRecord()
{
    cpldProgramInfo(1);
}

} // namespace

int32_t cpldUpgradeFileInit(const char *path)
{
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-%s:: fileName: %s", "cpldUpgradeFileInit", path);
    struct stat st = {};
    if (stat(path, &st) != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-error finding file: %s", path);
        return -1;
    }
    if (st.st_size < CPLD_FILE_SIZE_MIN || st.st_size > CPLD_FILE_SIZE_MAX) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-error wrong file size: %ld [min: %d], [max: %d]",
                static_cast<long>(st.st_size), CPLD_FILE_SIZE_MIN, CPLD_FILE_SIZE_MAX);
        return -1;
    }
    std::fill(std::begin(cpldImage.data), std::end(cpldImage.data), CPLD_FILE_FILL);
    const auto size = static_cast<size_t>(st.st_size);
    const ssize_t got = __cpldReadFile(path, size);
    if (got < 0) {
        return -1;
    }
    if (static_cast<size_t>(got) != size) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-fread error rc: %d", static_cast<int>(got));
        return -1;
    }
    cpldImage.upgradeSize = static_cast<int32_t>(got);
    return 0;
}

int32_t cpldUpgradeEraseCpld()
{
    int32_t rc = __cpldSend(PIC_HID_CPLD_UPGRADE_SETUP);
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-PIC_HID_CPLD_UPGRADE_SETUP rc: %d", rc);
        return rc;
    }
    rc = __cpldSend(PIC_HID_ERASE_CPLD);
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-PIC_HID_ERASE_CPLD rc: %d", rc);
        return rc;
    }
    return 0;
}

int32_t cpldProgramInfo(int32_t clear)
{
    qxUsbBlock block;
    block.fill(0xFF);
    const uint8_t seq = qxUsbGetNextSeqNumber();
    block[QX_REPORT_CODE] = QX_HID_CMD_SET_FLASH_VAL;
    block[QX_REPORT_SEQ] = seq;
    block[QX_REPORT_PAYLOAD] = CPLD_RECORD_SLOT;
    lePut16(&block[CPLD_RECORD_SIZE_BYTE], clear != 0 ? 0 : static_cast<uint16_t>(cpldImage.upgradeSize));
    lePut16(&block[CPLD_RECORD_CRC_BYTE], clear != 0 ? 0 : cpldImage.expectedCrc);
    __cpldStamp(block.data());
    // The outcome rests on the confirming report alone.
    qxUsbCmd(block.data());

    platformSys.usleep(CPLD_RECORD_WAIT_US);
    block.fill(0);
    qxUsbGetReport(block.data());
    for (int reread = 0; reread < CPLD_RECORD_REREADS && block[QX_REPORT_SEQ] != seq; ++reread) {
        platformSys.usleep(CPLD_RECORD_REREAD_US);
        block.fill(0);
        qxUsbGetReport(block.data());
    }
    const bool confirmed = block[QX_REPORT_CODE] == QX_HID_CMD_SET_FLASH_VAL && block[QX_REPORT_SEQ] == seq
        && block[QX_REPORT_PAYLOAD] == CPLD_RECORD_SLOT && block[QX_REPORT_STATUS] == 0;
    return confirmed ? 0 : -1;
}

int32_t cpldProgramBin()
{
    const uint32_t pages = (static_cast<uint32_t>(cpldImage.upgradeSize) + CPLD_PAGE_SIZE - 1) / CPLD_PAGE_SIZE;
    uint32_t next = 0;
    while (next < pages) {
        int32_t rc = 0;
        if (__cpldWaitForRoom(rc) != cpldRoom::FREE) {
            return rc;
        }
        const uint32_t count = std::min(CPLD_CHUNK_PAGES, pages - next);
        qxUsbBlock cmd{};
        qxUsbBlock resp{};
        __cpldIoBlock(cmd.data(), PIC_HID_PROGRAM_CPLD, qxUsbGetNextSeqNumber());
        lePut24(&cmd[CPLD_CHUNK_FIRST_PAGE], next);
        cmd[CPLD_CHUNK_COUNT] = static_cast<uint8_t>(count);
        lePut64(&cmd[CPLD_CHUNK_ADDRESS], reinterpret_cast<uintptr_t>(&cpldImage.data[CPLD_PAGE_SIZE * next]));
        rc = usbMgmtCmd(cmd, resp);
        if (rc != 0) {
            return rc;
        }
        next += count;
    }
    return 0;
}

int32_t cpldCrcCheck()
{
    return __cpldReadBack(0, CPLD_STATE_WRITTEN);
}

int32_t cpldUpgradeRun()
{
    return __cpldSend(PIC_HID_CPLD_UPGRADE_RUN);
}

int32_t cpldUpgradeCleanUp()
{
    return __cpldReadBack(CPLD_RUN_WAIT_US, CPLD_STATE_RUN);
}

int32_t cpldInfo(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    cmd[QX_REPORT_SEQ] = qxUsbGetNextSeqNumber();
    const int32_t rc = qxUsbCmd(cmd.data());
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_USB-***usb cmd failed***");
        return rc;
    }
    return cpldWaitForReport(cmd, resp);
}

int32_t cpldUpgradeStart(qxUsbBlock &cmd, qxUsbBlock &)
{
    // The path must end inside the command block: a request without its NUL
    // there is refused rather than cut, so nothing behind the block is read
    // and no other file than the one named is ever programmed.
    const auto *path = reinterpret_cast<const char *>(&cmd[CPLD_PATH]);
    if (std::memchr(path, '\0', QX_BLOCK_SIZE - CPLD_PATH) == nullptr) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__,
                "QX_TRACE_FILE-error file name does not end within the command block (at most %d characters)",
                static_cast<int>(QX_BLOCK_SIZE - CPLD_PATH - 1));
        return -1;
    }
    int32_t rc = cpldUpgradeFileInit(path);
    if (rc != 0) {
        return rc;
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-_this->upgradeSize: %d", cpldImage.upgradeSize);

    // After a rejected header expectedCrc keeps its former value and the
    // computed CRC shows as 0x0000.
    uint16_t actual = 0;
    if (cpldUpgradeCheckCrc(cpldImage.data, cpldImage.upgradeSize, &cpldImage.expectedCrc, &actual) != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-***CRC ERROR*** expected_crc: 0x%04x, actual_crc: 0x%04x",
                cpldImage.expectedCrc, actual);
        return -1;
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-expected_crc: 0x%04x, actual_crc: 0x%04x", cpldImage.expectedCrc,
            actual);

    rc = cpldUpgradeEraseCpld();
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Error erasing CPLD!!!!!");
        return rc;
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-*****CPLD ERASE DONE*****");

    rc = cpldProgramInfo(1);
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-cpldProgramInfo Clear Failed! rc: %d", rc);
        return rc;
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-*****CPLD INFO CLEAR DONE*****");

    rc = cpldProgramBin();
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Error programming the cpld executable!!!!!");
        return rc;
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-*****CPLD FIRMWARE UPDATE DONE!!!*****");

    rc = cpldProgramInfo(0);
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-cpldProgramInfo Update Failed! rc: %d", rc);
        return rc;
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-***CPLD INFO UPDATE DONE***");

    rc = cpldCrcCheck();
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Error verifying cpld executable binary file!!!!!");
        __cpldClearRecord();
        return rc;
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-***CPLD CRC CHECK PASSED!!!***");

    rc = cpldUpgradeRun();
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Error running CPLD Upgrade!!!!!");
        __cpldClearRecord();
        return rc;
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-***CPLD UPGRADE RUN PASSED!!!***");

    rc = cpldUpgradeCleanUp();
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Error CPLD Upgrade Clean Up!!!!!");
        __cpldClearRecord();
        return rc;
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-***CPLD PROGRAM SUCCESSFUL!!!!!!!!!!!!***");
    return 0;
}

cpldUpgradeView cpldUpgradeGetView()
{
    return {cpldImage.upgradeSize, cpldImage.expectedCrc, cpldImage.data};
}
