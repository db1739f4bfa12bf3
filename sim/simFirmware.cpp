// The PIC32 application firmware of the simulated appliance: its answers to
// the command codes, the panel it keeps, and the stored value slots that it
// shares with the bootloader (their own flash page).
#include "simModel.h"

#include "leBytes.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr uint8_t SIM_PRODUCT_ID_APPLICATION = QX_PRODUCT_ID_APPLICATION;
constexpr const char *SIM_BOARD_INFO = "SIM BOARD REV A";

auto &model = simAppliancePrivateMembers;

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
    lePut32(&reply[QX_REPORT_PAYLOAD + 1], simFlashIdentity());
    return true;
}

bool __simAppGotoApplication(const uint8_t *, simReport &)
{
    __simRecord(simEventKind::GOTO_APPLICATION);
    model.pendingSwitch = true;
    model.pendingMode = simMode::APPLICATION;
    __simBoundaryDone();
    return false;
}

bool __simAppGotoBootloader(const uint8_t *, simReport &)
{
    __simRecord(simEventKind::GOTO_BOOTLOADER);
    model.pendingSwitch = true;
    model.pendingMode = simMode::BOOTLOADER;
    __simBoundaryDone();
    return false;
}

bool __simAppShutdown(const uint8_t *req, simReport &reply)
{
    ++model.panel.shutdowns;
    return __simAppEcho(req, reply);
}

bool __simAppGetAllDrvStatus(const uint8_t *, simReport &reply)
{
    reply[QX_REPORT_PAYLOAD] = static_cast<uint8_t>(model.panel.drivePower);
    reply[QX_REPORT_PAYLOAD + 1] = static_cast<uint8_t>(model.panel.drivePower >> 8);
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
    reply[QX_REPORT_PAYLOAD + 1] = (model.panel.drivePower >> bay) & 1u;
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
    model.panel.drivePower = on ? (model.panel.drivePower | bit) : (model.panel.drivePower & ~bit);
    return true;
}

bool __simAppSetLeds(const uint8_t *req, simReport &reply)
{
    std::memcpy(model.panel.leds, &req[QX_REPORT_PAYLOAD], sizeof(model.panel.leds));
    std::memcpy(&reply[QX_REPORT_PAYLOAD], model.panel.leds, sizeof(model.panel.leds));
    return true;
}

bool __simAppGetFanSpeed(const uint8_t *, simReport &reply)
{
    std::memcpy(&reply[QX_REPORT_PAYLOAD], model.panel.fanSpeed, sizeof(model.panel.fanSpeed));
    return true;
}

bool __simAppSetFanSpeed(const uint8_t *req, simReport &reply)
{
    std::memcpy(model.panel.fanSpeed, &req[QX_REPORT_PAYLOAD], sizeof(model.panel.fanSpeed));
    std::memcpy(&reply[QX_REPORT_PAYLOAD], model.panel.fanSpeed, sizeof(model.panel.fanSpeed));
    return true;
}

template <bool simPanel::*flag, bool value> bool __simAppSetFlag(const uint8_t *, simReport &)
{
    model.panel.*flag = value;
    return true;
}

template <bool simPanel::*flag> bool __simAppGetFlag(const uint8_t *, simReport &reply)
{
    reply[QX_REPORT_PAYLOAD] = (model.panel.*flag) ? 1 : 0;
    return true;
}

bool __simAppButtonDown(const uint8_t *req, simReport &reply)
{
    model.panel.buttons |= static_cast<uint8_t>(1u << (req[QX_REPORT_PAYLOAD] & 7u));
    reply[QX_REPORT_PAYLOAD] = model.panel.buttons;
    return true;
}

bool __simAppButtonRelease(const uint8_t *req, simReport &reply)
{
    model.panel.buttons &= static_cast<uint8_t>(~(1u << (req[QX_REPORT_PAYLOAD] & 7u)));
    reply[QX_REPORT_PAYLOAD] = model.panel.buttons;
    return true;
}

bool __simAppAllButtonStatus(const uint8_t *, simReport &reply)
{
    reply[QX_REPORT_PAYLOAD] = model.panel.buttons;
    return true;
}

bool __simAppPushButtonStatus(const uint8_t *, simReport &reply)
{
    reply[QX_REPORT_PAYLOAD] = model.panel.pushButton;
    return true;
}

bool __simAppTrayTest(const uint8_t *req, simReport &reply)
{
    ++model.panel.trayTests;
    return __simAppEcho(req, reply);
}

bool __simAppGetBoardInfo(const uint8_t *, simReport &reply)
{
    std::memcpy(&reply[QX_REPORT_PAYLOAD], SIM_BOARD_INFO, std::strlen(SIM_BOARD_INFO));
    return true;
}

bool __simAppClrWdt(const uint8_t *, simReport &)
{
    ++model.panel.watchdogClears;
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
    t[QX_HID_CMD_CPLD_INFO] = __simUpgradeCpldInfo;
    t[QX_HID_CMD_TRAY_TEST] = __simAppTrayTest;
    t[QX_HID_CMD_GET_BOARD_INFO] = __simAppGetBoardInfo;
    t[QX_HID_CMD_CLR_WDT] = __simAppClrWdt;
    return t;
}

constexpr std::array<simAppHandler, 64> SIM_APP_TABLE = __simAppTable();

} // namespace

// ---- Stored value slots (their own flash page, kept by both firmwares) -----

bool __simGetFlashVal(const uint8_t *req, simReport &reply)
{
    const uint8_t slot = req[QX_SLOT_BYTE_SLOT];
    reply[QX_SLOT_BYTE_SLOT] = slot;
    if (slot >= SIM_SLOT_COUNT) {
        reply[QX_REPORT_STATUS] = 1;
        return true;
    }
    int &unreadable = model.slotUnreadable[slot];
    if (unreadable != 0) {
        if (unreadable > 0) {
            --unreadable;
        }
        return false;
    }
    const simSlot &s = model.slots[slot];
    if (s.len == 0xFF) {
        std::fill(reply.begin() + QX_SLOT_BYTE_WORD0, reply.end(), 0xFF);
        return true;
    }
    lePut32(&reply[QX_SLOT_BYTE_WORD0], s.word0);
    lePut32(&reply[QX_SLOT_BYTE_WORD1], s.word1);
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
    s.word0 = leGet32(&req[QX_SLOT_BYTE_WORD0]);
    s.word1 = leGet32(&req[QX_SLOT_BYTE_WORD1]);
    s.len = len;
    std::memcpy(s.data, &req[QX_SLOT_BYTE_DATA], len);
    model.slots[slot] = s;
    __simBoundaryDone();
    return !model.serviceStopped && __simUpgradeRecordWriteAnswered(slot);
}

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
