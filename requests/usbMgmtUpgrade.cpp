// The thin handlers of the FPGA and CPLD requests: the upgrades run to their
// end inside the request.
#include "usbMgmt.h"

#include "cpldUpgrade.h"
#include "daemonNotify.h"
#include "fpgaUpgrade.h"
#include "sysSeam.h"

namespace {

constexpr useconds_t USB_MGMT_CPLD_RETRY_PAUSE_US = 1000000;

} // namespace

// The loop puts the serving line back once the request has ended.
int32_t netUsbFuncFpgaUpgrade(qxUsbBlock &cmd, qxUsbBlock &)
{
    daemonNotifyStatus("FPGA upgrade in progress");
    return fpgaUpgradeStart(cmd);
}

int32_t netUsbFuncCpldUpgrade(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    daemonNotifyStatus("CPLD upgrade in progress");
    if (cpldUpgradeStart(cmd, resp) == 0) {
        return 0;
    }
    // One more attempt from the file load on; its result is final.
    platformSysSleep(USB_MGMT_CPLD_RETRY_PAUSE_US);
    return cpldUpgradeStart(cmd, resp);
}

int32_t netUsbFuncCpldInfo(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    return cpldInfo(cmd, resp);
}
