// The start-up upgrade: bring the microcontroller to the application whose
// image has been loaded, through its bootloader when needed.
#include "qxFile.h"
#include "qxLoader.h"

#include "daemonNotify.h"
#include "evmLog.h"
#include "flashGuard.h"
#include "sysSeam.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr useconds_t QX_LOADER_BEFORE_BOOTLOADER_US = 2000000;
constexpr size_t QX_LOADER_INVALIDATED_BYTES = 10;
// After a failed programming run the bootloader is tried again after 1 s,
// 2 s, 4 s ... and then once a minute: a dead bus must not spin the start-up.
constexpr useconds_t QX_LOADER_RETRY_FIRST_US = 1000000;
constexpr useconds_t QX_LOADER_RETRY_MAX_US = 60000000;

// Slot 4 must answer before anything is decided: two rounds of three tries.
bool __qxLoaderProbeFirmwareRecord()
{
    uint32_t len = 0;
    uint8_t digest[QX_STORED_NUM_MAX] = {};
    for (int round = 0; round < 2; ++round) {
        if (qxLoaderGetStoredHash(&len, digest) == 0) {
            return true;
        }
    }
    return false;
}

// Slot 4 gets the image's length and digest, the digest's first 10 bytes
// replaced by 0xFF when `invalidate` is set.
void __qxLoaderStoreImageRecord(bool invalidate)
{
    int32_t len = 0;
    uint8_t digest[QX_FILE_DIGEST_SIZE] = {};
    qxFileGetMd5AndLen(&len, digest);
    if (invalidate) {
        memset(digest, 0xFF, QX_LOADER_INVALIDATED_BYTES);
    }
    // Not looked at: the next pass's checks decide.
    qxLoaderSetHash(len, digest);
}

// The flash of the application begins: the history entry names the firmware
// file, the image's length and MD5 (what slot 4 will hold) and the blocks of
// the whole range.
void __qxLoaderFlashBegins()
{
    int32_t len = 0;
    uint8_t digest[QX_FILE_DIGEST_SIZE] = {};
    qxFileGetMd5AndLen(&len, digest);
    const uint32_t size = qxLoaderGetPacketDataSize();
    const uint32_t blocks = size != 0 ? (QX_FLASH_SIZE + size - 1) / size : 0;
    static_assert(QX_FILE_DIGEST_SIZE >= FLASH_HISTORY_DIGEST_SIZE);
    flashGuardBegin(flashWhat::MICROCONTROLLER, qxFileGetPath(), static_cast<uint64_t>(std::max(len, 0)), digest,
                    blocks);
}

} // namespace

int32_t qxLoaderInit(int32_t forceUpgrade)
{
    // Every change of the microcontroller's state ends in a fresh pass. The
    // passes have no bound, so they loop here and keep nothing from one pass
    // to the next but the wait before programming again after a failure.
    useconds_t retryWait = QX_LOADER_RETRY_FIRST_US;
    for (;;) {
        evm_log(1, QX_LOADER_LOG_SOURCE, __LINE__, "qxLoaderInit: forceUpgrade=%d", forceUpgrade);

        int32_t rc = __qxLoaderFindUsbDev();
        if (rc != 0) {
            evm_log(0, QX_LOADER_LOG_SOURCE, __LINE__,
                    "QX_TRACE_PRINTF-qxLoaderInit():: Error Finding QX_HID_DEVICE *****************");
            return rc;
        }
        qxLoaderSetPacketDataSize();

        if (!__qxLoaderProbeFirmwareRecord()) {
            // A microcontroller that cannot answer a slot read is wedged
            // somewhere between application and bootloader.
            evm_log(6, QX_LOADER_LOG_SOURCE, __LINE__, "qxLoaderInit: resetting USB device!");
            daemonNotifyStatus("Firmware record unreadable: resetting the microcontroller's USB link");
            resetUsb();
            continue;
        }

        if (qxLoaderVerifyApplicationCode(0) == 0 && qxLoaderIsHidApplication() == 1) {
            daemonNotifyStatus("Firmware up to date");
            return 0;
        }

        // Nothing may claim the image before it is in flash: from here until
        // programming has succeeded slot 4 holds the invalidated record, so a
        // run cut short anywhere (a kill, a power loss) fails the next
        // start's first check and the upgrade is taken up again.
        __qxLoaderStoreImageRecord(true);

        if (qxLoaderIsHidBootloader() == 0) {
            daemonNotifyStatus("Firmware differs: sending the microcontroller to its bootloader");
            platformSysSleep(QX_LOADER_BEFORE_BOOTLOADER_US);
            qxLoaderGotoBootLoader();
            // A go command that went out has already closed the link through
            // the USB reset; one that could not be sent leaves it open, and
            // the next search would open the node again over it.
            qxUsbCleanUp();
            forceUpgrade = 0;
            continue;
        }

        evm_log(0, QX_LOADER_LOG_SOURCE, __LINE__, "QX_TRACE_PRINTF-Upgrading HID Application.....");
        daemonNotifyStatus("%s: erasing", QX_LOADER_UPGRADING);
        // From the erase until the application runs again a stop waits: it is
        // carried out once the microcontroller is back in its application (or
        // programming has failed), so the next start finds it up to date.
        __qxLoaderFlashBegins();
        qxLoaderEraseApplication();
        rc = qxLoaderProgram();
        flashGuardEnd(rc, "programming the application failed");
        forceUpgrade = 0;
        if (rc != 0) {
            // The bootloader is the one state every fault can be repaired
            // from: stay in it, and program again after a growing wait.
            evm_log(0, QX_LOADER_LOG_SOURCE, __LINE__,
                    "QX_TRACE_PRINTF-Upgrading HID Application failed (rc: %d), staying in the bootloader, "
                    "programming again in %u s",
                    rc, static_cast<unsigned>(retryWait / 1000000));
            qxUsbCleanUp();
            flashGuardLeave(false);
            platformSysSleep(retryWait);
            retryWait = std::min(retryWait * 2, QX_LOADER_RETRY_MAX_US);
            continue;
        }
        retryWait = QX_LOADER_RETRY_FIRST_US;
        __qxLoaderStoreImageRecord(false);
        qxLoaderGotoApplication();
        qxUsbCleanUp();
        flashGuardLeave(false);
    }
}
