// Request handling: the dispatcher, its 64-entry handler table, the relays,
// the handlers answered in the service, and device management start-up.
#pragma once

#include "qxUsb.h"

#include <cstdint>
#include <sys/types.h>

using usbMgmtHandler = int32_t (*)(qxUsbBlock &cmd, qxUsbBlock &resp);

constexpr int32_t USB_MGMT_UNKNOWN_FUNCTION = 8;
constexpr size_t USB_MGMT_TABLE_SIZE = 64;

// Drive bays of the host-held tables: 0-9 and 15-22 exist, 10-14 never do.
constexpr size_t USB_MGMT_BAY_COUNT = 23;

// Dispatches one request by cmd[0]; codes above 63 give 8 untouched.
int32_t usbMgmtCmd(qxUsbBlock &cmd, qxUsbBlock &resp);
// Whether a request of this code reaches the microcontroller; those answered
// in the service (drive-bay tables, fans, unknown codes) never need the link.
bool usbMgmtUsesLink(uint8_t code);

// Device management start-up: settles the firmware file, loads it and brings
// the microcontroller to it. 0 with the link open for the request loop.
int32_t usbMgmtInit(const char *fileName);

// The handlers, by the table's names.
int32_t netUsbFuncUnknown(qxUsbBlock &cmd, qxUsbBlock &resp);
int32_t netUsbFuncGeneric(qxUsbBlock &cmd, qxUsbBlock &resp);
int32_t netUsbFuncIoGenericCmd(qxUsbBlock &cmd, qxUsbBlock &resp);
int32_t netUsbFuncSetXmlDaemonDetect(qxUsbBlock &cmd, qxUsbBlock &resp);
int32_t netUsbFuncGetXmlDaemonDetect(qxUsbBlock &cmd, qxUsbBlock &resp);
int32_t netUsbFuncForceDriveBayShutDown(qxUsbBlock &cmd, qxUsbBlock &resp);
int32_t netUsbFuncResumeDrvBayOperation(qxUsbBlock &cmd, qxUsbBlock &resp);
int32_t netUsbFuncGetForceShutDownInd(qxUsbBlock &cmd, qxUsbBlock &resp);
int32_t netUsbFuncShutDown(qxUsbBlock &cmd, qxUsbBlock &resp);
int32_t netUsbFuncTrayTest(qxUsbBlock &cmd, qxUsbBlock &resp);
int32_t netUsbFuncFileTransfer(qxUsbBlock &cmd, qxUsbBlock &resp);
int32_t netUsbFuncFpgaUpgrade(qxUsbBlock &cmd, qxUsbBlock &resp);
int32_t netUsbFuncCpldUpgrade(qxUsbBlock &cmd, qxUsbBlock &resp);
int32_t netUsbFuncCpldInfo(qxUsbBlock &cmd, qxUsbBlock &resp);
int32_t netUsbFuncGetOptionBayFanSpeed(qxUsbBlock &cmd, qxUsbBlock &resp);
int32_t netUsbFuncSetOptionBayFanSpeed(qxUsbBlock &cmd, qxUsbBlock &resp);

// How long a relay waits for the report that answers its command: a first
// pause, then up to `furtherReads` more reads while the sequence number
// differs, each after `pauseUs` (doubled after every read when `doubling`).
struct usbMgmtReportWait {
    useconds_t firstUs;
    uint32_t furtherReads;
    useconds_t pauseUs;
    bool doubling;
};
// The last read's failure status; else 0 when the report carries cmd's
// sequence number or at least its code, 1 when neither. resp holds the last
// report read, zeros behind it.
int32_t usbMgmtAwaitReport(const usbMgmtReportWait &wait, const qxUsbBlock &cmd, qxUsbBlock &resp);

// The handler each code 0-63 dispatches to.
extern const std::array<usbMgmtHandler, USB_MGMT_TABLE_SIZE> networkUsbFuncTable;
