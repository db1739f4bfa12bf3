// Flash images for tarnhold-sim: an application that the microcontroller
// already runs when the daemon starts, from an Intel HEX file or a raw
// binary, recorded in slot 4 the way the service stores it.
#include "tarnholdSim.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

namespace {

constexpr uint32_t TARNHOLD_SIM_DIGEST_ROUND = 64; // the service's digest covers whole 64-byte blocks

enum : uint8_t {
    TARNHOLD_SIM_HEX_DATA = 0,
    TARNHOLD_SIM_HEX_EOF = 1,
    TARNHOLD_SIM_HEX_SEGMENT = 2,
    TARNHOLD_SIM_HEX_LINEAR = 4,
};

struct tarnholdSimImage {
    std::vector<uint8_t> bytes; // flash offset 0 on; 0xFF where nothing was placed
    uint32_t end = 0;           // one past the last placed byte
};

int __tarnholdSimHexDigit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

bool __tarnholdSimHexBytes(const std::string &line, std::vector<uint8_t> &out)
{
    out.clear();
    for (size_t i = 1; i + 1 < line.size(); i += 2) {
        const int hi = __tarnholdSimHexDigit(line[i]);
        const int lo = __tarnholdSimHexDigit(line[i + 1]);
        if (hi < 0 || lo < 0) {
            return false;
        }
        out.push_back(static_cast<uint8_t>(hi << 4 | lo));
    }
    return (line.size() - 1) % 2 == 0;
}

// Records wholly inside the flash range are placed; a record reaching
// outside it is passed over whole, as the service's loader does.
bool __tarnholdSimParseHex(const std::string &text, tarnholdSimImage &image, std::string &error)
{
    uint32_t base = 0;
    int lineNo = 0;
    size_t pos = 0;
    std::vector<uint8_t> rec;
    while (pos < text.size()) {
        size_t eol = text.find('\n', pos);
        if (eol == std::string::npos) {
            eol = text.size();
        }
        std::string line = text.substr(pos, eol - pos);
        pos = eol + 1;
        ++lineNo;
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) {
            line.pop_back();
        }
        if (line.empty()) {
            continue;
        }
        const std::string where = "line " + std::to_string(lineNo);
        if (line[0] != ':' || !__tarnholdSimHexBytes(line, rec) || rec.size() < 5 || rec.size() != 5u + rec[0]) {
            error = where + ": not an Intel HEX record";
            return false;
        }
        uint8_t sum = 0;
        for (uint8_t b : rec) {
            sum = static_cast<uint8_t>(sum + b);
        }
        if (sum != 0) {
            error = where + ": checksum error";
            return false;
        }
        const uint8_t count = rec[0];
        const uint32_t address = static_cast<uint32_t>(rec[1]) << 8 | rec[2];
        const uint8_t type = rec[3];
        const uint8_t *data = rec.data() + 4;
        if (type == TARNHOLD_SIM_HEX_EOF) {
            return true;
        }
        if (type == TARNHOLD_SIM_HEX_LINEAR && count == 2) {
            base = (static_cast<uint32_t>(data[0]) << 8 | data[1]) << 16;
        } else if (type == TARNHOLD_SIM_HEX_SEGMENT && count == 2) {
            base = (static_cast<uint32_t>(data[0]) << 8 | data[1]) << 4;
        } else if (type == TARNHOLD_SIM_HEX_DATA) {
            const uint64_t start = static_cast<uint64_t>(base) + address;
            if (start >= SIM_FLASH_START && start + count <= uint64_t{SIM_FLASH_START} + SIM_FLASH_SIZE) {
                const auto offset = static_cast<uint32_t>(start - SIM_FLASH_START);
                std::copy(data, data + count, image.bytes.begin() + offset);
                image.end = std::max(image.end, offset + count);
            }
        }
    }
    error = "no end-of-file record";
    return false;
}

} // namespace

bool tarnholdSimImageInstall(const std::string &path, std::string &error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    tarnholdSimImage image;
    image.bytes.assign(SIM_FLASH_SIZE, 0xFF);
    if (!text.empty() && text[0] == ':') {
        if (!__tarnholdSimParseHex(text, image, error)) {
            error = path + ": " + error;
            return false;
        }
    } else {
        if (text.size() > SIM_FLASH_SIZE) {
            error = path + ": larger than the application flash";
            return false;
        }
        std::copy(text.begin(), text.end(), image.bytes.begin());
        image.end = static_cast<uint32_t>(text.size());
    }
    if (image.end == 0) {
        error = path + ": nothing for the application flash";
        return false;
    }
    const uint32_t digestLen = (image.end + TARNHOLD_SIM_DIGEST_ROUND - 1) / TARNHOLD_SIM_DIGEST_ROUND *
                               TARNHOLD_SIM_DIGEST_ROUND;
    std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
    simInstallApplication(std::span<const uint8_t>(image.bytes.data(), image.bytes.size()), digestLen);
    return true;
}
