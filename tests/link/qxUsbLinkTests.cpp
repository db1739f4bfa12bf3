// The device link against the simulated driver: busy retries, error counting and re-opening, the USB reset
// after a GOTO, the raw-request trace, the block the driver receives and the first sequence number.
#include "simFixture.h"

#include <cstdlib>
#include <cstring>
#include <numeric>

namespace {

using report64 = std::array<uint8_t, QX_REPORT_SIZE>;
using qxUsbLinkTest = simLinkTest;

const std::string NO_NODE = "6 qxUsbInit: Failed to open '/dev/corvanta_hid_backdoor' - 'No such file or directory'";

// Hooks over the seam's bindings to the model: a sleep that a signal cuts short, the block the driver last got.
platformSysOps simOps;
unsigned long seenRequest;
picHidIoctlArg seen;

TEST_F(qxUsbLinkTest, busyDriverGetsThreeAttempts100msApartWithoutCounting)
{
    report64 r{QX_HID_CMD_GET_FLASH_VAL, 0x42, 0, 3}, in{};
    // Accepted at the third attempt: two sleeps, no line, and a counted failure cleared.
    for (uint32_t request : {PIC_HID_SEND_REPORT, PIC_HID_GET_REPORT}) {
        simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
        EXPECT_EQ(qxUsbCmd(r.data()), -1);
        simFailIoctl(request, EAGAIN, 2);
        forget();
        EXPECT_EQ(request == PIC_HID_SEND_REPORT ? qxUsbCmd(r.data()) : qxUsbGetReport(in.data()), 0);
        EXPECT_THAT(simSleeps(), ElementsAre(100000u, 100000u));
        EXPECT_THAT(log.texts(), IsEmpty());
        EXPECT_EQ(qxUsbGetState().errCnt, 0u);
    }

    // Three busy answers: -1 with the send's text for both, errCnt unchanged (a counted failure stays
    // counted). The read hands back nothing, even when a signal cut its retry sleeps short.
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    EXPECT_EQ(qxUsbCmd(r.data()), -1);
    simFailIoctl(PIC_HID_SEND_REPORT, EAGAIN, 3);
    simFailIoctl(PIC_HID_GET_REPORT, EAGAIN, 3);
    simOps = platformSys;
    platformSys.usleep = [](useconds_t us) { simOps.usleep(us); errno = EINTR; return -1; };
    forget();
    in.fill(0xA5);
    EXPECT_EQ(qxUsbCmd(r.data()), -1);
    EXPECT_EQ(simSleeps().size(), 2u);
    EXPECT_EQ(qxUsbGetReport(in.data()), -1);
    EXPECT_THAT(simSleeps(), ElementsAre(100000u, 100000u, 100000u, 100000u));
    EXPECT_THAT(log.leveled(), ElementsAre("4 qxUsbCmd: ioctl failed max times", "4 qxUsbCmd: ioctl failed max times"));
    EXPECT_EQ(qxUsbGetState().errCnt, 1u);
    EXPECT_EQ(simKinds(), std::vector(6, simEventKind::IOCTL_FAILED)); // nothing reached the firmware
    EXPECT_TRUE(allAre(in, 0xA5));
}

TEST_F(qxUsbLinkTest, fifteenthCountedFailureOrADeadDescriptorReopensTheNode)
{
    report64 r{QX_HID_CMD_SET_LEDS, 0x42}, in{};
    // Sends and reads count together; fourteen leave the node open.
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 8);
    simFailIoctl(PIC_HID_GET_REPORT, EIO, 7);
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(qxUsbCmd(r.data()), -1);
        EXPECT_EQ(qxUsbGetReport(in.data()), -1);
    }
    EXPECT_EQ(simKinds(), std::vector(14, simEventKind::IOCTL_FAILED)); // the count shows in the next line
    forget();
    EXPECT_EQ(qxUsbCmd(r.data()), -1);
    EXPECT_THAT(log.leveled(), ElementsAre("6 qxUsbCmd: ioctl(1079527424) failed - 'Input/output error'",
                                       "1 qxUsbCmd: re-opening device file (errCnt=15)",
                                       "1 qxUsbInit: Open '/dev/corvanta_hid_backdoor' success; fd=" +
                                           std::to_string(qxUsbGetState().fd)));
    EXPECT_THAT(simKinds(), ElementsAre(simEventKind::IOCTL_FAILED, simEventKind::CLOSE, simEventKind::OPEN));

    // A descriptor whose device has gone (ENODEV; ENOTCONN from a node served from user space) re-opens at once.
    for (int err : {ENODEV, ENOTCONN}) {
        simFailIoctl(PIC_HID_GET_REPORT, err, 1);
        forget();
        EXPECT_EQ(qxUsbGetReport(in.data()), -1);
        EXPECT_EQ(log.leveled().at(1), "1 qxUsbGetReport: re-opening device file (errCnt=1)") << err;
        EXPECT_THAT(simKinds(), ElementsAre(simEventKind::IOCTL_FAILED, simEventKind::CLOSE, simEventKind::OPEN));
    }

    // Clean-up closes once and keeps the count (started again from 0 at the re-open); EBADF re-opens at once,
    // whatever the count.
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 3);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(qxUsbCmd(r.data()), -1);
    }
    simClearEvents();
    qxUsbCleanUp();
    qxUsbCleanUp();
    EXPECT_THAT(simKinds(), ElementsAre(simEventKind::CLOSE));
    // The read on the closed link counts EBADF; a failed re-open leaves it closed.
    simSetNodePresent(false);
    log.clear();
    EXPECT_EQ(qxUsbGetReport(in.data()), -1);
    EXPECT_EQ(qxUsbCmd(r.data()), -1);
    EXPECT_EQ(qxUsbInit(), 1);
    EXPECT_THAT(log.leveled(), ElementsAre("6 qxUsbGetReport: ioctl(PIC_HID_GET_REPORT) failed - 'Bad file descriptor'",
                                       "1 qxUsbGetReport: re-opening device file (errCnt=4)", NO_NODE,
                                       "4 qxUsbCmd: device not open", NO_NODE));
}

TEST_F(qxUsbLinkTest, gotoResetsTheUsbDeviceBetweenUnloadAndLoadAndLeavesTheLinkClosed)
{
    report64 r{QX_HID_CMD_GOTO_BOOTLOADER, 0x42};
    EXPECT_EQ(qxUsbCmd(r.data()), 0);
    EXPECT_THAT(log.leveled(), ElementsAre("6 qxUsbCmd: reset USB device", "6 resetUsb: resetting PIC"));
    EXPECT_THAT(simSleeps(), ElementsAre(2000000u, 2000000u));
    EXPECT_THAT(simKinds(), ElementsAre(simEventKind::SEND, simEventKind::GOTO_BOOTLOADER, simEventKind::CLOSE,
                                        simEventKind::RMMOD, simEventKind::USB_RESET, simEventKind::MODE_SWITCH,
                                        simEventKind::MODPROBE)); // left closed: no OPEN

    // Closed link: no unload. A device that cannot be opened is passed over without a word; the module is loaded.
    qxUsbCleanUp();
    simSetUsbDevice(true, false);
    forget();
    resetUsb();
    EXPECT_THAT(simSleeps(), ElementsAre(2000000u));
    EXPECT_THAT(simKinds(), ElementsAre(simEventKind::MODPROBE));
    EXPECT_THAT(log.texts(), IsEmpty());

    // A reset the kernel refuses is said; the module is loaded all the same.
    simSetUsbDevice(true, true);
    simSetUsbResetError(EPERM);
    forget();
    resetUsb();
    EXPECT_THAT(simKinds(), ElementsAre(simEventKind::MODPROBE));
    EXPECT_THAT(log.leveled(),
                ElementsAre("6 resetUsb: resetting PIC", "6 resetUsb: reset failed - 'Operation not permitted'"));
}

TEST_F(qxUsbLinkTest, rawRequestsAreTracedUnlessQuietAndIssuedOnceWithoutRecovery)
{
    picHidIoctlArg block{{QX_HID_CMD_IO_CMD, 0x05}, 0, 0, 0, 0, 0};
    std::memcpy(&block.report[3], &PIC_HID_PIC32_UPGRADE_SETUP, 4);
    std::iota(&block.report[7], &block.report[QX_REPORT_SIZE], uint8_t{7});
    simSetMode(simMode::BOOTLOADER); // the driver acknowledges the set-up only there
    EXPECT_EQ(qxUsbRawIoctCmd(&block), 0);
    EXPECT_THAT(log.leveled(), ElementsAre("0 QX_TRACE_USB-cmd: QX_HID_CMD_IO_CMD                     ",
                                       "0 QX_TRACE_USB- 26 05 00 0d 48 58 c0 07 08 09 0a 0b 0c 0d 0e 0f",
                                       "0 QX_TRACE_USB- 10 11 12 13 14 15 16 17 18 19 1a 1b 1c 1d 1e 1f",
                                       "0 QX_TRACE_USB- 20 21 22 23 24 25 26 27 28 29 2a 2b 2c 2d 2e 2f",
                                       "0 QX_TRACE_USB- 30 31 32 33 34 35 36 37 38 39 3a 3b 3c 3d 3e 3f"));
    EXPECT_EQ(block.report[QX_REPORT_CODE], PIC_HID_ACK_PIC32); // the answer comes back in the block

    // Quiet: codes up to 20 in the set, and code 38 with either capacity query; all others are traced.
    const std::string quiet = "  Q  QQQ Q   QQ    QQ";
    for (uint32_t request : {PIC_HID_IS_URB_AVAILABLE, PIC_HID_PIC32_IS_URB_AVAILABLE, PIC_HID_ERASE_CPLD}) {
        for (uint8_t code = 0; code < 40; ++code) {
            if (code == QX_HID_CMD_GOTO_APPLICATION || code == QX_HID_CMD_GOTO_BOOTLOADER) {
                continue; // these restart the firmware
            }
            picHidIoctlArg plain{{code}, 0, 0, 0, 0, 0};
            std::memcpy(&plain.report[3], &request, 4);
            log.clear();
            qxUsbRawIoctCmd(&plain);
            const bool isQuiet = code == QX_HID_CMD_IO_CMD ? request != PIC_HID_ERASE_CPLD
                                                           : code < quiet.size() && quiet[code] == 'Q';
            EXPECT_EQ(log.lines().size(), isQuiet ? 0u : 5u) << int(code) << " " << request;
        }
    }

    // Once: no retry, no count, no re-open; the request printed as a signed decimal.
    block.report[QX_REPORT_CODE] = QX_HID_CMD_IO_CMD;
    std::memcpy(&block.report[3], &PIC_HID_IS_URB_AVAILABLE, 4);
    simFailIoctl(PIC_HID_IS_URB_AVAILABLE, EAGAIN, 1);
    simFailIoctl(PIC_HID_IS_URB_AVAILABLE, EBADF, 1);
    forget();
    EXPECT_EQ(qxUsbRawIoctCmd(&block), -1);
    EXPECT_EQ(qxUsbRawIoctCmd(&block), -1);
    qxUsbCleanUp();
    EXPECT_EQ(qxUsbRawIoctCmd(&block), -1);
    EXPECT_THAT(log.leveled(),
                ElementsAre("6 qxUsbRawIoctCmd: ioctl(-1067956217) failed - 'Resource temporarily unavailable'",
                            "6 qxUsbRawIoctCmd: ioctl(-1067956217) failed - 'Bad file descriptor'",
                            "4 qxUsbRawIoctCmd: device not open"));
    EXPECT_EQ(qxUsbGetState().errCnt, 0u); // no retry either: a busy answer would have brought a third request
    EXPECT_THAT(simKinds(), ElementsAre(simEventKind::IOCTL_FAILED, simEventKind::IOCTL_FAILED, simEventKind::CLOSE));
}

TEST_F(qxUsbLinkTest, driverGetsTheReportWithParam10AndTransferFieldsOnlyForCode37)
{
    simOps = platformSys;
    platformSys.ioctl = [](int fd, unsigned long request, void *arg) {
        seenRequest = request;
        std::memcpy(&seen, arg, sizeof seen);
        return simOps.ioctl(fd, request, arg);
    };
    // What code 37's transfer fields carry is pinned by the file-transfer relay tests.
    report64 in{};
    EXPECT_EQ(qxUsbGetReport(in.data()), 0);
    EXPECT_EQ(seenRequest, PIC_HID_GET_REPORT);
    EXPECT_EQ(seen.param, 10);

    // Code 38 issues the request in bytes 3-6 (printed signed when it fails); byte 7 is no buffer address here.
    report64 io{QX_HID_CMD_IO_CMD, 0x42, 0, 0, 0, 0, 0, 0x11};
    std::memcpy(&io[3], &PIC_HID_PROGRAM_FPGA, 4);
    simFailIoctl(PIC_HID_PROGRAM_FPGA, EIO, 1);
    log.clear();
    EXPECT_EQ(qxUsbCmd(io.data()), -1);
    EXPECT_EQ(seenRequest, PIC_HID_PROGRAM_FPGA);
    EXPECT_EQ(0, std::memcmp(seen.report, io.data(), QX_REPORT_SIZE));
    EXPECT_EQ(seen.param, 10);
    EXPECT_EQ(seen.xferLen + seen.xferBuf, 0u);
    EXPECT_THAT(log.texts(), ElementsAre("qxUsbCmd: ioctl(-2141698040) failed - 'Input/output error'"));
}

// Codes without a name of their own print one text; the named ones keep their padding in the trace.
TEST(qxUsbNames, unnamedCodesPrintUnknown)
{
    for (int code : {0, 1, 22, 64, 128, 254}) {
        EXPECT_STREQ(qxUsbCmdName(static_cast<uint8_t>(code)), "UNKNOWN_QX_HID_CMD") << code;
    }
    EXPECT_STRNE(qxUsbCmdName(255), "UNKNOWN_QX_HID_CMD");
    EXPECT_STREQ(qxUsbCmdBareName(22), "QX_HID_CMD_SET_XML_DAEMON_DETECT");
}

// The threadsafe style re-runs only this test in a fresh process (the wrap to 0 is pinned by the relay tests).
TEST(qxUsbSeqDeathTest, firstNumberHandedOutIs2)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::exit(qxUsbGetNextSeqNumber() == 2 && qxUsbGetNextSeqNumber() == 3 ? 0 : 1),
                ::testing::ExitedWithCode(0), "");
}

} // namespace
