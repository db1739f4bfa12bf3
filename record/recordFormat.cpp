// Reading the recording format: every size is checked against the file
// before anything is copied, so a damaged or truncated recording gives an
// error naming the record, never a read outside the file.
#include "recordFormat.h"

#include <array>
#include <cstdio>
#include <cstring>

namespace {

struct recordKindInfo {
    const char *name;
    size_t fixedSize;
};

constexpr std::array<recordKindInfo, RECORD_KIND_LAST + 1> RECORD_KINDS = {{
    {nullptr, 0},
    {"start", sizeof(recordStart)},
    {"open", sizeof(recordOpen)},
    {"close", sizeof(recordClose)},
    {"ioctl", sizeof(recordIoctl)},
    {"read", sizeof(recordTransfer)},
    {"write", sizeof(recordTransfer)},
    {"lseek", sizeof(recordLseek)},
    {"sleep", sizeof(recordSleep)},
    {"system", sizeof(recordSystem)},
    {"select", sizeof(recordSelect)},
    {"clock", sizeof(recordClock)},
    {"access", sizeof(recordAccess)},
    {"stat", sizeof(recordStat)},
    {"usb", sizeof(recordUsb)},
    {"file", sizeof(recordFile)},
    {"mem", sizeof(recordMem)},
    {"pci", 0},
    {"exit", sizeof(recordExit)},
    {"gap", sizeof(recordGap)},
}};
static_assert(sizeof(recordView::fixed) >= sizeof(recordFile) && sizeof(recordView::fixed) >= sizeof(recordMem));

bool __recordFail(recordError &error, uint64_t index, uint64_t offset, const char *format, uint64_t a = 0,
                  uint64_t b = 0)
{
    error.index = index;
    error.offset = offset;
    snprintf(error.message, sizeof error.message, format, static_cast<unsigned long long>(a),
             static_cast<unsigned long long>(b));
    return false;
}

// The kind's variable part against its fixed part; splits it into text and data.
bool __recordSplit(recordView &v, std::span<const uint8_t> rest, recordError &error)
{
    const auto kind = static_cast<recordKind>(v.head.kind);
    const uint64_t n = rest.size();
    auto fail = [&](const char *what, uint64_t a = 0, uint64_t b = 0) {
        return __recordFail(error, v.index, v.offset, what, a, b);
    };
    auto asText = [&]() {
        if (n > RECORD_TEXT_MAX) {
            return fail("text of %llu bytes, longer than %llu", n, RECORD_TEXT_MAX);
        }
        v.text = rest;
        return true;
    };
    auto none = [&]() { return n == 0 || fail("%llu unexpected bytes after the fixed part", n); };
    switch (kind) {
    case recordKind::START: {
        recordStart s;
        std::memcpy(&s, v.fixed, sizeof s);
        if (s.argc < 0 || static_cast<size_t>(s.argc) > RECORD_ARGV_MAX) {
            return fail("command line of %llu words", static_cast<uint64_t>(static_cast<uint32_t>(s.argc)));
        }
        size_t words = 0;
        for (uint8_t c : rest) {
            words += c == 0 ? 1 : 0;
        }
        if (words != static_cast<size_t>(s.argc) || (n != 0 && rest.back() != 0)) {
            return fail("command line holds %llu words, not %llu", words, static_cast<uint64_t>(s.argc));
        }
        v.data = rest;
        return true;
    }
    case recordKind::OPEN:
    case recordKind::ACCESS:
    case recordKind::SYSTEM:
    case recordKind::STAT:
    case recordKind::PCI:
        return asText();
    case recordKind::IOCTL: {
        recordIoctl io;
        std::memcpy(&io, v.fixed, sizeof io);
        const uint32_t want = io.argKind == static_cast<uint32_t>(recordArgKind::VALUE)   ? 8
                              : io.argKind == static_cast<uint32_t>(recordArgKind::BLOCK) ? 88
                              : io.argKind == static_cast<uint32_t>(recordArgKind::SMBUS) ? sizeof(recordSmbus)
                                                                                           : 0;
        if (want == 0 || io.argSize != want) {
            return fail("argument of kind %llu and %llu bytes", io.argKind, io.argSize);
        }
        if (n != 2ull * want) {
            return fail("argument copies of %llu bytes, not %llu", n, 2ull * want);
        }
        v.data = rest;
        return true;
    }
    case recordKind::READ:
    case recordKind::WRITE: {
        recordTransfer t;
        std::memcpy(&t, v.fixed, sizeof t);
        const uint64_t want = kind == recordKind::WRITE ? t.len : t.result > 0 ? static_cast<uint64_t>(t.result) : 0;
        if (n != want || (t.result > 0 && static_cast<uint64_t>(t.result) > t.len)) {
            return fail("%llu bytes where %llu belong", n, want);
        }
        v.data = rest;
        return true;
    }
    case recordKind::USB: {
        recordUsb u;
        std::memcpy(&u, v.fixed, sizeof u);
        if (u.op > RECORD_USB_OP_LAST) {
            return fail("libusb call %llu", u.op);
        }
        const uint64_t devices = u.op == static_cast<uint32_t>(recordUsbOp::GET_BUSSES) && u.result > 0
                                     ? static_cast<uint64_t>(u.result)
                                     : 0;
        if (devices > RECORD_USB_DEVICES_MAX || n != devices * sizeof(recordUsbDevice)) {
            return fail("bus listing of %llu bytes for %llu devices", n, devices);
        }
        v.data = rest;
        return true;
    }
    case recordKind::FILE: {
        recordFile f;
        std::memcpy(&f, v.fixed, sizeof f);
        if (f.pathLen > RECORD_TEXT_MAX || f.pathLen > n) {
            return fail("path of %llu bytes", f.pathLen);
        }
        const uint64_t bytes = n - f.pathLen;
        if (bytes != 0 && (f.size < 0 || bytes != static_cast<uint64_t>(f.size))) {
            return fail("file bytes %llu, size %llu", bytes, static_cast<uint64_t>(f.size));
        }
        v.text = rest.first(f.pathLen);
        v.data = rest.subspan(f.pathLen);
        return true;
    }
    case recordKind::MEM: {
        recordMem m;
        std::memcpy(&m, v.fixed, sizeof m);
        if (n != 0 && n != m.len) {
            return fail("memory bytes %llu, length %llu", n, m.len);
        }
        v.data = rest;
        return true;
    }
    default:
        return none();
    }
}

} // namespace

const char *recordKindName(uint8_t kind)
{
    return kind <= RECORD_KIND_LAST ? RECORD_KINDS[kind].name : nullptr;
}

size_t recordFixedSize(recordKind kind)
{
    const auto k = static_cast<uint8_t>(kind);
    return k <= RECORD_KIND_LAST ? RECORD_KINDS[k].fixedSize : 0;
}

bool recordReadHeader(std::span<const uint8_t> file, recordFileHeader &header, recordError &error)
{
    if (file.size() < sizeof header) {
        return __recordFail(error, 0, 0, "%llu bytes: too short for a recording's header", file.size());
    }
    std::memcpy(&header, file.data(), sizeof header);
    if (std::memcmp(header.magic, RECORD_MAGIC, sizeof RECORD_MAGIC) != 0) {
        return __recordFail(error, 0, 0, "not a tarnhold recording");
    }
    if (header.version != RECORD_FORMAT_VERSION) {
        return __recordFail(error, 0, 0, "recording format version %llu; this build reads version %llu",
                            header.version, RECORD_FORMAT_VERSION);
    }
    if (header.headerSize != sizeof header) {
        return __recordFail(error, 0, 0, "header of %llu bytes, not %llu", header.headerSize, sizeof header);
    }
    header.build[sizeof header.build - 1] = '\0';
    return true;
}

int recordReadNext(std::span<const uint8_t> file, uint64_t &offset, uint64_t &index, recordView &view,
                   recordError &error)
{
    if (offset == file.size()) {
        return 0;
    }
    view = {};
    view.index = index + 1;
    view.offset = offset;
    const uint64_t left = file.size() - offset;
    if (left < sizeof view.head) {
        __recordFail(error, view.index, offset, "truncated: %llu bytes where a record's head needs 16", left);
        return -1;
    }
    std::memcpy(&view.head, file.data() + offset, sizeof view.head);
    const char *name = recordKindName(view.head.kind);
    if (name == nullptr) {
        __recordFail(error, view.index, offset, "unknown kind %llu", view.head.kind);
        return -1;
    }
    const size_t fixed = RECORD_KINDS[view.head.kind].fixedSize;
    if (view.head.size < sizeof view.head + fixed) {
        __recordFail(error, view.index, offset, "size %llu, too small for its kind (%llu)", view.head.size,
                     sizeof view.head + fixed);
        return -1;
    }
    if (view.head.size > left) {
        __recordFail(error, view.index, offset, "truncated: size %llu, only %llu bytes left", view.head.size, left);
        return -1;
    }
    const auto record = file.subspan(offset, view.head.size);
    std::memcpy(view.fixed, record.data() + sizeof view.head, fixed);
    if (!__recordSplit(view, record.subspan(sizeof view.head + fixed), error)) {
        return -1;
    }
    offset += view.head.size;
    index = view.index;
    return 1;
}
