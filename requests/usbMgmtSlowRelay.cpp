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

constexpr usbMgmtReportWait USB_MGMT_SHUTDOWN_WAIT = {2000000, 21, 500000, false};  // 12.5 s at most
constexpr usbMgmtReportWait USB_MGMT_TRAY_TEST_WAIT = {2000000, 30, 200000, false}; // 8 s at most

// File-transfer test command: length at bytes 3-6, buffer address at 7-14.
constexpr size_t USB_MGMT_XFER_LEN = 3;
constexpr size_t USB_MGMT_XFER_BUF = 7;
constexpr uint32_t USB_MGMT_XFER_MAX = MAIN_TEST_BUF_SIZE;
static_assert(USB_MGMT_XFER_MAX == 0x800000);
static_assert(USB_MGMT_XFER_BUF + 8 <= QX_REPORT_SIZE);

int32_t __usbMgmtSlowRelay(const usbMgmtReportWait &wait, qxUsbBlock &cmd, qxUsbBlock &resp)
{
    cmd[QX_REPORT_SEQ] = qxUsbGetNextSeqNumber();
    const int32_t rc = qxUsbCmd(cmd.data());
    if (rc != 0) {
        evm_log(0, USB_MGMT_LOG_SOURCE, __LINE__, "QX_TRACE_USB-***usb cmd failed***");
        return rc;
    }
    return usbMgmtAwaitReport(wait, cmd, resp);
}

} // namespace

int32_t usbMgmtAwaitReport(const usbMgmtReportWait &wait, const qxUsbBlock &cmd, qxUsbBlock &resp)
{
    resp.fill(0);
    platformSysSleep(wait.firstUs);
    int32_t rc = qxUsbGetReport(resp.data());
    useconds_t pause = wait.pauseUs;
    // A failing read does not end the wait; only the last one's result counts.
    for (uint32_t read = 0; read < wait.furtherReads && resp[QX_REPORT_SEQ] != cmd[QX_REPORT_SEQ]; ++read) {
        platformSysSleep(pause);
        if (wait.doubling) {
            pause *= 2;
        }
        resp.fill(0);
        rc = qxUsbGetReport(resp.data());
    }
    if (rc != 0) {
        return rc;
    }
    if (resp[QX_REPORT_SEQ] == cmd[QX_REPORT_SEQ]) {
        return 0;
    }
    // A report of the same command under another number still answers it.
    return resp[QX_REPORT_CODE] != cmd[QX_REPORT_CODE] ? 1 : 0;
}

int32_t netUsbFuncShutDown(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    return __usbMgmtSlowRelay(USB_MGMT_SHUTDOWN_WAIT, cmd, resp);
}

int32_t netUsbFuncTrayTest(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    return __usbMgmtSlowRelay(USB_MGMT_TRAY_TEST_WAIT, cmd, resp);
}

int32_t netUsbFuncFileTransfer(qxUsbBlock &cmd, qxUsbBlock &)
{
    cmd[QX_REPORT_SEQ] = qxUsbGetNextSeqNumber();
    if (leGet32(&cmd[USB_MGMT_XFER_LEN]) > USB_MGMT_XFER_MAX) {
        lePut32(&cmd[USB_MGMT_XFER_LEN], USB_MGMT_XFER_MAX);
    }
    platformSysHandOver(__testingTmmmmpBuf, sizeof __testingTmmmmpBuf);
    lePut64(&cmd[USB_MGMT_XFER_BUF], reinterpret_cast<uintptr_t>(__testingTmmmmpBuf));
    const int32_t rc = qxUsbCmd(cmd.data());
    if (rc != 0) {
        evm_log(0, USB_MGMT_LOG_SOURCE, __LINE__, "QX_TRACE_USB-netUsbFuncFileTransfer: usb cmd failed!");
        return rc;
    }
    return 0;
}
