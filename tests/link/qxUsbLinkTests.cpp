// The device link against the simulated driver: retries, error counting,
// re-opening, the USB reset after a GOTO, the raw-request trace and the
// blocks the driver receives.
#include "logCapture.h"
#include "qxUsb.h"
#include "simAppliance.h"
#include "simInProcess.h"
#include "sysSeam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using report64 = std::array<uint8_t, QX_REPORT_SIZE>;

constexpr uint64_t RETRY_US = 100000;
constexpr uint64_t MODULE_US = 2000000;

report64 makeReport(uint8_t code)
{
    report64 r{};
    r[QX_REPORT_CODE] = code;
    r[QX_REPORT_SEQ] = 0x42;
    return r;
}

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

std::vector<simEventKind> eventKinds()
{
    std::vector<simEventKind> out;
    for (const simEvent &e : simEvents()) {
        out.push_back(e.kind);
    }
    return out;
}

// What the driver last received, for checking the block the link builds.
struct capturedIoctl {
    unsigned long request = 0;
    std::array<uint8_t, sizeof(picHidIoctlArg)> block{};
    int calls = 0;
};
capturedIoctl captured;
platformSysOps simOps;

int capturingIoctl(int fd, unsigned long request, void *arg)
{
    captured.request = request;
    std::memcpy(captured.block.data(), arg, sizeof(picHidIoctlArg));
    ++captured.calls;
    return simOps.ioctl(fd, request, arg);
}

class qxUsbLinkTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        simInProcessInstall();
        ASSERT_EQ(qxUsbInit(), 0);
        simClearEvents();
        simClearSleeps();
        log.clear();
    }
    void TearDown() override
    {
        qxUsbCleanUp();
        simInProcessUninstall();
    }

    std::vector<std::string> texts() const { return log.texts(); }

    logCapture log;
};

TEST_F(qxUsbLinkTest, BusyDriverIsRetriedTwiceAfter100msWithoutLogOrCount)
{
    // A counted failure first: a success after the retries must clear it.
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    report64 r = makeReport(QX_HID_CMD_SET_LEDS);
    EXPECT_EQ(qxUsbCmd(r.data()), -1);
    EXPECT_EQ(qxUsbGetState().errCnt, 1u);
    log.clear();

    simFailIoctl(PIC_HID_SEND_REPORT, EAGAIN, 2);
    EXPECT_EQ(qxUsbCmd(r.data()), 0);
    EXPECT_THAT(simSleeps(), ElementsAre(RETRY_US, RETRY_US));
    EXPECT_THAT(texts(), IsEmpty());
    EXPECT_EQ(qxUsbGetState().errCnt, 0u);
    EXPECT_EQ(countEvents(simEventKind::SEND), 1u);

    // The report read follows the same rule.
    simClearSleeps();
    simFailIoctl(PIC_HID_GET_REPORT, EAGAIN, 2);
    report64 in{};
    EXPECT_EQ(qxUsbGetReport(in.data()), 0);
    EXPECT_THAT(simSleeps(), ElementsAre(RETRY_US, RETRY_US));
    EXPECT_THAT(texts(), IsEmpty());
    EXPECT_EQ(in[QX_REPORT_CODE], QX_HID_CMD_SET_LEDS);
    EXPECT_EQ(in[QX_REPORT_SEQ], 0x42);
}

TEST_F(qxUsbLinkTest, ThreeBusyAnswersGiveUpWithoutCountingOrTouchingTheReport)
{
    report64 r = makeReport(QX_HID_CMD_SET_LEDS);
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    EXPECT_EQ(qxUsbCmd(r.data()), -1);
    log.clear();

    simFailIoctl(PIC_HID_SEND_REPORT, EAGAIN, 3);
    EXPECT_EQ(qxUsbCmd(r.data()), -1);
    EXPECT_THAT(simSleeps(), ElementsAre(RETRY_US, RETRY_US));
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, 4);
    EXPECT_EQ(log.lines()[0].source, "qxUsb");
    EXPECT_EQ(log.lines()[0].text, "qxUsbCmd: ioctl failed max times");
    EXPECT_EQ(qxUsbGetState().errCnt, 1u);
    EXPECT_EQ(countEvents(simEventKind::SEND), 0u);

    // The read reports with the send's own text and leaves the caller's bytes alone.
    log.clear();
    simClearSleeps();
    simFailIoctl(PIC_HID_GET_REPORT, EAGAIN, 3);
    report64 in;
    in.fill(0xA5);
    EXPECT_EQ(qxUsbGetReport(in.data()), -1);
    EXPECT_THAT(simSleeps(), ElementsAre(RETRY_US, RETRY_US));
    EXPECT_THAT(texts(), ElementsAre("qxUsbCmd: ioctl failed max times"));
    EXPECT_EQ(log.lines()[0].level, 4);
    EXPECT_EQ(qxUsbGetState().errCnt, 1u);
    for (uint8_t b : in) {
        EXPECT_EQ(b, 0xA5);
    }
}

TEST_F(qxUsbLinkTest, FifteenthConsecutiveFailureReopensTheNode)
{
    const int fdBefore = qxUsbGetState().fd;
    report64 r = makeReport(QX_HID_CMD_SET_LEDS);
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 15);
    for (int i = 1; i <= 14; ++i) {
        EXPECT_EQ(qxUsbCmd(r.data()), -1);
        EXPECT_EQ(qxUsbGetState().errCnt, static_cast<uint32_t>(i));
    }
    EXPECT_EQ(qxUsbGetState().fd, fdBefore);
    EXPECT_EQ(countEvents(simEventKind::CLOSE), 0u);
    EXPECT_EQ(log.count("qxUsbCmd: ioctl(1079527424) failed - 'Input/output error'"), 14u);
    EXPECT_EQ(log.lines().size(), 14u);
    EXPECT_EQ(log.lines()[0].level, 6);
    EXPECT_THAT(simSleeps(), IsEmpty());

    log.clear();
    simClearEvents();
    EXPECT_EQ(qxUsbCmd(r.data()), -1);
    ASSERT_EQ(log.lines().size(), 3u);
    EXPECT_EQ(log.lines()[0].text, "qxUsbCmd: ioctl(1079527424) failed - 'Input/output error'");
    EXPECT_EQ(log.lines()[1].level, 1);
    EXPECT_EQ(log.lines()[1].text, "qxUsbCmd: re-opening device file (errCnt=15)");
    EXPECT_EQ(log.lines()[2].level, 1);
    EXPECT_EQ(log.lines()[2].text,
              "qxUsbInit: Open '/dev/corvanta_hid_backdoor' success; fd=" + std::to_string(qxUsbGetState().fd));
    EXPECT_THAT(eventKinds(), ElementsAre(simEventKind::IOCTL_FAILED, simEventKind::CLOSE, simEventKind::OPEN));
    EXPECT_EQ(qxUsbGetState().errCnt, 0u);
    EXPECT_EQ(simOpenNodeFds(), 1);
    EXPECT_EQ(qxUsbCmd(r.data()), 0);

    // Sends and reads count together, and only consecutive failures count.
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 7);
    simFailIoctl(PIC_HID_GET_REPORT, EIO, 7);
    report64 in{};
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(qxUsbCmd(r.data()), -1);
        EXPECT_EQ(qxUsbGetReport(in.data()), -1);
    }
    EXPECT_EQ(qxUsbGetState().errCnt, 14u);
    EXPECT_EQ(qxUsbGetReport(in.data()), 0);
    EXPECT_EQ(qxUsbGetState().errCnt, 0u);
    simFailIoctl(PIC_HID_GET_REPORT, EIO, 15);
    log.clear();
    for (int i = 0; i < 15; ++i) {
        EXPECT_EQ(qxUsbGetReport(in.data()), -1);
    }
    EXPECT_EQ(log.count("qxUsbGetReport: ioctl(PIC_HID_GET_REPORT) failed - 'Input/output error'"), 15u);
    EXPECT_TRUE(log.contains("qxUsbGetReport: re-opening device file (errCnt=15)"));
    EXPECT_EQ(qxUsbGetState().errCnt, 0u);
    EXPECT_EQ(simOpenNodeFds(), 1);
}

TEST_F(qxUsbLinkTest, BadDescriptorReopensAtOnce)
{
    report64 r = makeReport(QX_HID_CMD_SET_LEDS);
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 3);
    for (int i = 0; i < 3; ++i) {
        qxUsbCmd(r.data());
    }
    log.clear();
    simClearEvents();

    simFailIoctl(PIC_HID_SEND_REPORT, EBADF, 1);
    EXPECT_EQ(qxUsbCmd(r.data()), -1);
    ASSERT_EQ(log.lines().size(), 3u);
    EXPECT_EQ(log.lines()[0].level, 6);
    EXPECT_EQ(log.lines()[0].text, "qxUsbCmd: ioctl(1079527424) failed - 'Bad file descriptor'");
    EXPECT_EQ(log.lines()[1].text, "qxUsbCmd: re-opening device file (errCnt=4)");
    EXPECT_THAT(eventKinds(), ElementsAre(simEventKind::IOCTL_FAILED, simEventKind::CLOSE, simEventKind::OPEN));
    EXPECT_EQ(qxUsbGetState().errCnt, 0u);
    EXPECT_EQ(simOpenNodeFds(), 1);

    // The read's own lines, on a link closed by hand; a re-open that fails leaves it closed.
    qxUsbCleanUp();
    log.clear();
    simSetNodePresent(false);
    report64 in{};
    EXPECT_EQ(qxUsbGetReport(in.data()), -1);
    EXPECT_THAT(texts(), ElementsAre("qxUsbGetReport: ioctl(PIC_HID_GET_REPORT) failed - 'Bad file descriptor'",
                                     "qxUsbGetReport: re-opening device file (errCnt=1)",
                                     "qxUsbInit: Failed to open '/dev/corvanta_hid_backdoor' - 'No such file or "
                                     "directory'"));
    EXPECT_EQ(log.lines()[2].level, 6);
    EXPECT_EQ(qxUsbGetState().fd, -1);
    EXPECT_EQ(simOpenNodeFds(), 0);
    log.clear();
    EXPECT_EQ(qxUsbCmd(r.data()), -1);
    EXPECT_THAT(texts(), ElementsAre("qxUsbCmd: device not open"));
    EXPECT_EQ(log.lines()[0].level, 4);
}

TEST_F(qxUsbLinkTest, GotoCommandResetsTheUsbDeviceAndLeavesTheLinkClosed)
{
    report64 r = makeReport(QX_HID_CMD_GOTO_BOOTLOADER);
    EXPECT_EQ(qxUsbCmd(r.data()), 0);
    EXPECT_THAT(texts(), ElementsAre("qxUsbCmd: reset USB device", "resetUsb: resetting PIC"));
    EXPECT_EQ(log.lines()[0].level, 6);
    EXPECT_EQ(log.lines()[1].level, 6);
    EXPECT_THAT(simCommands(), ElementsAre("rmmod picdev", "modprobe picdev"));
    EXPECT_THAT(simSleeps(), ElementsAre(MODULE_US, MODULE_US));
    EXPECT_THAT(eventKinds(), ElementsAre(simEventKind::SEND, simEventKind::GOTO_BOOTLOADER, simEventKind::CLOSE,
                                          simEventKind::RMMOD, simEventKind::USB_RESET, simEventKind::MODE_SWITCH,
                                          simEventKind::MODPROBE));
    EXPECT_EQ(qxUsbGetState().fd, -1);
    EXPECT_EQ(simOpenNodeFds(), 0);

    log.clear();
    simClearEvents();
    EXPECT_EQ(qxUsbCmd(r.data()), -1);
    EXPECT_THAT(texts(), ElementsAre("qxUsbCmd: device not open"));
    EXPECT_THAT(simEvents(), IsEmpty());

    // The next read fails on the closed link and opens it again.
    log.clear();
    report64 in{};
    EXPECT_EQ(qxUsbGetReport(in.data()), -1);
    ASSERT_EQ(log.lines().size(), 3u);
    EXPECT_EQ(log.lines()[0].text, "qxUsbGetReport: ioctl(PIC_HID_GET_REPORT) failed - 'Bad file descriptor'");
    EXPECT_EQ(log.lines()[1].text, "qxUsbGetReport: re-opening device file (errCnt=1)");
    EXPECT_GE(qxUsbGetState().fd, 0);
    EXPECT_EQ(simOpenNodeFds(), 1);
    EXPECT_EQ(simGetMode(), simMode::BOOTLOADER);

    // GOTO_APPLICATION resets too.
    simClearSleeps();
    r = makeReport(QX_HID_CMD_GOTO_APPLICATION);
    EXPECT_EQ(qxUsbCmd(r.data()), 0);
    EXPECT_THAT(simSleeps(), ElementsAre(MODULE_US, MODULE_US));
    EXPECT_EQ(qxUsbGetState().fd, -1);
}

TEST_F(qxUsbLinkTest, UsbResetSkipsWhatItCannotReachButAlwaysReloadsTheModule)
{
    // Closed link: no unload and no first sleep.
    qxUsbCleanUp();
    simClearEvents();
    resetUsb();
    EXPECT_THAT(simCommands(), ElementsAre("modprobe picdev"));
    EXPECT_THAT(simSleeps(), ElementsAre(MODULE_US));
    EXPECT_THAT(texts(), ElementsAre("resetUsb: resetting PIC"));
    EXPECT_EQ(countEvents(simEventKind::USB_RESET), 1u);

    // A device that cannot be opened is passed over without a word.
    log.clear();
    simClearEvents();
    simSetUsbDevice(true, false);
    resetUsb();
    EXPECT_THAT(texts(), IsEmpty());
    EXPECT_EQ(countEvents(simEventKind::USB_RESET), 0u);
    EXPECT_EQ(countEvents(simEventKind::MODPROBE), 1u);

    // No busses at all.
    simClearEvents();
    simSetUsbDevice(false, true);
    resetUsb();
    EXPECT_THAT(texts(), IsEmpty());
    EXPECT_EQ(countEvents(simEventKind::USB_RESET), 0u);
    EXPECT_EQ(countEvents(simEventKind::MODPROBE), 1u);
}

TEST_F(qxUsbLinkTest, RawRequestsAreTracedExceptTheQuietOnes)
{
    picHidIoctlArg block{};
    block.report[QX_REPORT_CODE] = QX_HID_CMD_IO_CMD;
    block.report[QX_REPORT_SEQ] = 0x05;
    putLe32(&block.report[3], PIC_HID_PIC32_UPGRADE_SETUP);
    for (size_t i = 7; i < QX_REPORT_SIZE; ++i) {
        block.report[i] = static_cast<uint8_t>(i);
    }
    simSetMode(simMode::BOOTLOADER); // the driver acknowledges PIC32 set-up only there
    EXPECT_EQ(qxUsbRawIoctCmd(&block), 0);
    EXPECT_THAT(texts(), ElementsAre("QX_TRACE_USB-cmd: QX_HID_CMD_IO_CMD                     ",
                                     "QX_TRACE_USB- 26 05 00 0d 48 58 c0 07 08 09 0a 0b 0c 0d 0e 0f",
                                     "QX_TRACE_USB- 10 11 12 13 14 15 16 17 18 19 1a 1b 1c 1d 1e 1f",
                                     "QX_TRACE_USB- 20 21 22 23 24 25 26 27 28 29 2a 2b 2c 2d 2e 2f",
                                     "QX_TRACE_USB- 30 31 32 33 34 35 36 37 38 39 3a 3b 3c 3d 3e 3f"));
    for (const capturedLogLine &l : log.lines()) {
        EXPECT_EQ(l.level, 0);
        EXPECT_EQ(l.source, "qxUsb");
    }
    // The driver's acknowledgement comes back in the caller's block.
    EXPECT_EQ(block.report[QX_REPORT_CODE], PIC_HID_ACK_PIC32);

    // The two capacity queries are quiet.
    for (uint32_t request : {PIC_HID_IS_URB_AVAILABLE, PIC_HID_PIC32_IS_URB_AVAILABLE}) {
        log.clear();
        picHidIoctlArg poll{};
        poll.report[QX_REPORT_CODE] = QX_HID_CMD_IO_CMD;
        putLe32(&poll.report[3], request);
        EXPECT_EQ(qxUsbRawIoctCmd(&poll), 0);
        EXPECT_THAT(texts(), IsEmpty()) << std::hex << request;
    }

    // Plain codes up to 20 are quiet only in the listed set; above 20 all are traced.
    const std::vector<int> quiet = {2, 5, 6, 7, 9, 13, 14, 19, 20};
    for (int code = 0; code <= 24; ++code) {
        if (code == QX_HID_CMD_GOTO_APPLICATION || code == QX_HID_CMD_GOTO_BOOTLOADER) {
            continue; // these would change the firmware under the test
        }
        log.clear();
        picHidIoctlArg plain{};
        plain.report[QX_REPORT_CODE] = static_cast<uint8_t>(code);
        EXPECT_EQ(qxUsbRawIoctCmd(&plain), 0);
        const bool isQuiet = std::find(quiet.begin(), quiet.end(), code) != quiet.end();
        EXPECT_EQ(log.lines().size(), isQuiet ? 0u : 5u) << "code " << code;
        if (!isQuiet) {
            const char *name = qxUsbCmdName(static_cast<uint8_t>(code));
            EXPECT_EQ(log.lines()[0].text, std::string("QX_TRACE_USB-cmd: ") + name);
        }
    }
}

TEST_F(qxUsbLinkTest, RawRequestIsIssuedOnceWithoutRetryCountOrReopen)
{
    picHidIoctlArg block{};
    block.report[QX_REPORT_CODE] = QX_HID_CMD_IO_CMD;
    putLe32(&block.report[3], PIC_HID_IS_URB_AVAILABLE);
    simFailIoctl(PIC_HID_IS_URB_AVAILABLE, EAGAIN, 1);
    EXPECT_EQ(qxUsbRawIoctCmd(&block), -1);
    EXPECT_THAT(simSleeps(), IsEmpty());
    EXPECT_THAT(texts(),
                ElementsAre("qxUsbRawIoctCmd: ioctl(-1067956217) failed - 'Resource temporarily unavailable'"));
    EXPECT_EQ(log.lines()[0].level, 6);

    const int fdBefore = qxUsbGetState().fd;
    simFailIoctl(PIC_HID_IS_URB_AVAILABLE, EBADF, 1);
    EXPECT_EQ(qxUsbRawIoctCmd(&block), -1);
    EXPECT_EQ(qxUsbGetState().fd, fdBefore);
    EXPECT_EQ(qxUsbGetState().errCnt, 0u);
    EXPECT_EQ(countEvents(simEventKind::CLOSE), 0u);

    qxUsbCleanUp();
    log.clear();
    EXPECT_EQ(qxUsbRawIoctCmd(&block), -1);
    EXPECT_THAT(texts(), ElementsAre("qxUsbRawIoctCmd: device not open"));
    EXPECT_EQ(log.lines()[0].level, 4);
}

TEST_F(qxUsbLinkTest, FailureLinesPrintTheRequestAsSignedDecimal)
{
    report64 io = makeReport(QX_HID_CMD_IO_CMD);
    putLe32(&io[3], PIC_HID_PROGRAM_FPGA);
    simFailIoctl(PIC_HID_PROGRAM_FPGA, EIO, 1);
    EXPECT_EQ(qxUsbCmd(io.data()), -1);
    putLe32(&io[3], PIC_HID_ERASE_FPGA);
    simFailIoctl(PIC_HID_ERASE_FPGA, EIO, 1);
    EXPECT_EQ(qxUsbCmd(io.data()), -1);
    report64 xfer = makeReport(QX_HID_CMD_FILE_TRANSFER_TEST);
    simFailIoctl(PIC_HID_FILE_TRANSFER_TEST, EIO, 1);
    EXPECT_EQ(qxUsbCmd(xfer.data()), -1);
    EXPECT_THAT(texts(), ElementsAre("qxUsbCmd: ioctl(-2141698040) failed - 'Input/output error'",
                                     "qxUsbCmd: ioctl(18437) failed - 'Input/output error'",
                                     "qxUsbCmd: ioctl(-2141698045) failed - 'Input/output error'"));
}

TEST_F(qxUsbLinkTest, BlockCarriesReportParamAndTheTransferFieldsOnlyForCode37)
{
    simOps = platformSys;
    platformSys.ioctl = capturingIoctl;
    captured = {};

    std::array<uint8_t, 100> buffer;
    for (size_t i = 0; i < buffer.size(); ++i) {
        buffer[i] = static_cast<uint8_t>(0xC0 + i);
    }
    report64 xfer = makeReport(QX_HID_CMD_FILE_TRANSFER_TEST);
    putLe32(&xfer[3], static_cast<uint32_t>(buffer.size()));
    const uint64_t address = reinterpret_cast<uintptr_t>(buffer.data());
    putLe32(&xfer[7], static_cast<uint32_t>(address));
    putLe32(&xfer[11], static_cast<uint32_t>(address >> 32));
    xfer[20] = 0x99;
    EXPECT_EQ(qxUsbCmd(xfer.data()), 0);
    EXPECT_EQ(captured.request, PIC_HID_FILE_TRANSFER_TEST);
    EXPECT_EQ(0, std::memcmp(captured.block.data(), xfer.data(), QX_REPORT_SIZE));
    int32_t param;
    uint32_t len;
    uint64_t buf;
    std::memcpy(&param, &captured.block[64], 4);
    std::memcpy(&len, &captured.block[72], 4);
    std::memcpy(&buf, &captured.block[80], 8);
    EXPECT_EQ(param, 10);
    EXPECT_EQ(len, buffer.size());
    EXPECT_EQ(buf, address);
    // The driver read the buffer the report names.
    const simFileTransfer &t = simLastFileTransfer();
    EXPECT_TRUE(t.readOk);
    EXPECT_EQ(t.len, buffer.size());
    EXPECT_EQ(0, std::memcmp(t.head, buffer.data(), sizeof t.head));

    // Code 38: the request named in bytes 3-6, the report as it is, no transfer fields.
    report64 io = makeReport(QX_HID_CMD_IO_CMD);
    putLe32(&io[3], PIC_HID_ERASE_CPLD);
    io[7] = 0x11;
    io[11] = 0x22;
    EXPECT_EQ(qxUsbCmd(io.data()), 0);
    EXPECT_EQ(captured.request, PIC_HID_ERASE_CPLD);
    EXPECT_EQ(0, std::memcmp(captured.block.data(), io.data(), QX_REPORT_SIZE));
    std::memcpy(&param, &captured.block[64], 4);
    std::memcpy(&len, &captured.block[72], 4);
    std::memcpy(&buf, &captured.block[80], 8);
    EXPECT_EQ(param, 10);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(buf, 0u);

    // Any other code goes as a plain send.
    report64 plain = makeReport(QX_HID_CMD_BUZZER_ON);
    putLe32(&plain[3], PIC_HID_ERASE_CPLD);
    EXPECT_EQ(qxUsbCmd(plain.data()), 0);
    EXPECT_EQ(captured.request, PIC_HID_SEND_REPORT);
    std::memcpy(&param, &captured.block[64], 4);
    EXPECT_EQ(param, 10);

    // The report read asks with param 10 too.
    report64 in{};
    EXPECT_EQ(qxUsbGetReport(in.data()), 0);
    EXPECT_EQ(captured.request, PIC_HID_GET_REPORT);
    std::memcpy(&param, &captured.block[64], 4);
    EXPECT_EQ(param, 10);
}

TEST_F(qxUsbLinkTest, InitOpensReadWriteAndReportsFailure)
{
    qxUsbCleanUp();
    log.clear();
    simSetNodePresent(false);
    EXPECT_EQ(qxUsbInit(), 1);
    EXPECT_THAT(texts(), ElementsAre("qxUsbInit: Failed to open '/dev/corvanta_hid_backdoor' - 'No such file or "
                                     "directory'"));
    EXPECT_EQ(log.lines()[0].level, 6);
    EXPECT_EQ(qxUsbGetState().fd, -1);

    simSetNodePresent(true);
    log.clear();
    EXPECT_EQ(qxUsbInit(), 0);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, 1);
    EXPECT_EQ(log.lines()[0].text,
              "qxUsbInit: Open '/dev/corvanta_hid_backdoor' success; fd=" + std::to_string(qxUsbGetState().fd));

    // Clean-up closes once and keeps the error count.
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    report64 r = makeReport(QX_HID_CMD_SET_LEDS);
    qxUsbCmd(r.data());
    simClearEvents();
    qxUsbCleanUp();
    qxUsbCleanUp();
    EXPECT_THAT(eventKinds(), ElementsAre(simEventKind::CLOSE));
    EXPECT_EQ(qxUsbGetState().errCnt, 1u);
}

TEST(qxUsbSeqTest, NumbersWrapFrom255To0)
{
    uint8_t last = qxUsbGetState().seqNum;
    for (int i = 0; i < 256 && last != 255; ++i) {
        const uint8_t next = qxUsbGetNextSeqNumber();
        EXPECT_EQ(next, static_cast<uint8_t>(last + 1));
        last = next;
    }
    ASSERT_EQ(last, 255);
    EXPECT_EQ(qxUsbGetNextSeqNumber(), 0);
    EXPECT_EQ(qxUsbGetNextSeqNumber(), 1);
    EXPECT_EQ(qxUsbGetState().seqNum, 1);
}

// A fresh process (the threadsafe style re-runs only this test) sees the first number.
TEST(qxUsbSeqDeathTest, FirstNumberHandedOutIs2)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const bool ok = qxUsbGetState().seqNum == 1 && qxUsbGetNextSeqNumber() == 2 &&
                            qxUsbGetNextSeqNumber() == 3;
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
