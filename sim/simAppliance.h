// The simulated appliance: the picdev driver and its device node, the PIC32
// application firmware and its USB HID bootloader, with fault injection.
// One model, two front ends: in process through the system-call seam with
// virtual time (simInProcess.h), and out of process for the real binary
// under umockdev (tarnhold-sim).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

// ---- Appliance state -------------------------------------------------------

enum class simMode : uint8_t {
    APPLICATION, // product id 17 answers
    BOOTLOADER,  // product id 18 answers
    DEAD,        // the microcontroller answers nothing (power lost, no firmware)
};

constexpr uint32_t SIM_FLASH_START = 0x1D010000;
constexpr uint32_t SIM_FLASH_SIZE = 0x53000;
constexpr int SIM_SLOT_COUNT = 16;

struct simSlot {
    uint32_t word0 = 0;
    uint32_t word1 = 0;
    uint8_t len = 0xFF; // erased slot: every byte from byte 4 on reads 0xFF
    uint8_t data[48] = {};
};

// A fresh appliance: application running, node present, flash holding a
// small built-in application, slots erased but slot 10 = "HW=BRISKA".
void simReset();

void simSetMode(simMode mode);
simMode simGetMode();
void simSetNodePresent(bool present);
bool simNodePresent();
void simSetPlatformText(const std::string &text); // slot 10
void simSetSlot(int slot, const simSlot &value);
simSlot simGetSlot(int slot);
std::span<uint8_t, SIM_FLASH_SIZE> simFlash(); // application flash, 0xFF when erased

// Persistence for the out-of-process front end (power loss across runs).
bool simSaveState(const std::string &path);
bool simLoadState(const std::string &path);

// ---- Fault injection ---------------------------------------------------------

// The next `count` ioctls carrying `request` (0 = any request) fail with err.
void simFailIoctl(uint32_t request, int err, int count);

enum class simReplyFault : uint8_t {
    NONE,
    WRONG_SEQ,      // reply carries another sequence number
    WRONG_CODE_SEQ, // reply carries another code and another sequence number
    NO_REPLY,       // no reply is queued at all
};
// Applies to the replies of the next `count` commands that expect one.
void simSetReplyFault(simReplyFault fault, int count);

// Replies become readable only after this many further GET_REPORT calls
// (each earlier call returns the previous report again, as the driver does).
void simSetReplyDelayReads(int reads);

// Slot reads of `slot` go unanswered `count` times (-1: always).
void simSetSlotUnreadable(int slot, int count);

// The driver answers PIC32 set-up / availability without its acknowledgement.
void simSetBootloaderNoAck(bool noAck);

// The driver is busy (no acknowledgement) for the next `count` availability polls.
void simSetDriverBusyPolls(int count);

// Power is lost after `steps` more bootloader steps (erase, program, complete):
// the node disappears and the microcontroller comes back in the bootloader on
// the next module load, with flash as far as it got.
void simPowerLossAfter(int steps);

// ---- Observation -----------------------------------------------------------

enum class simEventKind : uint8_t {
    OPEN,
    OPEN_FAILED,
    CLOSE,
    SEND,        // a report reached the firmware (code, seq)
    GET_REPORT,  // a report was read (code, seq as returned)
    DRIVER,      // a code-38 or raw driver request (request)
    PROGRAM,     // PROGRAM_DEVICE reached the bootloader (address, len)
    PROGRAM_DROPPED, // PROGRAM_DEVICE not following the previous one, dropped
    COMPLETE,    // PROGRAM_COMPLETE
    ERASE,
    GOTO_APPLICATION,
    GOTO_BOOTLOADER,
    USB_RESET,
    RMMOD,
    MODPROBE,
    FILE_TRANSFER, // code 37: len bytes read from the daemon's buffer
};

struct simEvent {
    simEventKind kind;
    uint8_t code = 0;
    uint8_t seq = 0;
    uint32_t request = 0;
    uint32_t address = 0;
    uint32_t len = 0;
    uint64_t atUs = 0; // virtual time (in process) or wall time (out of process)
};

const std::vector<simEvent> &simEvents();
void simClearEvents();

// ---- Driver entry points (used by the front ends) ---------------------------

// Reads `len` bytes of the daemon's memory at `address`; false when it cannot.
struct simMemReader {
    bool (*read)(void *ctx, uint64_t address, void *dst, size_t len);
    void *ctx;
};

// 0 or a negative errno.
int simDriverOpen();
void simDriverClose();
int simDriverIoctl(uint32_t request, void *arg, const simMemReader &mem);

// The module commands and the USB port reset of 04D8:003C.
void simModuleUnload();
void simModuleLoad();
void simUsbReset();

// The clock the model stamps events with; the front end sets it.
void simSetClock(uint64_t (*nowUs)());
