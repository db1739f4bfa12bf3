// The microcontroller firmware loader: platform and firmware file selection,
// the loader's send-and-wait exchange, the bootloader protocol, stored value
// slots, and the start-up upgrade.
#pragma once

#include "qxUsb.h"

#include <cstdint>

constexpr const char *QX_LOADER_LOG_SOURCE = "qxLoader";
// The status line's words while the start-up upgrade programs the microcontroller.
constexpr const char *QX_LOADER_UPGRADING = "Upgrading the microcontroller's firmware";

constexpr uint8_t QX_PRODUCT_ID_APPLICATION = 17;
constexpr uint8_t QX_PRODUCT_ID_BOOTLOADER = 18;
constexpr int QX_SLOT_FIRMWARE = 4;
constexpr int QX_SLOT_CPLD = 9;
constexpr int QX_SLOT_PLATFORM = 10;
constexpr uint32_t QX_STORED_NUM_MAX = 48;
constexpr uint32_t QX_PACKET_DATA_SIZE = 56;
constexpr size_t QX_LOADER_FILE_NAME_MIN = 34; // longest firmware path and its NUL
static_assert(QX_PACKET_DATA_SIZE <= 64 - 6, "PROGRAM_DEVICE data must fit behind the 6-byte header");

// The driver is asked for room before every chunk; a busy driver is polled
// again after this wait, at most this many times in a row.
constexpr uint32_t QX_PROGRAM_POLL_WAIT_US = 50000;
constexpr uint32_t QX_PROGRAM_POLL_MAX = 600;

// Stored value slot exchange: byte offsets inside a GET/SET_FLASH_VAL report.
constexpr size_t QX_SLOT_BYTE_SLOT = 3;
constexpr size_t QX_SLOT_BYTE_WORD0 = 4;
constexpr size_t QX_SLOT_BYTE_WORD1 = 8;
constexpr size_t QX_SLOT_BYTE_LEN = 12;
constexpr size_t QX_SLOT_BYTE_DATA = 13;

struct qxLoaderStoredNum {
    uint64_t storedNumWord0;
    uint64_t storedNumWord1;
    uint8_t storedNumLen;
    uint8_t storedNum[QX_STORED_NUM_MAX];
};

// Platform and firmware file selection.
int32_t qxLoaderGetClientFileName(char *fileName);
int32_t __qxLoaderGetPicClientFileNameFromPlatform(const char *platformStr, char *fileName);
int32_t qxLoaderGetPlatform();
int32_t qxLoaderGenericCmd(uint8_t *block);
// Up to three reads 10 ms apart until the report with `seq` is in `block`
// (cleared before each read); the last read's status. Loader-internal.
int32_t __qxLoaderAwaitReply(uint8_t *block, uint8_t seq);

// The number of image bytes per PROGRAM_DEVICE packet: 0 until qxLoaderInit
// settles it on its first pass. qxLoaderSetPacketDataSize settles it the same
// way, for a programming run outside the start-up upgrade (tests, benchmark).
uint32_t qxLoaderGetPacketDataSize();
void qxLoaderSetPacketDataSize();

// Device search, firmware identity, bootloader commands and programming.
int32_t __qxLoaderFindUsbDev();
int32_t qxLoaderFindUSBDevice();
int32_t qxLoaderIsProductIdMatch(int32_t productId);
int32_t qxLoaderIsHidApplication();
int32_t qxLoaderIsHidBootloader();
void qxLoaderGotoApplication();
void qxLoaderGotoBootLoader();
void qxLoaderEraseApplication();
int32_t qxLoaderProgram();

// Stored values and verification.
int32_t qxLoaderGetStoredNum(qxLoaderStoredNum *sn, int32_t slot);
int32_t qxLoaderSetStoredNum(const qxLoaderStoredNum *sn, int32_t slot);
int32_t qxLoaderGetStoredHash(uint32_t *len, uint8_t *digest);
int32_t qxLoaderSetHash(int32_t len, const uint8_t *digest);
int32_t qxLoaderVerifyApplicationCode(int32_t storeOnMismatch);

// Start-up upgrade.
int32_t qxLoaderInit(int32_t forceUpgrade);
