// Printed names of the HID command codes, padded exactly as the trace shows them.
#include "qxUsb.h"

#include <string_view>

namespace {

constexpr const char *QX_USB_UNKNOWN_NAME = "UNKNOWN_QX_HID_CMD";

constexpr std::array<const char *, 256> QX_USB_BARE_NAMES = [] {
    std::array<const char *, 256> t{};
    t[2] = "QUERY_DEVICE";
    t[3] = "UNLOCK_CONFIG";
    t[4] = "ERASE_DEVICE";
    t[5] = "PROGRAM_DEVICE";
    t[6] = "PROGRAM_COMPLETE";
    t[7] = "GET_DATA";
    t[8] = "RESET_DEVICE";
    t[9] = "QX_HID_CMD_GET_INFO";
    t[10] = "QX_HID_CMD_GOTO_APPLICATION";
    t[11] = "QX_HID_CMD_GOTO_BOOTLOADER";
    t[12] = "QX_HID_CMD_SHUTDOWN";
    t[13] = "QX_HID_CMD_GET_FLASH_VAL";
    t[14] = "QX_HID_CMD_SET_FLASH_VAL";
    t[15] = "QX_HID_CMD_BATT_BUTTON_READ";
    t[16] = "QX_HID_CMD_FAN_READ";
    t[17] = "QX_HID_CMD_FAN_RECEIVE";
    t[18] = "QX_HID_CMD_FAN_WRITE";
    t[19] = "QX_HID_CMD_GET_ALL_DRV_STATUS";
    t[20] = "QX_HID_CMD_GET_ONE_DRV_STATUS";
    t[21] = "QX_HID_CMD_TURN_ONE_DRV_ON_OFF";
    t[22] = "QX_HID_CMD_SET_XML_DAEMON_DETECT"; // has a handler, but no printed name
    t[23] = "QX_HID_CMD_GET_XML_DAEMON_DETECT";
    t[24] = "QX_HID_CMD_SET_LEDS";
    t[25] = "QX_HID_CMD_GET_FAN_SPEED";
    t[26] = "QX_HID_CMD_SET_FAN_SPEED";
    t[27] = "QX_HID_CMD_BUZZER_ON";
    t[28] = "QX_HID_CMD_BUZZER_OFF";
    t[29] = "QX_HID_CMD_RESET_MOTHER_BOARD";
    t[30] = "QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN";
    t[31] = "QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION";
    t[32] = "QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND";
    t[33] = "QX_HID_CMD_BUTTON_DOWN";
    t[34] = "QX_HID_CMD_BUTTON_RELEASE";
    t[35] = "QX_HID_CMD_ALL_BUTTON_STATUS";
    t[36] = "QX_HID_CMD_PUSH_BUTTON_STATUS";
    t[37] = "QX_HID_CMD_FILE_TRANSFER_TEST";
    t[38] = "QX_HID_CMD_IO_CMD";
    t[39] = "QX_HID_CMD_FPGA_UPGRADE";
    t[40] = "QX_HID_CMD_PLX_WRITE";
    t[41] = "QX_HID_CMD_SET_BACKLIGHT";
    t[42] = "QX_HID_CMD_STEALTH_ON";
    t[43] = "QX_HID_CMD_STEALTH_OFF";
    t[44] = "QX_HID_CMD_FIREWIRE_ON";
    t[45] = "QX_HID_CMD_FIREWIRE_OFF";
    t[46] = "QX_HID_CMD_USB3_ON";
    t[47] = "QX_HID_CMD_USB3_OFF";
    t[48] = "QX_HID_CMD_GET_STEALTH";
    t[49] = "QX_HID_CMD_GET_FIREWIRE_ENABLE";
    t[50] = "QX_HID_CMD_GET_USB3_ENABLE";
    t[51] = "QX_HID_CMD_DRIVE_INFO_PROGRAM_CONFIG";
    t[52] = "QX_HID_CMD_READ_DRIVE_INFO_CONFIG";
    t[53] = "QX_HID_CMD_DRIVE_INFO_PROGRAM_DATA";
    t[54] = "QX_HID_CMD_DRIVE_INFO_C";
    t[55] = "QX_HID_CMD_CPLD_UPGRADE";
    t[56] = "QX_HID_CMD_CPLD_INFO";
    t[57] = "QX_HID_CMD_GET_OPTION_BAY_FAN_SPEED";
    t[58] = "QX_HID_CMD_SET_OPTION_BAY_FAN_SPEED";
    t[59] = "QX_HID_CMD_TRAY_TEST";
    t[60] = "QX_HID_CMD_GET_SAS_TRAY_FAN_SPEED";
    t[61] = "QX_HID_CMD_SET_SAS_TRAY_FAN_SPEED";
    t[62] = "QX_HID_CMD_GET_BOARD_INFO";
    t[63] = "QX_HID_CMD_CLR_WDT";
    t[255] = "GET_ENCRYPTED_FF";
    return t;
}();

constexpr size_t QX_USB_NAME_MAX = 48;

struct qxUsbPaddedName {
    char text[QX_USB_NAME_MAX];
};

// Width each printed entry is padded to with blanks; 0 means unpadded.
constexpr size_t __qxUsbPadWidth(unsigned code)
{
    if (code >= 9 && code <= 15) {
        return 28;
    }
    if (code >= 16 && code <= 62) {
        return 38;
    }
    return 0;
}

constexpr std::array<qxUsbPaddedName, 256> QX_USB_PRINTED_NAMES = [] {
    std::array<qxUsbPaddedName, 256> t{};
    for (unsigned code = 0; code < 256; ++code) {
        bool printed = QX_USB_BARE_NAMES[code] != nullptr && code != QX_HID_CMD_SET_XML_DAEMON_DETECT;
        std::string_view name = printed ? QX_USB_BARE_NAMES[code] : QX_USB_UNKNOWN_NAME;
        size_t n = 0;
        for (char c : name) {
            t[code].text[n++] = c;
        }
        if (!printed) {
            continue; // codes without a printed name show the unknown text, unpadded
        }
        if (code == QX_HID_CMD_CLR_WDT) {
            for (int i = 0; i < 4; ++i) {
                t[code].text[n++] = '\t';
            }
            for (int i = 0; i < 13; ++i) {
                t[code].text[n++] = ' ';
            }
        }
        while (n < __qxUsbPadWidth(code)) {
            t[code].text[n++] = ' ';
        }
    }
    return t;
}();

static_assert(std::string_view(QX_USB_PRINTED_NAMES[38].text).size() == 38);
static_assert(std::string_view(QX_USB_PRINTED_NAMES[9].text).size() == 28);
static_assert(std::string_view(QX_USB_PRINTED_NAMES[22].text) == "UNKNOWN_QX_HID_CMD");
static_assert(std::string_view(QX_USB_PRINTED_NAMES[63].text) == "QX_HID_CMD_CLR_WDT\t\t\t\t             ");

} // namespace

const char *qxUsbCmdName(uint8_t code) { return QX_USB_PRINTED_NAMES[code].text; }

const char *qxUsbCmdBareName(uint8_t code) { return QX_USB_BARE_NAMES[code]; }
