// The microcontroller's application firmware as an Intel HEX file, loaded
// into a RAM image of the programmed flash range with its MD5 digest.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint32_t QX_FLASH_START = 0x1D010000;
constexpr uint32_t QX_FLASH_END = 0x1D063000; // not included
constexpr uint32_t QX_FLASH_SIZE = QX_FLASH_END - QX_FLASH_START;
constexpr uint32_t QX_FILE_DATA_SIZE = 0x53200;
constexpr uint32_t QX_FILE_DIGEST_SIZE = 32;
constexpr size_t QX_FILE_PATH_SIZE = 300; // the longest --file name and its NUL fit

constexpr int32_t QX_FILE_BAD_ROW = 1;
constexpr int32_t QX_FILE_ERROR = 5;

constexpr const char *QX_FILE_LOG_SOURCE = "qxFile";

int32_t qxFileInit(const char *path);
const uint8_t *qxFileGetData();
// The path of the file last loaded (empty before).
const char *qxFileGetPath();
void qxFileGetMd5AndLen(int32_t *len, uint8_t *digest);
uint32_t strToH(const char *s, int32_t len);
int32_t qxFileAddData(uint32_t address, int32_t count, const char *hex, int32_t *offset);
void qxFileDumpData();
void dumpMd5Digest(const uint8_t *digest);

// For tests and tools only: forgets a loaded image so that the next
// qxFileInit loads again (the service loads once per process and keeps that
// image). Restores the state the process starts with: not loaded, image,
// digest and length all zero.
void qxFileReset();
