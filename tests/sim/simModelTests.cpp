// The simulated appliance as a model, reached as the service reaches it (the seam and the driver's 88-byte
// block): the bootloader's flash rules, the driver's acknowledgements, slots, fault injection, the saved state.
#include "qxUsb.h"
#include "simAppliance.h"
#include "simInProcess.h"
#include "sysSeam.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <numeric>
#include <optional>
#include <string>
#include <unistd.h>

namespace {

using report64 = std::array<uint8_t, QX_REPORT_SIZE>;

class simModelTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        simInProcessInstall();
        fd = platformSys.open(QX_USB_DEVICE_PATH, O_RDWR, 0);
        ASSERT_GE(fd, 0);
        std::iota(data.begin(), data.end(), uint8_t{1});
    }
    void TearDown() override
    {
        platformSys.close(fd);
        simInProcessUninstall();
    }
    // 0 or the errno of the failed ioctl; the driver's answer comes back in arg.
    int ioctlErr(uint32_t request, picHidIoctlArg &arg)
    {
        arg.param = PIC_HID_PARAM;
        return platformSys.ioctl(fd, request, &arg) == 0 ? 0 : errno;
    }
    int send(report64 r)
    {
        picHidIoctlArg arg{};
        std::copy(r.begin(), r.end(), arg.report);
        return ioctlErr(PIC_HID_SEND_REPORT, arg);
    }
    report64 read()
    {
        picHidIoctlArg arg{};
        EXPECT_EQ(ioctlErr(PIC_HID_GET_REPORT, arg), 0);
        return std::to_array(arg.report);
    }
    // A code-38 request with the address of `block` at bytes 12-19.
    static picHidIoctlArg io(uint32_t request, uint8_t seq, const void *block = nullptr)
    {
        picHidIoctlArg arg{{QX_HID_CMD_IO_CMD, seq}, 0, 0, 0, 0, 0};
        std::memcpy(&arg.report[3], &request, 4);
        const uint64_t address = reinterpret_cast<uintptr_t>(block);
        std::memcpy(&arg.report[12], &address, 8);
        return arg;
    }
    // PROGRAM_DEVICE with n bytes of data right-justified, for flash offset `at`; PROGRAM_COMPLETE without.
    // Each packet keeps its place: the driver reads it at the next request.
    int program(std::optional<uint32_t> at = {}, uint8_t n = 56)
    {
        auto &p = packets.emplace_back(std::array<uint8_t, QX_BLOCK_SIZE>{at ? PROGRAM_DEVICE : PROGRAM_COMPLETE});
        const uint32_t address = SIM_FLASH_START + at.value_or(0);
        std::memcpy(&p[1], &address, 4);
        p[5] = at ? n : 0;
        std::copy_n(data.begin(), p[5], &p[QX_REPORT_SIZE - p[5]]);
        const uint32_t request = at ? PIC_HID_PIC32_PROGRAM : PIC_HID_PIC32_PROGRAM_DONE;
        picHidIoctlArg arg = io(request, 7, p.data());
        return ioctlErr(request, arg);
    }
    // The first three bytes of the driver's answer to a code-38 request.
    std::vector<uint8_t> ack(uint32_t request, uint8_t seq)
    {
        picHidIoctlArg arg = io(request, seq);
        EXPECT_EQ(ioctlErr(request, arg), 0);
        return std::vector(arg.report, arg.report + 3);
    }
    int fd = -1;
    std::array<uint8_t, 56> data{};
    std::deque<std::array<uint8_t, QX_BLOCK_SIZE>> packets;
};

TEST_F(simModelTest, bootloaderProgramsOnlyErasedCellsAndDropsBlocksThatDoNotFollow)
{
    simSetMode(simMode::BOOTLOADER);
    simFlash()[SIM_FLASH_SIZE - 1] = 0;
    ASSERT_EQ(send({ERASE_DEVICE}), 0);
    EXPECT_TRUE(std::all_of(simFlash().begin(), simFlash().end(), [](uint8_t b) { return b == 0xFF; }));
    EXPECT_EQ(simGetSlot(10).len, 9); // the slots have a page of their own
    // A gap drops the block, and the next that follows only the dropped one, until a COMPLETE.
    for (auto at : std::vector<std::optional<uint32_t>>{0, 56, 168, 224, std::nullopt, 168, std::nullopt}) {
        ASSERT_EQ(program(at), 0);
    }
    ASSERT_EQ(program(SIM_FLASH_SIZE - 48, 48), 0); // the last chunk of the range, right-justified
    ASSERT_EQ(program(), 0);
    ASSERT_EQ(program(SIM_FLASH_SIZE - 8), 0); // beyond the range
    ASSERT_EQ(program(), 0);
    ASSERT_EQ(program(-56u), 0); // before it
    read(); // the driver sends the last packet on
    const auto flash = simFlash();
    EXPECT_EQ(flash[111], 56);
    EXPECT_EQ(flash[168], 1);
    EXPECT_EQ(flash[224], 0xFF);
    EXPECT_EQ(flash[SIM_FLASH_SIZE - 48], 1);
    EXPECT_EQ(flash[SIM_FLASH_SIZE - 1], 48);
    std::vector<uint32_t> dropped;
    for (const simEvent &e : simEvents()) {
        if (e.kind == simEventKind::PROGRAM_DROPPED) {
            dropped.push_back(e.address - SIM_FLASH_START);
        }
    }
    EXPECT_EQ(dropped, (std::vector<uint32_t>{168, 224, SIM_FLASH_SIZE - 8, -56u}));
    // Cells only go from 1 to 0: programming without an erase ANDs.
    std::fill(data.begin(), data.end(), 0xF0);
    ASSERT_EQ(program(), 0);
    ASSERT_EQ(program(0), 0);
    read();
    EXPECT_EQ(flash[0], 0x00);
    EXPECT_EQ(flash[55], 0x30);
}

TEST_F(simModelTest, driverAcknowledgesWithItsCodeAndTheNumberXor57OnlyWhenItCanTakeMore)
{
    EXPECT_NE(ack(PIC_HID_PIC32_UPGRADE_SETUP, 0x30)[2], 0); // the application cannot be programmed
    EXPECT_EQ(ack(PIC_HID_IS_URB_AVAILABLE, 0x31), (std::vector<uint8_t>{PIC_HID_ACK_URB, 0x31 ^ 0x57, 0}));
    simSetMode(simMode::BOOTLOADER);
    EXPECT_EQ(ack(PIC_HID_PIC32_IS_URB_AVAILABLE, 0x32), (std::vector<uint8_t>{PIC_HID_ACK_PIC32, 0x32 ^ 0x57, 0}));
    simSetBootloaderNoAck(true);
    EXPECT_NE(ack(PIC_HID_PIC32_UPGRADE_SETUP, 0x40)[0], PIC_HID_ACK_PIC32);
    picHidIoctlArg arg = io(0x80584802, 0x42); // a request the driver does not know
    EXPECT_EQ(ioctlErr(0x80584802, arg), EINVAL);
    arg = io(PIC_HID_PIC32_PROGRAM, 0x43); // programming without a block
    EXPECT_EQ(ioctlErr(PIC_HID_PIC32_PROGRAM, arg), EFAULT);
}

TEST_F(simModelTest, applicationAnswersInOrderAndKeepsSlotsOfAtMost48Bytes)
{
    EXPECT_EQ(read(), report64{}); // nothing before the first reply
    ASSERT_EQ(send({QX_HID_CMD_GET_STEALTH, 5}), 0);
    ASSERT_EQ(send({ERASE_DEVICE}), 0); // means nothing to the application
    ASSERT_EQ(send({QX_HID_CMD_GET_STEALTH, 6}), 0);
    EXPECT_EQ(read()[1], 5);
    EXPECT_EQ(read()[1], 6);
    EXPECT_EQ(read()[1], 6); // no new reply: the last one again
    EXPECT_NE(simFlash()[0], 0xFF);
    ASSERT_EQ(send({QX_HID_CMD_GET_FLASH_VAL, 8, 0, 3}), 0);
    const report64 erased = read();
    EXPECT_TRUE(std::all_of(erased.begin() + 4, erased.end(), [](uint8_t b) { return b == 0xFF; }));
    report64 set{QX_HID_CMD_SET_FLASH_VAL, 9, 0, 3, 0x78, 0x56, 0x34, 0x12, 7, 0, 0, 0, 49};
    ASSERT_EQ(send(set), 0);
    EXPECT_EQ(read()[2], 1); // more than 48 bytes: refused
    set[12] = 48;
    ASSERT_EQ(send(set), 0);
    EXPECT_EQ(read()[2], 0);
    EXPECT_EQ(simGetSlot(3).word0, 0x12345678u);
    ASSERT_EQ(send({QX_HID_CMD_GET_FLASH_VAL, 10, 0, SIM_SLOT_COUNT}), 0);
    EXPECT_EQ(read()[2], 1);
}

TEST_F(simModelTest, injectedFaultsHitOnlyWhatTheyName)
{
    simFailIoctl(PIC_HID_SEND_REPORT, EAGAIN, 2);
    simFailIoctl(0, EIO, 1); // any request: behind the send's in line, but it matches a read
    EXPECT_EQ(send({QX_HID_CMD_GET_INFO, 2}), EAGAIN);
    picHidIoctlArg arg{};
    EXPECT_EQ(ioctlErr(PIC_HID_GET_REPORT, arg), EIO);
    EXPECT_EQ(send({QX_HID_CMD_GET_INFO, 3}), EAGAIN);
    EXPECT_EQ(send({QX_HID_CMD_GET_INFO, 4}), 0);
    EXPECT_EQ(read()[1], 4);
    simSetReplyFault(simReplyFault::NO_REPLY, 1);
    ASSERT_EQ(send({PROGRAM_COMPLETE}), 0); // awaits no reply: does not use the fault up
    EXPECT_EQ(send({QX_HID_CMD_GET_INFO, 5}), 0);
    EXPECT_EQ(read()[1], 4); // no reply: the last one again
    EXPECT_EQ(send({QX_HID_CMD_GET_INFO, 6}), 0);
    EXPECT_EQ(read()[1], 6);
    simSetReplyDelayUs(QX_HID_CMD_SHUTDOWN, 3000000); // the shutdown answers late
    ASSERT_EQ(send({QX_HID_CMD_SHUTDOWN, 7}), 0);
    simAdvanceUs(2999999);
    EXPECT_EQ(read()[1], 6);
    simAdvanceUs(1);
    EXPECT_EQ(read()[1], 7);
}

TEST(simState, savedStateRoundTripsAndDamagedFilesAreRefused)
{
    const std::string path = testing::TempDir() + "simState-" + std::to_string(getpid());
    simReset();
    simSetNodePresent(false);
    ASSERT_TRUE(simSaveState(path));
    simSetNodePresent(true);
    ASSERT_TRUE(simLoadState(path));
    EXPECT_FALSE(simNodePresent());
    // Damaged: the magic, a byte of state, one byte too many. The model stays as it was.
    for (long at : {0L, 200L, -1L}) {
        simSetMode(simMode::BOOTLOADER);
        ASSERT_TRUE(simSaveState(path));
        FILE *f = std::fopen(path.c_str(), "r+b");
        std::fseek(f, at < 0 ? 0 : at, at < 0 ? SEEK_END : SEEK_SET);
        std::fputc(0x77, f);
        std::fclose(f);
        simSetMode(simMode::APPLICATION);
        EXPECT_FALSE(simLoadState(path)) << at;
        EXPECT_EQ(simGetMode(), simMode::APPLICATION) << at;
    }
    unlink(path.c_str());
    EXPECT_FALSE(simLoadState(path));
}

} // namespace
