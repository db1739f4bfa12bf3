// The thin handlers of the FPGA and CPLD requests: the upgrades run to their
// end inside the request.
#include "usbMgmt.h"

#include "cpldUpgrade.h"
#include "daemonNotify.h"
#include "flashGuard.h"
#include "fpgaUpgrade.h"
#include "sysSeam.h"

namespace {

constexpr useconds_t USB_MGMT_CPLD_RETRY_PAUSE_US = 1000000;

} // namespace

// The loop puts the serving line back once the request has ended. A stop
// that arrived during the flash is carried out by the loop after the reply.
int32_t netUsbFuncFpgaUpgrade(qxUsbBlock &cmd, qxUsbBlock &)
{
    daemonNotifyStatus("FPGA upgrade in progress");
    const int32_t rc = fpgaUpgradeStart(cmd);
    flashGuardLeave(true);
    return rc;
}

int32_t netUsbFuncCpldUpgrade(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    daemonNotifyStatus("CPLD upgrade in progress");
    int32_t rc = cpldUpgradeStart(cmd, resp);
    if (rc != 0) {
        // One more attempt from the file load on; its result is final. A
        // stop that waits lets it run: a CPLD left erased is worse than a
        // stop that comes half a minute later.
        platformSysSleep(USB_MGMT_CPLD_RETRY_PAUSE_US);
        rc = cpldUpgradeStart(cmd, resp);
    }
    flashGuardLeave(true);
    return rc;
}

int32_t netUsbFuncCpldInfo(qxUsbBlock &cmd, qxUsbBlock &resp)
{
    return cpldInfo(cmd, resp);
}
