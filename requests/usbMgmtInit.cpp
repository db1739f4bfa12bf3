// Device management start-up: settle the firmware file, load its image and
// bring the microcontroller to it before the first request is served.
#include "usbMgmt.h"

#include "daemonNotify.h"
#include "evmLog.h"
#include "qxFile.h"
#include "qxLoader.h"
#include "sysSeam.h"

#include <array>
#include <cstdio>

namespace {

constexpr const char *USB_MGMT_INIT_LOG_SOURCE = "usbMgmt";

// Holds a name from the command line (at most 294 characters) or a path from
// the platform table.
constexpr size_t USB_MGMT_FILE_NAME_SIZE = 295;
static_assert(USB_MGMT_FILE_NAME_SIZE >= QX_LOADER_FILE_NAME_MIN);

constexpr int USB_MGMT_CLIENT_FILE_TRIES = 5;
constexpr useconds_t USB_MGMT_CLIENT_FILE_WAIT_US = 500;

} // namespace

int32_t usbMgmtInit(const char *fileName)
{
    std::array<char, USB_MGMT_FILE_NAME_SIZE> name{};
    evm_log(1, USB_MGMT_INIT_LOG_SOURCE, __LINE__, "usbMgmtInit: filename='%s'",
            fileName != nullptr ? evmLogEscape(fileName) : "none");

    if (fileName != nullptr) {
        // The named file wins whatever platform the microcontroller reports.
        snprintf(name.data(), name.size(), "%s", fileName);
    } else {
        int32_t rc = qxLoaderFindUSBDevice();
        if (rc != 0) {
            evm_log(0, USB_MGMT_INIT_LOG_SOURCE, __LINE__, "QX_TRACE_USBMGMT-Error finding USB device");
            return rc;
        }
        // The application may still be settling after power-up: the platform
        // text gets a few tries on the open link.
        for (int retries = USB_MGMT_CLIENT_FILE_TRIES; retries > 0; --retries) {
            evm_log(0, USB_MGMT_INIT_LOG_SOURCE, __LINE__, "QX_TRACE_USBMGMT-Checking for client file name (retries=%d)",
                    retries);
            rc = qxLoaderGetClientFileName(name.data());
            if (rc == 0) {
                break;
            }
            platformSysSleep(USB_MGMT_CLIENT_FILE_WAIT_US);
        }
        // The loader's start-up opens the link afresh.
        qxUsbCleanUp();
        if (rc != 0) {
            evm_log(0, USB_MGMT_INIT_LOG_SOURCE, __LINE__, "QX_TRACE_USBMGMT-Error getting client file name");
            return rc;
        }
        evm_log(1, USB_MGMT_INIT_LOG_SOURCE, __LINE__, "usbMgmtInit: found filename='%s'", evmLogEscape(name.data()));
    }

    daemonNotifyStatus("Firmware file %s", name.data());
    int32_t rc = qxFileInit(name.data());
    if (rc != 0) {
        evm_log(0, USB_MGMT_INIT_LOG_SOURCE, __LINE__, "QX_TRACE_USBMGMT-%s file Error", evmLogEscape(name.data()));
        return rc;
    }
    rc = qxLoaderInit(0);
    if (rc != 0) {
        evm_log(0, USB_MGMT_INIT_LOG_SOURCE, __LINE__, "QX_TRACE_USBMGMT-qxUsb Device Error");
        qxUsbCleanUp();
        return rc;
    }
    return 0;
}
