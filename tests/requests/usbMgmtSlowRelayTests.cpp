// Shutdown and tray test (the slow relays), the file-transfer test, and the
// CPLD handler's second attempt, on the in-process simulated appliance.
#include "../fpga/upgradeFixture.h"
#include "main.h"

namespace {

using usbMgmtSlowTest = upgradeTest;

TEST_F(usbMgmtSlowTest, slowRelaysWait2sThenReadUpTo21Or30TimesMore)
{
    const struct {
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
        simSetReplyFault(c.fault, 1);
        simSetReplyDelayUs(c.code, c.replyDelayUs);
        forget();
        qxUsbBlock cmd = cmdFor(c.code, "");
        EXPECT_EQ(usbMgmtCmd(cmd, resp), c.rc) << int(c.code) << " " << int(c.fault);
        EXPECT_EQ(simSleeps(), repeat({2 * S}, {c.pauseUs}, c.furtherReads)) << int(c.code) << " " << int(c.fault);
        EXPECT_THAT(leveled("usbMgmt"), IsEmpty());
    }
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    qxUsbBlock cmd = cmdFor(QX_HID_CMD_SHUTDOWN, "");
    resp.fill(0xEE);
    EXPECT_EQ(usbMgmtCmd(cmd, resp), -1);
    EXPECT_TRUE(allAre(resp, 0xEE));
    EXPECT_THAT(leveled("usbMgmt"), ElementsAre("0 QX_TRACE_USB-***usb cmd failed***"));
}

TEST_F(usbMgmtSlowTest, fileTransferCapsTheLengthAt8MiBAndHandsTheTestBufferByAddress)
{
    uint32_t fnv = 2166136261u; // the driver's checksum of what it read
    for (size_t i = 0; i < 0x800000; ++i) {
        fnv = (fnv ^ __testingTmmmmpBuf[i]) * 16777619u;
    }
    const std::pair<uint32_t, uint32_t> lengths[] = {{0x900000, 0x800000}, {0x800000, 0x800000}, {4096, 4096}};
    for (auto [asked, len] : lengths) {
        qxUsbBlock cmd = cmdFor(QX_HID_CMD_FILE_TRANSFER_TEST, "");
        lePut32(&cmd[3], asked);
        resp.fill(0xEE);
        EXPECT_EQ(usbMgmtCmd(cmd, resp), 0);
        EXPECT_TRUE(allAre(resp, 0xEE));
        const report64 sentReport = reports(PIC_HID_FILE_TRANSFER_TEST, QX_HID_CMD_FILE_TRANSFER_TEST).back();
        EXPECT_EQ(leGet32(&sentReport[3]), len);
        EXPECT_EQ(leGet64(&sentReport[7]), reinterpret_cast<uintptr_t>(__testingTmmmmpBuf));
        EXPECT_TRUE(simLastFileTransfer().readOk && simLastFileTransfer().len == len);
        EXPECT_TRUE(len != 0x800000 || simLastFileTransfer().checksum == fnv);
    }
    simFailIoctl(PIC_HID_FILE_TRANSFER_TEST, EIO, 1);
    qxUsbBlock cmd = cmdFor(QX_HID_CMD_FILE_TRANSFER_TEST, "");
    EXPECT_EQ(usbMgmtCmd(cmd, resp), -1);
    EXPECT_THAT(leveled("usbMgmt"), ElementsAre("0 QX_TRACE_USB-netUsbFuncFileTransfer: usb cmd failed!"));
}

TEST_F(usbMgmtSlowTest, cpldUpgradeRunsASecondAttempt1sAfterAFailedFirst)
{
    qxUsbBlock cmd = cmdFor(QX_HID_CMD_CPLD_UPGRADE, "/nonexistent/cpld.jbc");
    EXPECT_EQ(usbMgmtCmd(cmd, resp), -1);
    EXPECT_THAT(simSleeps(), ElementsAre(1 * S));
    EXPECT_EQ(log.count("QX_TRACE_FILE-error finding file: /nonexistent/cpld.jbc"), 2u);

    cmd = cmdFor(QX_HID_CMD_CPLD_UPGRADE, std::string(TARNHOLD_TESTDATA) + "/jbc/PIXEL8x4.jbc");
    simSetUpgradeFault(simUpgradeFault::READBACK_OTHER_CRC, 1);
    forget();
    EXPECT_EQ(usbMgmtCmd(cmd, resp), 0);
    // Clear, write, read-back, clear again; the pause; then a whole attempt.
    EXPECT_THAT(simSleeps(), ElementsAre(1 * S, 1 * S, 2 * S, 1 * S, 1 * S, 1 * S, 1 * S, 2 * S, 20 * S, 2 * S));
    EXPECT_EQ(simGetSlot(9).word0, 43273u | 0x1D3Cu << 16);
}

} // namespace
