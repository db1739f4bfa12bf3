// The device link: HID report layout, command set, driver requests, and every
// exchange with the microcontroller's device node.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <linux/ioctl.h>
#include <string_view>

// ---- Report and blocks --------------------------------------------------

constexpr size_t QX_REPORT_SIZE = 64; // HID report: code, sequence, status, payload
constexpr size_t QX_BLOCK_SIZE = 69;  // command / response block: report + 5 unused bytes

using qxUsbBlock = std::array<uint8_t, QX_BLOCK_SIZE>;

constexpr size_t QX_REPORT_CODE = 0;
constexpr size_t QX_REPORT_SEQ = 1;
constexpr size_t QX_REPORT_STATUS = 2;
constexpr size_t QX_REPORT_PAYLOAD = 3;

// Ioctl argument block of the picdev driver.
struct picHidIoctlArg {
    uint8_t report[QX_REPORT_SIZE];
    int32_t param;
    uint32_t reserved68;
    uint32_t xferLen;
    uint32_t reserved76;
    uint64_t xferBuf;
};
static_assert(sizeof(picHidIoctlArg) == 88);
static_assert(offsetof(picHidIoctlArg, report) == 0);
static_assert(offsetof(picHidIoctlArg, param) == 64);
static_assert(offsetof(picHidIoctlArg, reserved68) == 68);
static_assert(offsetof(picHidIoctlArg, xferLen) == 72);
static_assert(offsetof(picHidIoctlArg, reserved76) == 76);
static_assert(offsetof(picHidIoctlArg, xferBuf) == 80);

constexpr int32_t PIC_HID_PARAM = 10;

// ---- Driver requests ('H' type, 88-byte argument) -----------------------

constexpr uint32_t PIC_HID_SEND_REPORT = 0x40584800;
constexpr uint32_t PIC_HID_GET_REPORT = 0x80584801;
constexpr uint32_t PIC_HID_FILE_TRANSFER_TEST = 0x80584803;
constexpr uint32_t PIC_HID_FPGA_UPGRADE_SETUP = 0x00004804;
constexpr uint32_t PIC_HID_ERASE_FPGA = 0x00004805;
constexpr uint32_t PIC_HID_ERASE_FPGA_STATUS = 0x00004806;
constexpr uint32_t PIC_HID_IS_URB_AVAILABLE = 0xC0584807;
constexpr uint32_t PIC_HID_PROGRAM_FPGA = 0x80584808;
constexpr uint32_t PIC_HID_PROGRAM_CLEAN_UP = 0x80584809;
constexpr uint32_t PIC_HID_PIC32_PROGRAM = 0x8058480A;
constexpr uint32_t PIC_HID_PIC32_PROGRAM_DONE = 0x8058480B;
constexpr uint32_t PIC_HID_PIC32_IS_URB_AVAILABLE = 0x8058480C;
constexpr uint32_t PIC_HID_PIC32_UPGRADE_SETUP = 0xC058480D;
constexpr uint32_t PIC_HID_CPLD_UPGRADE_SETUP = 0x0000480E;
constexpr uint32_t PIC_HID_ERASE_CPLD = 0x0000480F;
constexpr uint32_t PIC_HID_PROGRAM_CPLD = 0x80584810;
constexpr uint32_t PIC_HID_CPLD_UPGRADE_RUN = 0x00004811;

// Every number against the encoding the driver builds it with.
static_assert(PIC_HID_SEND_REPORT == _IOW('H', 0, picHidIoctlArg));
static_assert(PIC_HID_GET_REPORT == _IOR('H', 1, picHidIoctlArg));
static_assert(PIC_HID_FILE_TRANSFER_TEST == _IOR('H', 3, picHidIoctlArg));
static_assert(PIC_HID_FPGA_UPGRADE_SETUP == _IO('H', 4));
static_assert(PIC_HID_ERASE_FPGA == _IO('H', 5));
static_assert(PIC_HID_ERASE_FPGA_STATUS == _IO('H', 6));
static_assert(PIC_HID_IS_URB_AVAILABLE == _IOWR('H', 7, picHidIoctlArg));
static_assert(PIC_HID_PROGRAM_FPGA == _IOR('H', 8, picHidIoctlArg));
static_assert(PIC_HID_PROGRAM_CLEAN_UP == _IOR('H', 9, picHidIoctlArg));
static_assert(PIC_HID_PIC32_PROGRAM == _IOR('H', 10, picHidIoctlArg));
static_assert(PIC_HID_PIC32_PROGRAM_DONE == _IOR('H', 11, picHidIoctlArg));
static_assert(PIC_HID_PIC32_IS_URB_AVAILABLE == _IOR('H', 12, picHidIoctlArg));
static_assert(PIC_HID_PIC32_UPGRADE_SETUP == _IOWR('H', 13, picHidIoctlArg));
static_assert(PIC_HID_CPLD_UPGRADE_SETUP == _IO('H', 14));
static_assert(PIC_HID_ERASE_CPLD == _IO('H', 15));
static_assert(PIC_HID_PROGRAM_CPLD == _IOR('H', 16, picHidIoctlArg));
static_assert(PIC_HID_CPLD_UPGRADE_RUN == _IO('H', 17));

// Where a request's report holds an address in the caller's memory, besides
// the block's xferBuf: the packet or pages the driver reads when it sends
// them on (bytes 12-19), the file-transfer test's buffer (7-14); 0 for none.
constexpr size_t QX_REPORT_HANDOVER_ADDRESS = 12;
constexpr size_t QX_REPORT_XFER_ADDRESS = 7;
constexpr size_t qxUsbReportAddress(uint32_t request)
{
    return request == PIC_HID_PIC32_PROGRAM || request == PIC_HID_PIC32_PROGRAM_DONE ||
                   request == PIC_HID_PROGRAM_FPGA || request == PIC_HID_PROGRAM_CPLD
               ? QX_REPORT_HANDOVER_ADDRESS
           : request == PIC_HID_FILE_TRANSFER_TEST ? QX_REPORT_XFER_ADDRESS
                                                    : 0;
}

// The driver's answer to a raw request: byte 0 this code, byte 1 seq ^ 0x57, byte 2 zero.
constexpr uint8_t PIC_HID_ACK_PIC32 = 5;
constexpr uint8_t PIC_HID_ACK_URB = 39;
constexpr uint8_t PIC_HID_ACK_SEQ_XOR = 0x57;

// ---- Command codes -------------------------------------------------------

enum qxHidCmd : uint8_t {
    QUERY_DEVICE = 2,
    UNLOCK_CONFIG = 3,
    ERASE_DEVICE = 4,
    PROGRAM_DEVICE = 5,
    PROGRAM_COMPLETE = 6,
    GET_DATA = 7,
    RESET_DEVICE = 8,
    QX_HID_CMD_GET_INFO = 9,
    QX_HID_CMD_GOTO_APPLICATION = 10,
    QX_HID_CMD_GOTO_BOOTLOADER = 11,
    QX_HID_CMD_SHUTDOWN = 12,
    QX_HID_CMD_GET_FLASH_VAL = 13,
    QX_HID_CMD_SET_FLASH_VAL = 14,
    QX_HID_CMD_BATT_BUTTON_READ = 15,
    QX_HID_CMD_FAN_READ = 16,
    QX_HID_CMD_FAN_RECEIVE = 17,
    QX_HID_CMD_FAN_WRITE = 18,
    QX_HID_CMD_GET_ALL_DRV_STATUS = 19,
    QX_HID_CMD_GET_ONE_DRV_STATUS = 20,
    QX_HID_CMD_TURN_ONE_DRV_ON_OFF = 21,
    QX_HID_CMD_SET_XML_DAEMON_DETECT = 22,
    QX_HID_CMD_GET_XML_DAEMON_DETECT = 23,
    QX_HID_CMD_SET_LEDS = 24,
    QX_HID_CMD_GET_FAN_SPEED = 25,
    QX_HID_CMD_SET_FAN_SPEED = 26,
    QX_HID_CMD_BUZZER_ON = 27,
    QX_HID_CMD_BUZZER_OFF = 28,
    QX_HID_CMD_RESET_MOTHER_BOARD = 29,
    QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN = 30,
    QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION = 31,
    QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND = 32,
    QX_HID_CMD_BUTTON_DOWN = 33,
    QX_HID_CMD_BUTTON_RELEASE = 34,
    QX_HID_CMD_ALL_BUTTON_STATUS = 35,
    QX_HID_CMD_PUSH_BUTTON_STATUS = 36,
    QX_HID_CMD_FILE_TRANSFER_TEST = 37,
    QX_HID_CMD_IO_CMD = 38,
    QX_HID_CMD_FPGA_UPGRADE = 39,
    QX_HID_CMD_PLX_WRITE = 40,
    QX_HID_CMD_SET_BACKLIGHT = 41,
    QX_HID_CMD_STEALTH_ON = 42,
    QX_HID_CMD_STEALTH_OFF = 43,
    QX_HID_CMD_FIREWIRE_ON = 44,
    QX_HID_CMD_FIREWIRE_OFF = 45,
    QX_HID_CMD_USB3_ON = 46,
    QX_HID_CMD_USB3_OFF = 47,
    QX_HID_CMD_GET_STEALTH = 48,
    QX_HID_CMD_GET_FIREWIRE_ENABLE = 49,
    QX_HID_CMD_GET_USB3_ENABLE = 50,
    QX_HID_CMD_DRIVE_INFO_PROGRAM_CONFIG = 51,
    QX_HID_CMD_READ_DRIVE_INFO_CONFIG = 52,
    QX_HID_CMD_DRIVE_INFO_PROGRAM_DATA = 53,
    QX_HID_CMD_DRIVE_INFO_C = 54,
    QX_HID_CMD_CPLD_UPGRADE = 55,
    QX_HID_CMD_CPLD_INFO = 56,
    QX_HID_CMD_GET_OPTION_BAY_FAN_SPEED = 57,
    QX_HID_CMD_SET_OPTION_BAY_FAN_SPEED = 58,
    QX_HID_CMD_TRAY_TEST = 59,
    QX_HID_CMD_GET_SAS_TRAY_FAN_SPEED = 60,
    QX_HID_CMD_SET_SAS_TRAY_FAN_SPEED = 61,
    QX_HID_CMD_GET_BOARD_INFO = 62,
    QX_HID_CMD_CLR_WDT = 63,
    GET_ENCRYPTED_FF = 255,
};

// The printed name of a code, trailing blanks included, as the trace shows it.
const char *qxUsbCmdName(uint8_t code);

// The command's own name without padding (code 22 included), for clients;
// nullptr for codes that have none.
const char *qxUsbCmdBareName(uint8_t code);

// ---- Link operations -----------------------------------------------------

int32_t qxUsbInit();
void qxUsbCleanUp();
int32_t qxUsbCmd(const uint8_t *report);
int32_t qxUsbGetReport(uint8_t *report);
int32_t qxUsbRawIoctCmd(picHidIoctlArg *block);
uint8_t qxUsbGetNextSeqNumber();
void resetUsb();
// Called at the request boundary: a closed link tries to open the node again
// (qxUsbInit), at once when the node has appeared since the last try, else at
// most once a second of service time. 0 when the link is open afterwards.
int32_t qxUsbHeal();

// Read-only view of the link state, for diagnostics and tests.
struct qxUsbState {
    int32_t fd;
    uint8_t seqNum;
    uint32_t errCnt;
};
qxUsbState qxUsbGetState();

// ---- Device node ----------------------------------------------------------

inline constexpr char QX_USB_DEVICE_NAME[] = "corvanta_hid_backdoor";

// "/dev/" and the name joined at compile time: the path is never spelled out a second time.
inline constexpr auto QX_USB_DEVICE_PATH_TEXT = [] {
    constexpr std::string_view dir = "/dev/", name = QX_USB_DEVICE_NAME;
    std::array<char, dir.size() + name.size() + 1> path{};
    std::copy(dir.begin(), dir.end(), path.begin());
    std::copy(name.begin(), name.end(), path.begin() + dir.size());
    return path;
}();
inline constexpr const char *QX_USB_DEVICE_PATH = QX_USB_DEVICE_PATH_TEXT.data();
constexpr uint16_t QX_USB_VENDOR_ID = 0x04D8;
constexpr uint16_t QX_USB_PRODUCT_ID = 0x003C;
