// FPGA upgrade through the microcontroller: the configuration file is loaded
// into a static buffer and handed to the driver page by page, by address.
#pragma once

#include "qxUsb.h"

#include <cstddef>
#include <cstdint>

constexpr int32_t FPGA_FILE_SIZE_MIN = 0x100000;  // 1 MiB
constexpr int32_t FPGA_FILE_SIZE_MAX = 0x1000000; // 16 MiB
constexpr size_t FPGA_DATA_SIZE = 0x10007D0;      // 16 MiB plus 2,000
constexpr size_t FPGA_PAGE_SIZE = 256;
constexpr uint32_t FPGA_CHUNK_PAGES = 30;

// The whole upgrade; the path is the NUL-terminated text from cmd[3]. 0 once
// the clean-up is confirmed, else the failing step's status. resp is not used.
int32_t fpgaUpgradeStart(const qxUsbBlock &cmd);

// The steps, in the order the upgrade runs them.
int32_t fpgaUpgradeFileInit(const char *path);
int32_t fpgaUpgradeEraseFpga();
int32_t fpgaProgramConfig();
int32_t fpgaUpgradeCleanUp();

// Read-only view of the loaded file, for diagnostics and tests.
struct fpgaUpgradeView {
    int32_t upgradeSize;
    const uint8_t *data; // FPGA_DATA_SIZE bytes, never moves
};
fpgaUpgradeView fpgaUpgradeGetView();
