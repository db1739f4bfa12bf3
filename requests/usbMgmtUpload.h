// What the FPGA and CPLD upgrades share: their file loads into a static
// buffer, the IO command block of code 38, and the hand-over of the buffer to
// the driver in chunks of 256-byte pages, each after the driver has said it
// has room. Each upgrade passes its own rules; the log lines go out under its
// own source name.
#pragma once

#include "qxUsb.h"

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

constexpr size_t USB_MGMT_UPLOAD_PAGE_SIZE = 256;
constexpr uint32_t USB_MGMT_UPLOAD_CHUNK_PAGES = 30;

// IO command block fields: the request number, and a chunk's first page
// (24-bit), page count and address of its first byte (64-bit).
constexpr size_t USB_MGMT_IO_REQUEST = 3;
constexpr size_t USB_MGMT_CHUNK_FIRST_PAGE = 7;
constexpr size_t USB_MGMT_CHUNK_COUNT = 11;
constexpr size_t USB_MGMT_CHUNK_ADDRESS = 12;
static_assert(USB_MGMT_CHUNK_ADDRESS + 8 <= QX_REPORT_SIZE);

struct usbMgmtUploadRules {
    const char *logSource;   // "fpgaUpgrade" or "cpldUpgrade"
    int32_t minSize;         // file size bounds, both allowed
    int32_t maxSize;
    bool logFileSize;        // the FPGA load says the size it reads
    uint32_t chunkRequest;   // PIC_HID_PROGRAM_FPGA or PIC_HID_PROGRAM_CPLD
    useconds_t roomPollUs;   // pause between capacity queries without room
    uint32_t roomPolls;      // capacity queries before the driver counts as stuck
    const char *progress;    // the status line's words while the pages go out
};

// An IO command for `request` (byte 1 `seq`, 0 where none is taken).
void usbMgmtIoBlock(uint8_t *report, uint32_t request, uint8_t seq);

// The file's size by stat, within the bounds; -1 (logged) otherwise.
ssize_t usbMgmtUploadFileSize(const usbMgmtUploadRules &rules, const char *path);

// Reads `size` bytes of the file into `data`: the count read, or -1 (logged)
// when the file cannot be read at all.
ssize_t usbMgmtUploadReadFile(const usbMgmtUploadRules &rules, const char *path, uint8_t *data, size_t size);

// Hands `pages` pages from `data` to the driver: 0, or the failing call's status.
int32_t usbMgmtUploadPages(const usbMgmtUploadRules &rules, const uint8_t *data, uint32_t pages);
