// The simulated appliance behind the device node: the state its parts share
// (simModel.h), the calls they make into each other, and the appliance as a
// test sets it up, breaks it and watches it. The parts: the picdev driver
// (simDriver.cpp), the application firmware (simFirmware.cpp), the USB HID
// bootloader (simBootloader.cpp), the FPGA and CPLD paths (simUpgrade.cpp)
// and the saved state (simStoredState.cpp).
#include "simModel.h"

#include "leBytes.h"
#include "qxFile.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <openssl/evp.h>

namespace {

constexpr const char *SIM_DEFAULT_PLATFORM = "HW=BRISKA";
constexpr uint32_t SIM_BUILTIN_APP_SIZE = 1024;

static_assert(SIM_FLASH_START == QX_FLASH_START && SIM_FLASH_SIZE == QX_FLASH_SIZE);
static_assert(sizeof(simSlot::data) == QX_STORED_NUM_MAX);
static_assert(QX_SLOT_BYTE_DATA + QX_STORED_NUM_MAX <= QX_REPORT_SIZE);

bool __simFlashBlank()
{
    const auto &flash = simAppliancePrivateMembers.flash;
    return std::all_of(flash.begin(), flash.end(), [](uint8_t b) { return b == 0xFF; });
}

} // namespace

simApplianceMembers simAppliancePrivateMembers;

namespace {
auto &model = simAppliancePrivateMembers;
} // namespace

// ---- Shared by the parts ------------------------------------------------------

uint64_t __simSteadyNowUs()
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

uint32_t __simFnv1a(uint32_t hash, const uint8_t *p, size_t len)
{
    for (size_t i = 0; i < len; ++i) {
        hash = (hash ^ p[i]) * 16777619u;
    }
    return hash;
}

void __simRecord(simEventKind kind, uint8_t code, uint8_t seq, uint32_t request, uint32_t address, uint32_t len)
{
    simEvent e{kind};
    e.code = code;
    e.seq = seq;
    e.request = request;
    e.address = address;
    e.len = len;
    e.atUs = model.nowUs();
    model.events.push_back(e);
}

// Open handles stop working: the device or its driver went away.
void __simStaleHandles()
{
    ++model.generation;
    // Requests the driver still held never reach the device.
    model.pending.clear();
}

void __simSwitchMode(simMode mode)
{
    model.mode = mode;
    model.programRunOpen = false;
    __simRecord(simEventKind::MODE_SWITCH, static_cast<uint8_t>(mode));
}

// The microcontroller restarts: a GOTO sent earlier takes effect now.
void __simApplyPendingSwitch()
{
    if (!model.pendingSwitch || model.powerLost) {
        return;
    }
    model.pendingSwitch = false;
    simMode next = model.pendingMode;
    // A bootloader with nothing to start stays where it is.
    if (next == simMode::APPLICATION && __simFlashBlank()) {
        next = simMode::BOOTLOADER;
    }
    __simSwitchMode(next);
}

void __simLosePower()
{
    __simRecord(simEventKind::POWER_LOST);
    model.mode = simMode::DEAD;
    model.powerLost = true;
    model.pendingSwitch = false;
    model.programRunOpen = false;
    model.nodePresent = false;
    model.queue.clear();
    __simStaleHandles();
}

void __simOffBusTick()
{
    if (!model.offBus || model.nowUs() < model.offBusUntilUs) {
        return;
    }
    model.offBus = false;
    // A power-on: nothing of the old run survives but flash and the slots.
    model.powerLost = false;
    model.pendingSwitch = false;
    model.programRunOpen = false;
    model.queue.clear();
    model.lastReport.fill(0);
    model.panel = simPanel{};
    model.mode = __simFlashBlank() ? simMode::BOOTLOADER : simMode::APPLICATION;
    model.nodePresent = true;
    __simRecord(simEventKind::BACK_ON_BUS, static_cast<uint8_t>(model.mode));
}

void __simBoundaryDone()
{
    if (model.stopServiceSteps <= 0 || --model.stopServiceSteps > 0) {
        return;
    }
    model.stopServiceSteps = -1;
    model.serviceStopped = true;
    __simRecord(simEventKind::SERVICE_STOPPED);
    // The killed process's descriptors close: what the driver still held for
    // it and the replies it waited for are gone with them.
    model.queue.clear();
    if (model.stopServicePowerLoss) {
        __simLosePower();
    } else {
        __simStaleHandles();
    }
}

// ---- Replies ---------------------------------------------------------------

void __simQueueReply(simReport reply)
{
    if (model.replyFaultCount > 0) {
        --model.replyFaultCount;
        switch (model.replyFault) {
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
    model.queue.push_back({reply, model.replyDelayReads, model.nowUs() + model.replyDelayUs[reply[QX_REPORT_CODE]]});
}

simReport __simReplyHeader(const uint8_t *req)
{
    simReport reply{};
    reply[QX_REPORT_CODE] = req[QX_REPORT_CODE];
    reply[QX_REPORT_SEQ] = req[QX_REPORT_SEQ];
    reply[QX_REPORT_STATUS] = 0;
    return reply;
}

// ---- Appliance state -------------------------------------------------------

void simReset()
{
    uint64_t (*clock)() = model.nowUs;
    model.mode = simMode::APPLICATION;
    model.pendingSwitch = false;
    model.pendingMode = simMode::APPLICATION;
    model.nodePresent = true;
    model.powerLost = false;
    model.offBus = false;
    model.offBusUntilUs = 0;
    model.generation = 0;
    model.nextHandle = 0;
    model.implicitHandle = -1;
    model.handles.clear();
    model.slots.fill(simSlot{});
    model.queue.clear();
    model.lastReport.fill(0);
    model.pending.clear();
    model.programRunOpen = false;
    model.programRunEnd = 0;
    model.ioctlFaults.clear();
    model.replyFault = simReplyFault::NONE;
    model.replyFaultCount = 0;
    model.replyDelayReads = 0;
    model.replyDelayUs.fill(0);
    model.slotUnreadable.fill(0);
    model.bootloaderNoAck = false;
    model.driverBusyPolls = 0;
    model.powerLossSteps = -1;
    model.bootloaderStartsWrittenApp = false;
    model.stopServiceSteps = -1;
    model.stopServicePowerLoss = false;
    model.serviceStopped = false;
    model.panel = simPanel{};
    model.fileTransfer = simFileTransfer{};
    model.events.clear();
    model.nowUs = clock;
    __simUpgradeReset();

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
    model.mode = mode;
    model.pendingSwitch = false;
    model.powerLost = false;
    model.programRunOpen = false;
}

simMode simGetMode()
{
    return model.mode;
}

void simSetNodePresent(bool present)
{
    if (!present && model.nodePresent) {
        __simStaleHandles();
    }
    model.nodePresent = present;
}

bool simNodePresent()
{
    __simOffBusTick();
    return model.nodePresent;
}

void simDropOffBus(uint64_t forUs)
{
    __simRecord(simEventKind::OFF_BUS, 0, 0, 0, 0, static_cast<uint32_t>(forUs));
    model.offBus = true;
    model.offBusUntilUs = model.nowUs() + forUs;
    model.nodePresent = false;
    model.queue.clear();
    __simStaleHandles();
}

bool simOffBus()
{
    __simOffBusTick();
    return model.offBus;
}

void simSetPlatformText(const std::string &text)
{
    simSlot s;
    s.len = static_cast<uint8_t>(std::min(text.size(), sizeof(s.data)));
    std::memcpy(s.data, text.data(), s.len);
    model.slots[QX_SLOT_PLATFORM] = s;
}

void simSetSlot(int slot, const simSlot &value)
{
    if (slot >= 0 && slot < SIM_SLOT_COUNT) {
        model.slots[static_cast<size_t>(slot)] = value;
    }
}

simSlot simGetSlot(int slot)
{
    __simUpgradeTick(); // a CPLD run may have completed by now
    if (slot < 0 || slot >= SIM_SLOT_COUNT) {
        return simSlot{};
    }
    return model.slots[static_cast<size_t>(slot)];
}

std::span<uint8_t, SIM_FLASH_SIZE> simFlash()
{
    return model.flash;
}

void simInstallApplication(std::span<const uint8_t> image, uint32_t digestLen, const uint8_t (&md5)[16])
{
    std::fill(model.flash.begin(), model.flash.end(), 0xFF);
    std::copy_n(image.begin(), std::min<size_t>(image.size(), model.flash.size()), model.flash.begin());
    simSlot s;
    s.word0 = digestLen;
    s.word1 = 0;
    s.len = 16;
    std::memcpy(s.data, md5, 16);
    model.slots[QX_SLOT_FIRMWARE] = s;
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
    return __simFnv1a(SIM_FNV_BASIS, model.flash.data(), model.flash.size());
}

const simPanel &simGetPanel()
{
    return model.panel;
}

void simSetButtons(uint8_t buttons, uint8_t pushButton)
{
    model.panel.buttons = buttons;
    model.panel.pushButton = pushButton;
}

const simFileTransfer &simLastFileTransfer()
{
    return model.fileTransfer;
}

// ---- Fault injection -------------------------------------------------------

void simFailIoctl(uint32_t request, int err, int count, int after)
{
    if (count > 0 && err > 0) {
        model.ioctlFaults.push_back({request, err, count, std::max(after, 0)});
    }
}

void simSetReplyFault(simReplyFault fault, int count)
{
    model.replyFault = fault;
    model.replyFaultCount = fault == simReplyFault::NONE ? 0 : count;
}

void simSetReplyDelayReads(int reads)
{
    model.replyDelayReads = std::max(reads, 0);
}

void simSetReplyDelayUs(uint8_t code, uint64_t us)
{
    model.replyDelayUs[code] = us;
}

void simSetSlotUnreadable(int slot, int count)
{
    if (slot >= 0 && slot < SIM_SLOT_COUNT) {
        model.slotUnreadable[static_cast<size_t>(slot)] = count;
    }
}

void simSetBootloaderNoAck(bool noAck)
{
    model.bootloaderNoAck = noAck;
}

void simSetDriverBusyPolls(int count)
{
    model.driverBusyPolls = std::max(count, 0);
}

void simPowerLossAfter(int steps)
{
    model.powerLossSteps = steps;
    if (steps == 0) {
        model.powerLossSteps = -1;
        __simLosePower();
    }
}

void simSetBootloaderStartsWrittenApp(bool on)
{
    model.bootloaderStartsWrittenApp = on;
}

void simStopServiceAfter(int steps, bool powerLoss)
{
    model.stopServiceSteps = steps > 0 ? steps : -1;
    model.stopServicePowerLoss = powerLoss;
}

void simRestartService()
{
    model.serviceStopped = false;
    model.stopServiceSteps = -1;
}

bool simServiceStopped()
{
    return model.serviceStopped;
}

// ---- Observation -----------------------------------------------------------

const std::vector<simEvent> &simEvents()
{
    return model.events;
}

void simClearEvents()
{
    model.events.clear();
}

void simSetClock(uint64_t (*nowUs)())
{
    model.nowUs = nowUs != nullptr ? nowUs : __simSteadyNowUs;
}
