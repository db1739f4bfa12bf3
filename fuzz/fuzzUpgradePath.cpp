// Feeds arbitrary 69-byte command blocks to the FPGA (39) and CPLD (55)
// upgrade handlers on the in-process simulated appliance: the path fields
// may hold any bytes, with or without a NUL inside the block. Paths that name
// nothing are the normal case; nothing behind the block may be read.
#include "evmLog.h"
#include "simInProcess.h"
#include "usbMgmt.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    evmLogSetSink([](int, const char *, int, const char *) {}); // keeps the trace out of syslog
    simInProcessInstall();
    if (qxUsbInit() != 0) {
        abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    // The block on the heap, exactly 69 bytes, so a read behind it is caught.
    auto cmd = std::make_unique<qxUsbBlock>();
    auto resp = std::make_unique<qxUsbBlock>();
    std::memcpy(cmd->data(), data, std::min(size, QX_BLOCK_SIZE));
    (*cmd)[QX_REPORT_CODE] = (data[0] & 1) != 0 ? QX_HID_CMD_CPLD_UPGRADE : QX_HID_CMD_FPGA_UPGRADE;
    const qxUsbBlock sentResp = *resp;
    const int32_t rc = usbMgmtCmd(*cmd, *resp);
    if (rc > 0 || *resp != sentResp) {
        abort(); // the upgrades answer 0 or -1 and leave resp as sent
    }
    return 0;
}
