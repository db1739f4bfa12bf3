// The printed command names, exactly as the trace shows them.
#include "qxUsb.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>

namespace {

// The names as the appliance's command list gives them, without padding.
const std::map<int, std::string> &namedCodes()
{
    static const std::map<int, std::string> names = {
        {2, "QUERY_DEVICE"},
        {3, "UNLOCK_CONFIG"},
        {4, "ERASE_DEVICE"},
        {5, "PROGRAM_DEVICE"},
        {6, "PROGRAM_COMPLETE"},
        {7, "GET_DATA"},
        {8, "RESET_DEVICE"},
        {9, "QX_HID_CMD_GET_INFO"},
        {10, "QX_HID_CMD_GOTO_APPLICATION"},
        {11, "QX_HID_CMD_GOTO_BOOTLOADER"},
        {12, "QX_HID_CMD_SHUTDOWN"},
        {13, "QX_HID_CMD_GET_FLASH_VAL"},
        {14, "QX_HID_CMD_SET_FLASH_VAL"},
        {15, "QX_HID_CMD_BATT_BUTTON_READ"},
        {16, "QX_HID_CMD_FAN_READ"},
        {17, "QX_HID_CMD_FAN_RECEIVE"},
        {18, "QX_HID_CMD_FAN_WRITE"},
        {19, "QX_HID_CMD_GET_ALL_DRV_STATUS"},
        {20, "QX_HID_CMD_GET_ONE_DRV_STATUS"},
        {21, "QX_HID_CMD_TURN_ONE_DRV_ON_OFF"},
        {23, "QX_HID_CMD_GET_XML_DAEMON_DETECT"},
        {24, "QX_HID_CMD_SET_LEDS"},
        {25, "QX_HID_CMD_GET_FAN_SPEED"},
        {26, "QX_HID_CMD_SET_FAN_SPEED"},
        {27, "QX_HID_CMD_BUZZER_ON"},
        {28, "QX_HID_CMD_BUZZER_OFF"},
        {29, "QX_HID_CMD_RESET_MOTHER_BOARD"},
        {30, "QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN"},
        {31, "QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION"},
        {32, "QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND"},
        {33, "QX_HID_CMD_BUTTON_DOWN"},
        {34, "QX_HID_CMD_BUTTON_RELEASE"},
        {35, "QX_HID_CMD_ALL_BUTTON_STATUS"},
        {36, "QX_HID_CMD_PUSH_BUTTON_STATUS"},
        {37, "QX_HID_CMD_FILE_TRANSFER_TEST"},
        {38, "QX_HID_CMD_IO_CMD"},
        {39, "QX_HID_CMD_FPGA_UPGRADE"},
        {40, "QX_HID_CMD_PLX_WRITE"},
        {41, "QX_HID_CMD_SET_BACKLIGHT"},
        {42, "QX_HID_CMD_STEALTH_ON"},
        {43, "QX_HID_CMD_STEALTH_OFF"},
        {44, "QX_HID_CMD_FIREWIRE_ON"},
        {45, "QX_HID_CMD_FIREWIRE_OFF"},
        {46, "QX_HID_CMD_USB3_ON"},
        {47, "QX_HID_CMD_USB3_OFF"},
        {48, "QX_HID_CMD_GET_STEALTH"},
        {49, "QX_HID_CMD_GET_FIREWIRE_ENABLE"},
        {50, "QX_HID_CMD_GET_USB3_ENABLE"},
        {51, "QX_HID_CMD_DRIVE_INFO_PROGRAM_CONFIG"},
        {52, "QX_HID_CMD_READ_DRIVE_INFO_CONFIG"},
        {53, "QX_HID_CMD_DRIVE_INFO_PROGRAM_DATA"},
        {54, "QX_HID_CMD_DRIVE_INFO_C"},
        {55, "QX_HID_CMD_CPLD_UPGRADE"},
        {56, "QX_HID_CMD_CPLD_INFO"},
        {57, "QX_HID_CMD_GET_OPTION_BAY_FAN_SPEED"},
        {58, "QX_HID_CMD_SET_OPTION_BAY_FAN_SPEED"},
        {59, "QX_HID_CMD_TRAY_TEST"},
        {60, "QX_HID_CMD_GET_SAS_TRAY_FAN_SPEED"},
        {61, "QX_HID_CMD_SET_SAS_TRAY_FAN_SPEED"},
        {62, "QX_HID_CMD_GET_BOARD_INFO"},
        {255, "GET_ENCRYPTED_FF"},
    };
    return names;
}

TEST(qxUsbNamesTest, EveryCodePrintsItsNamePaddedOrTheUnknownText)
{
    for (int code = 0; code < 256; ++code) {
        const std::string printed = qxUsbCmdName(static_cast<uint8_t>(code));
        auto it = namedCodes().find(code);
        if (code == QX_HID_CMD_CLR_WDT) {
            continue; // its own padding, below
        }
        if (it == namedCodes().end()) {
            EXPECT_EQ(printed, "UNKNOWN_QX_HID_CMD") << "code " << code;
            continue;
        }
        std::string expected = it->second;
        const size_t width = code >= 9 && code <= 15 ? 28 : code >= 16 && code <= 62 ? 38 : 0;
        if (expected.size() < width) {
            expected.append(width - expected.size(), ' ');
        }
        EXPECT_EQ(printed, expected) << "code " << code;
    }
}

TEST(qxUsbNamesTest, OddEntriesPrintAsTheTraceShowsThem)
{
    // Code 22 has a handler but no printed name.
    EXPECT_STREQ(qxUsbCmdName(QX_HID_CMD_SET_XML_DAEMON_DETECT), "UNKNOWN_QX_HID_CMD");
    EXPECT_STREQ(qxUsbCmdName(0), "UNKNOWN_QX_HID_CMD");
    EXPECT_STREQ(qxUsbCmdName(1), "UNKNOWN_QX_HID_CMD");
    EXPECT_STREQ(qxUsbCmdName(64), "UNKNOWN_QX_HID_CMD");
    EXPECT_STREQ(qxUsbCmdName(254), "UNKNOWN_QX_HID_CMD");

    EXPECT_EQ(std::strlen(qxUsbCmdName(QX_HID_CMD_IO_CMD)), 38u);
    EXPECT_STREQ(qxUsbCmdName(QX_HID_CMD_IO_CMD), "QX_HID_CMD_IO_CMD                     ");
    EXPECT_STREQ(qxUsbCmdName(QX_HID_CMD_CLR_WDT), "QX_HID_CMD_CLR_WDT\t\t\t\t             ");
    EXPECT_STREQ(qxUsbCmdName(QUERY_DEVICE), "QUERY_DEVICE");
    EXPECT_STREQ(qxUsbCmdName(GET_ENCRYPTED_FF), "GET_ENCRYPTED_FF");

    // Clients still get the bare name of code 22.
    EXPECT_STREQ(qxUsbCmdBareName(QX_HID_CMD_SET_XML_DAEMON_DETECT), "QX_HID_CMD_SET_XML_DAEMON_DETECT");
    EXPECT_EQ(qxUsbCmdBareName(64), nullptr);
}

} // namespace
