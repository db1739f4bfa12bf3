// The device link: the one owner of the microcontroller's device node. Sends
// reports and driver requests, reads reports, retries a busy driver, re-opens
// the node after errors and resets the USB device after a GOTO command.
#include "qxUsb.h"

#include "daemonNotify.h"
#include "evmLog.h"
#include "leBytes.h"
#include "sysSeam.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr const char *QX_USB_LOG_SOURCE = "qxUsb";

constexpr size_t QX_USB_DEV_PATH_SIZE = 100;
constexpr int QX_USB_ATTEMPTS = 3;               // first try and two retries while the driver says EAGAIN
constexpr useconds_t QX_USB_RETRY_SLEEP_US = 100000;
constexpr uint32_t QX_USB_REOPEN_ERR_CNT = 15;
constexpr useconds_t QX_USB_MODULE_SLEEP_US = 2000000;
// A closed link tries a missing node again at most this often, so that a client
// polling a board that is off the bus does not become an open per request.
constexpr uint64_t QX_USB_HEAL_INTERVAL_MS = 1000;
constexpr uint32_t QX_USB_PIC_USB_ID = (uint32_t{QX_USB_PRODUCT_ID} << 16) | QX_USB_VENDOR_ID;
static_assert(QX_USB_PIC_USB_ID == 0x003C04D8);

// Codes whose raw requests are sent without a trace: the bootloader's steady
// traffic and the frequent queries.
constexpr std::array<qxHidCmd, 9> QX_USB_QUIET_CMDS = {
    QUERY_DEVICE,
    PROGRAM_DEVICE,
    PROGRAM_COMPLETE,
    GET_DATA,
    QX_HID_CMD_GET_INFO,
    QX_HID_CMD_GET_FLASH_VAL,
    QX_HID_CMD_SET_FLASH_VAL,
    QX_HID_CMD_GET_ALL_DRV_STATUS,
    QX_HID_CMD_GET_ONE_DRV_STATUS,
};
constexpr std::array<bool, 256> QX_USB_QUIET = [] {
    std::array<bool, 256> quiet{};
    for (qxHidCmd code : QX_USB_QUIET_CMDS) {
        quiet[code] = true;
    }
    return quiet;
}();
constexpr size_t QX_USB_TRACE_BYTES_PER_LINE = 16;

// Payload offsets of the values a report carries for the driver.
constexpr size_t QX_USB_IO_REQUEST = 3;  // code 38: the driver request number
constexpr size_t QX_USB_XFER_LEN = 3;    // code 37: transfer length

struct {
    int32_t fd = -1;
    uint8_t seqNum = 1;
    char devPath[QX_USB_DEV_PATH_SIZE] = {};
    uint32_t errCnt = 0;
    // The request boundary's own tries to open a closed link (qxUsbHeal).
    bool healTried = false;
    bool healSawNode = false; // the node was there at the last open, the link's own re-opens included
    uint64_t healLastMs = 0;
} qxUsbPrivateMembers;

auto &usbLink = qxUsbPrivateMembers;

enum class qxUsbIssue : uint8_t { OK, BUSY, FAILED };

// Issues a request, again after 100 ms while the driver answers EAGAIN, three
// attempts in all. The error is taken right after each attempt, so a retry
// sleep cut short by a signal simply leads to the next attempt.
qxUsbIssue __qxUsbIssueWithRetry(uint32_t request, picHidIoctlArg &arg, int &err)
{
    for (int attempt = 1;; ++attempt) {
        if (platformSys.ioctl(usbLink.fd, request, &arg) == 0) {
            return qxUsbIssue::OK;
        }
        err = errno;
        if (err != EAGAIN) {
            return qxUsbIssue::FAILED;
        }
        if (attempt == QX_USB_ATTEMPTS) {
            return qxUsbIssue::BUSY;
        }
        platformSysSleep(QX_USB_RETRY_SLEEP_US);
    }
}

void __qxUsbCloseNode()
{
    // The node's descriptor lives in the state record across requests and is
    // closed through the seam, so no scoped owner holds it.
    if (usbLink.fd >= 0) {
        platformSys.close(usbLink.fd);
    }
    usbLink.fd = -1;
    // Said in the status line for as long as it lasts; nothing goes out before ready.
    daemonNotifySetLinkClosed(true);
}

// Errors after which no call on this descriptor can succeed again: a closed
// descriptor, a USB device that has gone (what a USB driver gives once its
// board dropped off the bus) and a character device served from user space
// whose server has gone (what the kernel gives for a CUSE node then).
bool __qxUsbDescriptorDead(int err)
{
    return err == EBADF || err == ENODEV || err == ENOTCONN;
}

// A counted failure: the caller has logged it; re-open at once after a dead
// descriptor, and after too many failures in a row otherwise.
void __qxUsbCountFailure(int err, const char *operation)
{
    ++usbLink.errCnt;
    if (__qxUsbDescriptorDead(err) || usbLink.errCnt >= QX_USB_REOPEN_ERR_CNT) {
        evm_log(1, QX_USB_LOG_SOURCE, __LINE__, "%s: re-opening device file (errCnt=%d)", operation,
                static_cast<int>(usbLink.errCnt));
        __qxUsbCloseNode();
        qxUsbInit();
    }
}

bool __qxUsbIsQuiet(uint8_t code, uint32_t request)
{
    if (code == QX_HID_CMD_IO_CMD) {
        return request == PIC_HID_PIC32_IS_URB_AVAILABLE || request == PIC_HID_IS_URB_AVAILABLE;
    }
    return QX_USB_QUIET[code];
}

void __qxUsbTrace(const uint8_t *report)
{
    evm_log(0, QX_USB_LOG_SOURCE, __LINE__, "QX_TRACE_USB-cmd: %s\n", qxUsbCmdName(report[QX_REPORT_CODE]));
    constexpr size_t LINE_CHARS = QX_USB_TRACE_BYTES_PER_LINE * 3;
    for (size_t start = 0; start < QX_REPORT_SIZE; start += QX_USB_TRACE_BYTES_PER_LINE) {
        char line[LINE_CHARS + 1];
        for (size_t i = 0; i < QX_USB_TRACE_BYTES_PER_LINE; ++i) {
            std::snprintf(&line[i * 3], sizeof line - i * 3, " %02x", report[start + i]);
        }
        evm_log(0, QX_USB_LOG_SOURCE, __LINE__, "QX_TRACE_USB-%s", line);
    }
}

} // namespace

int32_t qxUsbInit()
{
    usbLink.fd = -1;
    usbLink.errCnt = 0;
    const char *path = QX_USB_DEVICE_PATH;
    const int fd = platformSys.open(path, O_RDWR, 0);
    if (fd < 0) {
        const int err = errno;
        evm_log(6, QX_USB_LOG_SOURCE, __LINE__, "qxUsbInit: Failed to open '%s' - '%s'", path, std::strerror(err));
        usbLink.healSawNode = err != ENOENT;
        daemonNotifySetLinkClosed(true);
        return 1;
    }
    usbLink.fd = fd;
    usbLink.healSawNode = true;
    daemonNotifySetLinkClosed(false);
    static_assert(sizeof QX_USB_DEVICE_PATH_TEXT <= sizeof usbLink.devPath);
    std::memcpy(usbLink.devPath, QX_USB_DEVICE_PATH_TEXT.data(), sizeof QX_USB_DEVICE_PATH_TEXT);
    evm_log(1, QX_USB_LOG_SOURCE, __LINE__, "qxUsbInit: Open '%s' success; fd=%d", path, fd);
    return 0;
}

void qxUsbCleanUp()
{
    __qxUsbCloseNode();
}

int32_t qxUsbCmd(const uint8_t *report)
{
    if (usbLink.fd < 0) {
        evm_log(4, QX_USB_LOG_SOURCE, __LINE__, "qxUsbCmd: device not open");
        return -1;
    }
    picHidIoctlArg arg{};
    uint32_t request = PIC_HID_SEND_REPORT;
    switch (report[QX_REPORT_CODE]) {
    case QX_HID_CMD_FILE_TRANSFER_TEST:
        request = PIC_HID_FILE_TRANSFER_TEST;
        arg.xferLen = leGet32(&report[QX_USB_XFER_LEN]);
        arg.xferBuf = leGet64(&report[QX_REPORT_XFER_ADDRESS]);
        break;
    case QX_HID_CMD_IO_CMD:
        request = leGet32(&report[QX_USB_IO_REQUEST]);
        break;
    default:
        break;
    }
    std::memcpy(arg.report, report, QX_REPORT_SIZE);
    arg.param = PIC_HID_PARAM;

    int err = 0;
    switch (__qxUsbIssueWithRetry(request, arg, err)) {
    case qxUsbIssue::BUSY:
        evm_log(4, QX_USB_LOG_SOURCE, __LINE__, "qxUsbCmd: ioctl failed max times");
        return -1;
    case qxUsbIssue::FAILED:
        evm_log(6, QX_USB_LOG_SOURCE, __LINE__, "qxUsbCmd: ioctl(%d) failed - '%s'", static_cast<int32_t>(request),
                std::strerror(err));
        __qxUsbCountFailure(err, "qxUsbCmd");
        return -1;
    case qxUsbIssue::OK:
        break;
    }
    usbLink.errCnt = 0;
    const uint8_t code = report[QX_REPORT_CODE];
    if (code == QX_HID_CMD_GOTO_APPLICATION || code == QX_HID_CMD_GOTO_BOOTLOADER) {
        // The microcontroller restarts into the other firmware: the driver has
        // to let go of the old device before it comes back.
        evm_log(6, QX_USB_LOG_SOURCE, __LINE__, "qxUsbCmd: reset USB device");
        resetUsb();
    }
    return 0;
}

int32_t qxUsbGetReport(uint8_t *report)
{
    // No check of fd: a closed link fails with EBADF and so re-opens.
    picHidIoctlArg arg{};
    arg.param = PIC_HID_PARAM;
    int err = 0;
    switch (__qxUsbIssueWithRetry(PIC_HID_GET_REPORT, arg, err)) {
    case qxUsbIssue::BUSY:
        // Same text as the send's, so one pattern covers both in the log.
        evm_log(4, QX_USB_LOG_SOURCE, __LINE__, "qxUsbCmd: ioctl failed max times");
        return -1;
    case qxUsbIssue::FAILED:
        evm_log(6, QX_USB_LOG_SOURCE, __LINE__, "qxUsbGetReport: ioctl(PIC_HID_GET_REPORT) failed - '%s'",
                std::strerror(err));
        __qxUsbCountFailure(err, "qxUsbGetReport");
        return -1;
    case qxUsbIssue::OK:
        break;
    }
    // Only a report the driver filled reaches the caller.
    usbLink.errCnt = 0;
    std::memcpy(report, arg.report, QX_REPORT_SIZE);
    return 0;
}

int32_t qxUsbRawIoctCmd(picHidIoctlArg *block)
{
    if (usbLink.fd < 0) {
        evm_log(4, QX_USB_LOG_SOURCE, __LINE__, "qxUsbRawIoctCmd: device not open");
        return -1;
    }
    const uint8_t code = block->report[QX_REPORT_CODE];
    const uint32_t request =
        code == QX_HID_CMD_IO_CMD ? leGet32(&block->report[QX_USB_IO_REQUEST]) : PIC_HID_SEND_REPORT;
    if (!__qxUsbIsQuiet(code, request)) {
        __qxUsbTrace(block->report);
    }
    // Once: the callers poll these requests themselves.
    if (platformSys.ioctl(usbLink.fd, request, block) != 0) {
        const int err = errno;
        evm_log(6, QX_USB_LOG_SOURCE, __LINE__, "qxUsbRawIoctCmd: ioctl(%d) failed - '%s'",
                static_cast<int32_t>(request), std::strerror(err));
        return -1;
    }
    return 0;
}

uint8_t qxUsbGetNextSeqNumber()
{
    return ++usbLink.seqNum;
}

void resetUsb()
{
    if (usbLink.fd >= 0) {
        __qxUsbCloseNode();
        platformSys.system("rmmod picdev");
        platformSysSleep(QX_USB_MODULE_SLEEP_US);
    }
    platformSys.usbInit();
    platformSys.usbFindBusses();
    platformSys.usbFindDevices();
    for (struct usb_bus *bus = platformSys.usbGetBusses(); bus != nullptr; bus = bus->next) {
        for (struct usb_device *dev = bus->devices; dev != nullptr; dev = dev->next) {
            const uint32_t id = (uint32_t{dev->descriptor.idProduct} << 16) | dev->descriptor.idVendor;
            if (id != QX_USB_PIC_USB_ID) {
                continue;
            }
            usb_dev_handle *handle = platformSys.usbOpen(dev);
            if (handle == nullptr) {
                continue; // another process may hold it; the module reload still follows
            }
            evm_log(6, QX_USB_LOG_SOURCE, __LINE__, "resetUsb: resetting PIC");
            // libusb 0.1 passes the kernel's refusal on as a negative errno. A device file it could open
            // only for reading is one (the unit's device rule without "w"): said, or the line above
            // would claim a reset that never happened.
            const int rc = platformSys.usbReset(handle);
            if (rc < 0) {
                evm_log(6, QX_USB_LOG_SOURCE, __LINE__, "resetUsb: reset failed - '%s'", std::strerror(-rc));
            }
            platformSys.usbClose(handle);
        }
    }
    platformSys.system("modprobe picdev");
    platformSysSleep(QX_USB_MODULE_SLEEP_US);
}

int32_t qxUsbHeal()
{
    if (usbLink.fd >= 0) {
        return 0;
    }
    // Service time is the wall clock the loop already reads; one set back
    // makes the next try due at once rather than a long way off.
    const uint64_t now = platformSys.msSince1970();
    const bool due = !usbLink.healTried || now < usbLink.healLastMs ||
                     now - usbLink.healLastMs >= QX_USB_HEAL_INTERVAL_MS;
    // Looking costs no open and no log line: a node that came back since
    // the last try is opened by the very next request.
    const bool present = platformSys.access(QX_USB_DEVICE_PATH, F_OK) == 0;
    if (!due && !(present && !usbLink.healSawNode)) {
        return -1;
    }
    usbLink.healTried = true;
    usbLink.healLastMs = now;
    return qxUsbInit() == 0 ? 0 : -1;
}

qxUsbState qxUsbGetState()
{
    return {usbLink.fd, usbLink.seqNum, usbLink.errCnt};
}
