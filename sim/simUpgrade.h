// The FPGA and CPLD paths of the simulated appliance: what the picdev driver
// and the microcontroller do with the upgrade requests (set-up, erase, erase
// status, capacity, chunks of 256-byte pages, clean-up, CPLD run) and what
// they keep: the FPGA's configuration memory and the CPLD's image. The CPLD
// record is stored value slot 9 (simGetSlot(9)): word0 = size | CRC << 16,
// word1 = the state word, which the run sets to 0.
//
// The driver takes a chunk's pages from the caller's memory by address, and
// reads them when it sends them on (at the next request on the node, or when
// the node is closed), not inside the chunk's own ioctl, as a real driver with
// queued URBs does. The same deferred read applies to the bootloader's
// PROGRAM blocks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

constexpr size_t SIM_FPGA_MEMORY_SIZE = 0x1000000; // 16 MiB configuration memory
constexpr size_t SIM_CPLD_IMAGE_SIZE = 51200;
constexpr size_t SIM_PAGE_SIZE = 256;

// Configuration memory as programmed; 0xFF where erased or never written.
std::span<const uint8_t> simFpgaMemory();
// The CPLD image as the microcontroller received it; 0xFF beyond it.
std::span<const uint8_t> simCpldImage();

struct simUpgradeState {
    bool fpgaSetUp = false;
    bool fpgaErased = false;          // erase confirmed by the FPGA
    uint32_t fpgaPages = 0;           // pages read by the driver since the set-up
    uint32_t fpgaCleanUps = 0;
    bool cpldSetUp = false;
    bool cpldErased = false;
    uint32_t cpldPages = 0;
    uint32_t cpldRuns = 0;
};
simUpgradeState simGetUpgradeState();

// Erase status reports state 1 only this long after ERASE_FPGA (default 50 s).
void simSetFpgaEraseTimeUs(uint64_t us);
// After CPLD_UPGRADE_RUN the state word of slot 9 becomes 0 this long after
// the run (default 10 s).
void simSetCpldRunTimeUs(uint64_t us);
// The capacity query answers without room for this long after each chunk
// (default 0: always room).
void simSetUrbBusyUs(uint64_t us);

enum class simUpgradeFault : uint8_t {
    NONE,
    ERASE_NEVER_CONFIRMED,    // erase status reports state 0
    CAPACITY_NEVER_FREE,      // IS_URB_AVAILABLE never reports room
    CLEANUP_STATE_2,          // clean-up report carries state 2
    RECORD_WRITE_UNCONFIRMED, // a slot 9 write is stored but not answered
    READBACK_OTHER_CRC,       // CPLD info reports another CRC than stored
    RUN_NEVER_COMPLETES,      // the state word stays 0xFFFFFFFF after a run
    TRANSFER_UNREADABLE,      // the driver cannot read the file-transfer buffer
    CLEANUP_STATUS_1,         // clean-up report with state 3 but byte 2 = 1
    CAPACITY_OWN_SEQ,         // capacity answer with room but byte 1 = s, not s XOR 0x57
    CAPACITY_STATUS_BUSY,     // capacity answer with code and number of room but byte 2 = 1
    READBACK_OTHER_SIZE,      // CPLD info reports another size than stored
    LAST = READBACK_OTHER_SIZE,
};
// Armed for the next `count` occasions (-1: for good); NONE clears all.
void simSetUpgradeFault(simUpgradeFault fault, int count);
