// The dispatcher: one entry for every request, by function code, through the
// 64-entry handler table.
#include "usbMgmt.h"

#include "evmLog.h"

namespace {

constexpr const char *USB_MGMT_LOG_SOURCE = "usbMgmt";

constexpr void __usbMgmtFill(std::array<usbMgmtHandler, USB_MGMT_TABLE_SIZE> &t, size_t first, size_t last,
                             usbMgmtHandler handler)
{
    for (size_t code = first; code <= last; ++code) {
        t[code] = handler;
    }
}

} // namespace

constexpr std::array<usbMgmtHandler, USB_MGMT_TABLE_SIZE> networkUsbFuncTable = [] {
    std::array<usbMgmtHandler, USB_MGMT_TABLE_SIZE> t{};
    __usbMgmtFill(t, 0, 8, netUsbFuncUnknown); // bootloader codes are not for clients
    __usbMgmtFill(t, 9, 11, netUsbFuncGeneric);
    __usbMgmtFill(t, 12, 12, netUsbFuncShutDown);
    __usbMgmtFill(t, 13, 14, netUsbFuncGeneric);
    __usbMgmtFill(t, 15, 15, netUsbFuncUnknown); // battery button read is not for clients
    __usbMgmtFill(t, 16, 21, netUsbFuncGeneric);
    __usbMgmtFill(t, 22, 22, netUsbFuncSetXmlDaemonDetect);
    __usbMgmtFill(t, 23, 23, netUsbFuncGetXmlDaemonDetect);
    __usbMgmtFill(t, 24, 29, netUsbFuncGeneric);
    __usbMgmtFill(t, 30, 30, netUsbFuncForceDriveBayShutDown);
    __usbMgmtFill(t, 31, 31, netUsbFuncResumeDrvBayOperation);
    __usbMgmtFill(t, 32, 32, netUsbFuncGetForceShutDownInd);
    __usbMgmtFill(t, 33, 36, netUsbFuncGeneric);
    __usbMgmtFill(t, 37, 37, netUsbFuncFileTransfer);
    __usbMgmtFill(t, 38, 38, netUsbFuncIoGenericCmd);
    __usbMgmtFill(t, 39, 39, netUsbFuncFpgaUpgrade);
    __usbMgmtFill(t, 40, 54, netUsbFuncGeneric);
    __usbMgmtFill(t, 55, 55, netUsbFuncCpldUpgrade);
    __usbMgmtFill(t, 56, 56, netUsbFuncCpldInfo);
    __usbMgmtFill(t, 57, 57, netUsbFuncGetOptionBayFanSpeed);
    __usbMgmtFill(t, 58, 58, netUsbFuncSetOptionBayFanSpeed);
    __usbMgmtFill(t, 59, 59, netUsbFuncTrayTest);
    __usbMgmtFill(t, 60, 63, netUsbFuncGeneric);
    return t;
}();

int32_t usbMgmtCmd(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    const uint8_t code = cmd[QX_REPORT_CODE];
    if (code >= USB_MGMT_TABLE_SIZE) {
        return USB_MGMT_UNKNOWN_FUNCTION;
    }
    return networkUsbFuncTable[code](cmd, resp);
}

bool usbMgmtUsesLink(uint8_t code)
{
    if (code >= USB_MGMT_TABLE_SIZE) {
        return false;
    }
    const usbMgmtHandler handler = networkUsbFuncTable[code];
    for (usbMgmtHandler hostHeld :
         {netUsbFuncUnknown, netUsbFuncSetXmlDaemonDetect, netUsbFuncGetXmlDaemonDetect, netUsbFuncForceDriveBayShutDown,
          netUsbFuncResumeDrvBayOperation, netUsbFuncGetForceShutDownInd, netUsbFuncGetOptionBayFanSpeed,
          netUsbFuncSetOptionBayFanSpeed}) {
        if (handler == hostHeld) {
            return false;
        }
    }
    return true;
}

int32_t netUsbFuncUnknown(qxUsbBlock &, qxUsbBlock &)
{
    evm_log(0, USB_MGMT_LOG_SOURCE, __LINE__, "QX_TRACE_USB-ERROR: UNKNOWN USB FUNCTION!");
    return USB_MGMT_UNKNOWN_FUNCTION;
}
