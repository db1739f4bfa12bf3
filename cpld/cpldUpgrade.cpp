// CPLD upgrade: the byte-code file and its CRC, setup and erase, the CPLD
// record, the file in chunks of 256-byte pages handed to the driver by
// address, the run, and the record read back before and after it.
#include "cpldUpgrade.h"

#include "evmLog.h"
#include "flashGuard.h"
#include "leBytes.h"
#include "sysSeam.h"
#include "usbMgmt.h"
#include "usbMgmtUpload.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

constexpr const char *CPLD_LOG_SOURCE = "cpldUpgrade";

constexpr size_t CPLD_PATH = 3;

constexpr useconds_t CPLD_RECORD_WAIT_US = 1000000;
constexpr useconds_t CPLD_RECORD_REREAD_US = 10000;
constexpr int CPLD_RECORD_REREADS = 3;
constexpr useconds_t CPLD_RUN_WAIT_US = 20000000;
// 2 s, then up to six more reads after 200 ms doubling to 6,400 ms: a slow
// microcontroller is polled seldom.
constexpr usbMgmtReportWait CPLD_REPORT_WAIT = {2000000, 6, 200000, true};

constexpr uint32_t CPLD_STATE_WRITTEN = 0xFFFFFFFF;
constexpr uint32_t CPLD_STATE_RUN = 0;

constexpr const char *CPLD_STAMP_FORMAT = "%s %d-%d-%d %d:%d:%d";
constexpr const char *CPLD_STAMP_PREFIX = "time :";

static_assert(CPLD_PAGE_SIZE == USB_MGMT_UPLOAD_PAGE_SIZE && CPLD_CHUNK_PAGES == USB_MGMT_UPLOAD_CHUNK_PAGES);

// Capacity polled every second, given up after 30 s (30 polls); the
// handler's second attempt then starts afresh.
constexpr usbMgmtUploadRules CPLD_UPLOAD = {
    .logSource = CPLD_LOG_SOURCE,
    .minSize = CPLD_FILE_SIZE_MIN,
    .maxSize = CPLD_FILE_SIZE_MAX,
    .logFileSize = false,
    .chunkRequest = PIC_HID_PROGRAM_CPLD,
    .roomPollUs = 1000000,
    .roomPolls = 30,
    .progress = "CPLD upgrade in progress",
};
static_assert(CPLD_DATA_SIZE / CPLD_PAGE_SIZE == 200);
// The longest stamp (a four-digit year) and its NUL stay inside the report.
static_assert(CPLD_RECORD_STAMP + sizeof "time : 2026-12-31 23:59:59" <= QX_REPORT_SIZE);

struct {
    int32_t upgradeSize = 0;
    uint16_t expectedCrc = 0;
    uint8_t data[CPLD_DATA_SIZE] = {};
} cpldUpgradePrivateMembers;

auto &cpldImage = cpldUpgradePrivateMembers;


int32_t __cpldSend(uint32_t request)
{
    qxUsbBlock cmd{};
    qxUsbBlock resp{};
    usbMgmtIoBlock(cmd.data(), request, 0);
    return usbMgmtCmd(cmd, resp);
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

int32_t cpldWaitForReport(const qxUsbBlock &cmd, qxUsbBlock &resp)
{
    return usbMgmtAwaitReport(CPLD_REPORT_WAIT, cmd, resp);
}

// The record read back: size, CRC and the state word the step requires.
int32_t __cpldReadBack(useconds_t waitUs, uint32_t state)
{
    if (waitUs != 0) {
        platformSysSleep(waitUs);
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
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-%s:: fileName: %s", "cpldUpgradeFileInit", evmLogEscape(path));
    const ssize_t size = usbMgmtUploadFileSize(CPLD_UPLOAD, path);
    if (size < 0) {
        return -1;
    }
    std::fill(std::begin(cpldImage.data), std::end(cpldImage.data), CPLD_FILE_FILL);
    const ssize_t got = usbMgmtUploadReadFile(CPLD_UPLOAD, path, cpldImage.data, static_cast<size_t>(size));
    if (got < 0) {
        return -1;
    }
    if (got != size) {
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

    platformSysSleep(CPLD_RECORD_WAIT_US);
    block.fill(0);
    qxUsbGetReport(block.data());
    for (int reread = 0; reread < CPLD_RECORD_REREADS && block[QX_REPORT_SEQ] != seq; ++reread) {
        platformSysSleep(CPLD_RECORD_REREAD_US);
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
    return usbMgmtUploadPages(CPLD_UPLOAD, cpldImage.data, pages);
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

namespace {

// The steps from the erase on; `why` names the one that failed.
int32_t __cpldUpgradeSteps(const char *&why)
{
    int32_t rc = cpldUpgradeEraseCpld();
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Error erasing CPLD!!!!!");
        why = "setting up or erasing the CPLD failed";
        return rc;
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-*****CPLD ERASE DONE*****");

    rc = cpldProgramInfo(1);
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-cpldProgramInfo Clear Failed! rc: %d", rc);
        why = "clearing the CPLD record failed";
        return rc;
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-*****CPLD INFO CLEAR DONE*****");

    rc = cpldProgramBin();
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Error programming the cpld executable!!!!!");
        why = "handing the pages over failed";
        return rc;
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-*****CPLD FIRMWARE UPDATE DONE!!!*****");

    rc = cpldProgramInfo(0);
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-cpldProgramInfo Update Failed! rc: %d", rc);
        why = "writing the CPLD record failed";
        return rc;
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-***CPLD INFO UPDATE DONE***");

    rc = cpldCrcCheck();
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Error verifying cpld executable binary file!!!!!");
        __cpldClearRecord();
        why = "the CPLD record read back before the run differs";
        return rc;
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-***CPLD CRC CHECK PASSED!!!***");

    rc = cpldUpgradeRun();
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Error running CPLD Upgrade!!!!!");
        __cpldClearRecord();
        why = "starting the CPLD run failed";
        return rc;
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-***CPLD UPGRADE RUN PASSED!!!***");

    rc = cpldUpgradeCleanUp();
    if (rc != 0) {
        evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Error CPLD Upgrade Clean Up!!!!!");
        __cpldClearRecord();
        why = "the CPLD record after the run does not say it ran";
        return rc;
    }
    evm_log(0, CPLD_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-***CPLD PROGRAM SUCCESSFUL!!!!!!!!!!!!***");
    return 0;
}

} // namespace

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

    // Nothing has touched the CPLD before the erase: from here on it is a flash.
    uint8_t digest[FLASH_HISTORY_DIGEST_SIZE];
    flashGuardMd5(cpldImage.data, static_cast<size_t>(cpldImage.upgradeSize), digest);
    const uint32_t pages = (static_cast<uint32_t>(cpldImage.upgradeSize) + CPLD_PAGE_SIZE - 1) / CPLD_PAGE_SIZE;
    flashGuardBegin(flashWhat::CPLD, path, static_cast<uint64_t>(cpldImage.upgradeSize), digest, pages);
    const char *why = "";
    rc = __cpldUpgradeSteps(why);
    flashGuardEnd(rc, why);
    return rc;
}

cpldUpgradeView cpldUpgradeGetView()
{
    return {cpldImage.upgradeSize, cpldImage.expectedCrc, cpldImage.data};
}
