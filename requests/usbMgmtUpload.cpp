// The file loads and page hand-over shared by the FPGA and CPLD upgrades.
#include "usbMgmtUpload.h"

#include "daemonNotify.h"
#include "evmLog.h"
#include "flashGuard.h"
#include "leBytes.h"
#include "sysSeam.h"
#include "seamFd.h"
#include "usbMgmt.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

// Polls the driver until it has room for a chunk; 0 when it has, else the
// status to return (the capacity query's own, or -1 when it stayed busy).
int32_t __usbMgmtUploadWaitForRoom(const usbMgmtUploadRules &rules)
{
    for (uint32_t poll = 0; poll < rules.roomPolls; ++poll) {
        picHidIoctlArg query{};
        const uint8_t seq = qxUsbGetNextSeqNumber();
        usbMgmtIoBlock(query.report, PIC_HID_IS_URB_AVAILABLE, seq);
        // Always asks for a whole chunk's room, also before a smaller last one.
        query.report[USB_MGMT_CHUNK_COUNT] = USB_MGMT_UPLOAD_CHUNK_PAGES;
        const int32_t rc = qxUsbRawIoctCmd(&query);
        if (rc != 0) {
            evm_log(0, rules.logSource, __LINE__, "QX_TRACE_FILE-PIC_HID_IS_URB_AVAILABLE rc: %d", rc);
            return rc;
        }
        if (query.report[QX_REPORT_CODE] == PIC_HID_ACK_URB &&
            query.report[QX_REPORT_SEQ] == (seq ^ PIC_HID_ACK_SEQ_XOR) && query.report[QX_REPORT_STATUS] == 0) {
            return 0;
        }
        platformSysSleep(rules.roomPollUs);
    }
    // The driver frees room within milliseconds of a chunk going out; one that
    // stays full for 30 s has stopped moving, so the upgrade gives up instead
    // of holding every other client for ever.
    evm_log(0, rules.logSource, __LINE__,
            "QX_TRACE_FILE-PIC_HID_IS_URB_AVAILABLE: driver still busy after %u polls, giving up",
            static_cast<unsigned>(rules.roomPolls));
    return -1;
}

} // namespace

void usbMgmtIoBlock(uint8_t *report, uint32_t request, uint8_t seq)
{
    report[QX_REPORT_CODE] = QX_HID_CMD_IO_CMD;
    report[QX_REPORT_SEQ] = seq;
    lePut32(&report[USB_MGMT_IO_REQUEST], request);
}

ssize_t usbMgmtUploadFileSize(const usbMgmtUploadRules &rules, const char *path)
{
    struct stat st = {};
    if (platformSys.stat(path, &st) != 0) {
        evm_log(0, rules.logSource, __LINE__, "QX_TRACE_FILE-error finding file: %s", evmLogEscape(path));
        return -1;
    }
    if (st.st_size < rules.minSize || st.st_size > rules.maxSize) {
        evm_log(0, rules.logSource, __LINE__, "QX_TRACE_FILE-error wrong file size: %ld [min: %d], [max: %d]",
                static_cast<long>(st.st_size), rules.minSize, rules.maxSize);
        return -1;
    }
    return static_cast<ssize_t>(st.st_size);
}

ssize_t usbMgmtUploadReadFile(const usbMgmtUploadRules &rules, const char *path, uint8_t *data, size_t size)
{
    // A client's path: opened without blocking and without following a link
    // the client could have placed, and checked once open: a FIFO or a device
    // that stat passed must neither hold the service nor be taken for a file.
    seamFd fd(platformSys.openNoLinks(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC, 0));
    if (!fd.valid()) {
        const int err = errno;
        evm_log(0, rules.logSource, __LINE__, "QX_TRACE_FILE-error opening file: %s - '%s'", evmLogEscape(path),
                err == ENOTSUP ? "not a regular file" : std::strerror(err));
        return -1;
    }
    struct stat st = {};
    if (platformSys.fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        const char *reason = S_ISDIR(st.st_mode) ? std::strerror(EISDIR) : "not a regular file";
        evm_log(0, rules.logSource, __LINE__, "QX_TRACE_FILE-error opening file: %s - '%s'", evmLogEscape(path), reason);
        return -1;
    }
    if (rules.logFileSize) {
        evm_log(0, rules.logSource, __LINE__, "QX_TRACE_FILE-st.st_size: %ld", static_cast<long>(size));
    }
    // One read as far as the system gives it; continued only where it stops early.
    size_t got = 0;
    while (got < size) {
        const ssize_t n = platformSys.read(fd.get(), &data[got], size - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

int32_t usbMgmtUploadPages(const usbMgmtUploadRules &rules, const uint8_t *data, uint32_t pages)
{
    platformSysHandOver(data, static_cast<size_t>(pages) * USB_MGMT_UPLOAD_PAGE_SIZE);
    uint32_t next = 0;
    while (next < pages) {
        // A driver with room at every query never lets the upgrade sleep.
        daemonNotifyWatchdog();
        daemonNotifyProgress(rules.progress, "pages", next, pages);
        flashGuardProgress(next);
        int32_t rc = __usbMgmtUploadWaitForRoom(rules);
        if (rc != 0) {
            return rc;
        }
        const uint32_t count = std::min(USB_MGMT_UPLOAD_CHUNK_PAGES, pages - next);
        qxUsbBlock cmd{};
        qxUsbBlock resp{};
        usbMgmtIoBlock(cmd.data(), rules.chunkRequest, qxUsbGetNextSeqNumber());
        lePut24(&cmd[USB_MGMT_CHUNK_FIRST_PAGE], next);
        cmd[USB_MGMT_CHUNK_COUNT] = static_cast<uint8_t>(count);
        // The driver reads the pages from here later, when it sends them on.
        lePut64(&cmd[USB_MGMT_CHUNK_ADDRESS], reinterpret_cast<uintptr_t>(&data[USB_MGMT_UPLOAD_PAGE_SIZE * next]));
        rc = usbMgmtCmd(cmd, resp);
        if (rc != 0) {
            return rc;
        }
        next += count;
    }
    daemonNotifyProgress(rules.progress, "pages", pages, pages);
    flashGuardProgress(pages);
    return 0;
}
