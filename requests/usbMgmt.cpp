#include "usbMgmt.h"
int32_t usbMgmtCmd(qxUsbBlock &, qxUsbBlock &) { return USB_MGMT_UNKNOWN_FUNCTION; }
