// Inside the simulated appliance: the one state record its parts share (the
// picdev driver, the application firmware, the bootloader, the FPGA and CPLD
// paths, the saved state) and the calls they make into each other. Only the
// model's own files include this.
#pragma once

#include "qxLoader.h"
#include "qxUsb.h"
#include "simAppliance.h"
#include "simUpgrade.h"

#include <array>
#include <cstdint>
#include <deque>
#include <vector>

using simReport = std::array<uint8_t, QX_REPORT_SIZE>;

constexpr uint32_t SIM_FNV_BASIS = 2166136261u;

// Where the driver finds the caller's memory in a code-38 request.
constexpr size_t SIM_IO_ADDRESS = 12;

struct simQueuedReport {
    simReport bytes;
    int delayReads;       // further GET_REPORT calls before it shows
    uint64_t visibleAtUs; // clock time before which it does not show
};

struct simIoctlFault {
    uint32_t request; // 0: any
    int err;
    int count;
    int after; // matching requests still let through before the first failure
};

struct simHandle {
    int id;
    uint32_t generation; // the node's generation when it was opened
};

// What a queued request does once the driver has read its bytes.
enum class simPendingKind : uint8_t {
    FPGA_PAGES,
    CPLD_PAGES,
    PIC32_PACKET,
};

// A request the driver took by address and reads when it sends it on.
struct simPendingRead {
    simPendingKind kind;
    int handle;
    uint8_t seq;
    uint32_t firstPage; // pages: where they go; packet: unused
    uint32_t count;     // pages: how many; packet: unused
    uint64_t address;
    simMemReader mem;
};

constexpr size_t SIM_UPGRADE_FAULT_COUNT = static_cast<size_t>(simUpgradeFault::LAST) + 1;

// The clock events are stamped with until a front end sets its own.
uint64_t __simSteadyNowUs();

struct simApplianceMembers {
    simMode mode = simMode::APPLICATION;
    bool pendingSwitch = false; // a GOTO waits for the next restart
    simMode pendingMode = simMode::APPLICATION;
    bool nodePresent = true;
    bool powerLost = false;  // the next module load brings the bootloader back
    bool offBus = false;     // the board dropped off the bus until offBusUntilUs
    uint64_t offBusUntilUs = 0;
    uint32_t generation = 0; // bumped whenever open handles go stale
    int nextHandle = 0;
    int implicitHandle = -1;
    std::vector<simHandle> handles;

    std::array<uint8_t, SIM_FLASH_SIZE> flash{};
    std::array<simSlot, SIM_SLOT_COUNT> slots{};

    std::deque<simQueuedReport> queue;
    simReport lastReport{};
    std::vector<simPendingRead> pending;

    // The bootloader writes a block only where the previous one ended,
    // until PROGRAM_COMPLETE closes the run.
    bool programRunOpen = false;
    uint32_t programRunEnd = 0;

    // FPGA and CPLD. The configuration memory is filled with 0xFF on first
    // use; afterwards only the part ever written is erased again.
    std::vector<uint8_t> fpgaMemory;
    size_t fpgaWrittenEnd = 0;
    std::array<uint8_t, SIM_CPLD_IMAGE_SIZE> cpldImage{};
    simUpgradeState upgrade;
    bool fpgaEraseStarted = false;
    uint64_t fpgaEraseDoneAtUs = 0;
    uint64_t fpgaEraseTimeUs = 50000000;
    uint64_t cpldRunTimeUs = 10000000;
    bool cpldRunPending = false;
    uint64_t cpldRunDoneAtUs = 0;
    uint64_t urbBusyUs = 0;
    uint64_t urbFreeAtUs = 0;
    std::array<int, SIM_UPGRADE_FAULT_COUNT> upgradeFaults{};

    std::vector<simIoctlFault> ioctlFaults;
    simReplyFault replyFault = simReplyFault::NONE;
    int replyFaultCount = 0;
    int replyDelayReads = 0;
    std::array<uint64_t, 256> replyDelayUs{};
    std::array<int, SIM_SLOT_COUNT> slotUnreadable{};
    bool bootloaderNoAck = false;
    int driverBusyPolls = 0;
    int powerLossSteps = -1;
    // After a power loss the bootloader starts an application whose reset
    // vector is written, complete or not.
    bool bootloaderStartsWrittenApp = false;
    // The service stops after this many more upgrade boundaries (-1: never);
    // while it is stopped nothing from the host reaches the appliance.
    int stopServiceSteps = -1;
    bool stopServicePowerLoss = false;
    bool serviceStopped = false;

    simPanel panel;
    simFileTransfer fileTransfer;
    std::vector<simEvent> events;
    uint64_t (*nowUs)() = __simSteadyNowUs;
};

extern simApplianceMembers simAppliancePrivateMembers;

// ---- Shared by the parts (simAppliance.cpp) ----------------------------------

// A failed ioctl: recorded, and the negative errno to return (simDriver.cpp).
int __simFail(uint32_t request, int err);
uint32_t __simFnv1a(uint32_t hash, const uint8_t *p, size_t len);
void __simRecord(simEventKind kind, uint8_t code = 0, uint8_t seq = 0, uint32_t request = 0, uint32_t address = 0,
                 uint32_t len = 0);
// Open handles stop working: the device or its driver went away.
void __simStaleHandles();
void __simSwitchMode(simMode mode);
// A board off the bus comes back once its time is up; every entry point that
// sees the node asks first.
void __simOffBusTick();
void __simApplyPendingSwitch();
void __simLosePower();
// One upgrade boundary passed: a slot write, a go command, a module unload or
// load, a USB reset, an erase, a programmed block, a completion.
void __simBoundaryDone();
void __simQueueReply(simReport reply);
simReport __simReplyHeader(const uint8_t *req);

// ---- Application firmware (simFirmware.cpp) -----------------------------------

// Stored value slots: their own flash page, kept by both firmwares. A
// handler fills the reply (header set) and says whether it is sent.
bool __simGetFlashVal(const uint8_t *req, simReport &reply);
bool __simSetFlashVal(const uint8_t *req, simReport &reply);
void __simApplicationReceive(const uint8_t *req);

// ---- Bootloader (simBootloader.cpp) --------------------------------------------

void __simBootloaderReceive(const uint8_t *req);
// A report reaches whatever firmware runs.
void __simFirmwareReceive(const uint8_t *report);

// ---- FPGA and CPLD (simUpgrade.cpp) ------------------------------------------------

// Whether the request is one of the FPGA or CPLD paths, and carrying it out.
bool __simIsUpgradeRequest(uint32_t request);
int __simUpgradeRequest(int handle, uint32_t request, picHidIoctlArg *arg, const simMemReader &mem);
// Capacity: false while the driver has no room for another chunk.
bool __simUpgradeHasRoom();
// Pages the driver has read go to the FPGA or the CPLD.
void __simUpgradePages(simPendingKind kind, uint32_t firstPage, uint32_t count, const uint8_t *bytes);
// The CPLD info report (code 56) from slot 9.
bool __simUpgradeCpldInfo(const uint8_t *req, simReport &reply);
// Whether a write of slot 9 is answered (the unconfirmed-write fault).
bool __simUpgradeRecordWriteAnswered(uint8_t slot);
// Timed effects (the CPLD run) that are due by now.
void __simUpgradeTick();
// Takes one occasion of an armed fault; true when it hits.
bool __simUpgradeFaultHits(simUpgradeFault fault);
void __simUpgradeReset();
