// Finding the device node, telling application from bootloader, switching
// between them, erasing and programming the application flash.
#include "qxFile.h"
#include "qxLoader.h"

#include "daemonNotify.h"
#include "flashGuard.h"
#include "evmLog.h"
#include "leBytes.h"
#include "sysSeam.h"

#include <algorithm>
#include <cstring>

namespace {

// Device search: the waits grow tenfold from 1 ms until they reach one
// second; from then on each one-second wait is counted.
constexpr useconds_t QX_LOADER_SEARCH_FIRST_WAIT_US = 1000;
constexpr useconds_t QX_LOADER_SEARCH_LONGEST_GROWING_US = 999999;
constexpr uint32_t QX_LOADER_SEARCH_RESET_AT = 5;  // one-second waits before the USB reset
constexpr uint32_t QX_LOADER_SEARCH_GIVE_UP = 19; // give up once more than this were counted

constexpr useconds_t QX_LOADER_ERASE_WAIT_US = 3000000;
constexpr useconds_t QX_LOADER_PROGRAM_END_WAIT_US = 2000000;

// IO command report: request number at bytes 3-6, block address at 12-19.
constexpr size_t QX_IO_BYTE_REQUEST = 3;
constexpr size_t QX_IO_BYTE_ADDRESS = 12;
// PROGRAM_DEVICE report: flash address at bytes 1-4, byte count at 5, data at the end.
constexpr size_t QX_PROGRAM_BYTE_ADDRESS = 1;
constexpr size_t QX_PROGRAM_BYTE_COUNT = 5;

constexpr uint32_t QX_FLASH_LAST = QX_FLASH_END - 1;

// The blocks whose addresses the driver is handed. The driver keeps the
// address and reads the report when it sends it on, after the request that
// named it has returned, possibly after programming has given up: so they
// belong to the module, never to a frame that ends.
struct {
    qxUsbBlock program{};
    qxUsbBlock complete{};
} qxLoaderBootBlocks;

// An IO command for request `request` with a fresh sequence number.
uint8_t __qxLoaderFillIo(uint8_t *report, uint32_t request)
{
    const uint8_t seq = qxUsbGetNextSeqNumber();
    report[QX_REPORT_CODE] = QX_HID_CMD_IO_CMD;
    report[QX_REPORT_SEQ] = seq;
    lePut32(&report[QX_IO_BYTE_REQUEST], request);
    return seq;
}

// The driver's acknowledgement of set-up and availability requests.
bool __qxLoaderIsAck(const picHidIoctlArg &arg, uint8_t seq)
{
    return arg.report[QX_REPORT_CODE] == PIC_HID_ACK_PIC32 && arg.report[QX_REPORT_SEQ] == (seq ^ PIC_HID_ACK_SEQ_XOR)
        && arg.report[QX_REPORT_STATUS] == 0;
}

// One raw driver request, its block built whole here. The call's result;
// `acked` tells whether the driver answered with its acknowledgement.
int32_t __qxLoaderRawIo(uint32_t request, bool &acked)
{
    picHidIoctlArg arg{};
    const uint8_t seq = __qxLoaderFillIo(arg.report, request);
    int32_t rc = qxUsbRawIoctCmd(&arg);
    acked = rc == 0 && __qxLoaderIsAck(arg, seq);
    return rc;
}

// Hands the driver the report of `block` by its address. The block must stay
// in place until the driver has sent it.
int32_t __qxLoaderHandOver(uint32_t request, const qxUsbBlock &block)
{
    qxUsbBlock io{};
    __qxLoaderFillIo(io.data(), request);
    platformSysHandOver(block.data(), QX_REPORT_SIZE);
    lePut64(&io[QX_IO_BYTE_ADDRESS], reinterpret_cast<uintptr_t>(block.data()));
    return qxUsbCmd(io.data());
}

// Waits until the driver can take another report; false when the
// availability request fails or the driver stays busy.
//
// The driver acknowledges as soon as its one outstanding report has gone out,
// which takes a few milliseconds on a healthy link. A driver still busy after
// 600 polls x 50 ms = 30 s, far beyond its worst case for one report, is not
// going to recover: rather than hold the start-up for ever, programming is
// abandoned and the start-up upgrade's next pass decides again.
bool __qxLoaderWaitForDriver()
{
    for (uint32_t poll = 0; poll < QX_PROGRAM_POLL_MAX; ++poll) {
        bool acked = false;
        int32_t rc = __qxLoaderRawIo(PIC_HID_PIC32_IS_URB_AVAILABLE, acked);
        if (rc != 0) {
            evm_log(0, QX_LOADER_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-PIC_HID_PIC32_IS_URB_AVAILABLE rc: %d", rc);
            return false;
        }
        if (acked) {
            return true;
        }
        platformSysSleep(QX_PROGRAM_POLL_WAIT_US);
    }
    evm_log(0, QX_LOADER_LOG_SOURCE, __LINE__,
            "QX_TRACE_FILE-PIC_HID_PIC32_IS_URB_AVAILABLE: driver still busy after %u polls, giving up",
            static_cast<unsigned>(QX_PROGRAM_POLL_MAX));
    return false;
}

void __qxLoaderSendBare(uint8_t code)
{
    // Go and erase commands carry no sequence number: no reply is awaited,
    // the firmware restarts or is busy erasing.
    qxUsbBlock block{};
    block[QX_REPORT_CODE] = code;
    qxUsbCmd(block.data());
}

bool __qxLoaderIsBlank(const uint8_t *data, size_t len)
{
    return std::all_of(data, data + len, [](uint8_t b) { return b == 0xFF; });
}

} // namespace

int32_t __qxLoaderFindUsbDev()
{
    evm_log(1, QX_LOADER_LOG_SOURCE, __LINE__, "__qxLoaderFindUsbDev: starting");
    daemonNotifyStatus("Searching for the microcontroller");
    useconds_t wait = QX_LOADER_SEARCH_FIRST_WAIT_US;
    uint32_t count = 0;

    int32_t rc = qxUsbInit();
    if (rc == 0) {
        return 0;
    }
    for (;;) {
        if (count > QX_LOADER_SEARCH_GIVE_UP) {
            return rc;
        }
        platformSysSleep(wait);
        if (wait <= QX_LOADER_SEARCH_LONGEST_GROWING_US) {
            wait *= 10;
        } else {
            ++count;
        }
        if (count == QX_LOADER_SEARCH_RESET_AT) {
            // Five seconds without a node: the microcontroller may sit on the
            // bus without the driver having bound it.
            evm_log(6, QX_LOADER_LOG_SOURCE, __LINE__, "__qxLoaderFindUsbDev: resetting USB device");
            resetUsb();
        }
        rc = qxUsbInit();
        if (rc == 0) {
            return 0;
        }
    }
}

int32_t qxLoaderFindUSBDevice()
{
    int32_t rc = __qxLoaderFindUsbDev();
    if (rc != 0) {
        evm_log(0, QX_LOADER_LOG_SOURCE, __LINE__,
                "QX_TRACE_PRINTF-qxLoaderGetClientFileName():: Error Finding QX_HID_DEVICE *****************");
    }
    return rc;
}

int32_t qxLoaderIsProductIdMatch(int32_t productId)
{
    const uint8_t wanted = static_cast<uint8_t>(productId);
    qxUsbBlock block{};
    block[QX_REPORT_CODE] = QX_HID_CMD_GET_INFO;
    const uint8_t seq = qxUsbGetNextSeqNumber();
    block[QX_REPORT_SEQ] = seq;
    // A failed send shows as a reply that never matches.
    qxUsbCmd(block.data());

    __qxLoaderAwaitReply(block.data(), seq);

    const bool match = block[QX_REPORT_CODE] == QX_HID_CMD_GET_INFO && block[QX_REPORT_SEQ] == seq
        && block[QX_REPORT_PAYLOAD] == wanted && block[QX_REPORT_STATUS] == 0;
    if (match) {
        evm_log(1, QX_LOADER_LOG_SOURCE, __LINE__, "qxLoaderIsProductIdMatch: %d matched!!!", wanted);
        return 1;
    }
    evm_log(6, QX_LOADER_LOG_SOURCE, __LINE__, "qxLoaderIsProductIdMatch: %d doesn't match!!!", wanted);
    return 0;
}

int32_t qxLoaderIsHidApplication() { return qxLoaderIsProductIdMatch(QX_PRODUCT_ID_APPLICATION); }

int32_t qxLoaderIsHidBootloader() { return qxLoaderIsProductIdMatch(QX_PRODUCT_ID_BOOTLOADER); }

void qxLoaderGotoApplication() { __qxLoaderSendBare(QX_HID_CMD_GOTO_APPLICATION); }

void qxLoaderGotoBootLoader() { __qxLoaderSendBare(QX_HID_CMD_GOTO_BOOTLOADER); }

void qxLoaderEraseApplication()
{
    __qxLoaderSendBare(ERASE_DEVICE);
    // The bootloader answers nothing while it erases.
    platformSysSleep(QX_LOADER_ERASE_WAIT_US);
}

int32_t qxLoaderProgram()
{
    const uint8_t *source = qxFileGetData();
    const uint32_t packetDataSize = qxLoaderGetPacketDataSize();

    qxUsbBlock &complete = qxLoaderBootBlocks.complete;
    complete.fill(0);
    complete[QX_REPORT_CODE] = PROGRAM_COMPLETE;
    qxUsbBlock &program = qxLoaderBootBlocks.program;

    bool acked = false;
    int32_t rc = __qxLoaderRawIo(PIC_HID_PIC32_UPGRADE_SETUP, acked);
    if (!acked) {
        // rc is 0 when the driver answered without its acknowledgement.
        evm_log(0, QX_LOADER_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-PIC_HID_PIC32_UPGRADE_SETUP rc: %d", rc);
        return -1;
    }

    uint32_t address = QX_FLASH_START;
    uint32_t remaining = QX_FLASH_SIZE;
    bool gap = false;
    // Blocks of packetDataSize bytes over the whole flash, blank ones counted
    // as written: erased flash already holds them.
    const uint32_t blocks = packetDataSize != 0 ? (QX_FLASH_SIZE + packetDataSize - 1) / packetDataSize : 0;
    uint32_t block = 0;
    while (address <= QX_FLASH_LAST) {
        daemonNotifyWatchdog();
        daemonNotifyProgress(QX_LOADER_UPGRADING, "blocks", block, blocks);
        flashGuardProgress(block++);
        // The driver is asked before every chunk, blank ones too: the
        // previous report may still be on its way.
        // A driver that fails or stays busy leaves the image incomplete:
        // that is a failed run, whatever got through before.
        if (!__qxLoaderWaitForDriver()) {
            return -1;
        }

        program.fill(0);
        program[QX_REPORT_CODE] = PROGRAM_DEVICE;
        lePut32(&program[QX_PROGRAM_BYTE_ADDRESS], address);
        program[QX_PROGRAM_BYTE_COUNT] = static_cast<uint8_t>(std::min(remaining, packetDataSize));
        const uint32_t n = program[QX_PROGRAM_BYTE_COUNT];

        if (n == 0 || __qxLoaderIsBlank(source, n)) {
            // Erased flash already reads 0xFF: skip the chunk, and tell the
            // bootloader the run is broken before the next one is written.
            gap = true;
        } else {
            if (gap) {
                rc = __qxLoaderHandOver(PIC_HID_PIC32_PROGRAM_DONE, complete);
                if (rc != 0) {
                    evm_log(0, QX_LOADER_LOG_SOURCE, __LINE__,
                            "QX_TRACE_FILE-***ERROR*** PIC_HID_PIC32_PROGRAM_DONE rc: %d", rc);
                    return -1;
                }
            }
            // The bootloader takes the data right-justified in the report.
            memcpy(&program[QX_REPORT_SIZE - n], source, n);
            rc = __qxLoaderHandOver(PIC_HID_PIC32_PROGRAM, program);
            if (rc != 0) {
                evm_log(0, QX_LOADER_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-***ERROR*** PIC_HID_PIC32_PROGRAM rc: %d",
                        rc);
                return -1;
            }
            gap = false;
        }
        address += n;
        source += n;
        remaining -= n;
    }

    daemonNotifyProgress(QX_LOADER_UPGRADING, "blocks", blocks, blocks);
    flashGuardProgress(blocks);
    // Ends the last run: the bootloader writes what it still buffers only
    // on this, so without it the image is not known to be complete.
    rc = __qxLoaderHandOver(PIC_HID_PIC32_PROGRAM_DONE, complete);
    if (rc != 0) {
        evm_log(0, QX_LOADER_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-***ERROR*** PIC_HID_PIC32_PROGRAM_DONE rc: %d", rc);
        return -1;
    }
    platformSysSleep(QX_LOADER_PROGRAM_END_WAIT_US);
    return 0;
}
