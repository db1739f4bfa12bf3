// The simulated picdev driver and the in-process front end: the report queue,
// driver requests and acknowledgements, injected faults, stale descriptors,
// and the seam's virtual time, select and libusb.
#include "simTestSupport.h"

#include <unistd.h>

namespace {

using simDriverTest = simTest;

TEST_F(simDriverTest, EventsRecordTheExchangeInOrderOnVirtualTime)
{
    simAdvanceUs(1500);
    ASSERT_EQ(send(cmd(QX_HID_CMD_GET_INFO, 0x21)), 0);
    simAdvanceUs(2000);
    read();
    platformSys.close(fd);
    fd = -1;

    const std::vector<simEvent> &e = simEvents();
    ASSERT_EQ(e.size(), 4u);
    EXPECT_EQ(e[0].kind, simEventKind::OPEN);
    EXPECT_EQ(e[1].kind, simEventKind::SEND);
    EXPECT_EQ(e[1].code, QX_HID_CMD_GET_INFO);
    EXPECT_EQ(e[1].seq, 0x21);
    EXPECT_EQ(e[1].atUs, 1500u);
    EXPECT_EQ(e[2].kind, simEventKind::GET_REPORT);
    EXPECT_EQ(e[2].seq, 0x21);
    EXPECT_EQ(e[2].atUs, 3500u);
    EXPECT_EQ(e[3].kind, simEventKind::CLOSE);
}

TEST_F(simDriverTest, ReplyFaultsHitOnlyTheNextCommandsThatExpectAReply)
{
    simSetReplyFault(simReplyFault::WRONG_SEQ, 1);
    ASSERT_EQ(send(cmd(QX_HID_CMD_GET_INFO, 2)), 0);
    simTestReport r = read();
    EXPECT_EQ(r[0], QX_HID_CMD_GET_INFO);
    EXPECT_NE(r[1], 2);
    EXPECT_EQ(productId(3), SIM_TEST_APPLICATION_ID);

    simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 1);
    ASSERT_EQ(send(cmd(QX_HID_CMD_GET_INFO, 4)), 0);
    r = read();
    EXPECT_NE(r[0], QX_HID_CMD_GET_INFO);
    EXPECT_NE(r[1], 4);

    // A command without a reply does not use up the fault.
    simSetReplyFault(simReplyFault::NO_REPLY, 2);
    ASSERT_EQ(send(cmd(PROGRAM_COMPLETE, 0)), 0);
    EXPECT_EQ(productId(5), 0);
    EXPECT_EQ(productId(6), 0);
    EXPECT_EQ(productId(7), SIM_TEST_APPLICATION_ID);

    // Slot reads go unanswered the given number of times.
    simSetSlotUnreadable(4, 2);
    for (uint8_t seq = 8; seq <= 10; ++seq) {
        ASSERT_EQ(send(cmd(QX_HID_CMD_GET_FLASH_VAL, seq, {4})), 0);
        EXPECT_EQ(read()[1] == seq, seq == 10) << int(seq);
    }
}

TEST_F(simDriverTest, SlowRepliesShowAfterFurtherReadsOrLaterVirtualTime)
{
    simSetReplyDelayReads(2);
    ASSERT_EQ(send(cmd(QX_HID_CMD_GET_INFO, 8)), 0);
    EXPECT_EQ(read()[1], 0);
    EXPECT_EQ(read()[1], 0);
    EXPECT_EQ(read()[1], 8);
    simSetReplyDelayReads(0);

    simSetReplyDelayUs(QX_HID_CMD_SHUTDOWN, 3000000);
    ASSERT_EQ(send(cmd(QX_HID_CMD_SHUTDOWN, 9)), 0);
    simAdvanceUs(2999999);
    EXPECT_EQ(read()[1], 8);
    simAdvanceUs(1);
    EXPECT_EQ(read()[1], 9);
    EXPECT_EQ(simGetPanel().shutdowns, 1u);
}

TEST_F(simDriverTest, InjectedIoctlFailuresCountDownPerRequest)
{
    simFailIoctl(PIC_HID_SEND_REPORT, EAGAIN, 2);
    simFailIoctl(0, EIO, 1);
    EXPECT_EQ(send(cmd(QX_HID_CMD_GET_INFO, 2)), EAGAIN);
    // The any-request fault is behind the send's in line but matches a read.
    picHidIoctlArg arg{};
    EXPECT_EQ(ioctlErr(PIC_HID_GET_REPORT, arg), EIO);
    EXPECT_EQ(send(cmd(QX_HID_CMD_GET_INFO, 3)), EAGAIN);
    EXPECT_EQ(productId(4), SIM_TEST_APPLICATION_ID);
    // A refused report never reached the firmware.
    EXPECT_EQ(kinds({simEventKind::SEND}).size(), 1u);
    EXPECT_EQ(kinds({simEventKind::IOCTL_FAILED}).size(), 3u);

    simFailIoctl(0, EBADF, 1);
    EXPECT_EQ(ioctlErr(PIC_HID_GET_REPORT, arg), EBADF);
    EXPECT_EQ(ioctlErr(PIC_HID_GET_REPORT, arg), 0);
}

TEST_F(simDriverTest, DriverAcknowledgesOnlyWhereTheFirmwareCanTakeIt)
{
    // In the application the PIC32 set-up is not acknowledged; the FPGA query is.
    picHidIoctlArg setup = ioBlock(PIC_HID_PIC32_UPGRADE_SETUP, 0x30);
    ASSERT_EQ(ioctlErr(PIC_HID_PIC32_UPGRADE_SETUP, setup), 0);
    EXPECT_EQ(setup.report[0], QX_HID_CMD_IO_CMD);
    EXPECT_NE(setup.report[2], 0);
    picHidIoctlArg urb = ioBlock(PIC_HID_IS_URB_AVAILABLE, 0x31);
    ASSERT_EQ(ioctlErr(PIC_HID_IS_URB_AVAILABLE, urb), 0);
    EXPECT_EQ(urb.report[0], PIC_HID_ACK_URB);
    EXPECT_EQ(urb.report[1], 0x31 ^ PIC_HID_ACK_SEQ_XOR);
    EXPECT_EQ(urb.report[2], 0);

    simSetMode(simMode::BOOTLOADER);
    simSetDriverBusyPolls(2);
    for (uint8_t seq = 1; seq <= 3; ++seq) {
        picHidIoctlArg poll = ioBlock(PIC_HID_PIC32_IS_URB_AVAILABLE, seq);
        ASSERT_EQ(ioctlErr(PIC_HID_PIC32_IS_URB_AVAILABLE, poll), 0);
        EXPECT_EQ(poll.report[0] == PIC_HID_ACK_PIC32 && poll.report[1] == (seq ^ PIC_HID_ACK_SEQ_XOR), seq == 3);
    }
    simSetBootloaderNoAck(true);
    setup = ioBlock(PIC_HID_PIC32_UPGRADE_SETUP, 0x40);
    ASSERT_EQ(ioctlErr(PIC_HID_PIC32_UPGRADE_SETUP, setup), 0);
    EXPECT_NE(setup.report[0], PIC_HID_ACK_PIC32);

    // FPGA/CPLD steps are taken; unknown requests and unreadable blocks are not.
    picHidIoctlArg fpga = ioBlock(PIC_HID_ERASE_FPGA, 0x41);
    EXPECT_EQ(ioctlErr(PIC_HID_ERASE_FPGA, fpga), 0);
    picHidIoctlArg unknown = ioBlock(0x80584802, 0x42);
    EXPECT_EQ(ioctlErr(0x80584802, unknown), EINVAL);
    picHidIoctlArg noBlock = ioBlock(PIC_HID_PIC32_PROGRAM, 0x43, nullptr);
    EXPECT_EQ(ioctlErr(PIC_HID_PIC32_PROGRAM, noBlock), EFAULT);
}

TEST_F(simDriverTest, FileTransferReadsTheWholeBufferOfTheDaemon)
{
    std::vector<uint8_t> buffer(200000);
    for (size_t i = 0; i < buffer.size(); ++i) {
        buffer[i] = static_cast<uint8_t>(i * 13);
    }
    auto transfer = [&]() {
        picHidIoctlArg arg{};
        arg.report[0] = QX_HID_CMD_FILE_TRANSFER_TEST;
        arg.xferLen = static_cast<uint32_t>(buffer.size());
        arg.xferBuf = reinterpret_cast<uintptr_t>(buffer.data());
        EXPECT_EQ(ioctlErr(PIC_HID_FILE_TRANSFER_TEST, arg), 0);
        return simLastFileTransfer();
    };
    const simFileTransfer first = transfer();
    EXPECT_TRUE(first.readOk);
    EXPECT_EQ(first.len, buffer.size());
    EXPECT_TRUE(std::equal(buffer.begin(), buffer.begin() + 16, first.head));
    // A byte past the first 64 KiB chunk changes the checksum.
    buffer[150000] ^= 1;
    EXPECT_NE(transfer().checksum, first.checksum);
    buffer[150000] ^= 1;
    EXPECT_EQ(transfer().checksum, first.checksum);
    EXPECT_EQ(read(), simTestReport{}); // the firmware answers nothing

    // The driver cannot read an address the daemon does not own.
    picHidIoctlArg bad{};
    bad.xferLen = 16;
    bad.xferBuf = 4096;
    EXPECT_EQ(ioctlErr(PIC_HID_FILE_TRANSFER_TEST, bad), EFAULT);
    EXPECT_FALSE(simLastFileTransfer().readOk);
}

TEST_F(simDriverTest, DescriptorsGoStaleWhenTheModuleIsUnloaded)
{
    ASSERT_EQ(platformSys.system("rmmod picdev"), 0);
    picHidIoctlArg arg{};
    EXPECT_EQ(ioctlErr(PIC_HID_GET_REPORT, arg), ENODEV);
    EXPECT_EQ(openNode(), -1);
    EXPECT_EQ(errno, ENOENT);
    ASSERT_EQ(platformSys.system("modprobe picdev"), 0);
    EXPECT_EQ(ioctlErr(PIC_HID_GET_REPORT, arg), ENODEV); // still the old open
    const int fresh = openNode();
    ASSERT_GE(fresh, 0);
    EXPECT_EQ(platformSys.close(fd), 0);
    EXPECT_EQ(ioctlErr(PIC_HID_GET_REPORT, arg), EBADF); // closed
    fd = fresh;
    EXPECT_EQ(productId(2), SIM_TEST_APPLICATION_ID);
    EXPECT_EQ(simOpenNodeFds(), 1);

    // The node vanishing on its own does the same.
    simSetNodePresent(false);
    EXPECT_EQ(ioctlErr(PIC_HID_GET_REPORT, arg), ENODEV);
    EXPECT_EQ(openNode(), -1);
    simSetNodePresent(true);
    EXPECT_EQ(ioctlErr(PIC_HID_GET_REPORT, arg), ENODEV);
}

TEST_F(simDriverTest, SeamRunsOnVirtualTimeAndTheFakeBus)
{
    EXPECT_EQ(platformSys.usleep(100000), 0);
    EXPECT_EQ(platformSys.usleep(2000000), 0);
    EXPECT_EQ(simSleeps(), (std::vector<uint64_t>{100000, 2000000}));
    EXPECT_EQ(platformSys.msSince1970(), SIM_WALL_CLOCK_START_MS + 2100);

    // select: nothing ready passes the timeout in virtual time; ready is real.
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(pipeFds[0], &set);
    FD_SET(fd, &set);
    struct timeval tv = {1, 500000};
    EXPECT_EQ(platformSys.select(fd + 1, &set, nullptr, nullptr, &tv), 0);
    EXPECT_EQ(simVirtualNowUs(), 3600000u);
    ASSERT_EQ(write(pipeFds[1], "x", 1), 1);
    FD_ZERO(&set);
    FD_SET(pipeFds[0], &set);
    tv = {1, 0};
    EXPECT_EQ(platformSys.select(pipeFds[0] + 1, &set, nullptr, nullptr, &tv), 1);
    EXPECT_TRUE(FD_ISSET(pipeFds[0], &set));
    char c;
    ASSERT_EQ(platformSys.read(pipeFds[0], &c, 1), 1);
    FD_ZERO(&set);
    FD_SET(pipeFds[0], &set);
    EXPECT_EQ(platformSys.select(pipeFds[0] + 1, &set, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EINTR);
    close(pipeFds[0]);
    close(pipeFds[1]);
    EXPECT_EQ(simVirtualNowUs(), 3600000u);

    // The bus holds ours and one other device; both can be made to vanish.
    struct usb_bus *bus = platformSys.usbGetBusses();
    ASSERT_NE(bus, nullptr);
    ASSERT_NE(bus->devices->next, nullptr);
    EXPECT_EQ(platformSys.usbOpen(bus->devices->next), nullptr);
    usb_dev_handle *h = platformSys.usbOpen(bus->devices);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(platformSys.usbReset(h), 0);
    EXPECT_EQ(platformSys.usbClose(h), 0);
    EXPECT_EQ(kinds({simEventKind::USB_RESET}).size(), 1u);
    simSetUsbDevice(true, false);
    EXPECT_EQ(platformSys.usbOpen(bus->devices), nullptr);
    simSetUsbDevice(false, true);
    EXPECT_EQ(platformSys.usbGetBusses(), nullptr);

    // Other paths reach the real system.
    const int devNull = platformSys.open("/dev/null", O_RDONLY, 0);
    ASSERT_GE(devNull, 0);
    EXPECT_LT(devNull, 1000);
    EXPECT_EQ(platformSys.read(devNull, &c, 1), 0);
    EXPECT_EQ(platformSys.close(devNull), 0);
    EXPECT_EQ(platformSys.read(fd, &c, 1), -1); // the node has no read
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
