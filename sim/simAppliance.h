// The simulated appliance: the picdev driver and its device node, the PIC32
// application firmware and its USB HID bootloader, with fault injection.
// Not thread-safe: a front end with several threads serialises its calls.
// One model, three front ends: in process through the system-call seam with
// virtual time (simInProcess.h), and out of process for the real binary
// under umockdev (tarnhold-sim) or behind a real character device
// (tarnhold-sim-cuse).
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

// Puts an application into flash (image[i] at SIM_FLASH_START + i, the rest
// erased) and records it in slot 4 as the service stores it: word0 = the
// length its digest covers, word1 = 0, 16 data bytes = the digest.
void simInstallApplication(std::span<const uint8_t> image, uint32_t digestLen, const uint8_t (&md5)[16]);
// The same with the MD5 computed here over the first digestLen bytes of the
// flash range (erased bytes included), as the service's image loader does.
void simInstallApplication(std::span<const uint8_t> image, uint32_t digestLen);
// The application's identity as GET_INFO reports it in bytes 4-7: a 32-bit
// FNV-1a hash over the whole flash range.
uint32_t simFlashIdentity();

// What the application firmware keeps besides flash, for tests to inspect.
struct simPanel {
    uint8_t leds[8] = {};       // SET_LEDS bytes 3-10, echoed in its reply
    uint16_t drivePower = 0;    // bit n: bay n powered (TURN_ONE_DRV_ON_OFF, GET_*_DRV_STATUS)
    uint8_t fanSpeed[2] = {};   // SET_FAN_SPEED bytes 3-4, returned by GET_FAN_SPEED
    bool buzzer = false;        // BUZZER_ON / BUZZER_OFF
    bool stealth = false;       // STEALTH_ON/OFF, read by GET_STEALTH
    bool firewire = true;       // FIREWIRE_ON/OFF, read by GET_FIREWIRE_ENABLE
    bool usb3 = true;           // USB3_ON/OFF, read by GET_USB3_ENABLE
    uint8_t buttons = 0;        // ALL_BUTTON_STATUS byte 3; BUTTON_DOWN/RELEASE set/clear bit byte 3
    uint8_t pushButton = 0;     // PUSH_BUTTON_STATUS byte 3
    uint32_t watchdogClears = 0; // CLR_WDT count
    uint32_t shutdowns = 0;     // SHUTDOWN count
    uint32_t trayTests = 0;     // TRAY_TEST count
};
const simPanel &simGetPanel();
void simSetButtons(uint8_t buttons, uint8_t pushButton);

// The last file-transfer test the driver carried out.
struct simFileTransfer {
    bool done = false;      // a transfer was requested at all
    bool readOk = false;    // the driver could read the whole buffer
    uint32_t len = 0;
    uint32_t checksum = 0;  // 32-bit FNV-1a over the len bytes
    uint8_t head[16] = {};  // the first bytes (as many as len gives)
};
const simFileTransfer &simLastFileTransfer();

// Persistence for the out-of-process front end (power loss across runs).
bool simSaveState(const std::string &path);
bool simLoadState(const std::string &path);

// ---- Fault injection ---------------------------------------------------------

// The next `count` ioctls carrying `request` (0 = any request) fail with err.
void simFailIoctl(uint32_t request, int err, int count);

enum class simReplyFault : uint8_t {
    NONE,
    WRONG_SEQ,      // reply carries another sequence number (bit 7 flipped)
    WRONG_CODE_SEQ, // reply carries another code and another sequence number (bit 7 of both flipped)
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

// Replies to `code` become readable only once the clock has advanced this
// far past the command (the shutdown answers late on the appliance).
void simSetReplyDelayUs(uint8_t code, uint64_t us);

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
    IOCTL_FAILED,  // an ioctl failed (request, len = errno)
    POWER_LOST,    // the microcontroller lost power
    MODE_SWITCH,   // the microcontroller restarted (code = new simMode)
    PAGES_READ,    // the driver read what it took by address (address, len), sending it on
    PAGES_UNREADABLE, // ... and could not read it: the caller's memory changed or went away
    CPLD_RUN_DONE, // the CPLD run completed: slot 9's state word became 0
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
// The driver reads the pages and packets it takes by address later, at the
// next request of the same handle or at its close, so a reader handed to an
// ioctl must still work then.
struct simMemReader {
    bool (*read)(void *ctx, uint64_t address, void *dst, size_t len);
    void *ctx;
};

// One open of the node: a handle >= 0 or a negative errno. A handle opened
// before the module was unloaded (or power was lost) is stale: its ioctls
// fail with ENODEV.
int simDriverOpenHandle();
void simDriverCloseHandle(int handle);
// 0 or a negative errno. `arg` is the 88-byte block for requests that carry one.
int simDriverIoctlHandle(int handle, uint32_t request, void *arg, const simMemReader &mem);

// The same on one implicit handle, for a front end that holds one open at a time.
// 0 or a negative errno.
int simDriverOpen();
void simDriverClose();
int simDriverIoctl(uint32_t request, void *arg, const simMemReader &mem);

// The module commands and the USB port reset of 04D8:003C. Unloading takes
// the node away (open: ENOENT; handles go stale) and empties the report
// queue. A GOTO takes effect at the next port reset or module load, whichever
// comes first; a port reset also empties the queue and kills open handles, as
// the device re-enumerates. After a power loss only the module load brings
// the microcontroller back, in its bootloader.
void simModuleUnload();
void simModuleLoad();
void simUsbReset();

// The clock the model stamps events with; the front end sets it.
void simSetClock(uint64_t (*nowUs)());
