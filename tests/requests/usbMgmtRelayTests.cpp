// The dispatcher and the relays against the simulated appliance: which
// handler a code reaches, the relay's waits, its matching rules and results.
#include "logCapture.h"
#include "simAppliance.h"
#include "simInProcess.h"
#include "sysSeam.h"
#include "usbMgmt.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr std::array<uint64_t, 7> RELAY_WAITS = {2000, 500, 1000, 2000, 4000, 8000, 16000};

void putLe32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

size_t countEvents(simEventKind kind)
{
    size_t n = 0;
    for (const simEvent &e : simEvents()) {
        n += e.kind == kind ? 1 : 0;
    }
    return n;
}

std::vector<uint64_t> waitsPrefix(size_t n)
{
    return {RELAY_WAITS.begin(), RELAY_WAITS.begin() + static_cast<std::ptrdiff_t>(n)};
}

// Fails the n-th report read from now on with EIO; everything else reaches the model.
platformSysOps simOps;
int getReportsLeft = 0;

int failNthGetReport(int fd, unsigned long request, void *arg)
{
    if (request == PIC_HID_GET_REPORT && --getReportsLeft == 0) {
        errno = EIO;
        return -1;
    }
    return simOps.ioctl(fd, request, arg);
}

class usbMgmtRelayTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        simInProcessInstall();
        ASSERT_EQ(qxUsbInit(), 0);
        // Keep 0 away from the tests that do not ask for it: a zero report would match it.
        if (qxUsbGetState().seqNum >= 250) {
            while (qxUsbGetState().seqNum != 0) {
                qxUsbGetNextSeqNumber();
            }
        }
        simClearEvents();
        simClearSleeps();
        log.clear();
        cmd.fill(0);
        resp.fill(0xEE);
    }
    void TearDown() override
    {
        qxUsbCleanUp();
        simInProcessUninstall();
    }

    uint8_t nextSeq() const { return static_cast<uint8_t>(qxUsbGetState().seqNum + 1); }

    logCapture log;
    qxUsbBlock cmd{};
    qxUsbBlock resp{};
};

TEST_F(usbMgmtRelayTest, MatchingReplyOnFirstReadAfterOneWait)
{
    cmd[QX_REPORT_CODE] = QX_HID_CMD_SET_LEDS;
    cmd[QX_REPORT_SEQ] = 0x77; // the client's number is replaced
    for (size_t i = 3; i < 11; ++i) {
        cmd[i] = static_cast<uint8_t>(0x30 + i);
    }
    cmd[40] = 0x5A;
    cmd[66] = 0x66;
    qxUsbBlock sent = cmd;
    const uint8_t seq = nextSeq();

    EXPECT_EQ(usbMgmtCmd(cmd, resp), 0);
    sent[QX_REPORT_SEQ] = seq;
    EXPECT_EQ(cmd, sent);
    EXPECT_THAT(simSleeps(), ElementsAre(2000u));
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_EQ(resp[QX_REPORT_CODE], QX_HID_CMD_SET_LEDS);
    EXPECT_EQ(resp[QX_REPORT_SEQ], seq);
    EXPECT_EQ(resp[QX_REPORT_STATUS], 0);
    for (size_t i = 3; i < 11; ++i) {
        EXPECT_EQ(resp[i], cmd[i]) << i;
    }
    for (size_t i = 11; i < QX_BLOCK_SIZE; ++i) {
        EXPECT_EQ(resp[i], 0) << i;
    }
    ASSERT_EQ(simEvents().size(), 2u);
    EXPECT_EQ(simEvents()[0].kind, simEventKind::SEND);
    EXPECT_EQ(simEvents()[0].seq, seq);
    EXPECT_EQ(simEvents()[1].kind, simEventKind::GET_REPORT);
}

TEST_F(usbMgmtRelayTest, LateReplyIsFoundOnTheBackOffReads)
{
    // Two reads fail, the third returns the old report; the reply shows on the fourth.
    simSetReplyDelayReads(1);
    simFailIoctl(PIC_HID_GET_REPORT, EIO, 2);
    cmd[QX_REPORT_CODE] = QX_HID_CMD_GET_FAN_SPEED;
    const uint8_t seq = nextSeq();
    EXPECT_EQ(usbMgmtCmd(cmd, resp), 0);
    EXPECT_EQ(simSleeps(), waitsPrefix(4));
    EXPECT_EQ(resp[QX_REPORT_CODE], QX_HID_CMD_GET_FAN_SPEED);
    EXPECT_EQ(resp[QX_REPORT_SEQ], seq);
    // Only the link's lines for the failed reads.
    EXPECT_THAT(log.texts(), ElementsAre("qxUsbGetReport: ioctl(PIC_HID_GET_REPORT) failed - 'Input/output error'",
                                         "qxUsbGetReport: ioctl(PIC_HID_GET_REPORT) failed - 'Input/output error'"));
}

TEST_F(usbMgmtRelayTest, SameCommandUnderAnotherNumberIsAcceptedAfterAllReads)
{
    simSetReplyFault(simReplyFault::WRONG_SEQ, 1);
    cmd[QX_REPORT_CODE] = QX_HID_CMD_GET_STEALTH;
    const uint8_t seq = nextSeq();
    EXPECT_EQ(usbMgmtCmd(cmd, resp), 0);
    EXPECT_EQ(simSleeps(), waitsPrefix(7));
    EXPECT_EQ(countEvents(simEventKind::GET_REPORT), 7u);
    EXPECT_EQ(resp[QX_REPORT_CODE], QX_HID_CMD_GET_STEALTH);
    EXPECT_EQ(resp[QX_REPORT_SEQ], static_cast<uint8_t>(seq ^ 0x80));
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(usbMgmtRelayTest, AnotherCommandAndNumberGivesBadSequence)
{
    simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 1);
    cmd[QX_REPORT_CODE] = QX_HID_CMD_GET_STEALTH;
    const uint8_t seq = nextSeq();
    EXPECT_EQ(usbMgmtCmd(cmd, resp), 1);
    EXPECT_EQ(simSleeps(), waitsPrefix(7));
    EXPECT_EQ(resp[QX_REPORT_CODE], QX_HID_CMD_GET_STEALTH ^ 0x80);
    EXPECT_EQ(resp[QX_REPORT_SEQ], static_cast<uint8_t>(seq ^ 0x80));
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, 0);
    EXPECT_EQ(log.lines()[0].source, "usbMgmt");
    EXPECT_EQ(log.lines()[0].text, "QX_TRACE_USB-*** usb cmd failed: Bad Sequence Number ***");

    // No reply at all: the reads return the zero report, which answers nothing.
    log.clear();
    simClearSleeps();
    simSetReplyFault(simReplyFault::NO_REPLY, 1);
    simModuleUnload(); // forget the last report
    simModuleLoad();
    qxUsbCleanUp();
    ASSERT_EQ(qxUsbInit(), 0);
    log.clear();
    EXPECT_EQ(usbMgmtCmd(cmd, resp), 1);
    EXPECT_EQ(simSleeps(), waitsPrefix(7));
    EXPECT_TRUE(log.contains("QX_TRACE_USB-*** usb cmd failed: Bad Sequence Number ***"));
    for (uint8_t b : resp) {
        EXPECT_EQ(b, 0);
    }
}

TEST_F(usbMgmtRelayTest, FailedLastReadIsTheResult)
{
    simOps = platformSys;
    platformSys.ioctl = failNthGetReport;
    getReportsLeft = 7;
    simSetReplyFault(simReplyFault::NO_REPLY, 1);
    cmd[QX_REPORT_CODE] = QX_HID_CMD_GET_USB3_ENABLE;
    EXPECT_EQ(usbMgmtCmd(cmd, resp), -1);
    EXPECT_EQ(simSleeps(), waitsPrefix(7));
    EXPECT_THAT(log.texts(), ElementsAre("qxUsbGetReport: ioctl(PIC_HID_GET_REPORT) failed - 'Input/output error'"));
    for (uint8_t b : resp) {
        EXPECT_EQ(b, 0);
    }
}

TEST_F(usbMgmtRelayTest, FailedReadUnderNumberZeroEndsThePollingAtOnce)
{
    while (qxUsbGetState().seqNum != 255) {
        qxUsbGetNextSeqNumber();
    }
    simFailIoctl(PIC_HID_GET_REPORT, EIO, 1);
    cmd[QX_REPORT_CODE] = QX_HID_CMD_GET_STEALTH;
    EXPECT_EQ(usbMgmtCmd(cmd, resp), -1);
    EXPECT_EQ(cmd[QX_REPORT_SEQ], 0);
    EXPECT_THAT(simSleeps(), ElementsAre(2000u));
    for (uint8_t b : resp) {
        EXPECT_EQ(b, 0);
    }
    EXPECT_THAT(log.texts(), ElementsAre("qxUsbGetReport: ioctl(PIC_HID_GET_REPORT) failed - 'Input/output error'"));
}

TEST_F(usbMgmtRelayTest, FailedSendLeavesTheResponseAlone)
{
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    cmd[QX_REPORT_CODE] = QX_HID_CMD_BUZZER_ON;
    const uint8_t seq = nextSeq();
    EXPECT_EQ(usbMgmtCmd(cmd, resp), -1);
    EXPECT_EQ(cmd[QX_REPORT_SEQ], seq);
    EXPECT_THAT(simSleeps(), IsEmpty());
    for (uint8_t b : resp) {
        EXPECT_EQ(b, 0xEE);
    }
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(log.lines()[0].text, "qxUsbCmd: ioctl(1079527424) failed - 'Input/output error'");
    EXPECT_EQ(log.lines()[1].level, 0);
    EXPECT_EQ(log.lines()[1].source, "usbMgmt");
    EXPECT_EQ(log.lines()[1].text, "QX_TRACE_USB-*** usb cmd (27) failed ***(-1)");

    // A closed link fails the same way.
    qxUsbCleanUp();
    log.clear();
    EXPECT_EQ(usbMgmtCmd(cmd, resp), -1);
    EXPECT_THAT(log.texts(), ElementsAre("qxUsbCmd: device not open", "QX_TRACE_USB-*** usb cmd (27) failed ***(-1)"));
}

TEST_F(usbMgmtRelayTest, GotoThroughTheRelayResetsThenReopensOnTheFirstRead)
{
    cmd[QX_REPORT_CODE] = QX_HID_CMD_GOTO_BOOTLOADER;
    EXPECT_EQ(usbMgmtCmd(cmd, resp), 1);
    ASSERT_GE(simSleeps().size(), 3u);
    EXPECT_EQ(simSleeps()[0], 2000000u);
    EXPECT_EQ(simSleeps()[1], 2000000u);
    std::vector<uint64_t> relayWaits(simSleeps().begin() + 2, simSleeps().end());
    EXPECT_EQ(relayWaits, waitsPrefix(7));
    EXPECT_THAT(simCommands(), ElementsAre("rmmod picdev", "modprobe picdev"));
    EXPECT_TRUE(log.contains("qxUsbGetReport: ioctl(PIC_HID_GET_REPORT) failed - 'Bad file descriptor'"));
    EXPECT_TRUE(log.contains("qxUsbGetReport: re-opening device file (errCnt=1)"));
    EXPECT_TRUE(log.contains("QX_TRACE_USB-*** usb cmd failed: Bad Sequence Number ***"));
    EXPECT_GE(qxUsbGetState().fd, 0);
    EXPECT_EQ(simGetMode(), simMode::BOOTLOADER);
}

TEST_F(usbMgmtRelayTest, DriverRequestGoesAsNamedWithoutNumberOrReport)
{
    cmd[QX_REPORT_CODE] = QX_HID_CMD_IO_CMD;
    cmd[QX_REPORT_SEQ] = 0x77;
    putLe32(&cmd[3], PIC_HID_ERASE_FPGA);
    const qxUsbBlock sent = cmd;
    const uint8_t seqBefore = qxUsbGetState().seqNum;
    EXPECT_EQ(usbMgmtCmd(cmd, resp), 0);
    EXPECT_EQ(cmd, sent);
    EXPECT_EQ(qxUsbGetState().seqNum, seqBefore);
    for (uint8_t b : resp) {
        EXPECT_EQ(b, 0xEE);
    }
    EXPECT_THAT(simSleeps(), IsEmpty());
    ASSERT_EQ(simEvents().size(), 1u);
    EXPECT_EQ(simEvents()[0].kind, simEventKind::DRIVER);
    EXPECT_EQ(simEvents()[0].request, PIC_HID_ERASE_FPGA);
    EXPECT_EQ(simEvents()[0].seq, 0x77);
    EXPECT_THAT(log.texts(), IsEmpty());

    simFailIoctl(PIC_HID_ERASE_FPGA, EIO, 1);
    EXPECT_EQ(usbMgmtCmd(cmd, resp), -1);
    EXPECT_THAT(log.texts(), ElementsAre("qxUsbCmd: ioctl(18437) failed - 'Input/output error'"));
}

TEST_F(usbMgmtRelayTest, CodesOutsideTheTableAreSilentAndTouchNothing)
{
    for (int code : {64, 100, 255}) {
        cmd.fill(0x11);
        cmd[QX_REPORT_CODE] = static_cast<uint8_t>(code);
        const qxUsbBlock sentCmd = cmd;
        const qxUsbBlock sentResp = resp;
        const uint8_t seqBefore = qxUsbGetState().seqNum;
        EXPECT_EQ(usbMgmtCmd(cmd, resp), 8) << code;
        EXPECT_EQ(cmd, sentCmd);
        EXPECT_EQ(resp, sentResp);
        EXPECT_EQ(qxUsbGetState().seqNum, seqBefore);
    }
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_THAT(simEvents(), IsEmpty());
}

TEST_F(usbMgmtRelayTest, UnassignedCodesAreLoggedAndTouchNothing)
{
    for (int code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 15}) {
        log.clear();
        cmd.fill(0x11);
        cmd[QX_REPORT_CODE] = static_cast<uint8_t>(code);
        const qxUsbBlock sentCmd = cmd;
        const qxUsbBlock sentResp = resp;
        EXPECT_EQ(usbMgmtCmd(cmd, resp), 8) << code;
        EXPECT_EQ(cmd, sentCmd);
        EXPECT_EQ(resp, sentResp);
        ASSERT_EQ(log.lines().size(), 1u) << code;
        EXPECT_EQ(log.lines()[0].level, 0);
        EXPECT_EQ(log.lines()[0].source, "usbMgmt");
        EXPECT_EQ(log.lines()[0].text, "QX_TRACE_USB-ERROR: UNKNOWN USB FUNCTION!");
    }
    EXPECT_THAT(simEvents(), IsEmpty());
}

TEST_F(usbMgmtRelayTest, EveryCodeReachesTheHandlerTheTableNames)
{
    std::map<int, usbMgmtHandler> expected;
    auto set = [&expected](int first, int last, usbMgmtHandler h) {
        for (int c = first; c <= last; ++c) {
            expected[c] = h;
        }
    };
    set(0, 8, netUsbFuncUnknown);
    set(9, 11, netUsbFuncGeneric);
    set(13, 14, netUsbFuncGeneric);
    set(15, 15, netUsbFuncUnknown);
    set(16, 21, netUsbFuncGeneric);
    set(22, 22, netUsbFuncSetXmlDaemonDetect);
    set(23, 23, netUsbFuncGetXmlDaemonDetect);
    set(24, 29, netUsbFuncGeneric);
    set(30, 30, netUsbFuncForceDriveBayShutDown);
    set(31, 31, netUsbFuncResumeDrvBayOperation);
    set(32, 32, netUsbFuncGetForceShutDownInd);
    set(33, 36, netUsbFuncGeneric);
    set(38, 38, netUsbFuncIoGenericCmd);
    set(40, 54, netUsbFuncGeneric);
    set(60, 63, netUsbFuncGeneric);
    for (int code = 0; code < 64; ++code) {
        auto it = expected.find(code);
        if (it != expected.end()) {
            EXPECT_EQ(networkUsbFuncTable[static_cast<size_t>(code)], it->second) << "code " << code;
        }
    }

    // Codes whose handlers are still to come answer 8 without the unknown line
    // and without touching the link or the blocks.
    for (int code : {12, 37, 39, 55, 56, 57, 58, 59}) {
        const usbMgmtHandler h = networkUsbFuncTable[static_cast<size_t>(code)];
        EXPECT_NE(h, nullptr);
        EXPECT_NE(h, netUsbFuncUnknown);
        EXPECT_NE(h, netUsbFuncGeneric);
        cmd.fill(0x22);
        cmd[QX_REPORT_CODE] = static_cast<uint8_t>(code);
        const qxUsbBlock sentCmd = cmd;
        const qxUsbBlock sentResp = resp;
        EXPECT_EQ(usbMgmtCmd(cmd, resp), 8) << code;
        EXPECT_EQ(cmd, sentCmd);
        EXPECT_EQ(resp, sentResp);
    }
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_THAT(simEvents(), IsEmpty());

    // Each relayed code reaches the microcontroller and comes back answered.
    for (const auto &[code, handler] : expected) {
        if (handler != netUsbFuncGeneric || code == QX_HID_CMD_GOTO_APPLICATION ||
            code == QX_HID_CMD_GOTO_BOOTLOADER) {
            continue; // the GOTO pair restarts the firmware: covered on its own
        }
        simClearEvents();
        cmd.fill(0);
        cmd[QX_REPORT_CODE] = static_cast<uint8_t>(code);
        EXPECT_EQ(usbMgmtCmd(cmd, resp), 0) << code;
        ASSERT_FALSE(simEvents().empty());
        EXPECT_EQ(simEvents()[0].kind, simEventKind::SEND) << code;
        EXPECT_EQ(simEvents()[0].code, code);
        EXPECT_EQ(resp[QX_REPORT_CODE], code);
        EXPECT_EQ(resp[QX_REPORT_SEQ], cmd[QX_REPORT_SEQ]);
    }
}

} // namespace
