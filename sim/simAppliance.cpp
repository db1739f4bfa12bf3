// The simulated appliance behind the device node: the picdev driver with its
// report queue and driver requests, the PIC32 application firmware and the
// USB HID bootloader, each keeping the state the real parts keep, plus the
// faults the service must survive.
#include "simAppliance.h"

#include "qxFile.h"
#include "qxLoader.h"
#include "qxUsb.h"
#include "uniqueFd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint8_t SIM_PRODUCT_ID_APPLICATION = QX_PRODUCT_ID_APPLICATION;
constexpr uint8_t SIM_PRODUCT_ID_BOOTLOADER = QX_PRODUCT_ID_BOOTLOADER;

// The bootloader's PROGRAM_DEVICE packet: address at 1-4, count at 5, data
// right-justified so that it ends at byte 63.
constexpr size_t SIM_PROGRAM_ADDRESS = 1;
constexpr size_t SIM_PROGRAM_COUNT = 5;
constexpr size_t SIM_PROGRAM_MAX_DATA = QX_REPORT_SIZE - 6;

// Where the driver finds the packet of a PIC32 PROGRAM / PROGRAM_DONE request.
constexpr size_t SIM_IO_ADDRESS = 12;

constexpr const char *SIM_BOARD_INFO = "SIM BOARD REV A";
constexpr const char *SIM_DEFAULT_PLATFORM = "HW=BRISKA";
constexpr uint32_t SIM_BUILTIN_APP_SIZE = 1024;

constexpr char SIM_STATE_MAGIC[8] = {'T', 'H', 'S', 'I', 'M', 'S', 'T', 0};
constexpr uint32_t SIM_STATE_VERSION = 1;
constexpr size_t SIM_STATE_SLOT_SIZE = 4 + 4 + 1 + 48;
constexpr size_t SIM_STATE_HEADER_SIZE = 8 + 4 + 8;
constexpr size_t SIM_STATE_SIZE = SIM_STATE_HEADER_SIZE + SIM_SLOT_COUNT * SIM_STATE_SLOT_SIZE + SIM_FLASH_SIZE + 4;

static_assert(SIM_FLASH_START == QX_FLASH_START && SIM_FLASH_SIZE == QX_FLASH_SIZE);
static_assert(sizeof(simSlot::data) == QX_STORED_NUM_MAX);
static_assert(QX_SLOT_BYTE_DATA + QX_STORED_NUM_MAX <= QX_REPORT_SIZE);

using simReport = std::array<uint8_t, QX_REPORT_SIZE>;

struct simQueuedReport {
    simReport bytes;
    int delayReads;       // further GET_REPORT calls before it shows
    uint64_t visibleAtUs; // clock time before which it does not show
};

struct simIoctlFault {
    uint32_t request; // 0: any
    int err;
    int count;
};

struct simHandle {
    int id;
    uint32_t generation; // the node's generation when it was opened
};

uint64_t __simSteadyNowUs()
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

struct {
    simMode mode = simMode::APPLICATION;
    bool pendingSwitch = false; // a GOTO waits for the next restart
    simMode pendingMode = simMode::APPLICATION;
    bool nodePresent = true;
    bool powerLost = false;   // the next module load brings the bootloader back
    uint32_t generation = 0;  // bumped whenever open handles go stale
    int nextHandle = 0;
    int implicitHandle = -1;
    std::vector<simHandle> handles;

    std::array<uint8_t, SIM_FLASH_SIZE> flash{};
    std::array<simSlot, SIM_SLOT_COUNT> slots{};

    std::deque<simQueuedReport> queue;
    simReport lastReport{};

    // The bootloader writes a block only where the previous one ended,
    // until PROGRAM_COMPLETE closes the run.
    bool programRunOpen = false;
    uint32_t programRunEnd = 0;

    std::vector<simIoctlFault> ioctlFaults;
    simReplyFault replyFault = simReplyFault::NONE;
    int replyFaultCount = 0;
    int replyDelayReads = 0;
    std::array<uint64_t, 256> replyDelayUs{};
    std::array<int, SIM_SLOT_COUNT> slotUnreadable{};
    bool bootloaderNoAck = false;
    int driverBusyPolls = 0;
    int powerLossSteps = -1;

    simPanel panel;
    simFileTransfer fileTransfer;
    std::vector<simEvent> events;
    uint64_t (*nowUs)() = __simSteadyNowUs;
} simAppliancePrivateMembers;

auto &S = simAppliancePrivateMembers;

// ---- Helpers ---------------------------------------------------------------

uint32_t __simGetLe32(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

uint64_t __simGetLe64(const uint8_t *p)
{
    return static_cast<uint64_t>(__simGetLe32(p)) | static_cast<uint64_t>(__simGetLe32(p + 4)) << 32;
}

void __simPutLe32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

uint32_t __simFnv1a(uint32_t hash, const uint8_t *p, size_t len)
{
    for (size_t i = 0; i < len; ++i) {
        hash = (hash ^ p[i]) * 16777619u;
    }
    return hash;
}

constexpr uint32_t SIM_FNV_BASIS = 2166136261u;

void __simRecord(simEventKind kind, uint8_t code = 0, uint8_t seq = 0, uint32_t request = 0, uint32_t address = 0,
                 uint32_t len = 0)
{
    simEvent e{kind};
    e.code = code;
    e.seq = seq;
    e.request = request;
    e.address = address;
    e.len = len;
    e.atUs = S.nowUs();
    S.events.push_back(e);
}

bool __simFlashBlank()
{
    return std::all_of(S.flash.begin(), S.flash.end(), [](uint8_t b) { return b == 0xFF; });
}

// Open handles stop working: the device or its driver went away.
void __simStaleHandles()
{
    ++S.generation;
}

void __simSwitchMode(simMode mode)
{
    S.mode = mode;
    S.programRunOpen = false;
    __simRecord(simEventKind::MODE_SWITCH, static_cast<uint8_t>(mode));
}

// The microcontroller restarts: a GOTO sent earlier takes effect now.
void __simApplyPendingSwitch()
{
    if (!S.pendingSwitch || S.powerLost) {
        return;
    }
    S.pendingSwitch = false;
    simMode next = S.pendingMode;
    // A bootloader with nothing to start stays where it is.
    if (next == simMode::APPLICATION && __simFlashBlank()) {
        next = simMode::BOOTLOADER;
    }
    __simSwitchMode(next);
}

void __simLosePower()
{
    __simRecord(simEventKind::POWER_LOST);
    S.mode = simMode::DEAD;
    S.powerLost = true;
    S.pendingSwitch = false;
    S.programRunOpen = false;
    S.nodePresent = false;
    S.queue.clear();
    __simStaleHandles();
}

// Erase, program and complete are the steps a power cut can interrupt.
void __simBootloaderStepDone()
{
    if (S.powerLossSteps > 0 && --S.powerLossSteps == 0) {
        S.powerLossSteps = -1;
        __simLosePower();
    }
}

// ---- Replies ---------------------------------------------------------------

void __simQueueReply(simReport reply)
{
    if (S.replyFaultCount > 0) {
        --S.replyFaultCount;
        switch (S.replyFault) {
        case simReplyFault::NONE:
            break;
        case simReplyFault::WRONG_SEQ:
            reply[QX_REPORT_SEQ] ^= 0x80;
            break;
        case simReplyFault::WRONG_CODE_SEQ:
            reply[QX_REPORT_CODE] ^= 0x80;
            reply[QX_REPORT_SEQ] ^= 0x80;
            break;
        case simReplyFault::NO_REPLY:
            return;
        }
    }
    S.queue.push_back({reply, S.replyDelayReads, S.nowUs() + S.replyDelayUs[reply[QX_REPORT_CODE]]});
}

simReport __simReplyHeader(const uint8_t *req)
{
    simReport reply{};
    reply[QX_REPORT_CODE] = req[QX_REPORT_CODE];
    reply[QX_REPORT_SEQ] = req[QX_REPORT_SEQ];
    reply[QX_REPORT_STATUS] = 0;
    return reply;
}

// ---- Stored value slots (their own flash page, kept by both firmwares) -----

bool __simGetFlashVal(const uint8_t *req, simReport &reply)
{
    const uint8_t slot = req[QX_SLOT_BYTE_SLOT];
    reply[QX_SLOT_BYTE_SLOT] = slot;
    if (slot >= SIM_SLOT_COUNT) {
        reply[QX_REPORT_STATUS] = 1;
        return true;
    }
    int &unreadable = S.slotUnreadable[slot];
    if (unreadable != 0) {
        if (unreadable > 0) {
            --unreadable;
        }
        return false;
    }
    const simSlot &s = S.slots[slot];
    if (s.len == 0xFF) {
        std::fill(reply.begin() + QX_SLOT_BYTE_WORD0, reply.end(), 0xFF);
        return true;
    }
    __simPutLe32(&reply[QX_SLOT_BYTE_WORD0], s.word0);
    __simPutLe32(&reply[QX_SLOT_BYTE_WORD1], s.word1);
    reply[QX_SLOT_BYTE_LEN] = s.len;
    std::memcpy(&reply[QX_SLOT_BYTE_DATA], s.data, std::min<size_t>(s.len, sizeof(s.data)));
    return true;
}

bool __simSetFlashVal(const uint8_t *req, simReport &reply)
{
    const uint8_t slot = req[QX_SLOT_BYTE_SLOT];
    const uint8_t len = req[QX_SLOT_BYTE_LEN];
    reply[QX_SLOT_BYTE_SLOT] = slot;
    if (slot >= SIM_SLOT_COUNT || len > QX_STORED_NUM_MAX) {
        reply[QX_REPORT_STATUS] = 1;
        return true;
    }
    simSlot s;
    s.word0 = __simGetLe32(&req[QX_SLOT_BYTE_WORD0]);
    s.word1 = __simGetLe32(&req[QX_SLOT_BYTE_WORD1]);
    s.len = len;
    std::memcpy(s.data, &req[QX_SLOT_BYTE_DATA], len);
    S.slots[slot] = s;
    return true;
}

// ---- Application firmware --------------------------------------------------

// A handler fills the reply (header already set) and says whether it is sent.
using simAppHandler = bool (*)(const uint8_t *req, simReport &reply);

bool __simAppEcho(const uint8_t *req, simReport &reply)
{
    std::memcpy(&reply[QX_REPORT_PAYLOAD], &req[QX_REPORT_PAYLOAD], QX_REPORT_SIZE - QX_REPORT_PAYLOAD);
    return true;
}

bool __simAppGetInfo(const uint8_t *, simReport &reply)
{
    reply[QX_REPORT_PAYLOAD] = SIM_PRODUCT_ID_APPLICATION;
    __simPutLe32(&reply[QX_REPORT_PAYLOAD + 1], simFlashIdentity());
    return true;
}

bool __simAppGotoApplication(const uint8_t *, simReport &)
{
    __simRecord(simEventKind::GOTO_APPLICATION);
    S.pendingSwitch = true;
    S.pendingMode = simMode::APPLICATION;
    return false;
}

bool __simAppGotoBootloader(const uint8_t *, simReport &)
{
    __simRecord(simEventKind::GOTO_BOOTLOADER);
    S.pendingSwitch = true;
    S.pendingMode = simMode::BOOTLOADER;
    return false;
}

bool __simAppShutdown(const uint8_t *req, simReport &reply)
{
    ++S.panel.shutdowns;
    return __simAppEcho(req, reply);
}

bool __simAppGetAllDrvStatus(const uint8_t *, simReport &reply)
{
    reply[QX_REPORT_PAYLOAD] = static_cast<uint8_t>(S.panel.drivePower);
    reply[QX_REPORT_PAYLOAD + 1] = static_cast<uint8_t>(S.panel.drivePower >> 8);
    return true;
}

bool __simAppGetOneDrvStatus(const uint8_t *req, simReport &reply)
{
    const uint8_t bay = req[QX_REPORT_PAYLOAD];
    reply[QX_REPORT_PAYLOAD] = bay;
    if (bay >= 16) {
        reply[QX_REPORT_STATUS] = 1;
        return true;
    }
    reply[QX_REPORT_PAYLOAD + 1] = (S.panel.drivePower >> bay) & 1u;
    return true;
}

bool __simAppTurnOneDrvOnOff(const uint8_t *req, simReport &reply)
{
    const uint8_t bay = req[QX_REPORT_PAYLOAD];
    const bool on = req[QX_REPORT_PAYLOAD + 1] != 0;
    reply[QX_REPORT_PAYLOAD] = bay;
    reply[QX_REPORT_PAYLOAD + 1] = on ? 1 : 0;
    if (bay >= 16) {
        reply[QX_REPORT_STATUS] = 1;
        return true;
    }
    const uint16_t bit = static_cast<uint16_t>(1u << bay);
    S.panel.drivePower = on ? (S.panel.drivePower | bit) : (S.panel.drivePower & ~bit);
    return true;
}

bool __simAppSetLeds(const uint8_t *req, simReport &reply)
{
    std::memcpy(S.panel.leds, &req[QX_REPORT_PAYLOAD], sizeof(S.panel.leds));
    std::memcpy(&reply[QX_REPORT_PAYLOAD], S.panel.leds, sizeof(S.panel.leds));
    return true;
}

bool __simAppGetFanSpeed(const uint8_t *, simReport &reply)
{
    std::memcpy(&reply[QX_REPORT_PAYLOAD], S.panel.fanSpeed, sizeof(S.panel.fanSpeed));
    return true;
}

bool __simAppSetFanSpeed(const uint8_t *req, simReport &reply)
{
    std::memcpy(S.panel.fanSpeed, &req[QX_REPORT_PAYLOAD], sizeof(S.panel.fanSpeed));
    std::memcpy(&reply[QX_REPORT_PAYLOAD], S.panel.fanSpeed, sizeof(S.panel.fanSpeed));
    return true;
}

template <bool simPanel::*flag, bool value> bool __simAppSetFlag(const uint8_t *, simReport &)
{
    S.panel.*flag = value;
    return true;
}

template <bool simPanel::*flag> bool __simAppGetFlag(const uint8_t *, simReport &reply)
{
    reply[QX_REPORT_PAYLOAD] = (S.panel.*flag) ? 1 : 0;
    return true;
}

bool __simAppButtonDown(const uint8_t *req, simReport &reply)
{
    S.panel.buttons |= static_cast<uint8_t>(1u << (req[QX_REPORT_PAYLOAD] & 7u));
    reply[QX_REPORT_PAYLOAD] = S.panel.buttons;
    return true;
}

bool __simAppButtonRelease(const uint8_t *req, simReport &reply)
{
    S.panel.buttons &= static_cast<uint8_t>(~(1u << (req[QX_REPORT_PAYLOAD] & 7u)));
    reply[QX_REPORT_PAYLOAD] = S.panel.buttons;
    return true;
}

bool __simAppAllButtonStatus(const uint8_t *, simReport &reply)
{
    reply[QX_REPORT_PAYLOAD] = S.panel.buttons;
    return true;
}

bool __simAppPushButtonStatus(const uint8_t *, simReport &reply)
{
    reply[QX_REPORT_PAYLOAD] = S.panel.pushButton;
    return true;
}

bool __simAppTrayTest(const uint8_t *req, simReport &reply)
{
    ++S.panel.trayTests;
    return __simAppEcho(req, reply);
}

bool __simAppGetBoardInfo(const uint8_t *, simReport &reply)
{
    std::memcpy(&reply[QX_REPORT_PAYLOAD], SIM_BOARD_INFO, std::strlen(SIM_BOARD_INFO));
    return true;
}

bool __simAppClrWdt(const uint8_t *, simReport &)
{
    ++S.panel.watchdogClears;
    return true;
}

constexpr std::array<simAppHandler, 64> __simAppTable()
{
    std::array<simAppHandler, 64> t{};
    for (size_t code = QX_HID_CMD_GET_INFO; code < t.size(); ++code) {
        t[code] = __simAppEcho;
    }
    t[QX_HID_CMD_GET_INFO] = __simAppGetInfo;
    t[QX_HID_CMD_GOTO_APPLICATION] = __simAppGotoApplication;
    t[QX_HID_CMD_GOTO_BOOTLOADER] = __simAppGotoBootloader;
    t[QX_HID_CMD_SHUTDOWN] = __simAppShutdown;
    t[QX_HID_CMD_GET_FLASH_VAL] = __simGetFlashVal;
    t[QX_HID_CMD_SET_FLASH_VAL] = __simSetFlashVal;
    t[QX_HID_CMD_GET_ALL_DRV_STATUS] = __simAppGetAllDrvStatus;
    t[QX_HID_CMD_GET_ONE_DRV_STATUS] = __simAppGetOneDrvStatus;
    t[QX_HID_CMD_TURN_ONE_DRV_ON_OFF] = __simAppTurnOneDrvOnOff;
    t[QX_HID_CMD_SET_LEDS] = __simAppSetLeds;
    t[QX_HID_CMD_GET_FAN_SPEED] = __simAppGetFanSpeed;
    t[QX_HID_CMD_SET_FAN_SPEED] = __simAppSetFanSpeed;
    t[QX_HID_CMD_BUZZER_ON] = __simAppSetFlag<&simPanel::buzzer, true>;
    t[QX_HID_CMD_BUZZER_OFF] = __simAppSetFlag<&simPanel::buzzer, false>;
    t[QX_HID_CMD_BUTTON_DOWN] = __simAppButtonDown;
    t[QX_HID_CMD_BUTTON_RELEASE] = __simAppButtonRelease;
    t[QX_HID_CMD_ALL_BUTTON_STATUS] = __simAppAllButtonStatus;
    t[QX_HID_CMD_PUSH_BUTTON_STATUS] = __simAppPushButtonStatus;
    t[QX_HID_CMD_STEALTH_ON] = __simAppSetFlag<&simPanel::stealth, true>;
    t[QX_HID_CMD_STEALTH_OFF] = __simAppSetFlag<&simPanel::stealth, false>;
    t[QX_HID_CMD_FIREWIRE_ON] = __simAppSetFlag<&simPanel::firewire, true>;
    t[QX_HID_CMD_FIREWIRE_OFF] = __simAppSetFlag<&simPanel::firewire, false>;
    t[QX_HID_CMD_USB3_ON] = __simAppSetFlag<&simPanel::usb3, true>;
    t[QX_HID_CMD_USB3_OFF] = __simAppSetFlag<&simPanel::usb3, false>;
    t[QX_HID_CMD_GET_STEALTH] = __simAppGetFlag<&simPanel::stealth>;
    t[QX_HID_CMD_GET_FIREWIRE_ENABLE] = __simAppGetFlag<&simPanel::firewire>;
    t[QX_HID_CMD_GET_USB3_ENABLE] = __simAppGetFlag<&simPanel::usb3>;
    t[QX_HID_CMD_TRAY_TEST] = __simAppTrayTest;
    t[QX_HID_CMD_GET_BOARD_INFO] = __simAppGetBoardInfo;
    t[QX_HID_CMD_CLR_WDT] = __simAppClrWdt;
    return t;
}

constexpr std::array<simAppHandler, 64> SIM_APP_TABLE = __simAppTable();

void __simApplicationReceive(const uint8_t *req)
{
    const uint8_t code = req[QX_REPORT_CODE];
    // The bootloader's codes and anything above 63 mean nothing here.
    if (code >= SIM_APP_TABLE.size() || SIM_APP_TABLE[code] == nullptr) {
        return;
    }
    simReport reply = __simReplyHeader(req);
    if (SIM_APP_TABLE[code](req, reply)) {
        __simQueueReply(reply);
    }
}

// ---- USB HID bootloader ----------------------------------------------------

void __simBootloaderErase()
{
    std::fill(S.flash.begin(), S.flash.end(), 0xFF);
    S.programRunOpen = false;
    __simRecord(simEventKind::ERASE, ERASE_DEVICE);
    __simBootloaderStepDone();
}

void __simBootloaderProgram(const uint8_t *packet)
{
    const uint32_t address = __simGetLe32(&packet[SIM_PROGRAM_ADDRESS]);
    const uint32_t n = packet[SIM_PROGRAM_COUNT];
    const uint64_t end = static_cast<uint64_t>(address) + n;
    const bool inRange = n > 0 && n <= SIM_PROGRAM_MAX_DATA && address >= SIM_FLASH_START &&
                         end <= static_cast<uint64_t>(SIM_FLASH_START) + SIM_FLASH_SIZE;
    const bool follows = !S.programRunOpen || address == S.programRunEnd;
    if (!inRange || !follows) {
        __simRecord(simEventKind::PROGRAM_DROPPED, PROGRAM_DEVICE, 0, 0, address, n);
    } else {
        // Flash cells only go from 1 to 0: programming over data that was not
        // erased leaves the AND of both.
        const uint8_t *data = packet + QX_REPORT_SIZE - n;
        uint8_t *cell = &S.flash[address - SIM_FLASH_START];
        for (uint32_t i = 0; i < n; ++i) {
            cell[i] &= data[i];
        }
        S.programRunOpen = true;
        S.programRunEnd = address + n;
        __simRecord(simEventKind::PROGRAM, PROGRAM_DEVICE, 0, 0, address, n);
    }
    __simBootloaderStepDone();
}

void __simBootloaderComplete()
{
    S.programRunOpen = false;
    __simRecord(simEventKind::COMPLETE, PROGRAM_COMPLETE);
    __simBootloaderStepDone();
}

void __simBootloaderReceive(const uint8_t *req)
{
    simReport reply = __simReplyHeader(req);
    switch (req[QX_REPORT_CODE]) {
    case QUERY_DEVICE:
        // Microchip's layout: packet size, family (PIC32), one program region, end mark.
        reply[1] = static_cast<uint8_t>(QX_PACKET_DATA_SIZE);
        reply[2] = 3;
        reply[3] = 1;
        __simPutLe32(&reply[4], SIM_FLASH_START);
        __simPutLe32(&reply[8], SIM_FLASH_SIZE);
        reply[12] = 0xFF;
        __simQueueReply(reply);
        break;
    case ERASE_DEVICE:
        __simBootloaderErase();
        break;
    case PROGRAM_DEVICE:
        __simBootloaderProgram(req);
        break;
    case PROGRAM_COMPLETE:
        __simBootloaderComplete();
        break;
    case RESET_DEVICE:
    case QX_HID_CMD_GOTO_APPLICATION:
        __simRecord(simEventKind::GOTO_APPLICATION);
        S.pendingSwitch = true;
        S.pendingMode = simMode::APPLICATION;
        break;
    case QX_HID_CMD_GOTO_BOOTLOADER:
        __simRecord(simEventKind::GOTO_BOOTLOADER);
        S.pendingSwitch = true;
        S.pendingMode = simMode::BOOTLOADER;
        break;
    case QX_HID_CMD_GET_INFO:
        reply[QX_REPORT_PAYLOAD] = SIM_PRODUCT_ID_BOOTLOADER;
        __simQueueReply(reply);
        break;
    case QX_HID_CMD_GET_FLASH_VAL:
        if (__simGetFlashVal(req, reply)) {
            __simQueueReply(reply);
        }
        break;
    case QX_HID_CMD_SET_FLASH_VAL:
        if (__simSetFlashVal(req, reply)) {
            __simQueueReply(reply);
        }
        break;
    default:
        break; // the bootloader knows nothing else
    }
}

// A report reaches whatever firmware runs.
void __simFirmwareReceive(const uint8_t *report)
{
    switch (S.mode) {
    case simMode::APPLICATION:
        __simApplicationReceive(report);
        break;
    case simMode::BOOTLOADER:
        __simBootloaderReceive(report);
        break;
    case simMode::DEAD:
        break;
    }
}

// ---- picdev driver ---------------------------------------------------------

int __simFail(uint32_t request, int err)
{
    __simRecord(simEventKind::IOCTL_FAILED, 0, 0, request, 0, static_cast<uint32_t>(err));
    return -err;
}

// The injected failure for this request, or 0.
int __simInjectedFault(uint32_t request)
{
    for (auto it = S.ioctlFaults.begin(); it != S.ioctlFaults.end(); ++it) {
        if (it->request != 0 && it->request != request) {
            continue;
        }
        const int err = it->err;
        if (--it->count <= 0) {
            S.ioctlFaults.erase(it);
        }
        return err;
    }
    return 0;
}

int __simDriverSend(picHidIoctlArg *arg)
{
    __simRecord(simEventKind::SEND, arg->report[QX_REPORT_CODE], arg->report[QX_REPORT_SEQ], PIC_HID_SEND_REPORT);
    __simFirmwareReceive(arg->report);
    return 0;
}

int __simDriverGetReport(picHidIoctlArg *arg)
{
    if (!S.queue.empty()) {
        simQueuedReport &next = S.queue.front();
        if (next.delayReads > 0) {
            --next.delayReads;
        } else if (S.nowUs() >= next.visibleAtUs) {
            S.lastReport = next.bytes;
            S.queue.pop_front();
        }
    }
    // With nothing new the driver hands back the last input report again.
    std::memcpy(arg->report, S.lastReport.data(), QX_REPORT_SIZE);
    __simRecord(simEventKind::GET_REPORT, S.lastReport[QX_REPORT_CODE], S.lastReport[QX_REPORT_SEQ],
                PIC_HID_GET_REPORT);
    return 0;
}

int __simDriverFileTransfer(picHidIoctlArg *arg, const simMemReader &mem)
{
    simFileTransfer t;
    t.done = true;
    t.len = arg->xferLen;
    t.checksum = SIM_FNV_BASIS;
    std::array<uint8_t, 65536> chunk;
    uint64_t offset = 0;
    t.readOk = true;
    while (offset < t.len) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(chunk.size(), t.len - offset));
        if (mem.read == nullptr || !mem.read(mem.ctx, arg->xferBuf + offset, chunk.data(), n)) {
            t.readOk = false;
            break;
        }
        if (offset == 0) {
            std::memcpy(t.head, chunk.data(), std::min(n, sizeof(t.head)));
        }
        t.checksum = __simFnv1a(t.checksum, chunk.data(), n);
        offset += n;
    }
    S.fileTransfer = t;
    __simRecord(simEventKind::FILE_TRANSFER, QX_HID_CMD_FILE_TRANSFER_TEST, arg->report[QX_REPORT_SEQ],
                PIC_HID_FILE_TRANSFER_TEST, static_cast<uint32_t>(arg->xferBuf), t.len);
    return t.readOk ? 0 : -EFAULT;
}

// PROGRAM / PROGRAM_DONE: the report names the block whose packet the driver sends.
int __simDriverPic32Program(uint32_t request, picHidIoctlArg *arg, const simMemReader &mem)
{
    __simRecord(simEventKind::DRIVER, arg->report[QX_REPORT_CODE], arg->report[QX_REPORT_SEQ], request);
    const uint64_t address = __simGetLe64(&arg->report[SIM_IO_ADDRESS]);
    simReport packet{};
    if (mem.read == nullptr || !mem.read(mem.ctx, address, packet.data(), packet.size())) {
        return __simFail(request, EFAULT);
    }
    // The driver sends whatever the block holds; only the bootloader acts on it.
    __simFirmwareReceive(packet.data());
    return 0;
}

// Set-up and availability: the driver answers in the block itself.
int __simDriverAck(uint32_t request, picHidIoctlArg *arg)
{
    const bool pic32 = request != PIC_HID_IS_URB_AVAILABLE;
    const bool isPoll = request != PIC_HID_PIC32_UPGRADE_SETUP;
    bool ack = pic32 ? (S.mode == simMode::BOOTLOADER && !S.bootloaderNoAck) : (S.mode == simMode::APPLICATION);
    if (ack && isPoll && S.driverBusyPolls > 0) {
        --S.driverBusyPolls;
        ack = false;
    }
    const uint8_t seq = arg->report[QX_REPORT_SEQ];
    if (ack) {
        arg->report[QX_REPORT_CODE] = pic32 ? PIC_HID_ACK_PIC32 : PIC_HID_ACK_URB;
        arg->report[QX_REPORT_SEQ] = static_cast<uint8_t>(seq ^ PIC_HID_ACK_SEQ_XOR);
        arg->report[QX_REPORT_STATUS] = 0;
    } else {
        // Not ready: the block keeps its code and number, with a busy status.
        arg->report[QX_REPORT_STATUS] = 1;
    }
    __simRecord(simEventKind::DRIVER, arg->report[QX_REPORT_CODE], seq, request);
    return 0;
}

bool __simIsFpgaOrCpldRequest(uint32_t request)
{
    switch (request) {
    case PIC_HID_FPGA_UPGRADE_SETUP:
    case PIC_HID_ERASE_FPGA:
    case PIC_HID_ERASE_FPGA_STATUS:
    case PIC_HID_PROGRAM_FPGA:
    case PIC_HID_PROGRAM_CLEAN_UP:
    case PIC_HID_CPLD_UPGRADE_SETUP:
    case PIC_HID_ERASE_CPLD:
    case PIC_HID_PROGRAM_CPLD:
    case PIC_HID_CPLD_UPGRADE_RUN:
        return true;
    default:
        return false;
    }
}

simHandle *__simFindHandle(int handle)
{
    for (simHandle &h : S.handles) {
        if (h.id == handle) {
            return &h;
        }
    }
    return nullptr;
}

} // namespace

// ---- Appliance state -------------------------------------------------------

void simReset()
{
    uint64_t (*clock)() = S.nowUs;
    S.mode = simMode::APPLICATION;
    S.pendingSwitch = false;
    S.pendingMode = simMode::APPLICATION;
    S.nodePresent = true;
    S.powerLost = false;
    S.generation = 0;
    S.nextHandle = 0;
    S.implicitHandle = -1;
    S.handles.clear();
    S.slots.fill(simSlot{});
    S.queue.clear();
    S.lastReport.fill(0);
    S.programRunOpen = false;
    S.programRunEnd = 0;
    S.ioctlFaults.clear();
    S.replyFault = simReplyFault::NONE;
    S.replyFaultCount = 0;
    S.replyDelayReads = 0;
    S.replyDelayUs.fill(0);
    S.slotUnreadable.fill(0);
    S.bootloaderNoAck = false;
    S.driverBusyPolls = 0;
    S.powerLossSteps = -1;
    S.panel = simPanel{};
    S.fileTransfer = simFileTransfer{};
    S.events.clear();
    S.nowUs = clock;

    // A small application of its own, recorded in slot 4 as the service records it.
    std::array<uint8_t, SIM_BUILTIN_APP_SIZE> app;
    for (size_t i = 0; i < app.size(); ++i) {
        app[i] = static_cast<uint8_t>(i * 7 + 3);
    }
    simInstallApplication(app, SIM_BUILTIN_APP_SIZE);
    simSetPlatformText(SIM_DEFAULT_PLATFORM);
}

void simSetMode(simMode mode)
{
    S.mode = mode;
    S.pendingSwitch = false;
    S.powerLost = false;
    S.programRunOpen = false;
}

simMode simGetMode()
{
    return S.mode;
}

void simSetNodePresent(bool present)
{
    if (!present && S.nodePresent) {
        __simStaleHandles();
    }
    S.nodePresent = present;
}

bool simNodePresent()
{
    return S.nodePresent;
}

void simSetPlatformText(const std::string &text)
{
    simSlot s;
    s.len = static_cast<uint8_t>(std::min(text.size(), sizeof(s.data)));
    std::memcpy(s.data, text.data(), s.len);
    S.slots[QX_SLOT_PLATFORM] = s;
}

void simSetSlot(int slot, const simSlot &value)
{
    if (slot >= 0 && slot < SIM_SLOT_COUNT) {
        S.slots[static_cast<size_t>(slot)] = value;
    }
}

simSlot simGetSlot(int slot)
{
    if (slot < 0 || slot >= SIM_SLOT_COUNT) {
        return simSlot{};
    }
    return S.slots[static_cast<size_t>(slot)];
}

std::span<uint8_t, SIM_FLASH_SIZE> simFlash()
{
    return S.flash;
}

void simInstallApplication(std::span<const uint8_t> image, uint32_t digestLen, const uint8_t (&md5)[16])
{
    std::fill(S.flash.begin(), S.flash.end(), 0xFF);
    std::copy_n(image.begin(), std::min<size_t>(image.size(), S.flash.size()), S.flash.begin());
    simSlot s;
    s.word0 = digestLen;
    s.word1 = 0;
    s.len = 16;
    std::memcpy(s.data, md5, 16);
    S.slots[QX_SLOT_FIRMWARE] = s;
}

void simInstallApplication(std::span<const uint8_t> image, uint32_t digestLen)
{
    // The service's image runs on in zero bytes past the flash range.
    std::vector<uint8_t> covered(std::min(digestLen, QX_FILE_DATA_SIZE), 0);
    std::fill_n(covered.begin(), std::min<size_t>(covered.size(), SIM_FLASH_SIZE), 0xFF);
    std::copy_n(image.begin(), std::min({image.size(), covered.size(), size_t{SIM_FLASH_SIZE}}), covered.begin());
    uint8_t md5[16] = {};
    unsigned int mdLen = 0;
    EVP_Digest(covered.data(), covered.size(), md5, &mdLen, EVP_md5(), nullptr);
    simInstallApplication(image, digestLen, md5);
}

uint32_t simFlashIdentity()
{
    return __simFnv1a(SIM_FNV_BASIS, S.flash.data(), S.flash.size());
}

const simPanel &simGetPanel()
{
    return S.panel;
}

void simSetButtons(uint8_t buttons, uint8_t pushButton)
{
    S.panel.buttons = buttons;
    S.panel.pushButton = pushButton;
}

const simFileTransfer &simLastFileTransfer()
{
    return S.fileTransfer;
}

// ---- Persistence -----------------------------------------------------------

bool simSaveState(const std::string &path)
{
    std::vector<uint8_t> out;
    out.reserve(SIM_STATE_SIZE);
    out.insert(out.end(), SIM_STATE_MAGIC, SIM_STATE_MAGIC + sizeof(SIM_STATE_MAGIC));
    uint8_t word[4];
    __simPutLe32(word, SIM_STATE_VERSION);
    out.insert(out.end(), word, word + 4);
    const uint8_t flags[8] = {static_cast<uint8_t>(S.mode), S.pendingSwitch ? uint8_t{1} : uint8_t{0},
                              static_cast<uint8_t>(S.pendingMode), S.nodePresent ? uint8_t{1} : uint8_t{0},
                              S.powerLost ? uint8_t{1} : uint8_t{0}, 0, 0, 0};
    out.insert(out.end(), flags, flags + sizeof(flags));
    for (const simSlot &s : S.slots) {
        __simPutLe32(word, s.word0);
        out.insert(out.end(), word, word + 4);
        __simPutLe32(word, s.word1);
        out.insert(out.end(), word, word + 4);
        out.push_back(s.len);
        out.insert(out.end(), s.data, s.data + sizeof(s.data));
    }
    out.insert(out.end(), S.flash.begin(), S.flash.end());
    __simPutLe32(word, __simFnv1a(SIM_FNV_BASIS, out.data(), out.size()));
    out.insert(out.end(), word, word + 4);

    // Written aside and renamed, so a crash never leaves half a state behind.
    const std::string tmp = path + ".tmp";
    {
        uniqueFd fd(::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!fd.valid()) {
            return false;
        }
        size_t done = 0;
        while (done < out.size()) {
            const ssize_t n = ::write(fd.get(), out.data() + done, out.size() - done);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                ::unlink(tmp.c_str());
                return false;
            }
            done += static_cast<size_t>(n);
        }
    }
    if (::rename(tmp.c_str(), path.c_str()) != 0) {
        ::unlink(tmp.c_str());
        return false;
    }
    return true;
}

bool simLoadState(const std::string &path)
{
    std::vector<uint8_t> in(SIM_STATE_SIZE + 1);
    size_t got = 0;
    {
        uniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!fd.valid()) {
            return false;
        }
        // One byte more than a state holds tells an overlong file apart.
        while (got < in.size()) {
            const ssize_t n = ::read(fd.get(), in.data() + got, in.size() - got);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0) {
                return false;
            }
            if (n == 0) {
                break;
            }
            got += static_cast<size_t>(n);
        }
    }
    if (got != SIM_STATE_SIZE || std::memcmp(in.data(), SIM_STATE_MAGIC, sizeof(SIM_STATE_MAGIC)) != 0 ||
        __simGetLe32(&in[8]) != SIM_STATE_VERSION ||
        __simGetLe32(&in[SIM_STATE_SIZE - 4]) != __simFnv1a(SIM_FNV_BASIS, in.data(), SIM_STATE_SIZE - 4)) {
        return false;
    }
    const uint8_t *flags = &in[12];
    const uint8_t maxMode = static_cast<uint8_t>(simMode::DEAD);
    if (flags[0] > maxMode || flags[1] > 1 || flags[2] > maxMode || flags[3] > 1 || flags[4] > 1) {
        return false;
    }
    std::array<simSlot, SIM_SLOT_COUNT> slots;
    const uint8_t *p = &in[SIM_STATE_HEADER_SIZE];
    for (simSlot &s : slots) {
        s.word0 = __simGetLe32(p);
        s.word1 = __simGetLe32(p + 4);
        s.len = p[8];
        if (s.len > sizeof(s.data) && s.len != 0xFF) {
            return false;
        }
        std::memcpy(s.data, p + 9, sizeof(s.data));
        p += SIM_STATE_SLOT_SIZE;
    }
    S.mode = static_cast<simMode>(flags[0]);
    S.pendingSwitch = flags[1] != 0;
    S.pendingMode = static_cast<simMode>(flags[2]);
    if (S.nodePresent && flags[3] == 0) {
        __simStaleHandles();
    }
    S.nodePresent = flags[3] != 0;
    S.powerLost = flags[4] != 0;
    S.slots = slots;
    std::memcpy(S.flash.data(), p, SIM_FLASH_SIZE);
    S.programRunOpen = false;
    S.queue.clear();
    return true;
}

// ---- Fault injection -------------------------------------------------------

void simFailIoctl(uint32_t request, int err, int count)
{
    if (count > 0 && err > 0) {
        S.ioctlFaults.push_back({request, err, count});
    }
}

void simSetReplyFault(simReplyFault fault, int count)
{
    S.replyFault = fault;
    S.replyFaultCount = fault == simReplyFault::NONE ? 0 : count;
}

void simSetReplyDelayReads(int reads)
{
    S.replyDelayReads = std::max(reads, 0);
}

void simSetReplyDelayUs(uint8_t code, uint64_t us)
{
    S.replyDelayUs[code] = us;
}

void simSetSlotUnreadable(int slot, int count)
{
    if (slot >= 0 && slot < SIM_SLOT_COUNT) {
        S.slotUnreadable[static_cast<size_t>(slot)] = count;
    }
}

void simSetBootloaderNoAck(bool noAck)
{
    S.bootloaderNoAck = noAck;
}

void simSetDriverBusyPolls(int count)
{
    S.driverBusyPolls = std::max(count, 0);
}

void simPowerLossAfter(int steps)
{
    S.powerLossSteps = steps;
    if (steps == 0) {
        S.powerLossSteps = -1;
        __simLosePower();
    }
}

// ---- Observation -----------------------------------------------------------

const std::vector<simEvent> &simEvents()
{
    return S.events;
}

void simClearEvents()
{
    S.events.clear();
}

// ---- Driver entry points ---------------------------------------------------

int simDriverOpenHandle()
{
    if (!S.nodePresent) {
        __simRecord(simEventKind::OPEN_FAILED, 0, 0, 0, 0, ENOENT);
        return -ENOENT;
    }
    const int id = S.nextHandle++;
    S.handles.push_back({id, S.generation});
    __simRecord(simEventKind::OPEN, 0, 0, 0, 0, static_cast<uint32_t>(id));
    return id;
}

void simDriverCloseHandle(int handle)
{
    auto it = std::find_if(S.handles.begin(), S.handles.end(), [handle](const simHandle &h) { return h.id == handle; });
    if (it == S.handles.end()) {
        return;
    }
    S.handles.erase(it);
    __simRecord(simEventKind::CLOSE, 0, 0, 0, 0, static_cast<uint32_t>(handle));
}

int simDriverIoctlHandle(int handle, uint32_t request, void *arg, const simMemReader &mem)
{
    const simHandle *h = __simFindHandle(handle);
    if (h == nullptr) {
        return __simFail(request, EBADF);
    }
    if (h->generation != S.generation || !S.nodePresent) {
        return __simFail(request, ENODEV);
    }
    if (const int err = __simInjectedFault(request); err != 0) {
        return __simFail(request, err);
    }
    auto *block = static_cast<picHidIoctlArg *>(arg);
    const bool hasBlock = _IOC_SIZE(request) == sizeof(picHidIoctlArg);
    if (hasBlock && block == nullptr) {
        return __simFail(request, EFAULT);
    }
    switch (request) {
    case PIC_HID_SEND_REPORT:
        return __simDriverSend(block);
    case PIC_HID_GET_REPORT:
        return __simDriverGetReport(block);
    case PIC_HID_FILE_TRANSFER_TEST:
        return __simDriverFileTransfer(block, mem);
    case PIC_HID_PIC32_PROGRAM:
    case PIC_HID_PIC32_PROGRAM_DONE:
        return __simDriverPic32Program(request, block, mem);
    case PIC_HID_PIC32_UPGRADE_SETUP:
    case PIC_HID_PIC32_IS_URB_AVAILABLE:
    case PIC_HID_IS_URB_AVAILABLE:
        return __simDriverAck(request, block);
    default:
        break;
    }
    if (__simIsFpgaOrCpldRequest(request)) {
        __simRecord(simEventKind::DRIVER, block != nullptr ? block->report[QX_REPORT_CODE] : 0,
                    block != nullptr ? block->report[QX_REPORT_SEQ] : 0, request);
        return 0;
    }
    return __simFail(request, EINVAL);
}

int simDriverOpen()
{
    const int handle = simDriverOpenHandle();
    if (handle < 0) {
        return handle;
    }
    if (S.implicitHandle >= 0) {
        simDriverCloseHandle(S.implicitHandle);
    }
    S.implicitHandle = handle;
    return 0;
}

void simDriverClose()
{
    if (S.implicitHandle >= 0) {
        simDriverCloseHandle(S.implicitHandle);
        S.implicitHandle = -1;
    }
}

int simDriverIoctl(uint32_t request, void *arg, const simMemReader &mem)
{
    return simDriverIoctlHandle(S.implicitHandle, request, arg, mem);
}

void simModuleUnload()
{
    __simRecord(simEventKind::RMMOD);
    S.nodePresent = false;
    S.queue.clear();
    S.lastReport.fill(0);
    __simStaleHandles();
}

void simModuleLoad()
{
    __simRecord(simEventKind::MODPROBE);
    if (S.powerLost) {
        // Power is back: the microcontroller starts in its bootloader.
        S.powerLost = false;
        S.pendingSwitch = false;
        __simSwitchMode(simMode::BOOTLOADER);
    }
    __simApplyPendingSwitch();
    S.nodePresent = true;
}

void simUsbReset()
{
    __simRecord(simEventKind::USB_RESET);
    if (S.powerLost) {
        return;
    }
    // The device re-enumerates: whatever was queued is gone, open handles die.
    __simApplyPendingSwitch();
    S.queue.clear();
    __simStaleHandles();
}

void simSetClock(uint64_t (*nowUs)())
{
    S.nowUs = nowUs != nullptr ? nowUs : __simSteadyNowUs;
}
