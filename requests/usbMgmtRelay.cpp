// The relays: the generic relay that forwards a client's report and polls for
// the reply with its sequence number, and the driver I/O relay of code 38.
#include "usbMgmt.h"

#include "evmLog.h"
#include "sysSeam.h"

namespace {

constexpr const char *USB_MGMT_LOG_SOURCE = "usbMgmt";

// The microcontroller answers within a few ms; later reads back off.
constexpr std::array<useconds_t, 7> USB_MGMT_RELAY_WAITS_US = {2000, 500, 1000, 2000, 4000, 8000, 16000};

} // namespace

int32_t netUsbFuncGeneric(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    cmd[QX_REPORT_SEQ] = qxUsbGetNextSeqNumber();
    int32_t rc = qxUsbCmd(cmd.data());
    if (rc != 0) {
        evm_log(0, USB_MGMT_LOG_SOURCE, __LINE__, "QX_TRACE_USB-*** usb cmd (%d) failed ***(%d)",
                cmd[QX_REPORT_CODE], rc);
        return rc;
    }
    for (useconds_t wait : USB_MGMT_RELAY_WAITS_US) {
        // Cleared before every read, so a failed read leaves zeros, not a stale report.
        resp.fill(0);
        platformSysSleep(wait);
        rc = qxUsbGetReport(resp.data());
        if (resp[QX_REPORT_SEQ] == cmd[QX_REPORT_SEQ]) {
            break;
        }
    }
    if (rc != 0) {
        return rc;
    }
    if (resp[QX_REPORT_SEQ] == cmd[QX_REPORT_SEQ]) {
        return 0;
    }
    // A reply to the same command under another number still answers it.
    if (resp[QX_REPORT_CODE] == cmd[QX_REPORT_CODE]) {
        return 0;
    }
    evm_log(0, USB_MGMT_LOG_SOURCE, __LINE__, "QX_TRACE_USB-*** usb cmd failed: Bad Sequence Number ***");
    return 1;
}

int32_t netUsbFuncIoGenericCmd(qxUsbBlock &cmd, qxUsbBlock &)
{
    // No sequence number and no report: the driver itself carries out the request.
    return qxUsbCmd(cmd.data());
}
