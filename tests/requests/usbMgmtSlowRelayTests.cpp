// Shutdown and tray test (the slow relays), the file-transfer test, and the
// CPLD handler's second attempt, on the in-process simulated appliance.
#include "leBytes.h"
#include "main.h"
#include "simFixture.h"
#include "simUpgrade.h"
#include "usbMgmt.h"

#include <cstring>

namespace {

constexpr uint64_t S = 1000000;
constexpr uint64_t MS = 1000;

class usbMgmtSlowTest : public simLinkTest {
protected:
    int32_t request(uint8_t code)
    {
        cmd.fill(0);
        cmd[QX_REPORT_CODE] = code;
        resp.fill(0xEE);
        return usbMgmtCmd(cmd, resp);
    }
    qxUsbBlock cmd{};
    qxUsbBlock resp{};
};

TEST_F(usbMgmtSlowTest, slowRelaysWait2sThenReadUpTo22Or31Times)
{
    struct {
        uint8_t code;
        simReplyFault fault;
        uint64_t replyDelayUs;
        int32_t rc;
        size_t furtherReads;
        uint64_t pauseUs;
    } cases[] = {
        {QX_HID_CMD_SHUTDOWN, simReplyFault::NONE, 0, 0, 0, 0},
        {QX_HID_CMD_SHUTDOWN, simReplyFault::NONE, 3 * S, 0, 2, 500 * MS},
        {QX_HID_CMD_SHUTDOWN, simReplyFault::WRONG_SEQ, 0, 0, 21, 500 * MS},
        {QX_HID_CMD_SHUTDOWN, simReplyFault::WRONG_CODE_SEQ, 0, 1, 21, 500 * MS},
        {QX_HID_CMD_TRAY_TEST, simReplyFault::WRONG_SEQ, 0, 0, 30, 200 * MS},
        {QX_HID_CMD_TRAY_TEST, simReplyFault::WRONG_CODE_SEQ, 0, 1, 30, 200 * MS},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.code) + " fault " + std::to_string(int(c.fault)) + " delay "
                     + std::to_string(c.replyDelayUs));
        simSetReplyFault(c.fault, 1);
        simSetReplyDelayUs(c.code, c.replyDelayUs);
        forget();
        EXPECT_EQ(request(c.code), c.rc);
        std::vector<uint64_t> waits(c.furtherReads, c.pauseUs);
        waits.insert(waits.begin(), 2 * S);
        EXPECT_EQ(simSleeps(), waits);
        EXPECT_EQ(resp[QX_REPORT_SEQ] == cmd[QX_REPORT_SEQ], c.fault == simReplyFault::NONE);
        EXPECT_THAT(leveled("usbMgmt"), IsEmpty());
    }
    simSetReplyDelayUs(QX_HID_CMD_SHUTDOWN, 0);
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    forget();
    EXPECT_EQ(request(QX_HID_CMD_SHUTDOWN), -1);
    EXPECT_TRUE(allAre(resp, 0xEE));
    EXPECT_THAT(leveled("usbMgmt"), ElementsAre("0 QX_TRACE_USB-***usb cmd failed***"));
}

TEST_F(usbMgmtSlowTest, fileTransferCapsTheLengthAt8MiBAndHandsTheTestBufferByAddress)
{
    uint32_t fnv = 2166136261u;
    for (size_t i = 0; i < 0x800000; ++i) {
        fnv = (fnv ^ __testingTmmmmpBuf[i]) * 16777619u;
    }
    for (auto [asked, sentLen] : {std::pair{0x900000u, 0x800000u}, std::pair{0x800000u, 0x800000u},
                                  std::pair{0x1000u, 0x1000u}}) {
        SCOPED_TRACE(asked);
        cmd.fill(0);
        cmd[QX_REPORT_CODE] = QX_HID_CMD_FILE_TRANSFER_TEST;
        lePut32(&cmd[3], asked);
        resp.fill(0xEE);
        EXPECT_EQ(usbMgmtCmd(cmd, resp), 0);
        EXPECT_EQ(leGet32(&cmd[3]), sentLen);
        EXPECT_EQ(leGet64(&cmd[7]), reinterpret_cast<uintptr_t>(__testingTmmmmpBuf));
        EXPECT_TRUE(allAre(resp, 0xEE));
        EXPECT_TRUE(simLastFileTransfer().readOk);
        EXPECT_EQ(simLastFileTransfer().len, sentLen);
        if (sentLen == 0x800000) {
            EXPECT_EQ(simLastFileTransfer().checksum, fnv);
        }
    }
    simFailIoctl(PIC_HID_FILE_TRANSFER_TEST, EIO, 1);
    forget();
    EXPECT_EQ(usbMgmtCmd(cmd, resp), -1);
    EXPECT_EQ(leveled("usbMgmt"), std::vector<std::string>{"0 QX_TRACE_USB-netUsbFuncFileTransfer: usb cmd failed!"});
}

TEST_F(usbMgmtSlowTest, cpldUpgradeRunsASecondAttempt1sAfterAFailedFirst)
{
    const std::string missing = "/nonexistent/cpld.jbc";
    cmd.fill(0);
    cmd[QX_REPORT_CODE] = QX_HID_CMD_CPLD_UPGRADE;
    std::memcpy(&cmd[3], missing.c_str(), missing.size() + 1);
    EXPECT_EQ(usbMgmtCmd(cmd, resp), -1);
    EXPECT_THAT(simSleeps(), ElementsAre(1 * S));
    EXPECT_EQ(log.count("QX_TRACE_FILE-error finding file: " + missing), 2u);

    const std::string path = std::string(TARNHOLD_TESTDATA) + "/jbc/PIXEL8x4.jbc";
    std::memcpy(&cmd[3], path.c_str(), path.size() + 1);
    simSetUpgradeFault(simUpgradeFault::READBACK_OTHER_CRC, 1);
    forget();
    EXPECT_EQ(usbMgmtCmd(cmd, resp), 0);
    // First attempt: clear, write, read-back, clear again; the pause; then a whole attempt.
    EXPECT_THAT(simSleeps(), ElementsAre(1 * S, 1 * S, 2 * S, 1 * S, 1 * S, 1 * S, 1 * S, 2 * S, 20 * S, 2 * S));
    EXPECT_EQ(simGetSlot(9).word0, 43273u | 0x1D3Cu << 16);
}

TEST_F(usbMgmtSlowTest, fanCodesStillAnswer8WithoutALine)
{
    for (uint8_t code : {QX_HID_CMD_GET_OPTION_BAY_FAN_SPEED, QX_HID_CMD_SET_OPTION_BAY_FAN_SPEED}) {
        EXPECT_EQ(request(code), USB_MGMT_UNKNOWN_FUNCTION);
    }
    EXPECT_THAT(leveled(), IsEmpty());
    EXPECT_THAT(simEvents(), IsEmpty());
}

} // namespace
