// The recorder: a table laid over the system-call seam that passes every call
// on and appends what went in and what came back. Records are built in a
// static buffer and written whole, one write per exchange; only the bytes of
// files and of memory the driver reads are streamed after their record's
// head. Nothing is allocated once recording has started.
#include "sysRecord.h"

#include "daemonNotify.h"
#include "evmLog.h"
#include "qxUsb.h"
#include "recordFormat.h"
#include "sysSeam.h"

#include <openssl/evp.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <unistd.h>

namespace {

constexpr const char *SYS_RECORD_SOURCE = "sysRecord";
constexpr uint64_t SYS_RECORD_DEFAULT_LIMIT = 64ull << 20;
constexpr uint64_t SYS_RECORD_MIN_LIMIT = 256ull << 10;
constexpr size_t SYS_RECORD_BUF_SIZE = size_t{64} * 1024;
constexpr size_t SYS_RECORD_FDS = 1024;
constexpr size_t SYS_RECORD_PENDING_MAX = 64;
constexpr size_t SYS_RECORD_CHECKPOINTS = 8;
constexpr size_t SYS_RECORD_PATH_SIZE = 4096;
// Files kept whole up to this size; a larger one only by its hash.
constexpr int64_t SYS_RECORD_FILE_DATA_MAX = 256LL << 20;
constexpr const char *SYS_RECORD_BUILD = "tarnhold " TARNHOLD_VERSION;

// Where the picdev block names memory the driver reads later: packets of the
// PIC32 programming, pages of the FPGA and CPLD chunks.
constexpr size_t SYS_RECORD_BLOCK_COUNT = 11;
constexpr uint32_t SYS_RECORD_PAGE_SIZE = 256;
constexpr uint32_t SYS_RECORD_MAX_PAGES = 30;
constexpr uint32_t SYS_RECORD_PACKET_SIZE = 64;

struct sysRecordPending {
    int fd;
    uint32_t request;
    uint64_t address;
    uint32_t len;
};

// A record boundary past the start-up part, where a cut may be made.
struct sysRecordCheckpoint {
    uint64_t offset;  // in the file as it stands
    uint64_t records; // exchanges made before it
    uint64_t emitted; // bytes ever recorded before it
};

struct {
    bool on = false;
    bool toFile = false;
    bool data = false;
    platformSysOps under = {};
    sysRecordSinkOps sink = {};
    int fd = -1;
    char path[SYS_RECORD_PATH_SIZE] = {};
    int requestFd = -1;
    uint64_t startUs = 0;
    uint64_t lastUs = 0; // the latest time recorded
    uint64_t limit = SYS_RECORD_DEFAULT_LIMIT;
    uint64_t size = 0;    // of the file
    uint64_t emitted = 0; // bytes ever recorded, cuts included
    uint64_t records = 0; // exchanges ever recorded
    uint64_t headEnd = 0; // end of the start-up part; 0 while it grows
    uint64_t headRecords = 0;
    std::array<sysRecordCheckpoint, SYS_RECORD_CHECKPOINTS> checkpoints = {};
    size_t checkpointCount = 0;
    uint64_t nextCheckpoint = 0;
    std::array<uint8_t, SYS_RECORD_FDS> fileFd = {}; // 1: a file read whole, its reads not recorded
    std::array<sysRecordPending, SYS_RECORD_PENDING_MAX> pending = {};
    size_t pendingCount = 0;
    EVP_MD_CTX *md = nullptr;
    size_t used = 0;      // bytes of `buf` waiting to go out
    size_t committed = 0; // of them, whole records (to a file they go out at the next wait)
    bool flushed = false; // the record's first part has gone out (to a sink)
    alignas(8) std::array<uint8_t, SYS_RECORD_BUF_SIZE> buf = {};
    alignas(8) std::array<uint8_t, SYS_RECORD_BUF_SIZE> chunk = {};
} sysRecordPrivateMembers;

auto &rec = sysRecordPrivateMembers;

void __recStopFile(const char *what, int err);

// Time since the start, never going back: a clock read inside a signal
// handler (libfaketime's, say) may lag the ones before it.
uint64_t __recNowUs()
{
    const uint64_t now = rec.under.monotonicUs();
    rec.lastUs = std::max(rec.lastUs, now >= rec.startUs ? now - rec.startUs : 0);
    return rec.lastUs;
}

bool __recWriteAll(int fd, const void *p, size_t n)
{
    const auto *bytes = static_cast<const uint8_t *>(p);
    while (n > 0) {
        const ssize_t w = ::write(fd, bytes, n);
        if (w < 0 && errno == EINTR) {
            continue;
        }
        if (w <= 0) {
            if (w == 0) {
                errno = ENOSPC;
            }
            return false;
        }
        bytes += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

// Sends what is in the buffer, or `bytes` past it, to the file or the sink.
void __recOut(std::span<const uint8_t> bytes)
{
    if (bytes.empty() || !rec.on) {
        return;
    }
    if (!rec.toFile) {
        (rec.flushed ? rec.sink.bulk : rec.sink.record)(bytes);
        rec.flushed = true;
        return;
    }
    if (!__recWriteAll(rec.fd, bytes.data(), bytes.size())) {
        __recStopFile("write", errno);
        return;
    }
    rec.flushed = true;
    rec.size += bytes.size();
}

// Whole records waiting in the buffer go to the file: before every wait of the
// service (so that a record is never held while the service sits still), when
// the buffer is full, at a cut and at a signal.
void __recFlushCommitted()
{
    if (!rec.toFile || rec.committed == 0) {
        return;
    }
    const size_t n = rec.committed;
    rec.committed = 0;
    __recOut({rec.buf.data(), n});
    if (!rec.on) {
        return; // the write failed and stopped the recording, which emptied the buffer
    }
    std::memmove(rec.buf.data(), rec.buf.data() + n, rec.used - n);
    rec.used -= n;
}

void __recPut(const void *p, size_t n)
{
    if (n == 0) {
        return;
    }
    if (rec.used + n > rec.buf.size()) {
        __recFlushCommitted();
        if (rec.used + n > rec.buf.size()) {
            // A record longer than the buffer goes out as it is built.
            const size_t partial = rec.used;
            rec.used = 0;
            __recOut({rec.buf.data(), partial});
            if (n > rec.buf.size()) {
                __recOut({static_cast<const uint8_t *>(p), n});
                return;
            }
        }
    }
    std::memcpy(rec.buf.data() + rec.used, p, n);
    rec.used += n;
}

// ---- The file: start-up part, checkpoints, cuts ----------------------------

// `text` and `suffix` into `out` of `size` bytes, cut short to fit, NUL-terminated.
void __recCopyText(char *out, size_t size, const char *text, const char *suffix = "")
{
    const size_t a = strnlen(text, size - 1);
    const size_t b = strnlen(suffix, size - 1 - a);
    std::memcpy(out, text, a);
    std::memcpy(out + a, suffix, b);
    out[a + b] = '\0';
}

bool __recCopyRange(int from, int to, uint64_t begin, uint64_t end)
{
    while (begin < end) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(rec.chunk.size(), end - begin));
        const ssize_t r = ::pread(from, rec.chunk.data(), n, static_cast<off_t>(begin));
        if (r <= 0 || !__recWriteAll(to, rec.chunk.data(), static_cast<size_t>(r))) {
            return false;
        }
        begin += static_cast<uint64_t>(r);
    }
    return true;
}

// Keeps the start-up part and the newest checkpoint-aligned tail that fits in
// half the limit, with a GAP record saying what went between them. Written
// to a new file renamed over the old, so a crash meanwhile loses no part.
void __recCut()
{
    sysRecordCheckpoint cut = {rec.size, rec.records, rec.emitted};
    size_t keepFrom = rec.checkpointCount;
    for (size_t i = 0; i < rec.checkpointCount; ++i) {
        if (rec.size - rec.checkpoints[i].offset <= rec.limit / 2) {
            cut = rec.checkpoints[i];
            keepFrom = i;
            break;
        }
    }
    if (cut.offset <= rec.headEnd) {
        return;
    }
    char tmp[SYS_RECORD_PATH_SIZE + 8];
    __recCopyText(tmp, sizeof tmp, rec.path, ".tmp");
    // Made afresh: never a file or link someone left at that name.
    ::unlink(tmp);
    const int out = ::open(tmp, O_RDWR | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
    recordHead head = {};
    head.kind = static_cast<uint8_t>(recordKind::GAP);
    head.size = sizeof head + sizeof(recordGap);
    head.timeUs = __recNowUs();
    // `emitted` counts records only; the start-up part's end is a file offset, past the file's header.
    const recordGap gap = {cut.records - rec.headRecords, cut.emitted - (rec.headEnd - sizeof(recordFileHeader))};
    std::array<uint8_t, sizeof head + sizeof gap> gapBytes;
    std::memcpy(gapBytes.data(), &head, sizeof head);
    std::memcpy(gapBytes.data() + sizeof head, &gap, sizeof gap);
    if (out < 0 || !__recCopyRange(rec.fd, out, 0, rec.headEnd) ||
        !__recWriteAll(out, gapBytes.data(), gapBytes.size()) || !__recCopyRange(rec.fd, out, cut.offset, rec.size) ||
        ::rename(tmp, rec.path) != 0) {
        const int err = errno;
        if (out >= 0) {
            ::close(out);
            ::unlink(tmp);
        }
        __recStopFile("cut", err);
        return;
    }
    ::close(rec.fd);
    rec.fd = out;
    const uint64_t newCut = rec.headEnd + gapBytes.size();
    rec.size = newCut + (rec.size - cut.offset);
    size_t n = 0;
    for (size_t i = keepFrom + 1; i < rec.checkpointCount; ++i) {
        rec.checkpoints[n] = rec.checkpoints[i];
        rec.checkpoints[n].offset = rec.checkpoints[n].offset - cut.offset + newCut;
        ++n;
    }
    rec.checkpointCount = n;
    rec.nextCheckpoint = rec.nextCheckpoint > cut.offset ? rec.nextCheckpoint - cut.offset + newCut : rec.size;
}

// Before a record of `size` bytes goes to the file: the start-up part closes
// at half the limit at the latest, checkpoints are noted, and a record that
// would pass the limit makes a cut first.
void __recBeforeFileRecord(uint64_t size)
{
    const uint64_t end = rec.size + rec.used;
    if (rec.headEnd == 0 && end >= rec.limit / 2) {
        rec.headEnd = end;
        rec.headRecords = rec.records;
    }
    if (rec.headEnd != 0 && end + size > rec.limit) {
        __recFlushCommitted();
        __recCut();
    }
    if (rec.headEnd != 0 && rec.size + rec.used >= rec.nextCheckpoint) {
        if (rec.checkpointCount == rec.checkpoints.size()) {
            std::memmove(&rec.checkpoints[0], &rec.checkpoints[1], sizeof rec.checkpoints[0] * (rec.checkpointCount - 1));
            --rec.checkpointCount;
        }
        rec.checkpoints[rec.checkpointCount++] = {rec.size + rec.used, rec.records, rec.emitted};
        rec.nextCheckpoint = rec.size + rec.used + rec.limit / SYS_RECORD_CHECKPOINTS;
    }
}

// ---- Building records --------------------------------------------------------

void __recBegin(recordKind kind, uint64_t size)
{
    if (rec.toFile) {
        __recBeforeFileRecord(size);
    }
    recordHead head = {};
    head.size = static_cast<uint32_t>(size);
    head.kind = static_cast<uint8_t>(kind);
    head.timeUs = __recNowUs();
    rec.flushed = false;
    rec.emitted += size;
    ++rec.records;
    __recPut(&head, sizeof head);
}

void __recEnd()
{
    if (rec.toFile) {
        rec.committed = rec.used;
        return;
    }
    const size_t n = rec.used;
    rec.used = 0;
    __recOut({rec.buf.data(), n});
    if (rec.on) {
        rec.sink.end();
    }
}

// A record of one fixed part and up to two variable parts, the common shape.
template <typename T>
void __recEmit(recordKind kind, const T &fixed, std::span<const uint8_t> a = {}, std::span<const uint8_t> b = {})
{
    __recBegin(kind, sizeof(recordHead) + sizeof fixed + a.size() + b.size());
    __recPut(&fixed, sizeof fixed);
    __recPut(a.data(), a.size());
    __recPut(b.data(), b.size());
    __recEnd();
}

std::span<const uint8_t> __recText(const char *text)
{
    return {reinterpret_cast<const uint8_t *>(text), text != nullptr ? strnlen(text, RECORD_TEXT_MAX) : 0};
}

// ---- Hashes -------------------------------------------------------------------

// The SHA-256 of memory at `address`, as the driver reads it: only memory
// the service handed over itself is read. Any other address (a client's, in a
// pass-through request) is recorded as unreadable and never touched: false.
bool __recHashMemory(uint64_t address, uint32_t len, uint8_t *hash)
{
    if (address == 0 || !platformSysHandedOver(address, len)) {
        std::memset(hash, 0, RECORD_HASH_SIZE);
        return false;
    }
    EVP_DigestInit_ex(rec.md, EVP_sha256(), nullptr);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the driver names memory by number; the service handed it over
    EVP_DigestUpdate(rec.md, reinterpret_cast<const void *>(static_cast<uintptr_t>(address)), len);
    unsigned int out = 0;
    EVP_DigestFinal_ex(rec.md, hash, &out);
    return true;
}

// The SHA-256 of a file's first `size` bytes, read without moving its offset;
// with `stream` the bytes also go into the record being built (zeros where the
// file ended early).
void __recHashFile(int fd, uint64_t size, uint8_t *hash, bool stream)
{
    EVP_DigestInit_ex(rec.md, EVP_sha256(), nullptr);
    uint64_t done = 0;
    while (done < size) {
        const size_t want = static_cast<size_t>(std::min<uint64_t>(rec.chunk.size(), size - done));
        ssize_t n = ::pread(fd, rec.chunk.data(), want, static_cast<off_t>(done));
        if (n <= 0) {
            std::memset(rec.chunk.data(), 0, want);
            n = static_cast<ssize_t>(want);
        }
        EVP_DigestUpdate(rec.md, rec.chunk.data(), static_cast<size_t>(n));
        if (stream) {
            __recPut(rec.chunk.data(), static_cast<size_t>(n));
        }
        done += static_cast<uint64_t>(n);
    }
    unsigned int out = 0;
    EVP_DigestFinal_ex(rec.md, hash, &out);
}

// ---- Memory the driver reads ------------------------------------------------------

void __recMem(int fd, uint32_t request, uint64_t address, uint32_t len)
{
    recordMem m = {};
    m.fd = fd;
    m.request = request;
    m.address = address;
    m.len = len;
    m.readable = __recHashMemory(address, len, m.sha256) ? 1 : 0;
    const bool bytes = rec.data && m.readable != 0;
    __recBegin(recordKind::MEM, sizeof(recordHead) + sizeof m + (bytes ? len : 0));
    __recPut(&m, sizeof m);
    if (bytes) {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the driver names memory by number; read, it was found readable
        __recPut(reinterpret_cast<const void *>(static_cast<uintptr_t>(address)), len);
    }
    __recEnd();
}

// What the driver took by address from `fd` goes out ahead of the next
// request on it, or at its close: its bytes are recorded then.
void __recSendPending(int fd)
{
    size_t kept = 0;
    for (size_t i = 0; i < rec.pendingCount; ++i) {
        const sysRecordPending p = rec.pending[i];
        if (p.fd == fd) {
            __recMem(p.fd, p.request, p.address, p.len);
        } else {
            rec.pending[kept++] = p;
        }
    }
    rec.pendingCount = kept;
}

void __recQueueHandOver(int fd, uint32_t request, const picHidIoctlArg &block)
{
    if (qxUsbReportAddress(request) != QX_REPORT_HANDOVER_ADDRESS) {
        return;
    }
    const uint32_t pages = std::min<uint32_t>(block.report[SYS_RECORD_BLOCK_COUNT], SYS_RECORD_MAX_PAGES);
    const bool packet = request == PIC_HID_PIC32_PROGRAM || request == PIC_HID_PIC32_PROGRAM_DONE;
    const uint32_t len = packet ? SYS_RECORD_PACKET_SIZE : pages * SYS_RECORD_PAGE_SIZE;
    uint64_t address = 0;
    std::memcpy(&address, &block.report[QX_REPORT_HANDOVER_ADDRESS], sizeof address);
    if (rec.pendingCount == rec.pending.size()) {
        __recSendPending(rec.pending[0].fd);
    }
    rec.pending[rec.pendingCount++] = {fd, request, address, len};
}

// ---- The table -------------------------------------------------------------------

bool __recIsFileFd(int fd)
{
    return fd >= 0 && static_cast<size_t>(fd) < SYS_RECORD_FDS && rec.fileFd[static_cast<size_t>(fd)] != 0;
}

// A file read whole: opened for reading, not a device or sysfs node, regular.
bool __recFileIsFile(const char *path, int flags, int fd)
{
    struct stat st = {};
    return (flags & O_ACCMODE) == O_RDONLY && strncmp(path, "/dev/", 5) != 0 && strncmp(path, "/sys/", 5) != 0 &&
           ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
}

// Both opens are recorded alike: which one the service uses for a path is the
// service's own rule, not part of the exchange.
int __recOpenThrough(int (*under)(const char *, int, mode_t), const char *path, int flags, mode_t mode)
{
    const int rc = under(path, flags, mode);
    const int err = errno;
    if (!rec.on) {
        return rc;
    }
    const bool inTable = rc >= 0 && static_cast<size_t>(rc) < SYS_RECORD_FDS;
    if (inTable) {
        rec.fileFd[static_cast<size_t>(rc)] = 0;
    }
    const bool isFile = inTable && (rec.toFile ? __recFileIsFile(path, flags, rc) : rec.sink.isFile(path, flags, rc));
    if (!isFile) {
        __recEmit(recordKind::OPEN, recordOpen{flags, static_cast<uint32_t>(mode), rc, rc < 0 ? err : 0},
                  __recText(path));
        errno = err;
        return rc;
    }
    rec.fileFd[static_cast<size_t>(rc)] = 1;
    struct stat st = {};
    recordFile f = {};
    f.fd = rc;
    f.flags = flags;
    f.size = ::fstat(rc, &st) == 0 ? st.st_size : 0;
    const auto name = __recText(path);
    f.pathLen = static_cast<uint32_t>(name.size());
    if (rec.data && f.size <= SYS_RECORD_FILE_DATA_MAX) {
        // The hash goes in the fixed part, ahead of the bytes it covers: the
        // file is read twice, once for each.
        __recHashFile(rc, static_cast<uint64_t>(f.size), f.sha256, false);
        __recBegin(recordKind::FILE, sizeof(recordHead) + sizeof f + name.size() + static_cast<uint64_t>(f.size));
        __recPut(&f, sizeof f);
        __recPut(name.data(), name.size());
        uint8_t again[RECORD_HASH_SIZE];
        __recHashFile(rc, static_cast<uint64_t>(f.size), again, true);
        __recEnd();
    } else {
        __recHashFile(rc, static_cast<uint64_t>(f.size), f.sha256, false);
        __recEmit(recordKind::FILE, f, name);
    }
    errno = err;
    return rc;
}

int __recOpen(const char *path, int flags, mode_t mode)
{
    return __recOpenThrough(rec.under.open, path, flags, mode);
}

int __recOpenNoLinks(const char *path, int flags, mode_t mode)
{
    return __recOpenThrough(rec.under.openNoLinks, path, flags, mode);
}

int __recClose(int fd)
{
    if (rec.on) {
        __recSendPending(fd);
    }
    const int rc = rec.under.close(fd);
    const int err = errno;
    if (!rec.on) {
        return rc;
    }
    if (__recIsFileFd(fd)) {
        rec.fileFd[static_cast<size_t>(fd)] = 0;
    } else {
        __recEmit(recordKind::CLOSE, recordClose{fd, rc, rc < 0 ? err : 0, 0});
    }
    errno = err;
    return rc;
}

// The argument as kept: the picdev block, an SMBus transfer with its data
// block, or the argument itself as a number.
recordArgKind __recArg(unsigned long request, const void *arg, uint8_t *out)
{
    if (_IOC_TYPE(request) == 'H' && arg != nullptr) {
        std::memcpy(out, arg, sizeof(picHidIoctlArg));
        return recordArgKind::BLOCK;
    }
    if (request == I2C_SMBUS && arg != nullptr) {
        const auto *a = static_cast<const i2c_smbus_ioctl_data *>(arg);
        recordSmbus s = {};
        s.readWrite = a->read_write;
        s.command = a->command;
        s.size = a->size;
        if (a->data != nullptr) {
            std::memcpy(s.data, a->data, sizeof s.data);
        }
        std::memcpy(out, &s, sizeof s);
        return recordArgKind::SMBUS;
    }
    const uint64_t value = reinterpret_cast<uintptr_t>(arg);
    std::memcpy(out, &value, sizeof value);
    return recordArgKind::VALUE;
}

constexpr uint32_t __recArgSize(recordArgKind kind)
{
    return kind == recordArgKind::BLOCK ? sizeof(picHidIoctlArg) : kind == recordArgKind::SMBUS ? sizeof(recordSmbus) : 8;
}

int __recIoctl(int fd, unsigned long request, void *arg)
{
    if (!rec.on) {
        return rec.under.ioctl(fd, request, arg);
    }
    __recSendPending(fd);
    alignas(8) std::array<uint8_t, sizeof(picHidIoctlArg)> before = {};
    alignas(8) std::array<uint8_t, sizeof(picHidIoctlArg)> after = {};
    const recordArgKind kind = __recArg(request, arg, before.data());
    if (request == PIC_HID_FILE_TRANSFER_TEST && kind == recordArgKind::BLOCK) {
        // This one the driver reads within the call.
        const auto *block = static_cast<const picHidIoctlArg *>(arg);
        __recMem(fd, static_cast<uint32_t>(request), block->xferBuf, block->xferLen);
    }
    const int rc = rec.under.ioctl(fd, request, arg);
    const int err = errno;
    if (!rec.on) {
        return rc;
    }
    __recArg(request, arg, after.data());
    const uint32_t size = __recArgSize(kind);
    __recEmit(recordKind::IOCTL,
              recordIoctl{fd, static_cast<uint32_t>(request), rc, rc < 0 ? err : 0, static_cast<uint32_t>(kind), size},
              {before.data(), size}, {after.data(), size});
    if (rc == 0 && kind == recordArgKind::BLOCK) {
        __recQueueHandOver(fd, static_cast<uint32_t>(request), *static_cast<const picHidIoctlArg *>(arg));
    }
    errno = err;
    return rc;
}

ssize_t __recRead(int fd, void *buf, size_t len)
{
    const ssize_t rc = rec.under.read(fd, buf, len);
    const int err = errno;
    if (!rec.on || __recIsFileFd(fd)) {
        return rc;
    }
    // The start-up part ends where the loop takes its first request.
    if (rec.toFile && fd == rec.requestFd && rc > 0 && rec.headEnd == 0) {
        rec.headEnd = rec.size + rec.used;
        rec.headRecords = rec.records;
    }
    __recEmit(recordKind::READ, recordTransfer{fd, static_cast<uint32_t>(len), rc, rc < 0 ? err : 0, 0},
              {static_cast<const uint8_t *>(buf), rc > 0 ? static_cast<size_t>(rc) : 0});
    errno = err;
    return rc;
}

ssize_t __recWrite(int fd, const void *buf, size_t len)
{
    const ssize_t rc = rec.under.write(fd, buf, len);
    const int err = errno;
    if (!rec.on || __recIsFileFd(fd)) {
        return rc;
    }
    __recEmit(recordKind::WRITE, recordTransfer{fd, static_cast<uint32_t>(len), rc, rc < 0 ? err : 0, 0},
              {static_cast<const uint8_t *>(buf), len});
    errno = err;
    return rc;
}

off_t __recLseek(int fd, off_t offset, int whence)
{
    const off_t rc = rec.under.lseek(fd, offset, whence);
    const int err = errno;
    if (rec.on && !__recIsFileFd(fd)) {
        __recEmit(recordKind::LSEEK, recordLseek{fd, whence, offset, rc, rc < 0 ? err : 0, 0});
    }
    errno = err;
    return rc;
}

void __recStat(int fd, const char *path, int rc, int err, const struct stat *st)
{
    const bool ok = rc == 0;
    __recEmit(recordKind::STAT,
              recordStat{fd, rc, ok ? 0 : err, ok ? static_cast<uint32_t>(st->st_mode) : 0u, ok ? st->st_size : 0,
                         ok ? static_cast<uint32_t>(st->st_uid) : 0u, 0},
              __recText(path));
}

int __recStatPath(const char *path, struct stat *st)
{
    const int rc = rec.under.stat(path, st);
    const int err = errno;
    if (rec.on) {
        __recStat(-1, path, rc, err, st);
    }
    errno = err;
    return rc;
}

int __recFstat(int fd, struct stat *st)
{
    const int rc = rec.under.fstat(fd, st);
    const int err = errno;
    if (rec.on && !__recIsFileFd(fd)) {
        __recStat(fd, nullptr, rc, err, st);
    }
    errno = err;
    return rc;
}

int __recAccess(const char *path, int mode)
{
    const int rc = rec.under.access(path, mode);
    const int err = errno;
    if (rec.on) {
        __recEmit(recordKind::ACCESS, recordAccess{mode, rc, rc < 0 ? err : 0, 0}, __recText(path));
    }
    errno = err;
    return rc;
}

int __recUsleep(useconds_t us)
{
    __recFlushCommitted();
    const int rc = rec.under.usleep(us);
    if (rec.on) {
        __recEmit(recordKind::SLEEP, recordSleep{static_cast<uint32_t>(us), rc});
    }
    return rc;
}

int __recSystem(const char *command)
{
    __recFlushCommitted();
    const int rc = rec.under.system(command);
    if (rec.on) {
        __recEmit(recordKind::SYSTEM, recordSystem{rc, 0}, __recText(command));
    }
    return rc;
}

int __recSelect(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds, struct timeval *timeout)
{
    const int64_t timeoutUs =
        timeout != nullptr ? static_cast<int64_t>(timeout->tv_sec) * 1000000 + timeout->tv_usec : int64_t{-1};
    // Records wait in the buffer only while requests keep coming: a wait that
    // would block sends them out first.
    int rc = 0;
    bool waited = true;
    if (rec.on && rec.committed != 0 && readfds != nullptr && writefds == nullptr && exceptfds == nullptr) {
        fd_set ready = *readfds;
        timeval now = {};
        rc = rec.under.select(nfds, &ready, nullptr, nullptr, &now);
        if (rc > 0) {
            *readfds = ready;
            waited = false;
        }
    }
    if (waited) {
        __recFlushCommitted();
        rc = rec.under.select(nfds, readfds, writefds, exceptfds, timeout);
    }
    const int err = errno;
    if (rec.on) {
        const int fd = nfds - 1;
        const bool readable = readfds != nullptr && fd >= 0 && fd < FD_SETSIZE && FD_ISSET(fd, readfds);
        __recEmit(recordKind::SELECT, recordSelect{fd, rc, timeoutUs, rc < 0 ? err : 0, readable ? 1u : 0u});
    }
    errno = err;
    return rc;
}

uint64_t __recMsSince1970()
{
    const uint64_t ms = rec.under.msSince1970();
    if (rec.on) {
        __recEmit(recordKind::CLOCK, recordClock{ms});
    }
    return ms;
}

int __recFindPciDevice(const char *vendor, const char *device, char *sysPath, size_t size)
{
    const int rc = rec.under.findPciDevice(vendor, device, sysPath, size);
    if (rec.on) {
        const auto text = rc == 0 ? __recText(sysPath) : std::span<const uint8_t>{};
        __recBegin(recordKind::PCI, sizeof(recordHead) + text.size());
        __recPut(text.data(), text.size());
        __recEnd();
    }
    return rc;
}

void __recUsb(recordUsbOp op, int result)
{
    if (rec.on) {
        __recEmit(recordKind::USB, recordUsb{static_cast<uint32_t>(op), result});
    }
}

void __recUsbInit()
{
    rec.under.usbInit();
    __recUsb(recordUsbOp::INIT, 0);
}

int __recUsbFindBusses()
{
    const int rc = rec.under.usbFindBusses();
    __recUsb(recordUsbOp::FIND_BUSSES, rc);
    return rc;
}

int __recUsbFindDevices()
{
    const int rc = rec.under.usbFindDevices();
    __recUsb(recordUsbOp::FIND_DEVICES, rc);
    return rc;
}

struct usb_bus *__recUsbGetBusses()
{
    struct usb_bus *busses = rec.under.usbGetBusses();
    if (!rec.on) {
        return busses;
    }
    std::array<recordUsbDevice, RECORD_USB_DEVICES_MAX> list = {};
    size_t n = 0;
    for (struct usb_bus *bus = busses; bus != nullptr && n < list.size(); bus = bus->next) {
        for (struct usb_device *dev = bus->devices; dev != nullptr && n < list.size(); dev = dev->next) {
            recordUsbDevice &d = list[n++];
            __recCopyText(d.bus, sizeof d.bus, bus->dirname);
            __recCopyText(d.device, sizeof d.device, dev->filename);
            d.idVendor = dev->descriptor.idVendor;
            d.idProduct = dev->descriptor.idProduct;
        }
    }
    __recEmit(recordKind::USB, recordUsb{static_cast<uint32_t>(recordUsbOp::GET_BUSSES), static_cast<int32_t>(n)},
              {reinterpret_cast<const uint8_t *>(list.data()), n * sizeof(recordUsbDevice)});
    return busses;
}

usb_dev_handle *__recUsbOpen(struct usb_device *dev)
{
    usb_dev_handle *handle = rec.under.usbOpen(dev);
    __recUsb(recordUsbOp::OPEN, handle != nullptr ? 1 : 0);
    return handle;
}

int __recUsbReset(usb_dev_handle *handle)
{
    const int rc = rec.under.usbReset(handle);
    __recUsb(recordUsbOp::RESET, rc);
    return rc;
}

int __recUsbClose(usb_dev_handle *handle)
{
    const int rc = rec.under.usbClose(handle);
    __recUsb(recordUsbOp::CLOSE, rc);
    return rc;
}

uint64_t __recMonotonicUs()
{
    return rec.under.monotonicUs(); // the keep-alives' clock: nothing the world sees
}

constexpr platformSysOps SYS_RECORD_OPS = {
    .open = __recOpen,
    .openNoLinks = __recOpenNoLinks,
    .access = __recAccess,
    .close = __recClose,
    .ioctl = __recIoctl,
    .read = __recRead,
    .write = __recWrite,
    .lseek = __recLseek,
    .stat = __recStatPath,
    .fstat = __recFstat,
    .usleep = __recUsleep,
    .system = __recSystem,
    .select = __recSelect,
    .msSince1970 = __recMsSince1970,
    .monotonicUs = __recMonotonicUs,
    .findPciDevice = __recFindPciDevice,
    .usbInit = __recUsbInit,
    .usbFindBusses = __recUsbFindBusses,
    .usbFindDevices = __recUsbFindDevices,
    .usbGetBusses = __recUsbGetBusses,
    .usbOpen = __recUsbOpen,
    .usbReset = __recUsbReset,
    .usbClose = __recUsbClose,
};

// Puts the seam back as it was and closes the file; nothing more is written.
void __recUnlay()
{
    if (rec.on) {
        platformSys = rec.under;
    }
    rec.on = false;
    if (rec.fd >= 0) {
        ::close(rec.fd);
        rec.fd = -1;
    }
}

void __recStopFile(const char *what, int err)
{
    rec.used = 0;
    rec.committed = 0;
    evm_log(0, SYS_RECORD_SOURCE, __LINE__, "recording to %s stopped (%s: %s); serving goes on", rec.path, what,
            strerror(err));
    __recUnlay();
}

void __recLay(bool withData)
{
    if (rec.md == nullptr) {
        rec.md = EVP_MD_CTX_new();
    }
    rec.under = platformSys;
    rec.data = withData;
    rec.startUs = rec.under.monotonicUs();
    rec.lastUs = 0;
    rec.size = 0;
    rec.emitted = 0;
    rec.records = 0;
    rec.headEnd = 0;
    rec.headRecords = 0;
    rec.checkpointCount = 0;
    rec.nextCheckpoint = 0;
    rec.pendingCount = 0;
    rec.used = 0;
    rec.committed = 0;
    rec.fileFd.fill(0);
    rec.on = rec.md != nullptr;
    if (rec.on) {
        platformSys = SYS_RECORD_OPS;
    }
}

// "64M", "65536", "1G": bytes, with an optional K, M or G; 0 when not a size.
uint64_t __recParseLimit(const char *text)
{
    char *end = nullptr;
    errno = 0;
    uint64_t n = strtoull(text, &end, 10);
    if (errno != 0 || end == text) {
        return 0;
    }
    const int shift = *end == 'K' || *end == 'k' ? 10 : *end == 'M' || *end == 'm' ? 20 : *end == 'G' || *end == 'g' ? 30 : 0;
    if ((shift != 0 && end[1] != '\0') || (shift == 0 && *end != '\0') || n > (UINT64_MAX >> shift)) {
        return 0;
    }
    return n << shift;
}

} // namespace

void sysRecordStart(int argc, char **argv, int requestFd)
{
    const char *path = getenv("TARNHOLD_RECORD");
    if (path == nullptr || path[0] == '\0' || rec.on) {
        return;
    }
    if (strlen(path) >= sizeof rec.path - 2) {
        evm_log(0, SYS_RECORD_SOURCE, __LINE__, "recording not started: TARNHOLD_RECORD is too long");
        return;
    }
    __recCopyText(rec.path, sizeof rec.path, path);
    const char *limitText = getenv("TARNHOLD_RECORD_LIMIT");
    rec.limit = SYS_RECORD_DEFAULT_LIMIT;
    if (limitText != nullptr && limitText[0] != '\0') {
        const uint64_t limit = __recParseLimit(limitText);
        rec.limit = limit >= SYS_RECORD_MIN_LIMIT ? limit : SYS_RECORD_DEFAULT_LIMIT;
        if (limit < SYS_RECORD_MIN_LIMIT) {
            evm_log(0, SYS_RECORD_SOURCE, __LINE__, "TARNHOLD_RECORD_LIMIT '%s' is not a size of 256K or more; 64M it is",
                    limitText);
        }
    }
    const char *dataText = getenv("TARNHOLD_RECORD_DATA");
    const bool withData = dataText != nullptr && strcmp(dataText, "1") == 0;

    // The recording of the run before (the one that crashed, say) is kept;
    // anything else there, another account's above all, is left alone.
    struct stat st = {};
    if (::lstat(rec.path, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == geteuid() && st.st_size > 0) {
        char previous[sizeof rec.path + 2];
        __recCopyText(previous, sizeof previous, rec.path, ".1");
        if (::rename(rec.path, previous) != 0) {
            evm_log(0, SYS_RECORD_SOURCE, __LINE__, "recording to %s: the one before is not kept as %s: %s",
                    evmLogEscape(rec.path), evmLogEscape(previous), strerror(errno));
        }
    }
    // Read as well: a cut copies the parts it keeps out of it. Never through a
    // link, and emptied only once it is known to be the service's own file:
    // it may hold whole files the service read as root, so it is 0600.
    rec.fd = ::open(rec.path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    const char *refused = nullptr;
    if (rec.fd >= 0 && (::fstat(rec.fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid())) {
        refused = "not a file of the service's own";
    } else if (rec.fd >= 0 && (::ftruncate(rec.fd, 0) != 0 || ::fchmod(rec.fd, 0600) != 0)) {
        refused = strerror(errno);
    }
    if (rec.fd < 0 || refused != nullptr) {
        evm_log(0, SYS_RECORD_SOURCE, __LINE__, "recording to %s not started: %s", evmLogEscape(rec.path),
                refused != nullptr ? refused : strerror(errno));
        if (rec.fd >= 0) {
            ::close(rec.fd);
            rec.fd = -1;
        }
        return;
    }
    rec.toFile = true;
    rec.requestFd = requestFd;
    __recLay(withData);
    if (!rec.on) {
        ::close(rec.fd);
        rec.fd = -1;
        return;
    }
    recordFileHeader header = {};
    std::memcpy(header.magic, RECORD_MAGIC, sizeof header.magic);
    header.version = RECORD_FORMAT_VERSION;
    header.headerSize = sizeof header;
    header.flags = withData ? RECORD_FLAG_DATA : 0;
    header.startWallMs = rec.under.msSince1970();
    snprintf(header.build, sizeof header.build, "%s", SYS_RECORD_BUILD);
    if (!__recWriteAll(rec.fd, &header, sizeof header)) {
        __recStopFile("header", errno);
        return;
    }
    rec.size = sizeof header;

    // The command line: words beyond the format's count are left out.
    const int words = std::min(argc, static_cast<int>(RECORD_ARGV_MAX));
    uint64_t textSize = 0;
    for (int i = 0; i < words; ++i) {
        textSize += strnlen(argv[i], RECORD_TEXT_MAX - 1) + 1;
    }
    recordStart start = {words, requestFd, 0, static_cast<uint32_t>(getpid()), 0};
    start.watchdogSliceUs = daemonNotifyWatchdogSliceUs();
    __recBegin(recordKind::START, sizeof(recordHead) + sizeof start + textSize);
    __recPut(&start, sizeof start);
    const uint8_t nul = 0;
    for (int i = 0; i < words; ++i) {
        __recPut(argv[i], strnlen(argv[i], RECORD_TEXT_MAX - 1));
        __recPut(&nul, 1);
    }
    __recEnd();
    __recFlushCommitted();
    evm_log(0, SYS_RECORD_SOURCE, __LINE__, "recording every exchange to %s (limit %llu bytes%s)", rec.path,
            static_cast<unsigned long long>(rec.limit), withData ? ", with file and memory bytes" : "");
}

void sysRecordStartSink(const sysRecordSinkOps &sink, bool withData)
{
    rec.toFile = false;
    rec.sink = sink;
    rec.requestFd = -1;
    __recLay(withData);
}

bool sysRecordOn()
{
    return rec.on;
}

void sysRecordExit(int sig)
{
    if (!rec.on || !rec.toFile) {
        return;
    }
    struct {
        recordHead head;
        recordExit exit;
    } record = {};
    static_assert(sizeof record == sizeof(recordHead) + sizeof(recordExit));
    record.head.size = sizeof record;
    record.head.kind = static_cast<uint8_t>(recordKind::EXIT);
    record.head.timeUs = __recNowUs();
    record.exit.signal = sig;
    // Whole records only: the signal may have come in the middle of one.
    if (rec.committed != 0) {
        (void)!::write(rec.fd, rec.buf.data(), rec.committed);
    }
    (void)!::write(rec.fd, &record, sizeof record);
}

void sysRecordStop()
{
    __recFlushCommitted();
    __recUnlay();
}
