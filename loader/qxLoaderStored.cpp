// The microcontroller's stored value slots, and the firmware record in slot 4
// compared with the loaded image.
#include "qxFile.h"
#include "qxLoader.h"

#include "evmLog.h"
#include "leBytes.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr int QX_LOADER_STORED_HASH_TRIES = 3;
constexpr uint8_t QX_LOADER_MD5_SIZE = 16;

// Slot 4 into a cleared record, three tries back to back.
int32_t __qxLoaderReadFirmwareRecord(qxLoaderStoredNum &sn)
{
    sn = {};
    int32_t rc = 0;
    for (int attempt = 0; attempt < QX_LOADER_STORED_HASH_TRIES; ++attempt) {
        rc = qxLoaderGetStoredNum(&sn, QX_SLOT_FIRMWARE);
        if (rc == 0) {
            return 0;
        }
    }
    evm_log(6, QX_LOADER_LOG_SOURCE, __LINE__, "qxLoaderGetStoredHash: Failed!");
    return rc;
}

} // namespace

int32_t qxLoaderGetStoredNum(qxLoaderStoredNum *sn, int32_t slot)
{
    qxUsbBlock block{};
    block[QX_REPORT_CODE] = QX_HID_CMD_GET_FLASH_VAL;
    block[QX_SLOT_BYTE_SLOT] = static_cast<uint8_t>(slot);

    int32_t rc = qxLoaderGenericCmd(block.data());
    if (rc != 0) {
        return static_cast<uint8_t>(rc);
    }

    sn->storedNumLen = block[QX_SLOT_BYTE_LEN];
    if (sn->storedNumLen > QX_STORED_NUM_MAX) {
        // An erased slot reads 0xFF throughout: the read counts, its contents do not.
        printf("****ERROR*** SHOULD ERASE FLASH*************, sn->storedNumLen: %d\n", sn->storedNumLen);
        fflush(stdout);
        sn->storedNumLen = 0;
        return 0;
    }
    sn->storedNumWord0 = leGet32(&block[QX_SLOT_BYTE_WORD0]);
    sn->storedNumWord1 = leGet32(&block[QX_SLOT_BYTE_WORD1]);
    memcpy(sn->storedNum, &block[QX_SLOT_BYTE_DATA], sn->storedNumLen);
    return 0;
}

int32_t qxLoaderSetStoredNum(const qxLoaderStoredNum *sn, int32_t slot)
{
    if (sn->storedNumLen > QX_STORED_NUM_MAX) {
        return -1;
    }
    qxUsbBlock block{};
    block[QX_REPORT_CODE] = QX_HID_CMD_SET_FLASH_VAL;
    block[QX_SLOT_BYTE_SLOT] = static_cast<uint8_t>(slot);
    lePut32(&block[QX_SLOT_BYTE_WORD0], static_cast<uint32_t>(sn->storedNumWord0));
    lePut32(&block[QX_SLOT_BYTE_WORD1], static_cast<uint32_t>(sn->storedNumWord1));
    block[QX_SLOT_BYTE_LEN] = sn->storedNumLen;
    memcpy(&block[QX_SLOT_BYTE_DATA], sn->storedNum, sn->storedNumLen);

    int32_t rc = qxLoaderGenericCmd(block.data());
    return static_cast<uint8_t>(rc) != 0 ? 1 : 0;
}

int32_t qxLoaderGetStoredHash(uint32_t *len, uint8_t *digest)
{
    qxLoaderStoredNum sn;
    int32_t rc = __qxLoaderReadFirmwareRecord(sn);
    if (rc != 0) {
        return rc;
    }
    *len = static_cast<uint32_t>(sn.storedNumWord0);
    memcpy(digest, sn.storedNum, sn.storedNumLen);
    return 0;
}

int32_t qxLoaderSetHash(int32_t len, const uint8_t *digest)
{
    qxLoaderStoredNum sn{};
    sn.storedNumWord0 = static_cast<uint32_t>(len);
    sn.storedNumWord1 = 0;
    sn.storedNumLen = QX_LOADER_MD5_SIZE;
    memcpy(sn.storedNum, digest, QX_LOADER_MD5_SIZE);
    return qxLoaderSetStoredNum(&sn, QX_SLOT_FIRMWARE);
}

int32_t qxLoaderVerifyApplicationCode(int32_t storeOnMismatch)
{
    int32_t imageLen = 0;
    uint8_t imageDigest[QX_FILE_DIGEST_SIZE] = {};
    qxFileGetMd5AndLen(&imageLen, imageDigest);

    // A failed read leaves the record cleared: stored length 0 never equals
    // the length of a loaded image, so it ends as a disagreement.
    qxLoaderStoredNum sn;
    __qxLoaderReadFirmwareRecord(sn);

    // A record of fewer than 16 bytes cannot hold the MD5 this service
    // stores, whatever its length says: it counts as a disagreement rather
    // than comparing against bytes the slot never gave.
    const bool agree = static_cast<uint32_t>(imageLen) == static_cast<uint32_t>(sn.storedNumWord0)
        && sn.storedNumLen >= QX_LOADER_MD5_SIZE && memcmp(imageDigest, sn.storedNum, QX_LOADER_MD5_SIZE) == 0;
    if (agree) {
        evm_log(1, QX_LOADER_LOG_SOURCE, __LINE__, "qxLoaderVerifyApplicationCode: Verification Success!");
        return 0;
    }
    if (storeOnMismatch != 0) {
        // Not looked at: the next pass reads the slot again.
        qxLoaderSetHash(imageLen, imageDigest);
    }
    evm_log(6, QX_LOADER_LOG_SOURCE, __LINE__, "qxLoaderVerifyApplicationCode: Verification Failed!");
    return 1;
}
