// tarnholdctl's checks of upgrade files and its reading of the CPLD record.
#include "tarnholdCtlUpgrade.h"

#include "cpldUpgrade.h"
#include "fpgaUpgrade.h"
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
    {"fpga-upgrade", QX_HID_CMD_FPGA_UPGRADE, FPGA_FILE_SIZE_MIN, FPGA_FILE_SIZE_MAX, 57},
    {"cpld-upgrade", QX_HID_CMD_CPLD_UPGRADE, CPLD_FILE_SIZE_MIN, CPLD_FILE_SIZE_MAX, 26},
}};

// The CPLD record's state word before the microcontroller has run the file.
constexpr uint32_t TARNHOLD_CTL_STATE_NOT_RUN = 0xFFFFFFFF;

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
        if (cpldUpgradeCheckCrc(bytes.data(), st.st_size, &stored, &computed) != 0) {
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
    info.size = leGet16(&resp[CPLD_RECORD_SIZE_BYTE]);
    info.crc = leGet16(&resp[CPLD_RECORD_CRC_BYTE]);
    info.state = leGet32(&resp[CPLD_RECORD_STATE_BYTE]);
    if (info.state == 0) {
        info.stateText = "run";
    } else if (info.state != TARNHOLD_CTL_STATE_NOT_RUN) {
        info.stateText = "unknown";
    } else if (info.size == 0xFFFF && info.crc == 0xFFFF) {
        info.stateText = "erased"; // never written: no file is that large
    } else {
        info.stateText = info.size == 0 && info.crc == 0 ? "cleared" : "written";
    }
    const size_t len = resp[CPLD_RECORD_STAMP_LEN];
    if (len <= QX_REPORT_SIZE - CPLD_RECORD_STAMP) {
        const uint8_t *stamp = &resp[CPLD_RECORD_STAMP];
        for (size_t i = 0; i < len && stamp[i] >= 0x20 && stamp[i] < 0x7F; ++i) {
            info.stamp += static_cast<char>(stamp[i]);
        }
    }
    return info;
}
