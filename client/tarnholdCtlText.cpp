// Parsing and printing for tarnholdctl.
#include "tarnholdCtlText.h"

#include "leBytes.h"
#include "qxLoader.h"

#include <cctype>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::string_view TARNHOLD_CTL_NAME_PREFIX = "QX_HID_CMD_";
constexpr size_t TARNHOLD_CTL_HEX_ROW = 16;
constexpr size_t TARNHOLD_CTL_MD5_SIZE = 16;

bool __tarnholdCtlSameIgnoringCase(std::string_view a, std::string_view b)
{
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (tolower(static_cast<unsigned char>(a[i])) != tolower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

std::string __tarnholdCtlPrintable(const uint8_t *bytes, size_t len)
{
    std::string out;
    for (size_t i = 0; i < len; ++i) {
        if (isprint(bytes[i]) != 0 && bytes[i] != '\\') {
            out += static_cast<char>(bytes[i]);
        } else {
            char esc[8];
            snprintf(esc, sizeof esc, "\\x%02x", bytes[i]);
            out += esc;
        }
    }
    return out;
}

std::string __tarnholdCtlCodeName(uint8_t code)
{
    const char *name = qxUsbCmdBareName(code);
    return name != nullptr ? name : "UNKNOWN_QX_HID_CMD";
}

} // namespace

std::optional<uint8_t> tarnholdCtlParseByte(std::string_view text)
{
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty() || text.size() > 3) {
        return std::nullopt;
    }
    unsigned value = 0;
    for (char c : text) {
        int digit;
        if (c >= '0' && c <= '9') {
            digit = c - '0';
        } else if (base == 16 && c >= 'a' && c <= 'f') {
            digit = c - 'a' + 10;
        } else if (base == 16 && c >= 'A' && c <= 'F') {
            digit = c - 'A' + 10;
        } else {
            return std::nullopt;
        }
        value = value * static_cast<unsigned>(base) + static_cast<unsigned>(digit);
    }
    if (value > 255) {
        return std::nullopt;
    }
    return static_cast<uint8_t>(value);
}

std::string tarnholdCtlAlias(uint8_t code)
{
    const char *name = qxUsbCmdBareName(code);
    if (name == nullptr) {
        return "";
    }
    std::string_view bare = name;
    if (bare.starts_with(TARNHOLD_CTL_NAME_PREFIX)) {
        bare.remove_prefix(TARNHOLD_CTL_NAME_PREFIX.size());
    }
    std::string alias;
    for (char c : bare) {
        alias += c == '_' ? '-' : static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return alias;
}

std::optional<uint8_t> tarnholdCtlLookupCode(std::string_view text)
{
    if (auto number = tarnholdCtlParseByte(text)) {
        return number;
    }
    for (unsigned code = 0; code < 256; ++code) {
        const char *name = qxUsbCmdBareName(static_cast<uint8_t>(code));
        if (name == nullptr) {
            continue;
        }
        if (__tarnholdCtlSameIgnoringCase(text, name) || text == tarnholdCtlAlias(static_cast<uint8_t>(code))) {
            return static_cast<uint8_t>(code);
        }
    }
    return std::nullopt;
}

const char *tarnholdCtlResultText(int32_t result)
{
    switch (result) {
    case USB_DAEMON_RESULT_OK:
        return "ok";
    case USB_DAEMON_RESULT_BAD_SEQUENCE:
        return "reply answers another command";
    case USB_DAEMON_RESULT_UNKNOWN_FUNCTION:
        return "unknown function code";
    case -1:
        return "failed";
    default:
        return "failed (handler's own result)";
    }
}

std::string tarnholdCtlHex(const uint8_t *bytes, size_t len)
{
    std::string out;
    char pair[3];
    for (size_t i = 0; i < len; ++i) {
        snprintf(pair, sizeof pair, "%02x", bytes[i]);
        out += pair;
    }
    return out;
}

std::string tarnholdCtlJsonString(std::string_view text)
{
    std::string out = "\"";
    for (char c : text) {
        auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20 || u >= 0x7f) {
            char esc[8];
            snprintf(esc, sizeof esc, "\\u%04x", u);
            out += esc;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string tarnholdCtlBlockText(const char *label, const qxUsbBlock &block)
{
    char head[160];
    snprintf(head, sizeof head, "%s %s (%u) seq %u status %u\n", label,
             __tarnholdCtlCodeName(block[QX_REPORT_CODE]).c_str(), block[QX_REPORT_CODE], block[QX_REPORT_SEQ],
             block[QX_REPORT_STATUS]);
    std::string out = head;
    for (size_t row = 0; row < block.size(); row += TARNHOLD_CTL_HEX_ROW) {
        char line[24];
        snprintf(line, sizeof line, "  %02x:", static_cast<unsigned>(row));
        out += line;
        for (size_t i = row; i < block.size() && i < row + TARNHOLD_CTL_HEX_ROW; ++i) {
            snprintf(line, sizeof line, " %02x", block[i]);
            out += line;
        }
        out += '\n';
    }
    return out;
}

std::string tarnholdCtlBlockJson(const qxUsbBlock &block)
{
    char head[64];
    snprintf(head, sizeof head, "{\"code\":%u,\"name\":", block[QX_REPORT_CODE]);
    std::string out = head + tarnholdCtlJsonString(__tarnholdCtlCodeName(block[QX_REPORT_CODE]));
    snprintf(head, sizeof head, ",\"seq\":%u,\"status\":%u,\"hex\":", block[QX_REPORT_SEQ], block[QX_REPORT_STATUS]);
    return out + head + tarnholdCtlJsonString(tarnholdCtlHex(block.data(), block.size())) + "}";
}

tarnholdCtlSlot tarnholdCtlDecodeSlot(const qxUsbBlock &resp)
{
    tarnholdCtlSlot slot;
    slot.len = resp[QX_SLOT_BYTE_LEN];
    slot.valid = slot.len <= QX_STORED_NUM_MAX;
    if (!slot.valid) {
        return slot; // an erased slot reads 0xFF from byte 4 on
    }
    slot.word0 = leGet32(&resp[QX_SLOT_BYTE_WORD0]);
    slot.word1 = leGet32(&resp[QX_SLOT_BYTE_WORD1]);
    memcpy(slot.data.data(), resp.data() + QX_SLOT_BYTE_DATA, slot.len);
    return slot;
}

std::string tarnholdCtlSlotText(int slot, const tarnholdCtlSlot &value)
{
    char line[128];
    if (!value.valid) {
        snprintf(line, sizeof line, "slot %d: empty (length byte %u)\n", slot, value.len);
        return line;
    }
    if (slot == QX_SLOT_PLATFORM) {
        return "platform: " + __tarnholdCtlPrintable(value.data.data(), value.len) + "\n";
    }
    if (slot == QX_SLOT_FIRMWARE) {
        snprintf(line, sizeof line, "firmware length: %u (0x%x)\nmd5: ", value.word0, value.word0);
        size_t md5Len = value.len < TARNHOLD_CTL_MD5_SIZE ? value.len : TARNHOLD_CTL_MD5_SIZE;
        return line + tarnholdCtlHex(value.data.data(), md5Len) + "\n";
    }
    snprintf(line, sizeof line, "word0: 0x%08x\nword1: 0x%08x\nlength: %u\ndata: ", value.word0, value.word1,
             value.len);
    return line + tarnholdCtlHex(value.data.data(), value.len) + "\n";
}

std::string tarnholdCtlSlotJson(int slot, const tarnholdCtlSlot &value)
{
    char head[96];
    snprintf(head, sizeof head, "{\"slot\":%d,\"valid\":%s,\"length\":%u", slot, value.valid ? "true" : "false",
             value.len);
    std::string out = head;
    if (!value.valid) {
        return out + "}";
    }
    snprintf(head, sizeof head, ",\"word0\":%u,\"word1\":%u,\"data\":", value.word0, value.word1);
    out += head + tarnholdCtlJsonString(tarnholdCtlHex(value.data.data(), value.len));
    if (slot == QX_SLOT_PLATFORM) {
        out += ",\"platform\":" +
               tarnholdCtlJsonString(std::string(reinterpret_cast<const char *>(value.data.data()), value.len));
    } else if (slot == QX_SLOT_FIRMWARE) {
        size_t md5Len = value.len < TARNHOLD_CTL_MD5_SIZE ? value.len : TARNHOLD_CTL_MD5_SIZE;
        out += ",\"md5\":" + tarnholdCtlJsonString(tarnholdCtlHex(value.data.data(), md5Len));
    }
    return out + "}";
}
