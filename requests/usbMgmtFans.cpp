// Codes 57 and 58: thin wrappers that hand the request to the option-bay fans.
#include "usbMgmt.h"

#include "viaI2c.h"

int32_t netUsbFuncGetOptionBayFanSpeed(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    return viaI2cGetFanSpeed(cmd.data(), resp.data());
}

int32_t netUsbFuncSetOptionBayFanSpeed(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    return viaI2cSetFanSpeed(cmd.data(), resp.data());
}
