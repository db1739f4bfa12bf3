// CPLD upgrade through the microcontroller: the Jam STAPL Byte-Code file, its
// CRC, the upgrade sequence, and the CPLD record the microcontroller keeps in
// stored value slot 9.
#pragma once

#include "qxUsb.h"

#include <cstddef>
#include <cstdint>

constexpr int32_t CPLD_FILE_SIZE_MIN = 1024;
constexpr int32_t CPLD_FILE_SIZE_MAX = 51200;
constexpr size_t CPLD_DATA_SIZE = 51200;
constexpr size_t CPLD_PAGE_SIZE = 256;
constexpr uint32_t CPLD_CHUNK_PAGES = 30;
constexpr uint8_t CPLD_RECORD_SLOT = 9;
constexpr uint8_t CPLD_FILE_FILL = 0xFF; // every byte of the image behind the file

// Format words of the two byte-code versions (big-endian in the file).
constexpr uint32_t CPLD_JBC_FORMAT_V1 = 0x4A414D00;
constexpr uint32_t CPLD_JBC_FORMAT_V2 = 0x4A414D01;

// CPLD record report (code 56, and the record write's layout of code 14).
constexpr size_t CPLD_RECORD_SIZE_BYTE = 4;  // low 16 bits of the size
constexpr size_t CPLD_RECORD_CRC_BYTE = 6;
constexpr size_t CPLD_RECORD_STATE_BYTE = 8; // 32-bit state word
constexpr size_t CPLD_RECORD_STAMP_LEN = 12;
constexpr size_t CPLD_RECORD_STAMP = 13;

// Loads the file into the static image; 0 or -1.
int32_t cpldUpgradeFileInit(const char *path);

// Header and CRC-16/X-25 of the size bytes at image. The stored and computed
// CRCs go where expected and actual point (either may be null) once the header
// is accepted. 0 when they are equal, -1 otherwise. Nothing at or behind
// image + size is read; a stored CRC whose second byte lies there is taken
// with that byte as the 0xFF fill the image buffer holds behind a file.
int32_t cpldUpgradeCheckCrc(const uint8_t *image, int64_t size, uint16_t *expected, uint16_t *actual);

// CRC-16/X-25 of len bytes, bit by bit (0x906E over "123456789").
uint16_t cpldUpgradeCrc(const uint8_t *bytes, size_t len);

// The whole upgrade from the path at cmd[3]; resp is not touched.
int32_t cpldUpgradeStart(qxUsbBlock &cmd, qxUsbBlock &resp);

// The steps, in the order the upgrade runs them.
int32_t cpldUpgradeEraseCpld();
int32_t cpldProgramInfo(int32_t clear);
int32_t cpldProgramBin();
int32_t cpldCrcCheck();
int32_t cpldUpgradeRun();
int32_t cpldUpgradeCleanUp();

// Relays a CPLD record query (code 56) and waits for its report into resp.
int32_t cpldInfo(qxUsbBlock &cmd, qxUsbBlock &resp);

// Read-only view of the loaded file, for diagnostics and tests.
struct cpldUpgradeView {
    int32_t upgradeSize;
    uint16_t expectedCrc;
    const uint8_t *data; // CPLD_DATA_SIZE bytes, never moves
};
cpldUpgradeView cpldUpgradeGetView();
