// tarnholdctl's side of the FPGA and CPLD upgrades: the file is checked as
// the service will check it before any request goes out, and the CPLD
// record that code 56 reports is decoded.
#pragma once

#include "qxUsb.h"

#include <cstddef>
#include <cstdint>
#include <string>

enum class tarnholdCtlUpgradeKind : uint8_t { FPGA, CPLD };

struct tarnholdCtlUpgradeRules {
    const char *name;      // "fpga-upgrade"
    uint8_t code;          // the request code
    int64_t minSize;       // file size bounds, both allowed
    int64_t maxSize;
    int leastSeconds;      // the least an upgrade takes, for the progress line
};
const tarnholdCtlUpgradeRules &tarnholdCtlUpgradeGetRules(tarnholdCtlUpgradeKind kind);

// The command block carries the path from byte 3 to its NUL within the block.
constexpr size_t TARNHOLD_CTL_UPGRADE_PATH_MAX = QX_BLOCK_SIZE - QX_REPORT_PAYLOAD - 1; // 65

// Makes `path` absolute and checks it: it fits the block, exists, is a
// regular file that can be read, its size is within the bounds, and a CPLD
// file's header and CRC are what the service accepts. True with `absolute`
// set; false with `error` saying why.
bool tarnholdCtlUpgradeCheckFile(tarnholdCtlUpgradeKind kind, const std::string &path, std::string &absolute,
                                 std::string &error);

// The CPLD record of a code 56 report.
struct tarnholdCtlCpldInfo {
    uint16_t size = 0;
    uint16_t crc = 0;
    uint32_t state = 0;
    const char *stateText = ""; // "cleared", "written", "run", "erased" (never written) or "unknown"
    std::string stamp;          // the time stamp text, "" when there is none
};
tarnholdCtlCpldInfo tarnholdCtlUpgradeDecodeCpldInfo(const qxUsbBlock &resp);
