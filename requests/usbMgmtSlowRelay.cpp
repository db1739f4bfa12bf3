// Relays with handlers of their own: shutdown and tray test, whose answers
// take seconds, and the file-transfer test, which hands the driver the test
// buffer by address and reads no answer.
#include "usbMgmt.h"

#include "evmLog.h"
#include "leBytes.h"
#include "main.h"
#include "sysSeam.h"

namespace {

constexpr const char *USB_MGMT_LOG_SOURCE = "usbMgmt";

constexpr useconds_t USB_MGMT_SLOW_FIRST_WAIT_US = 2000000;

struct usbMgmtSlowRelay {
    uint8_t code;
    uint32_t furtherReads;
    useconds_t pauseUs;
};

constexpr std::array<usbMgmtSlowRelay, 2> USB_MGMT_SLOW_RELAYS = {{
    {QX_HID_CMD_SHUTDOWN, 21, 500000}, // 2 s + 21 x 500 ms = 12.5 s at most
    {QX_HID_CMD_TRAY_TEST, 30, 200000}, // 2 s + 30 x 200 ms = 8 s at most
}};

// File-transfer test command: length at bytes 3-6, buffer address at 7-14.
constexpr size_t USB_MGMT_XFER_LEN = 3;
constexpr size_t USB_MGMT_XFER_BUF = 7;
constexpr uint32_t USB_MGMT_XFER_MAX = MAIN_TEST_BUF_SIZE;
static_assert(USB_MGMT_XFER_MAX == 0x800000);
static_assert(USB_MGMT_XFER_BUF + 8 <= QX_REPORT_SIZE);

int32_t __usbMgmtSlowRelay(const usbMgmtSlowRelay &relay, qxUsbBlock &cmd, qxUsbBlock &resp)
{
    cmd[QX_REPORT_SEQ] = qxUsbGetNextSeqNumber();
    int32_t rc = qxUsbCmd(cmd.data());
    if (rc != 0) {
        evm_log(0, USB_MGMT_LOG_SOURCE, __LINE__, "QX_TRACE_USB-***usb cmd failed***");
        return rc;
    }
    resp.fill(0);
    platformSys.usleep(USB_MGMT_SLOW_FIRST_WAIT_US);
    rc = qxUsbGetReport(resp.data());
    // A failing read does not end the wait; only the last one's result counts.
    for (uint32_t read = 0; read < relay.furtherReads && resp[QX_REPORT_SEQ] != cmd[QX_REPORT_SEQ]; ++read) {
        platformSys.usleep(relay.pauseUs);
        resp.fill(0);
        rc = qxUsbGetReport(resp.data());
    }
    if (rc != 0) {
        return rc;
    }
    if (resp[QX_REPORT_SEQ] == cmd[QX_REPORT_SEQ]) {
        return 0;
    }
    return resp[QX_REPORT_CODE] != cmd[QX_REPORT_CODE] ? 1 : 0;
}

} // namespace

int32_t netUsbFuncShutDown(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    return __usbMgmtSlowRelay(USB_MGMT_SLOW_RELAYS[0], cmd, resp);
}

int32_t netUsbFuncTrayTest(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    return __usbMgmtSlowRelay(USB_MGMT_SLOW_RELAYS[1], cmd, resp);
}

int32_t netUsbFuncFileTransfer(qxUsbBlock &cmd, qxUsbBlock &)
{
    cmd[QX_REPORT_SEQ] = qxUsbGetNextSeqNumber();
    if (leGet32(&cmd[USB_MGMT_XFER_LEN]) > USB_MGMT_XFER_MAX) {
        lePut32(&cmd[USB_MGMT_XFER_LEN], USB_MGMT_XFER_MAX);
    }
    lePut64(&cmd[USB_MGMT_XFER_BUF], reinterpret_cast<uintptr_t>(__testingTmmmmpBuf));
    const int32_t rc = qxUsbCmd(cmd.data());
    if (rc != 0) {
        evm_log(0, USB_MGMT_LOG_SOURCE, __LINE__, "QX_TRACE_USB-netUsbFuncFileTransfer: usb cmd failed!");
        return rc;
    }
    return 0;
}
