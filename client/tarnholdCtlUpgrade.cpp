// tarnholdctl's checks of upgrade files and its reading of the CPLD record.
#include "tarnholdCtlUpgrade.h"

#include "leBytes.h"
#include "uniqueFd.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::array<tarnholdCtlUpgradeRules, 2> TARNHOLD_CTL_UPGRADE_RULES = {{
    {"fpga-upgrade", QX_HID_CMD_FPGA_UPGRADE, 1048576, 16777216, 57},
    {"cpld-upgrade", QX_HID_CMD_CPLD_UPGRADE, 1024, 51200, 26},
}};

// The JBC header: format word, CRC offset field (8 bytes further in version 2).
constexpr int64_t TARNHOLD_CTL_JBC_HEADER_MIN = 53; // 52 bytes or fewer are refused
constexpr uint32_t TARNHOLD_CTL_JBC_V1 = 0x4A414D00;
constexpr uint32_t TARNHOLD_CTL_JBC_V2 = 0x4A414D01;
constexpr size_t TARNHOLD_CTL_JBC_CRC_OFFSET = 32;
constexpr size_t TARNHOLD_CTL_JBC_CRC_OFFSET_STEP = 8;
constexpr uint64_t TARNHOLD_CTL_CPLD_BUFFER = 51200;

// The CPLD record in a code 56 report, and its states.
constexpr size_t TARNHOLD_CTL_INFO_SIZE = 4;
constexpr size_t TARNHOLD_CTL_INFO_CRC = 6;
constexpr size_t TARNHOLD_CTL_INFO_STATE = 8;
constexpr size_t TARNHOLD_CTL_INFO_STAMP_LEN = 12;
constexpr size_t TARNHOLD_CTL_INFO_STAMP = 13;
constexpr uint32_t TARNHOLD_CTL_STATE_NOT_RUN = 0xFFFFFFFF;

uint32_t __tarnholdCtlBe32(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 |
           p[3];
}

// CRC-16/X-25, bit by bit as the service computes it.
uint16_t __tarnholdCtlCrc(const uint8_t *bytes, size_t len)
{
    uint16_t reg = 0xFFFF;
    for (size_t i = 0; i < len; ++i) {
        uint8_t byte = bytes[i];
        for (int bit = 0; bit < 8; ++bit) {
            const bool feedback = ((byte ^ reg) & 1u) != 0;
            reg = static_cast<uint16_t>(reg >> 1);
            if (feedback) {
                reg ^= 0x8408;
            }
            byte = static_cast<uint8_t>(byte >> 1);
        }
    }
    return static_cast<uint16_t>(reg ^ 0xFFFF);
}

bool __tarnholdCtlReadAll(int fd, std::vector<uint8_t> &bytes)
{
    size_t got = 0;
    while (got < bytes.size()) {
        const ssize_t n = ::read(fd, bytes.data() + got, bytes.size() - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        got += static_cast<size_t>(n);
    }
    return true;
}

} // namespace

const tarnholdCtlUpgradeRules &tarnholdCtlUpgradeGetRules(tarnholdCtlUpgradeKind kind)
{
    return TARNHOLD_CTL_UPGRADE_RULES[static_cast<size_t>(kind)];
}

int32_t tarnholdCtlJbcCheck(const uint8_t *image, int64_t size, uint16_t *expected, uint16_t *actual)
{
    if (size < TARNHOLD_CTL_JBC_HEADER_MIN) {
        return -1;
    }
    const uint32_t format = __tarnholdCtlBe32(image);
    if (format != TARNHOLD_CTL_JBC_V1 && format != TARNHOLD_CTL_JBC_V2) {
        return -1;
    }
    const uint32_t offset =
        __tarnholdCtlBe32(&image[TARNHOLD_CTL_JBC_CRC_OFFSET + TARNHOLD_CTL_JBC_CRC_OFFSET_STEP * (format & 1u)]);
    const auto usize = static_cast<uint64_t>(size);
    if (offset >= usize || (offset + 1u >= usize && usize >= TARNHOLD_CTL_CPLD_BUFFER)) {
        return -1;
    }
    const uint8_t low = offset + 1u < usize ? image[offset + 1u] : 0xFF;
    const auto stored = static_cast<uint16_t>(image[offset] << 8 | low);
    const uint16_t computed = __tarnholdCtlCrc(image, offset);
    if (expected != nullptr) {
        *expected = stored;
    }
    if (actual != nullptr) {
        *actual = computed;
    }
    return stored == computed ? 0 : -1;
}

bool tarnholdCtlUpgradeCheckFile(tarnholdCtlUpgradeKind kind, const std::string &path, std::string &absolute,
                                 std::string &error)
{
    const tarnholdCtlUpgradeRules &rules = tarnholdCtlUpgradeGetRules(kind);
    if (path.empty()) {
        error = "no file named";
        return false;
    }
    std::string full = path;
    if (path[0] != '/') {
        // The daemon runs elsewhere: it gets the path from the root.
        std::array<char, 4096> cwd{};
        if (::getcwd(cwd.data(), cwd.size()) == nullptr) {
            error = std::string("cannot tell the current directory: ") + std::strerror(errno);
            return false;
        }
        full = std::string(cwd.data()) + "/" + path;
    }
    if (full.size() > TARNHOLD_CTL_UPGRADE_PATH_MAX) {
        error = full + ": path of " + std::to_string(full.size()) + " characters; the request carries at most " +
                std::to_string(TARNHOLD_CTL_UPGRADE_PATH_MAX);
        return false;
    }
    const uniqueFd fd(::open(full.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat st {};
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0) {
        error = full + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        error = full + ": not a regular file";
        return false;
    }
    if (st.st_size < rules.minSize || st.st_size > rules.maxSize) {
        error = full + ": size " + std::to_string(st.st_size) + " outside " + std::to_string(rules.minSize) + ".." +
                std::to_string(rules.maxSize);
        return false;
    }
    if (kind == tarnholdCtlUpgradeKind::CPLD) {
        std::vector<uint8_t> bytes(static_cast<size_t>(st.st_size));
        if (!__tarnholdCtlReadAll(fd.get(), bytes)) {
            error = full + ": cannot be read";
            return false;
        }
        uint16_t stored = 0;
        uint16_t computed = 0;
        if (tarnholdCtlJbcCheck(bytes.data(), st.st_size, &stored, &computed) != 0) {
            char crcs[64];
            std::snprintf(crcs, sizeof(crcs), " (stored 0x%04x, computed 0x%04x)", stored, computed);
            error = full + ": not a JAM byte-code file the service accepts: header or CRC" +
                    (stored != computed ? std::string(crcs) : std::string());
            return false;
        }
    } else {
        std::array<uint8_t, 1> first{};
        if (::read(fd.get(), first.data(), first.size()) != 1) {
            error = full + ": cannot be read";
            return false;
        }
    }
    absolute = full;
    return true;
}

tarnholdCtlCpldInfo tarnholdCtlUpgradeDecodeCpldInfo(const qxUsbBlock &resp)
{
    tarnholdCtlCpldInfo info;
    info.size = leGet16(&resp[TARNHOLD_CTL_INFO_SIZE]);
    info.crc = leGet16(&resp[TARNHOLD_CTL_INFO_CRC]);
    info.state = leGet32(&resp[TARNHOLD_CTL_INFO_STATE]);
    if (info.state == 0) {
        info.stateText = "run";
    } else if (info.state != TARNHOLD_CTL_STATE_NOT_RUN) {
        info.stateText = "unknown";
    } else if (info.size == 0xFFFF && info.crc == 0xFFFF) {
        info.stateText = "erased"; // never written: no file is that large
    } else {
        info.stateText = info.size == 0 && info.crc == 0 ? "cleared" : "written";
    }
    const size_t len = resp[TARNHOLD_CTL_INFO_STAMP_LEN];
    if (len <= QX_REPORT_SIZE - TARNHOLD_CTL_INFO_STAMP) {
        const uint8_t *stamp = &resp[TARNHOLD_CTL_INFO_STAMP];
        for (size_t i = 0; i < len && stamp[i] >= 0x20 && stamp[i] < 0x7F; ++i) {
            info.stamp += static_cast<char>(stamp[i]);
        }
    }
    return info;
}
