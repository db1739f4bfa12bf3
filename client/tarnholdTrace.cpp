// A recording's records in words. Each kind has one decoder that builds the
// line's text and the JSON object's members side by side, so both always say
// the same; command codes and results read as tarnholdctl prints them.
#include "tarnholdTrace.h"

#include "leBytes.h"
#include "qxUsb.h"
#include "tarnholdCtlText.h"
#include "usbDaemonRequest.h"
#include "usbMgmtUpload.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t TRACE_HEX_MAX = 16;   // bytes shown where nothing decodes them
constexpr size_t TRACE_HASH_SHOWN = 8; // of a SHA-256
constexpr size_t TRACE_BLOCK_SIZE = sizeof(picHidIoctlArg);

struct traceName {
    uint64_t value;
    const char *name;
};

constexpr std::array<traceName, 19> TRACE_REQUESTS = {{
    {PIC_HID_SEND_REPORT, "PIC_HID_SEND_REPORT"},
    {PIC_HID_GET_REPORT, "PIC_HID_GET_REPORT"},
    {PIC_HID_FILE_TRANSFER_TEST, "PIC_HID_FILE_TRANSFER_TEST"},
    {PIC_HID_FPGA_UPGRADE_SETUP, "PIC_HID_FPGA_UPGRADE_SETUP"},
    {PIC_HID_ERASE_FPGA, "PIC_HID_ERASE_FPGA"},
    {PIC_HID_ERASE_FPGA_STATUS, "PIC_HID_ERASE_FPGA_STATUS"},
    {PIC_HID_IS_URB_AVAILABLE, "PIC_HID_IS_URB_AVAILABLE"},
    {PIC_HID_PROGRAM_FPGA, "PIC_HID_PROGRAM_FPGA"},
    {PIC_HID_PROGRAM_CLEAN_UP, "PIC_HID_PROGRAM_CLEAN_UP"},
    {PIC_HID_PIC32_PROGRAM, "PIC_HID_PIC32_PROGRAM"},
    {PIC_HID_PIC32_PROGRAM_DONE, "PIC_HID_PIC32_PROGRAM_DONE"},
    {PIC_HID_PIC32_IS_URB_AVAILABLE, "PIC_HID_PIC32_IS_URB_AVAILABLE"},
    {PIC_HID_PIC32_UPGRADE_SETUP, "PIC_HID_PIC32_UPGRADE_SETUP"},
    {PIC_HID_CPLD_UPGRADE_SETUP, "PIC_HID_CPLD_UPGRADE_SETUP"},
    {PIC_HID_ERASE_CPLD, "PIC_HID_ERASE_CPLD"},
    {PIC_HID_PROGRAM_CPLD, "PIC_HID_PROGRAM_CPLD"},
    {PIC_HID_CPLD_UPGRADE_RUN, "PIC_HID_CPLD_UPGRADE_RUN"},
    {I2C_SLAVE, "I2C_SLAVE"},
    {I2C_SMBUS, "I2C_SMBUS"},
}};

constexpr std::array<traceName, 8> TRACE_OPEN_FLAGS = {{
    {O_NONBLOCK, "O_NONBLOCK"}, {O_CREAT, "O_CREAT"},     {O_EXCL, "O_EXCL"},     {O_TRUNC, "O_TRUNC"},
    {O_APPEND, "O_APPEND"},     {O_CLOEXEC, "O_CLOEXEC"}, {O_NOCTTY, "O_NOCTTY"}, {O_DIRECTORY, "O_DIRECTORY"},
}};

constexpr std::array<traceName, 7> TRACE_SMBUS_SIZES = {{
    {I2C_SMBUS_QUICK, "QUICK"},
    {I2C_SMBUS_BYTE, "BYTE"},
    {I2C_SMBUS_BYTE_DATA, "BYTE_DATA"},
    {I2C_SMBUS_WORD_DATA, "WORD_DATA"},
    {I2C_SMBUS_PROC_CALL, "PROC_CALL"},
    {I2C_SMBUS_BLOCK_DATA, "BLOCK_DATA"},
    {I2C_SMBUS_I2C_BLOCK_DATA, "I2C_BLOCK_DATA"},
}};

constexpr std::array<const char *, RECORD_USB_OP_LAST + 1> TRACE_USB_OPS = {
    "usb_init", "usb_find_busses", "usb_find_devices", "usb_get_busses", "usb_open", "usb_reset", "usb_close",
};

std::string __traceFormat(const char *format, auto... args)
{
    char buf[256];
    snprintf(buf, sizeof buf, format, args...);
    return buf;
}

template <size_t N> const char *__traceLookup(const std::array<traceName, N> &table, uint64_t value)
{
    for (const auto &entry : table) {
        if (entry.value == value) {
            return entry.name;
        }
    }
    return nullptr;
}

// A path or word for the line: bytes that would break it or mislead show as \xNN.

// The line's text and the JSON object's members, built together.
struct traceOut {
    std::string text;
    std::string json;

    // `part` joins the line (unless empty); `key` with its JSON value joins the object (unless null).
    void add(const std::string &part, const char *key = nullptr, const std::string &value = {})
    {
        if (!part.empty()) {
            text += text.empty() ? "" : " ";
            text += part;
        }
        if (key != nullptr) {
            json += std::string(",\"") + key + "\":" + value;
        }
    }
    void num(const std::string &part, const char *key, int64_t value) { add(part, key, std::to_string(value)); }
    void str(const std::string &part, const char *key, const std::string &value)
    {
        add(part, key, tarnholdCtlJsonString(value));
    }
    // A text the record carries (a path, a word): escaped on the line, whole in JSON.
    void raw(const char *key, const std::string &value) { str(tracePrintable(value), key, value); }
};

template <typename T> T __traceFixed(const recordView &v)
{
    T t;
    std::memcpy(&t, v.fixed, sizeof t);
    return t;
}

std::string __traceText(std::span<const uint8_t> bytes)
{
    return std::string(reinterpret_cast<const char *>(bytes.data()), bytes.size());
}

// Up to 16 bytes as spaced hex, "..." when there were more.
std::string __traceHex(std::span<const uint8_t> bytes)
{
    std::string out;
    for (size_t i = 0; i < bytes.size() && i < TRACE_HEX_MAX; ++i) {
        out += __traceFormat(i == 0 ? "%02x" : " %02x", bytes[i]);
    }
    return bytes.size() > TRACE_HEX_MAX ? out + " ..." : out;
}

std::string __traceErrName(int err)
{
    const char *name = strerrorname_np(err);
    return name != nullptr ? name : "errno " + std::to_string(err);
}

void __traceResult(traceOut &o, int64_t result, int err)
{
    o.num("-> " + std::to_string(result) + (result < 0 ? " " + __traceErrName(err) : ""), "result", result);
    if (result < 0) {
        o.str("", "errno", __traceErrName(err));
    }
}

std::string __traceFdName(const traceState &s, int fd)
{
    if (fd >= 0 && fd == s.requestFd) {
        return "request FIFO";
    }
    auto known = s.paths.find(fd);
    return known != s.paths.end() ? known->second : "fd " + std::to_string(fd);
}

void __traceFd(traceOut &o, const traceState &s, int fd)
{
    const std::string name = __traceFdName(s, fd);
    o.num(tracePrintable(name), "fd", fd);
    if (name != "fd " + std::to_string(fd)) {
        o.str("", "name", name);
    }
}

void __traceHash(traceOut &o, const uint8_t *sha)
{
    const std::string shown = tarnholdCtlHex(sha, TRACE_HASH_SHOWN);
    o.add("sha256 " + shown, "sha256", tarnholdCtlJsonString(tarnholdCtlHex(sha, RECORD_HASH_SIZE)));
}

// As tarnholdctl prints a block's code.
const char *__traceCodeName(uint8_t code)
{
    const char *name = qxUsbCmdBareName(code);
    return name != nullptr ? name : "UNKNOWN_QX_HID_CMD";
}

std::string __traceRequestName(uint32_t request)
{
    const char *name = __traceLookup(TRACE_REQUESTS, request);
    return name != nullptr ? name : __traceFormat("0x%08x", request);
}

// A report as a command (code, seq) or, with `status`, as an answer; then
// what its code carries: an upgrade step, a transfer, or its first bytes.
void __traceReport(traceOut &o, const char *key, const picHidIoctlArg &arg, bool status)
{
    const uint8_t *r = arg.report;
    std::string text =
        __traceFormat("%s (%u) seq %u", __traceCodeName(r[QX_REPORT_CODE]), r[QX_REPORT_CODE], r[QX_REPORT_SEQ]);
    if (status) {
        text += __traceFormat(" status %u", r[QX_REPORT_STATUS]);
    }
    qxUsbBlock block = {};
    std::memcpy(block.data(), r, QX_REPORT_SIZE);
    o.add(text, key, tarnholdCtlBlockJson(block));
    if (!status && r[QX_REPORT_CODE] == QX_HID_CMD_IO_CMD) {
        const uint32_t request = leGet32(&r[USB_MGMT_IO_REQUEST]);
        o.str("step " + __traceRequestName(request), "step", __traceRequestName(request));
        if (request == PIC_HID_PROGRAM_FPGA || request == PIC_HID_PROGRAM_CPLD) {
            const uint32_t first = leGet24(&r[USB_MGMT_CHUNK_FIRST_PAGE]);
            const uint64_t address = leGet64(&r[USB_MGMT_CHUNK_ADDRESS]);
            o.add(__traceFormat("first page %u count %u at 0x%" PRIx64, first, r[USB_MGMT_CHUNK_COUNT], address),
                  "chunk",
                  __traceFormat("{\"firstPage\":%u,\"count\":%u,\"address\":%" PRIu64 "}", first,
                                r[USB_MGMT_CHUNK_COUNT], address));
        }
        return;
    }
    if (arg.xferLen != 0) {
        o.add(__traceFormat("transfer %u bytes at 0x%" PRIx64, arg.xferLen, arg.xferBuf), "transfer",
              __traceFormat("{\"len\":%u,\"address\":%" PRIu64 "}", arg.xferLen, arg.xferBuf));
    }
    size_t end = QX_REPORT_PAYLOAD + TRACE_HEX_MAX;
    while (end > QX_REPORT_PAYLOAD && r[end - 1] == 0) {
        --end;
    }
    o.add(__traceHex({r + QX_REPORT_PAYLOAD, end - QX_REPORT_PAYLOAD}));
}

// The bytes of the data block a transfer of `size` uses; a block's first byte is its length.
size_t __traceSmbusBytes(uint32_t size, const uint8_t (&data)[34])
{
    if (size == I2C_SMBUS_QUICK) {
        return 0;
    }
    if (size == I2C_SMBUS_BYTE || size == I2C_SMBUS_BYTE_DATA) {
        return 1;
    }
    if (size == I2C_SMBUS_WORD_DATA || size == I2C_SMBUS_PROC_CALL) {
        return 2;
    }
    return std::min<size_t>(data[0] + 1u, sizeof data);
}

void __traceSmbus(traceOut &o, const recordSmbus &before, const recordSmbus &after)
{
    const bool read = before.readWrite == I2C_SMBUS_READ;
    const recordSmbus &carried = read ? after : before;
    const char *size = __traceLookup(TRACE_SMBUS_SIZES, before.size);
    const size_t len = __traceSmbusBytes(before.size, carried.data);
    const std::string data = tarnholdCtlHex(carried.data, len);
    o.add(__traceFormat("%s reg 0x%02x %s", read ? "read" : "write", before.command, size ? size : "size ?") +
              (len != 0 ? " " + __traceHex({carried.data, len}) : ""),
          "smbus",
          __traceFormat("{\"read\":%s,\"register\":%u,\"size\":%u,\"data\":", read ? "true" : "false",
                        before.command, before.size) +
              tarnholdCtlJsonString(data) + "}");
}

// ---- One decoder per kind ----------------------------------------------------

using traceDecoder = void (*)(traceOut &o, const traceState &s, const recordView &v);

void __traceStart(traceOut &o, const traceState &, const recordView &v)
{
    const auto st = __traceFixed<recordStart>(v);
    o.num("pid " + std::to_string(st.pid), "pid", st.pid);
    o.num("request FIFO fd " + std::to_string(st.requestFd), "requestFd", st.requestFd);
    o.add(__traceFormat("watchdog %" PRIu64 ".%06" PRIu64 " s", st.watchdogSliceUs / 1000000,
                        st.watchdogSliceUs % 1000000),
          "watchdogSliceUs", std::to_string(st.watchdogSliceUs));
    std::string words, json = "[";
    for (size_t at = 0; at < v.data.size();) {
        const auto rest = v.data.subspan(at);
        const size_t end = at + static_cast<size_t>(std::find(rest.begin(), rest.end(), 0) - rest.begin());
        const std::string word = __traceText(v.data.subspan(at, end - at));
        words += " " + tracePrintable(word);
        json += (json.size() > 1 ? "," : "") + tarnholdCtlJsonString(word);
        at = end + 1;
    }
    o.add("argv:" + words, "argv", json + "]");
}

void __traceOpen(traceOut &o, const traceState &, const recordView &v)
{
    const auto op = __traceFixed<recordOpen>(v);
    o.raw("path", __traceText(v.text));
    const int acc = op.flags & O_ACCMODE;
    std::string flags = acc == O_RDONLY ? "O_RDONLY" : acc == O_WRONLY ? "O_WRONLY" : acc == O_RDWR ? "O_RDWR" : "O_?";
    int rest = op.flags & ~O_ACCMODE;
    for (const auto &f : TRACE_OPEN_FLAGS) {
        if ((rest & static_cast<int>(f.value)) == static_cast<int>(f.value)) {
            flags += std::string("|") + f.name;
            rest &= ~static_cast<int>(f.value);
        }
    }
    flags += rest != 0 ? __traceFormat("|0x%x", rest) : "";
    o.str(flags, "flags", flags);
    if ((op.flags & O_CREAT) != 0) {
        o.num(__traceFormat("mode 0%o", op.mode), "mode", op.mode);
    }
    __traceResult(o, op.result, op.err);
}

void __traceClose(traceOut &o, const traceState &s, const recordView &v)
{
    const auto c = __traceFixed<recordClose>(v);
    __traceFd(o, s, c.fd);
    __traceResult(o, c.result, c.err);
}

void __traceIoctl(traceOut &o, const traceState &s, const recordView &v)
{
    const auto io = __traceFixed<recordIoctl>(v);
    __traceFd(o, s, io.fd);
    o.str(__traceRequestName(io.request), "request", __traceRequestName(io.request));
    if (v.data.size() != 2ull * io.argSize) {
        __traceResult(o, io.result, io.err);
        return;
    }
    const auto before = v.data.first(io.argSize), after = v.data.subspan(io.argSize);
    if (io.argKind == static_cast<uint32_t>(recordArgKind::VALUE) && io.argSize == sizeof(uint64_t)) {
        const uint64_t value = leGet64(before.data());
        o.add(__traceFormat("0x%" PRIx64, value), "value", std::to_string(value));
    } else if (io.argKind == static_cast<uint32_t>(recordArgKind::SMBUS) && io.argSize == sizeof(recordSmbus)) {
        recordSmbus b, a;
        std::memcpy(&b, before.data(), sizeof b);
        std::memcpy(&a, after.data(), sizeof a);
        __traceSmbus(o, b, a);
    } else if (io.argKind == static_cast<uint32_t>(recordArgKind::BLOCK) && io.argSize == TRACE_BLOCK_SIZE) {
        picHidIoctlArg b, a;
        std::memcpy(&b, before.data(), sizeof b);
        std::memcpy(&a, after.data(), sizeof a);
        if (b.report[QX_REPORT_CODE] != 0) {
            __traceReport(o, "cmd", b, false);
        }
        // The driver acknowledges its own steps with code 5 or 39 and the sequence number turned.
        const uint8_t ack = a.report[QX_REPORT_CODE];
        const bool acked = io.request != PIC_HID_GET_REPORT && b.report[QX_REPORT_CODE] != 0 &&
                           (ack == PIC_HID_ACK_URB || ack == PIC_HID_ACK_PIC32) &&
                           a.report[QX_REPORT_SEQ] == (b.report[QX_REPORT_SEQ] ^ PIC_HID_ACK_SEQ_XOR);
        // Only requests that read from the driver bring an answer back.
        if (io.result >= 0 && acked) {
            o.add("acknowledged", "acknowledged", "true");
        } else if (io.result >= 0 && (_IOC_DIR(io.request) & _IOC_READ) != 0) {
            o.add("answer");
            __traceReport(o, "answer", a, true);
        }
    }
    __traceResult(o, io.result, io.err);
}

// A whole request record: read from the request FIFO, written back as the reply.
void __traceRecord(traceOut &o, const recordView &v, bool reply)
{
    usbDaemonRequest r;
    std::memcpy(&r, v.data.data(), sizeof r);
    const std::string fifo(r.clientFifo, strnlen(r.clientFifo, sizeof r.clientFifo));
    const uint8_t code = r.cmd[QX_REPORT_CODE];
    std::string text = __traceFormat("%s %s (%u) seq %u", reply ? "reply" : "request", __traceCodeName(code), code,
                                     r.cmd[QX_REPORT_SEQ]);
    std::string json = "{\"clientFifo\":" + tarnholdCtlJsonString(fifo) + ",\"cmd\":" + tarnholdCtlBlockJson(r.cmd);
    if (reply) {
        text += __traceFormat(" result %d (%s) resp %s (%u) seq %u status %u", r.result,
                              tarnholdCtlResultText(r.result), __traceCodeName(r.resp[QX_REPORT_CODE]),
                              r.resp[QX_REPORT_CODE], r.resp[QX_REPORT_SEQ], r.resp[QX_REPORT_STATUS]);
        json += ",\"result\":" + std::to_string(r.result) +
                ",\"resultText\":" + tarnholdCtlJsonString(tarnholdCtlResultText(r.result)) +
                ",\"resp\":" + tarnholdCtlBlockJson(r.resp);
    } else {
        text += " reply to " + tracePrintable(fifo);
    }
    o.add(text, reply ? "reply" : "request", json + "}");
}

void __traceTransfer(traceOut &o, const traceState &s, const recordView &v)
{
    const auto t = __traceFixed<recordTransfer>(v);
    const bool write = v.head.kind == static_cast<uint8_t>(recordKind::WRITE);
    __traceFd(o, s, t.fd);
    // Whole records: read from the request FIFO, and the replies written to the clients' FIFOs.
    if (v.data.size() == sizeof(usbDaemonRequest) && (write || t.fd == s.requestFd)) {
        __traceRecord(o, v, write);
    } else {
        o.num(std::to_string(t.len) + " bytes", "len", t.len);
        o.add(__traceHex(v.data), "hex", tarnholdCtlJsonString(tarnholdCtlHex(v.data.data(), v.data.size())));
    }
    __traceResult(o, t.result, t.err);
}

void __traceLseek(traceOut &o, const traceState &s, const recordView &v)
{
    const auto l = __traceFixed<recordLseek>(v);
    __traceFd(o, s, l.fd);
    const char *whence = l.whence == SEEK_SET ? "SEEK_SET" : l.whence == SEEK_CUR ? "SEEK_CUR" : "SEEK_END";
    o.num(__traceFormat("0x%" PRIx64 " %s", static_cast<uint64_t>(l.offset), whence), "offset", l.offset);
    o.num("", "whence", l.whence);
    __traceResult(o, l.result, l.err);
}

void __traceSleep(traceOut &o, const traceState &, const recordView &v)
{
    const auto sl = __traceFixed<recordSleep>(v);
    o.num(std::to_string(sl.us) + " us", "us", sl.us);
    if (sl.result != 0) {
        o.num("-> " + std::to_string(sl.result), "result", sl.result);
    }
}

void __traceSystem(traceOut &o, const traceState &, const recordView &v)
{
    o.str(tarnholdCtlJsonString(__traceText(v.text)), "command", __traceText(v.text));
    __traceResult(o, __traceFixed<recordSystem>(v).result, 0);
}

void __traceSelect(traceOut &o, const traceState &s, const recordView &v)
{
    const auto sel = __traceFixed<recordSelect>(v);
    __traceFd(o, s, sel.fd);
    o.num(sel.timeoutUs < 0 ? "no timeout"
                            : __traceFormat("timeout %" PRId64 ".%06" PRId64 " s", sel.timeoutUs / 1000000,
                                            sel.timeoutUs % 1000000),
          "timeoutUs", sel.timeoutUs);
    o.add(sel.readable != 0 ? "readable" : "", "readable", sel.readable != 0 ? "true" : "false");
    __traceResult(o, sel.result, sel.err);
}

std::string __traceWallClock(uint64_t ms)
{
    const time_t seconds = static_cast<time_t>(ms / 1000);
    tm utc = {};
    char text[40];
    // Where no date could be made (strftime's text is then undefined), the number itself.
    if (gmtime_r(&seconds, &utc) == nullptr || strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &utc) == 0) {
        return __traceFormat("%" PRIu64 " ms since 1970", ms);
    }
    return __traceFormat("%s.%03u UTC", text, static_cast<unsigned>(ms % 1000));
}

void __traceClock(traceOut &o, const traceState &, const recordView &v)
{
    const uint64_t ms = __traceFixed<recordClock>(v).msSince1970;
    o.add(__traceWallClock(ms), "msSince1970", std::to_string(ms));
}

void __traceAccess(traceOut &o, const traceState &, const recordView &v)
{
    const auto a = __traceFixed<recordAccess>(v);
    o.raw("path", __traceText(v.text));
    std::string mode = a.mode == F_OK ? "F_OK" : "";
    for (const auto &[bit, name] : {std::pair{R_OK, "R_OK"}, {W_OK, "W_OK"}, {X_OK, "X_OK"}}) {
        mode += (a.mode & bit) != 0 ? (mode.empty() ? "" : "|") + std::string(name) : "";
    }
    o.num(mode, "mode", a.mode);
    __traceResult(o, a.result, a.err);
}

void __traceStat(traceOut &o, const traceState &s, const recordView &v)
{
    const auto st = __traceFixed<recordStat>(v);
    if (st.fd < 0) {
        o.raw("path", __traceText(v.text));
    } else {
        __traceFd(o, s, st.fd);
    }
    __traceResult(o, st.result, st.err);
    if (st.result == 0) {
        const char *type = S_ISFIFO(st.mode)  ? "fifo"
                           : S_ISREG(st.mode) ? "file"
                           : S_ISCHR(st.mode) ? "char device"
                           : S_ISDIR(st.mode) ? "folder"
                                              : "other";
        o.str(__traceFormat("%s mode 0%o size %" PRId64 " uid %u", type, st.mode & 07777, st.size, st.uid), "type",
              type);
        o.num("", "mode", st.mode);
        o.num("", "size", st.size);
        o.num("", "uid", st.uid);
    }
}

void __traceUsb(traceOut &o, const traceState &, const recordView &v)
{
    const auto u = __traceFixed<recordUsb>(v);
    if (u.op > RECORD_USB_OP_LAST) {
        return;
    }
    o.str(TRACE_USB_OPS[u.op], "op", TRACE_USB_OPS[u.op]);
    o.num("-> " + std::to_string(u.result), "result", u.result);
    std::string json = "[";
    for (size_t at = 0; at + sizeof(recordUsbDevice) <= v.data.size(); at += sizeof(recordUsbDevice)) {
        recordUsbDevice d;
        std::memcpy(&d, v.data.data() + at, sizeof d);
        const std::string bus(d.bus, strnlen(d.bus, sizeof d.bus)), dev(d.device, strnlen(d.device, sizeof d.device));
        o.add(tracePrintable(bus) + "/" + tracePrintable(dev) +
              __traceFormat(" %04x:%04x", d.idVendor, d.idProduct));
        json += (json.size() > 1 ? "," : "") +
                __traceFormat("{\"idVendor\":%u,\"idProduct\":%u,\"bus\":", d.idVendor, d.idProduct) +
                tarnholdCtlJsonString(bus) + ",\"device\":" + tarnholdCtlJsonString(dev) + "}";
    }
    if (!v.data.empty()) {
        o.add("", "devices", json + "]");
    }
}

void __traceFile(traceOut &o, const traceState &, const recordView &v)
{
    const auto f = __traceFixed<recordFile>(v);
    o.raw("path", __traceText(v.text));
    if (f.size < 0) {
        o.add("open failed: " + __traceErrName(f.err), "errno", tarnholdCtlJsonString(__traceErrName(f.err)));
        return;
    }
    o.num("fd " + std::to_string(f.fd), "fd", f.fd);
    o.num(std::to_string(f.size) + " bytes", "size", f.size);
    __traceHash(o, f.sha256);
    o.add(v.data.empty() ? "" : "kept", "kept", v.data.empty() ? "false" : "true");
}

void __traceMem(traceOut &o, const traceState &s, const recordView &v)
{
    const auto m = __traceFixed<recordMem>(v);
    __traceFd(o, s, m.fd);
    o.str(__traceRequestName(m.request), "request", __traceRequestName(m.request));
    o.add(__traceFormat("%u bytes at 0x%" PRIx64, m.len, m.address), "address", std::to_string(m.address));
    o.num("", "len", m.len);
    if (m.readable == 0) {
        o.add("unreadable", "readable", "false");
        return;
    }
    __traceHash(o, m.sha256);
    o.add(v.data.empty() ? "" : "kept", "kept", v.data.empty() ? "false" : "true");
}

void __tracePci(traceOut &o, const traceState &, const recordView &v)
{
    o.str(v.text.empty() ? "no controller" : tracePrintable(__traceText(v.text)), "folder", __traceText(v.text));
}

void __traceExit(traceOut &o, const traceState &, const recordView &v)
{
    const int sig = __traceFixed<recordExit>(v).signal;
    const char *abbrev = sigabbrev_np(sig);
    o.num(abbrev != nullptr ? __traceFormat("signal %d (SIG%s)", sig, abbrev) : __traceFormat("signal %d", sig),
          "signal", sig);
}

void __traceGap(traceOut &o, const traceState &, const recordView &v)
{
    const auto g = __traceFixed<recordGap>(v);
    o.num(__traceFormat("%" PRIu64 " exchanges (%" PRIu64 " bytes) left out", g.records, g.bytes), "records",
          static_cast<int64_t>(g.records));
    o.num("", "bytes", static_cast<int64_t>(g.bytes));
}

constexpr std::array<traceDecoder, RECORD_KIND_LAST + 1> TRACE_DECODERS = {
    nullptr,        __traceStart, __traceOpen,   __traceClose,  __traceIoctl,  __traceTransfer, __traceTransfer,
    __traceLseek,   __traceSleep, __traceSystem, __traceSelect, __traceClock,  __traceAccess,   __traceStat,
    __traceUsb,     __traceFile,  __traceMem,    __tracePci,    __traceExit,   __traceGap,
};

traceOut __traceDecode(const traceState &s, const recordView &v)
{
    traceOut o;
    // Sizes are the reader's checks; a decoder still tests what it indexes by, for views made elsewhere.
    if (v.head.kind <= RECORD_KIND_LAST && TRACE_DECODERS[v.head.kind] != nullptr) {
        TRACE_DECODERS[v.head.kind](o, s, v);
    }
    return o;
}

} // namespace

std::string tracePrintable(std::string_view raw)
{
    std::string out;
    for (const char c : raw) {
        const auto u = static_cast<unsigned char>(c);
        out += u >= 0x20 && u < 0x7f && c != '\\' ? std::string(1, c) : __traceFormat("\\x%02x", u);
    }
    return out;
}

void traceReset(traceState &s)
{
    s = traceState{};
}

void traceTake(traceState &s, const recordView &v)
{
    switch (static_cast<recordKind>(v.head.kind)) {
    case recordKind::START:
        traceReset(s);
        s.requestFd = __traceFixed<recordStart>(v).requestFd;
        break;
    case recordKind::OPEN:
        if (const auto op = __traceFixed<recordOpen>(v); op.result >= 0) {
            s.paths[op.result] = __traceText(v.text);
        }
        break;
    case recordKind::FILE:
        if (const auto f = __traceFixed<recordFile>(v); f.size >= 0 && f.fd >= 0) {
            s.paths[f.fd] = __traceText(v.text);
        }
        break;
    case recordKind::CLOSE: {
        const int fd = __traceFixed<recordClose>(v).fd;
        s.paths.erase(fd);
        s.requestFd = fd == s.requestFd ? -1 : s.requestFd;
        break;
    }
    default:
        break;
    }
}

std::string traceLine(const traceState &s, const recordView &v)
{
    const char *kind = recordKindName(v.head.kind);
    const traceOut o = __traceDecode(s, v);
    return __traceFormat("%" PRIu64 " %" PRIu64 ".%06" PRIu64 " %s ", v.index, v.head.timeUs / 1000000,
                         v.head.timeUs % 1000000, kind != nullptr ? kind : "?") +
           o.text;
}

std::string traceJson(const traceState &s, const recordView &v)
{
    const char *kind = recordKindName(v.head.kind);
    const traceOut o = __traceDecode(s, v);
    return __traceFormat("{\"exchange\":%" PRIu64 ",\"offset\":%" PRIu64 ",\"timeUs\":%" PRIu64 ",\"kind\":", v.index,
                         v.offset, v.head.timeUs) +
           tarnholdCtlJsonString(kind != nullptr ? kind : "?") + o.json + "}";
}
