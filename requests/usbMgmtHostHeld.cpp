// Requests answered inside the service from its own tables: the per-bay
// force-shutdown indicator and the per-bay XML-daemon-detect bytes. Nothing
// goes to the microcontroller for them.
#include "usbMgmt.h"

namespace {

constexpr uint8_t USB_MGMT_STATUS_OK = 0;
constexpr uint8_t USB_MGMT_STATUS_REFUSED = 0xFF;
constexpr size_t USB_MGMT_BAY_BYTE = QX_REPORT_PAYLOAD;
constexpr size_t USB_MGMT_IND_BYTE = QX_REPORT_PAYLOAD + 1;

// Bays 10-14 do not exist on the appliance.
constexpr std::array<bool, USB_MGMT_BAY_COUNT> USB_MGMT_BAY_VALID = [] {
    std::array<bool, USB_MGMT_BAY_COUNT> t{};
    for (size_t bay = 0; bay < t.size(); ++bay) {
        t[bay] = bay <= 9 || bay >= 15;
    }
    return t;
}();

struct {
    std::array<uint32_t, USB_MGMT_BAY_COUNT> netUsbDriveForceShutDown{};
    std::array<uint32_t, USB_MGMT_BAY_COUNT> netUsbDaemonDetect{};
} usbMgmtPrivateMembers;

auto &hostHeld = usbMgmtPrivateMembers;

bool __usbMgmtBayValid(uint8_t bay)
{
    return bay < USB_MGMT_BAY_COUNT && USB_MGMT_BAY_VALID[bay];
}

// The answer's header: a sequence number is drawn although nothing is sent,
// so these requests advance the numbering like relayed ones.
void __usbMgmtHostHeldHeader(uint8_t code, qxUsbBlock &cmd, qxUsbBlock &resp)
{
    cmd[QX_REPORT_SEQ] = qxUsbGetNextSeqNumber();
    resp.fill(0);
    resp[QX_REPORT_CODE] = code;
    resp[QX_REPORT_SEQ] = cmd[QX_REPORT_SEQ];
}

int32_t __usbMgmtSetForceShutDown(uint8_t code, uint32_t value, qxUsbBlock &cmd, qxUsbBlock &resp)
{
    __usbMgmtHostHeldHeader(code, cmd, resp);
    resp[QX_REPORT_STATUS] = USB_MGMT_STATUS_REFUSED;
    const uint8_t bay = cmd[USB_MGMT_BAY_BYTE];
    if (!__usbMgmtBayValid(bay)) {
        return -1;
    }
    hostHeld.netUsbDriveForceShutDown[bay] = value;
    resp[QX_REPORT_STATUS] = USB_MGMT_STATUS_OK;
    return 0;
}

} // namespace

int32_t netUsbFuncForceDriveBayShutDown(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    return __usbMgmtSetForceShutDown(QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, 1, cmd, resp);
}

int32_t netUsbFuncResumeDrvBayOperation(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    return __usbMgmtSetForceShutDown(QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION, 0, cmd, resp);
}

int32_t netUsbFuncGetForceShutDownInd(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    __usbMgmtHostHeldHeader(QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND, cmd, resp);
    resp[QX_REPORT_STATUS] = USB_MGMT_STATUS_REFUSED;
    const uint8_t bay = cmd[USB_MGMT_BAY_BYTE];
    if (!__usbMgmtBayValid(bay)) {
        return -1;
    }
    resp[USB_MGMT_BAY_BYTE] = bay;
    resp[USB_MGMT_IND_BYTE] = static_cast<uint8_t>(hostHeld.netUsbDriveForceShutDown[bay]);
    resp[QX_REPORT_STATUS] = USB_MGMT_STATUS_OK;
    return 0;
}

int32_t netUsbFuncSetXmlDaemonDetect(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    __usbMgmtHostHeldHeader(QX_HID_CMD_SET_XML_DAEMON_DETECT, cmd, resp);
    resp[QX_REPORT_STATUS] = USB_MGMT_STATUS_OK;
    for (size_t bay = 0; bay < USB_MGMT_BAY_COUNT; ++bay) {
        if (USB_MGMT_BAY_VALID[bay]) {
            hostHeld.netUsbDaemonDetect[bay] = cmd[QX_REPORT_PAYLOAD + bay];
        }
    }
    return 0;
}

int32_t netUsbFuncGetXmlDaemonDetect(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    __usbMgmtHostHeldHeader(QX_HID_CMD_GET_XML_DAEMON_DETECT, cmd, resp);
    resp[QX_REPORT_STATUS] = USB_MGMT_STATUS_OK;
    for (size_t bay = 0; bay < USB_MGMT_BAY_COUNT; ++bay) {
        if (USB_MGMT_BAY_VALID[bay]) {
            resp[QX_REPORT_PAYLOAD + bay] = static_cast<uint8_t>(hostHeld.netUsbDaemonDetect[bay]);
        }
    }
    return 0;
}
