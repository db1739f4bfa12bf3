// tarnhold-sim --replay: the daemon's own code run against a recording, on
// virtual time. Every call the daemon makes through the seam is answered with
// the next recorded answer; the recorder, laid over the seam as when the
// recording was made, encodes what the daemon did and hands it here, where it
// is compared with the recorded exchange. The first difference stops the
// replay with a report; a replay that reaches the recording's end exits 0.
#include "tarnholdSimReplay.h"

#include "evmLog.h"
#include "main.h"
#include "qxUsb.h"
#include "recordFormat.h"
#include "sysRecord.h"
#include "sysSeam.h"
#include "tarnholdTrace.h"
#include "uniqueFd.h"
#include "usbDaemonRequest.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int REPLAY_EXIT_MATCHED = 0;
constexpr int REPLAY_EXIT_DIVERGED = 1;
constexpr int REPLAY_EXIT_USAGE = 2;
constexpr size_t REPLAY_HISTORY = 8;
// Files handed to the daemon get descriptors from here up, clear of the
// recorded descriptors the replay answers for without opening anything.
constexpr int REPLAY_FILE_FD_MIN = 700;
// Bytes of the picdev block that hold addresses in the daemon's memory:
// they differ from run to run, so they are not compared.
constexpr size_t REPLAY_BLOCK_XFER_BUF = offsetof(picHidIoctlArg, xferBuf);
constexpr size_t REPLAY_ADDRESS_SIZE = 8;

struct {
    std::span<const uint8_t> file;
    std::string path;
    std::string filesDir;
    bool verbose = false;
    recordFileHeader header = {};
    uint64_t offset = 0;
    uint64_t index = 0;
    recordView next = {};
    int nextRc = 0; // 1: `next` holds the next exchange; 0: the end; -1: damaged
    recordError nextError = {};
    uint64_t virtualUs = 0;
    uint64_t matched = 0;
    traceState trace;
    std::deque<std::string> history;
    std::vector<uint8_t> came; // the daemon's exchange as the recorder encoded it
    std::vector<int> fileFds;
    std::array<struct usb_bus, 4> busses = {};
    std::array<struct usb_device, RECORD_USB_DEVICES_MAX> devices = {};
    int reportFd = STDOUT_FILENO;
    std::chrono::steady_clock::time_point wallStart;
} replayPrivateMembers;

auto &rp = replayPrivateMembers;

void __replayAdvance()
{
    rp.nextRc = recordReadNext(rp.file, rp.offset, rp.index, rp.next, rp.nextError);
}

void __replayOut(const std::string &text)
{
    (void)!::write(rp.reportFd, text.data(), text.size());
}

std::string __replaySeconds(uint64_t us)
{
    char text[32];
    snprintf(text, sizeof text, "%llu.%06llu s", static_cast<unsigned long long>(us / 1000000),
             static_cast<unsigned long long>(us % 1000000));
    return text;
}

// The recorded exchanges are all there has been: the recorded service ended
// (a signal, a stop) or the recording does at this point.
[[noreturn]] void __replayEnd()
{
    const bool signalled = rp.nextRc == 1 && rp.next.head.kind == static_cast<uint8_t>(recordKind::EXIT);
    rp.matched += signalled ? 1 : 0; // the signal is where the recorded service ended too
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - rp.wallStart).count();
    std::string text = "replay: " + rp.path + ": all " + std::to_string(rp.matched) + " exchanges matched, " +
                       __replaySeconds(rp.virtualUs) + " of recorded time";
    char speed[96];
    snprintf(speed, sizeof speed, ", replayed in %.2f s (%.0fx)\n", wall,
             wall > 0 ? static_cast<double>(rp.virtualUs) / 1e6 / wall : 0.0);
    text += speed;
    if (signalled) {
        recordExit e;
        std::memcpy(&e, rp.next.fixed, sizeof e);
        text += "replay: the recorded service ended there on signal " + std::to_string(e.signal) + "\n";
    } else if (rp.nextRc == 1 && rp.next.head.kind == static_cast<uint8_t>(recordKind::GAP)) {
        recordGap g;
        std::memcpy(&g, rp.next.fixed, sizeof g);
        text += "replay: the recording leaves out " + std::to_string(g.records) +
                " exchanges there (its size limit); the replay stops at the gap\n";
    }
    __replayOut(text);
    _exit(REPLAY_EXIT_MATCHED);
}

[[noreturn]] void __replayDiverged(const std::string &expected, const std::string &came, const std::string &why = {})
{
    std::string text = "replay: " + rp.path + ": diverged at exchange " +
                       std::to_string(rp.nextRc == 1 ? rp.next.index : rp.index + 1) +
                       " (recorded time " + __replaySeconds(rp.nextRc == 1 ? rp.next.head.timeUs : rp.virtualUs) +
                       ")";
    text += why.empty() ? "\n" : ": " + why + "\n";
    text += "  expected: " + expected + "\n  came:     " + came + "\n";
    if (!rp.history.empty()) {
        text += "  the exchanges before it:\n";
        for (const std::string &line : rp.history) {
            text += "    " + line + "\n";
        }
    }
    __replayOut(text);
    _exit(REPLAY_EXIT_DIVERGED);
}

std::string __replayExpectedLine()
{
    if (rp.nextRc == 1) {
        return traceLine(rp.trace, rp.next);
    }
    if (rp.nextRc == 0) {
        return "(the end of the recording)";
    }
    return std::string("(damaged record: ") + rp.nextError.message + ")";
}

// The next recorded exchange, which must be of `kind` (`what` says what the
// daemon did instead); at the recording's end the replay is over.
void __replayTake(recordKind kind, const std::string &what = {})
{
    if (rp.nextRc == 0 || (rp.nextRc == 1 && (rp.next.head.kind == static_cast<uint8_t>(recordKind::EXIT) ||
                                              rp.next.head.kind == static_cast<uint8_t>(recordKind::GAP)))) {
        __replayEnd();
    }
    const std::string came = what.empty() ? std::string("a ") + recordKindName(static_cast<uint8_t>(kind)) : what;
    if (rp.nextRc < 0) {
        __replayDiverged(__replayExpectedLine(), came, "the recording is damaged here");
    }
    if (rp.next.head.kind != static_cast<uint8_t>(kind)) {
        __replayDiverged(__replayExpectedLine(), came);
    }
    rp.virtualUs = std::max(rp.virtualUs, rp.next.head.timeUs);
}

template <typename T> T __replayFixed()
{
    T t;
    std::memcpy(&t, rp.next.fixed, sizeof t);
    return t;
}

bool __replayIsFileFd(int fd)
{
    return std::find(rp.fileFds.begin(), rp.fileFds.end(), fd) != rp.fileFds.end();
}

// ---- Files the daemon reads ----------------------------------------------------

std::string __replayHashText(const uint8_t *hash)
{
    static constexpr char HEX[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < RECORD_HASH_SIZE; ++i) {
        text += HEX[hash[i] >> 4];
        text += HEX[hash[i] & 15];
    }
    return text;
}

bool __replaySha256(int fd, std::array<uint8_t, RECORD_HASH_SIZE> &hash, int64_t &size)
{
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    EVP_DigestInit_ex(md, EVP_sha256(), nullptr);
    std::array<uint8_t, 65536> chunk;
    size = 0;
    for (ssize_t n; (n = ::pread(fd, chunk.data(), chunk.size(), size)) > 0; size += n) {
        EVP_DigestUpdate(md, chunk.data(), static_cast<size_t>(n));
    }
    unsigned int len = 0;
    EVP_DigestFinal_ex(md, hash.data(), &len);
    EVP_MD_CTX_free(md);
    return true;
}

// The recorded file: its bytes from the recording, else the file at its
// recorded path or of its name in --files, when its hash is the recorded one.
int __replayFileFd(const recordFile &f, const std::string &path)
{
    int fd = -1;
    if (!rp.next.data.empty() || f.size == 0) {
        fd = memfd_create("tarnhold-replay-file", MFD_CLOEXEC);
        if (fd < 0 || ::write(fd, rp.next.data.data(), rp.next.data.size()) != static_cast<ssize_t>(rp.next.data.size())) {
            __replayDiverged(__replayExpectedLine(), path, std::string("cannot hold the file: ") + strerror(errno));
        }
        ::lseek(fd, 0, SEEK_SET);
    } else {
        std::vector<std::string> tried;
        if (!rp.filesDir.empty()) {
            const size_t slash = path.rfind('/');
            tried.push_back(rp.filesDir + "/" + (slash == std::string::npos ? path : path.substr(slash + 1)));
        }
        tried.push_back(path);
        std::string found;
        for (const std::string &candidate : tried) {
            fd = ::open(candidate.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd >= 0) {
                found = candidate;
                break;
            }
        }
        if (fd < 0) {
            std::string names;
            for (const std::string &candidate : tried) {
                names += (names.empty() ? "" : " nor ") + candidate;
            }
            __replayDiverged(__replayExpectedLine(), "no file",
                             "the recording holds only the hash of " + path + ", and there is no " + names +
                                 " (record with TARNHOLD_RECORD_DATA=1, or give --files DIR)");
        }
        std::array<uint8_t, RECORD_HASH_SIZE> hash;
        int64_t size = 0;
        __replaySha256(fd, hash, size);
        if (size != f.size || std::memcmp(hash.data(), f.sha256, hash.size()) != 0) {
            __replayDiverged(__replayExpectedLine(), found + ": " + std::to_string(size) + " bytes, SHA-256 " +
                                                         __replayHashText(hash.data()),
                             "the file " + found + " is not the one recorded (" + std::to_string(f.size) +
                                 " bytes, SHA-256 " + __replayHashText(f.sha256) + ")");
        }
    }
    const int high = fcntl(fd, F_DUPFD_CLOEXEC, REPLAY_FILE_FD_MIN);
    ::close(fd);
    rp.fileFds.push_back(high);
    return high;
}

// ---- The table under the recorder: recorded answers -------------------------------

template <typename R> R __replayResult(R result, int err)
{
    errno = err;
    return result;
}

int __replayOpen(const char *path, int, mode_t)
{
    if (rp.nextRc == 1 && rp.next.head.kind == static_cast<uint8_t>(recordKind::FILE)) {
        __replayTake(recordKind::FILE);
        const auto f = __replayFixed<recordFile>();
        if (f.size < 0) {
            return __replayResult(-1, f.err);
        }
        return __replayFileFd(f, path);
    }
    __replayTake(recordKind::OPEN, std::string("open ") + path);
    const auto o = __replayFixed<recordOpen>();
    return __replayResult(o.result, o.err);
}

int __replayClose(int fd)
{
    if (__replayIsFileFd(fd)) {
        rp.fileFds.erase(std::find(rp.fileFds.begin(), rp.fileFds.end(), fd));
        return ::close(fd);
    }
    __replayTake(recordKind::CLOSE);
    const auto c = __replayFixed<recordClose>();
    return __replayResult(c.result, c.err);
}

// The recorded argument after the call, without its addresses: those stay
// the daemon's own.
void __replayKeepAddresses(uint32_t request, const uint8_t *from, uint8_t *to)
{
    std::array<uint8_t, sizeof(picHidIoctlArg)> copy;
    std::memcpy(copy.data(), from, copy.size());
    std::memcpy(&copy[REPLAY_BLOCK_XFER_BUF], to + REPLAY_BLOCK_XFER_BUF, REPLAY_ADDRESS_SIZE);
    if (const size_t at = qxUsbReportAddress(request); at != 0) {
        std::memcpy(&copy[at], to + at, REPLAY_ADDRESS_SIZE);
    }
    std::memcpy(to, copy.data(), copy.size());
}

int __replayIoctl(int, unsigned long request, void *arg)
{
    __replayTake(recordKind::IOCTL);
    const auto io = __replayFixed<recordIoctl>();
    const uint8_t *after = rp.next.data.data() + io.argSize;
    if (io.argKind == static_cast<uint32_t>(recordArgKind::BLOCK) && arg != nullptr && _IOC_TYPE(request) == 'H') {
        __replayKeepAddresses(static_cast<uint32_t>(request), after, static_cast<uint8_t *>(arg));
    } else if (io.argKind == static_cast<uint32_t>(recordArgKind::SMBUS) && arg != nullptr) {
        auto *a = static_cast<i2c_smbus_ioctl_data *>(arg);
        recordSmbus s;
        std::memcpy(&s, after, sizeof s);
        if (a->data != nullptr && request == I2C_SMBUS) {
            std::memcpy(a->data, s.data, sizeof s.data);
        }
    }
    return __replayResult(io.result, io.err);
}

ssize_t __replayRead(int fd, void *buf, size_t len)
{
    if (__replayIsFileFd(fd)) {
        return ::read(fd, buf, len);
    }
    __replayTake(recordKind::READ);
    const auto t = __replayFixed<recordTransfer>();
    if (!rp.next.data.empty()) {
        std::memcpy(buf, rp.next.data.data(), std::min(len, rp.next.data.size()));
    }
    return __replayResult(static_cast<ssize_t>(t.result), t.err);
}

ssize_t __replayWrite(int fd, const void *buf, size_t len)
{
    if (__replayIsFileFd(fd)) {
        return ::write(fd, buf, len);
    }
    __replayTake(recordKind::WRITE);
    const auto t = __replayFixed<recordTransfer>();
    return __replayResult(static_cast<ssize_t>(t.result), t.err);
}

off_t __replayLseek(int fd, off_t offset, int whence)
{
    if (__replayIsFileFd(fd)) {
        return ::lseek(fd, offset, whence);
    }
    __replayTake(recordKind::LSEEK);
    const auto l = __replayFixed<recordLseek>();
    return __replayResult(static_cast<off_t>(l.result), l.err);
}

int __replayStatAnswer(struct stat *st)
{
    __replayTake(recordKind::STAT);
    const auto s = __replayFixed<recordStat>();
    *st = {};
    st->st_mode = s.mode;
    st->st_size = s.size;
    st->st_uid = s.uid;
    return __replayResult(s.result, s.err);
}

int __replayStat(const char *, struct stat *st)
{
    return __replayStatAnswer(st);
}

int __replayFstat(int fd, struct stat *st)
{
    return __replayIsFileFd(fd) ? ::fstat(fd, st) : __replayStatAnswer(st);
}

int __replayAccess(const char *, int)
{
    __replayTake(recordKind::ACCESS);
    const auto a = __replayFixed<recordAccess>();
    return __replayResult(a.result, a.err);
}

int __replayUsleep(useconds_t us)
{
    __replayTake(recordKind::SLEEP, "sleep " + std::to_string(us) + " us");
    return __replayFixed<recordSleep>().result;
}

int __replaySystem(const char *command)
{
    __replayTake(recordKind::SYSTEM, std::string("system \"") + command + "\"");
    return __replayFixed<recordSystem>().result;
}

int __replaySelect(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds, struct timeval *)
{
    __replayTake(recordKind::SELECT);
    const auto s = __replayFixed<recordSelect>();
    for (fd_set *set : {readfds, writefds, exceptfds}) {
        if (set != nullptr) {
            FD_ZERO(set);
        }
    }
    if (readfds != nullptr && s.readable != 0 && nfds > 0 && nfds <= FD_SETSIZE) {
        FD_SET(nfds - 1, readfds);
    }
    return __replayResult(s.result, s.err);
}

uint64_t __replayMsSince1970()
{
    __replayTake(recordKind::CLOCK);
    return __replayFixed<recordClock>().msSince1970;
}

uint64_t __replayMonotonicUs()
{
    return rp.virtualUs;
}

int __replayFindPci(const char *, const char *, char *sysPath, size_t size)
{
    __replayTake(recordKind::PCI);
    if (rp.next.text.empty() || size == 0) {
        return -1;
    }
    const size_t n = std::min(size - 1, rp.next.text.size());
    std::memcpy(sysPath, rp.next.text.data(), n);
    sysPath[n] = '\0';
    return 0;
}

int __replayUsb(recordUsbOp op)
{
    __replayTake(recordKind::USB);
    if (__replayFixed<recordUsb>().op != static_cast<uint32_t>(op)) {
        __replayDiverged(__replayExpectedLine(), "usb call " + std::to_string(static_cast<uint32_t>(op)));
    }
    return __replayFixed<recordUsb>().result;
}

void __replayUsbInit()
{
    __replayUsb(recordUsbOp::INIT);
}

int __replayUsbFindBusses()
{
    return __replayUsb(recordUsbOp::FIND_BUSSES);
}

int __replayUsbFindDevices()
{
    return __replayUsb(recordUsbOp::FIND_DEVICES);
}

// The bus listing as recorded: one bus per recorded bus name, in order.
struct usb_bus *__replayUsbGetBusses()
{
    const int n = __replayUsb(recordUsbOp::GET_BUSSES);
    rp.busses = {};
    rp.devices = {};
    size_t busCount = 0;
    for (int i = 0; i < n; ++i) {
        recordUsbDevice d;
        std::memcpy(&d, rp.next.data.data() + static_cast<size_t>(i) * sizeof d, sizeof d);
        d.bus[sizeof d.bus - 1] = '\0';
        d.device[sizeof d.device - 1] = '\0';
        if (busCount == 0 || std::strcmp(rp.busses[busCount - 1].dirname, d.bus) != 0) {
            if (busCount == rp.busses.size()) {
                break;
            }
            struct usb_bus &bus = rp.busses[busCount];
            std::memcpy(bus.dirname, d.bus, sizeof d.bus);
            if (busCount > 0) {
                rp.busses[busCount - 1].next = &bus;
                bus.prev = &rp.busses[busCount - 1];
            }
            ++busCount;
        }
        struct usb_bus &bus = rp.busses[busCount - 1];
        struct usb_device &dev = rp.devices[static_cast<size_t>(i)];
        std::memcpy(dev.filename, d.device, sizeof d.device);
        dev.descriptor.idVendor = d.idVendor;
        dev.descriptor.idProduct = d.idProduct;
        dev.bus = &bus;
        if (bus.devices == nullptr) {
            bus.devices = &dev;
        } else {
            struct usb_device *last = bus.devices;
            while (last->next != nullptr) {
                last = last->next;
            }
            last->next = &dev;
            dev.prev = last;
        }
    }
    return busCount > 0 ? &rp.busses[0] : nullptr;
}

usb_dev_handle *__replayUsbOpen(struct usb_device *)
{
    static int handle;
    return __replayUsb(recordUsbOp::OPEN) > 0 ? reinterpret_cast<usb_dev_handle *>(&handle) : nullptr;
}

int __replayUsbReset(usb_dev_handle *)
{
    return __replayUsb(recordUsbOp::RESET);
}

int __replayUsbClose(usb_dev_handle *)
{
    return __replayUsb(recordUsbOp::CLOSE);
}

constexpr platformSysOps REPLAY_OPS = {
    .open = __replayOpen,
    .openNoLinks = __replayOpen,
    .access = __replayAccess,
    .close = __replayClose,
    .ioctl = __replayIoctl,
    .read = __replayRead,
    .write = __replayWrite,
    .lseek = __replayLseek,
    .stat = __replayStat,
    .fstat = __replayFstat,
    .usleep = __replayUsleep,
    .system = __replaySystem,
    .select = __replaySelect,
    .msSince1970 = __replayMsSince1970,
    .monotonicUs = __replayMonotonicUs,
    .findPciDevice = __replayFindPci,
    .usbInit = __replayUsbInit,
    .usbFindBusses = __replayUsbFindBusses,
    .usbFindDevices = __replayUsbFindDevices,
    .usbGetBusses = __replayUsbGetBusses,
    .usbOpen = __replayUsbOpen,
    .usbReset = __replayUsbReset,
    .usbClose = __replayUsbClose,
};

// ---- The sink: what the daemon did against what was recorded ----------------------

void __replayMask(std::vector<uint8_t> &bytes, size_t at, size_t len)
{
    if (at + len <= bytes.size()) {
        std::memset(bytes.data() + at, 0, len);
    }
}

// The record's bytes as compared: times and the daemon's own addresses and
// file descriptors left out.
std::vector<uint8_t> __replayComparable(const recordView &v, std::span<const uint8_t> whole)
{
    std::vector<uint8_t> bytes(whole.begin(), whole.end());
    constexpr size_t fixedAt = sizeof(recordHead);
    __replayMask(bytes, offsetof(recordHead, timeUs), sizeof(uint64_t));
    switch (static_cast<recordKind>(v.head.kind)) {
    case recordKind::MEM:
        __replayMask(bytes, fixedAt + offsetof(recordMem, address), sizeof(uint64_t));
        break;
    case recordKind::FILE:
        __replayMask(bytes, fixedAt + offsetof(recordFile, fd), sizeof(int32_t));
        break;
    case recordKind::IOCTL: {
        recordIoctl io;
        std::memcpy(&io, v.fixed, sizeof io);
        if (io.argKind == static_cast<uint32_t>(recordArgKind::BLOCK)) {
            for (size_t copy = 0; copy < 2; ++copy) {
                const size_t block = fixedAt + sizeof io + copy * io.argSize;
                __replayMask(bytes, block + REPLAY_BLOCK_XFER_BUF, REPLAY_ADDRESS_SIZE);
                if (const size_t at = qxUsbReportAddress(io.request); at != 0) {
                    __replayMask(bytes, block + at, REPLAY_ADDRESS_SIZE);
                }
            }
        } else if (io.argKind == static_cast<uint32_t>(recordArgKind::VALUE) && io.request != I2C_SLAVE) {
            // A number standing for a pointer (an argument the driver does not read).
            __replayMask(bytes, fixedAt + sizeof io, 2 * io.argSize);
        }
        break;
    }
    case recordKind::WRITE: {
        // A reply to the file-transfer test carries the buffer's address in its command.
        const size_t cmd = sizeof(recordHead) + sizeof(recordTransfer) + offsetof(usbDaemonRequest, cmd);
        if (v.data.size() == sizeof(usbDaemonRequest) && bytes[cmd] == QX_HID_CMD_FILE_TRANSFER_TEST) {
            __replayMask(bytes, cmd + QX_REPORT_XFER_ADDRESS, REPLAY_ADDRESS_SIZE);
        }
        break;
    }
    default:
        break;
    }
    return bytes;
}

// Where two records first differ, in words: the part of the record and the two bytes.
std::string __replayFirstDifference(const recordView &v, const std::vector<uint8_t> &want,
                                    const std::vector<uint8_t> &got)
{
    if (want.size() != got.size()) {
        return "a record of " + std::to_string(got.size()) + " bytes where " + std::to_string(want.size()) +
               " were recorded";
    }
    const size_t at = static_cast<size_t>(std::mismatch(want.begin(), want.end(), got.begin()).first - want.begin());
    const size_t fixedAt = sizeof(recordHead);
    const size_t dataAt = fixedAt + recordFixedSize(static_cast<recordKind>(v.head.kind)) + v.text.size();
    char text[128];
    snprintf(text, sizeof text, "byte %zu of its %s differs: 0x%02x recorded, 0x%02x now",
             at >= dataAt ? at - dataAt : at >= fixedAt ? at - fixedAt : at,
             at >= dataAt ? "data" : at >= fixedAt ? "fixed part" : "head", want[at], got[at]);
    return text;
}

void __replaySinkRecord(std::span<const uint8_t> bytes)
{
    rp.came.assign(bytes.begin(), bytes.end());
}

void __replaySinkBulk(std::span<const uint8_t> bytes)
{
    rp.came.insert(rp.came.end(), bytes.begin(), bytes.end());
}

void __replaySinkEnd()
{
    uint64_t offset = 0;
    uint64_t index = rp.nextRc == 1 ? rp.next.index - 1 : rp.index;
    recordView came;
    recordError error;
    if (recordReadNext(rp.came, offset, index, came, error) != 1) {
        __replayDiverged(__replayExpectedLine(), std::string("(unreadable: ") + error.message + ")");
    }
    // A MEM record comes from the recorder itself, without a call under it.
    if (came.head.kind == static_cast<uint8_t>(recordKind::MEM)) {
        __replayTake(recordKind::MEM);
    }
    std::string cameLine = traceLine(rp.trace, came);
    if (rp.nextRc != 1) {
        __replayDiverged(__replayExpectedLine(), cameLine);
    }
    const auto want = __replayComparable(rp.next, rp.file.subspan(rp.next.offset, rp.next.head.size));
    const auto got = __replayComparable(came, rp.came);
    if (want != got) {
        __replayDiverged(__replayExpectedLine(), cameLine, __replayFirstDifference(rp.next, want, got));
    }
    rp.history.push_back(traceLine(rp.trace, rp.next));
    traceTake(rp.trace, rp.next);
    if (rp.history.size() > REPLAY_HISTORY) {
        rp.history.pop_front();
    }
    ++rp.matched;
    __replayAdvance();
}

bool __replaySinkIsFile(const char *, int, int fd)
{
    return __replayIsFileFd(fd);
}

constexpr sysRecordSinkOps REPLAY_SINK = {
    .record = __replaySinkRecord,
    .bulk = __replaySinkBulk,
    .end = __replaySinkEnd,
    .isFile = __replaySinkIsFile,
};

void __replayLog(int, const char *source, int line, const char *text)
{
    if (rp.verbose) {
        fprintf(stderr, "tarnhold <%s:%d> %s\n", source, line, text);
    }
}

int __replayUsage(const char *why)
{
    fprintf(stderr, "tarnhold-sim: %s\nUsage: tarnhold-sim --replay FILE [--files DIR] [--verbose] [-- tarnhold ARG...]\n",
            why);
    return REPLAY_EXIT_USAGE;
}

} // namespace

const char *tarnholdSimReplayUsage()
{
    return "  --replay FILE       run the daemon's code against a recording on virtual time\n"
           "                      (tarnhold-sim --replay FILE [--files DIR] [--verbose] [-- tarnhold ARG...]):\n"
           "                      exit 0 when it does all the recording holds, 1 at the first difference\n";
}

int tarnholdSimReplayMain(int argc, char **argv)
{
    std::vector<std::string> words;
    int i = 1;
    for (; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
        const std::string opt = argv[i];
        if (opt == "--replay" && i + 1 < argc) {
            rp.path = argv[++i];
        } else if (opt == "--files" && i + 1 < argc) {
            rp.filesDir = argv[++i];
        } else if (opt == "--verbose") {
            rp.verbose = true;
        } else {
            return __replayUsage(("unknown or incomplete option " + opt).c_str());
        }
    }
    for (++i; i < argc; ++i) {
        words.emplace_back(argv[i]);
    }
    const uniqueFd fd(::open(rp.path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st = {};
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0) {
        return __replayUsage((rp.path + ": " + strerror(errno)).c_str());
    }
    void *map = st.st_size > 0 ? mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd.get(), 0)
                               : MAP_FAILED;
    if (map == MAP_FAILED) {
        return __replayUsage((rp.path + ": empty or unreadable").c_str());
    }
    rp.file = {static_cast<const uint8_t *>(map), static_cast<size_t>(st.st_size)};
    recordError error;
    if (!recordReadHeader(rp.file, rp.header, error)) {
        return __replayUsage((rp.path + ": " + error.message).c_str());
    }
    rp.offset = sizeof rp.header;
    traceReset(rp.trace);
    __replayAdvance();
    if (rp.nextRc != 1 || rp.next.head.kind != static_cast<uint8_t>(recordKind::START)) {
        return __replayUsage((rp.path + ": does not begin with the service's start").c_str());
    }
    const auto start = __replayFixed<recordStart>();
    if (words.empty()) {
        for (size_t at = 0; at < rp.next.data.size();) {
            const auto *word = reinterpret_cast<const char *>(rp.next.data.data() + at);
            words.emplace_back(word);
            at += words.back().size() + 1;
        }
    }
    if (words.empty()) {
        words.emplace_back("tarnhold");
    }
    traceTake(rp.trace, rp.next);
    const uint64_t startUs = rp.next.head.timeUs;
    ++rp.matched;
    __replayAdvance();

    // The daemon's lines go to standard error with --verbose, else nowhere;
    // standard output is the report's.
    rp.reportFd = dup(STDOUT_FILENO);
    const uniqueFd sinkFd(::open(rp.verbose ? "/dev/stderr" : "/dev/null", O_WRONLY | O_CLOEXEC));
    if (rp.reportFd < 0 || !sinkFd.valid() || dup2(sinkFd.get(), STDOUT_FILENO) < 0) {
        return __replayUsage("cannot set up standard output");
    }
    evmLogSetSink(__replayLog);
    evmLogSetEcho(false);

    std::vector<char *> daemonArgv;
    for (std::string &w : words) {
        daemonArgv.push_back(w.data());
    }
    daemonArgv.push_back(nullptr);
    rp.wallStart = std::chrono::steady_clock::now();
    platformSys = REPLAY_OPS;
    sysRecordStartSink(REPLAY_SINK, (rp.header.flags & RECORD_FLAG_DATA) != 0); // its time 0 is the recording's
    rp.virtualUs = startUs;
    mainReplay(static_cast<int>(words.size()), daemonArgv.data(), start.requestFd, start.watchdogSliceUs);
    // The daemon's start-up gave up: the replay matched if the recording ends here too.
    if (rp.nextRc == 0 || (rp.nextRc == 1 && rp.next.head.kind == static_cast<uint8_t>(recordKind::EXIT))) {
        __replayEnd();
    }
    __replayDiverged(__replayExpectedLine(), "(the service's start-up ended)");
}
