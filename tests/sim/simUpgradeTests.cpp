// The FPGA and CPLD paths of the model, for the rules no product test guards: the driver reads the pages it
// was handed by address only when it sends them on, and each armed fault hits the occasions it names.
#include "leBytes.h"
#include "qxUsb.h"
#include "simAppliance.h"
#include "simInProcess.h"
#include "simUpgrade.h"
#include "sysSeam.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <vector>

namespace {

constexpr size_t CHUNK = 30 * SIM_PAGE_SIZE;

class simUpgradeTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        simInProcessInstall();
        fd = platformSys.open(QX_USB_DEVICE_PATH, O_RDWR, 0);
        ASSERT_GE(fd, 0);
    }
    void TearDown() override
    {
        platformSys.close(fd);
        simInProcessUninstall();
    }
    // 0 or the errno; a code-38 block with `request`, sequence number `seq`, and for chunks the first page,
    // the count and the address of `pages`.
    int io(uint32_t request, uint8_t seq = 0, uint32_t first = 0, uint8_t count = 0, const void *pages = nullptr)
    {
        picHidIoctlArg arg{{QX_HID_CMD_IO_CMD, seq}, PIC_HID_PARAM, 0, 0, 0, 0};
        lePut32(&arg.report[3], request);
        lePut24(&arg.report[7], first);
        arg.report[11] = count;
        lePut64(&arg.report[12], reinterpret_cast<uintptr_t>(pages));
        const int err = platformSys.ioctl(fd, request, &arg) == 0 ? 0 : errno;
        last = arg;
        return err;
    }
    std::vector<uint8_t> report()
    {
        picHidIoctlArg arg{};
        EXPECT_EQ(platformSys.ioctl(fd, PIC_HID_GET_REPORT, &arg), 0);
        return {arg.report, arg.report + 12};
    }
    // The status report's state after a status query or a clean-up.
    uint32_t status(uint32_t request, uint8_t seq)
    {
        EXPECT_EQ(io(request, seq), 0);
        const std::vector<uint8_t> r = report();
        EXPECT_EQ(r[0], 39);
        EXPECT_EQ(r[1], seq);
        return leGet32(&r[3]);
    }
    bool room(uint8_t seq)
    {
        io(PIC_HID_IS_URB_AVAILABLE, seq);
        return last.report[0] == PIC_HID_ACK_URB && last.report[1] == (seq ^ PIC_HID_ACK_SEQ_XOR);
    }
    size_t count(simEventKind kind) { return std::ranges::count(simEvents(), kind, &simEvent::kind); }
    int fd = -1;
    picHidIoctlArg last{};
};

TEST_F(simUpgradeTest, driverReadsChunkPagesWhenItSendsThemOnNotInTheChunksIoctl)
{
    std::vector<uint8_t> pages(CHUNK, 0x11);
    ASSERT_EQ(io(PIC_HID_FPGA_UPGRADE_SETUP), 0);
    ASSERT_EQ(io(PIC_HID_ERASE_FPGA), 0);
    ASSERT_EQ(io(PIC_HID_PROGRAM_FPGA, 5, 2, 30, pages.data()), 0);
    std::fill(pages.begin(), pages.end(), 0x22); // changed too early: the driver has not read them yet
    EXPECT_EQ(simFpgaMemory()[2 * SIM_PAGE_SIZE], 0xFF);
    EXPECT_EQ(count(simEventKind::PAGES_READ), 0u);
    EXPECT_TRUE(room(6)); // the next request sends the chunk on
    EXPECT_EQ(count(simEventKind::PAGES_READ), 1u);
    const auto fpga = simFpgaMemory();
    EXPECT_TRUE(std::all_of(fpga.begin() + 2 * SIM_PAGE_SIZE, fpga.begin() + 2 * SIM_PAGE_SIZE + CHUNK,
                            [](uint8_t b) { return b == 0x22; }));
    EXPECT_EQ(fpga[2 * SIM_PAGE_SIZE - 1], 0xFF);
    EXPECT_EQ(fpga[2 * SIM_PAGE_SIZE + CHUNK], 0xFF);

    // A CPLD chunk whose buffer is gone when the node closes: nothing arrives.
    void *map = mmap(nullptr, CHUNK, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(map, MAP_FAILED);
    std::memset(map, 0x33, CHUNK);
    ASSERT_EQ(io(PIC_HID_ERASE_CPLD), 0);
    ASSERT_EQ(io(PIC_HID_PROGRAM_CPLD, 7, 0, 30, map), 0);
    munmap(map, CHUNK);
    platformSys.close(fd);
    fd = platformSys.open(QX_USB_DEVICE_PATH, O_RDWR, 0);
    EXPECT_EQ(count(simEventKind::PAGES_UNREADABLE), 1u);
    EXPECT_EQ(simCpldImage()[0], 0xFF);
    EXPECT_EQ(simGetUpgradeState().cpldPages, 0u);

    // The bootloader's PROGRAM packet in the same way.
    simSetMode(simMode::BOOTLOADER);
    std::array<uint8_t, QX_BLOCK_SIZE> packet{PROGRAM_DEVICE};
    lePut32(&packet[1], SIM_FLASH_START);
    packet[5] = 1;
    packet[QX_REPORT_SIZE - 1] = 0x0F;
    ASSERT_EQ(platformSys.ioctl(fd, PIC_HID_SEND_REPORT, std::array<uint8_t, 88>{ERASE_DEVICE}.data()), 0);
    ASSERT_EQ(io(PIC_HID_PIC32_PROGRAM, 8, 0, 0, packet.data()), 0);
    packet[QX_REPORT_SIZE - 1] = 0x05;
    EXPECT_EQ(simFlash()[0], 0xFF);
    report();
    EXPECT_EQ(simFlash()[0], 0x05);
}

TEST_F(simUpgradeTest, eraseRunAndCapacityTakeTheirTimesAndArmedFaultsHitTheOccasionsTheyName)
{
    simSetFpgaEraseTimeUs(1000);
    ASSERT_EQ(io(PIC_HID_ERASE_FPGA), 0);
    EXPECT_EQ(status(PIC_HID_ERASE_FPGA_STATUS, 1), 0u); // too early
    simAdvanceUs(1000);
    simSetUpgradeFault(simUpgradeFault::ERASE_NEVER_CONFIRMED, 1);
    EXPECT_EQ(status(PIC_HID_ERASE_FPGA_STATUS, 2), 0u); // the fault's one occasion
    EXPECT_EQ(status(PIC_HID_ERASE_FPGA_STATUS, 3), 1u);

    simSetUrbBusyUs(50000);
    std::vector<uint8_t> pages(SIM_PAGE_SIZE, 0);
    ASSERT_EQ(io(PIC_HID_PROGRAM_FPGA, 4, 0, 1, pages.data()), 0);
    EXPECT_FALSE(room(5));
    simAdvanceUs(50000);
    EXPECT_TRUE(room(6));
    simSetUpgradeFault(simUpgradeFault::CAPACITY_NEVER_FREE, -1);
    EXPECT_FALSE(room(7));
    EXPECT_FALSE(room(8));
    simSetUpgradeFault(simUpgradeFault::NONE, 0);
    EXPECT_TRUE(room(9));
    EXPECT_EQ(io(PIC_HID_PROGRAM_FPGA, 10, 0, 31, pages.data()), EINVAL); // at most 30 pages

    simSetUpgradeFault(simUpgradeFault::CLEANUP_STATE_2, 1);
    EXPECT_EQ(status(PIC_HID_PROGRAM_CLEAN_UP, 11), 2u);
    EXPECT_EQ(status(PIC_HID_PROGRAM_CLEAN_UP, 12), 3u);

    // The CPLD record: a write of slot 9 unanswered once, the read-back with another CRC once, the run.
    auto writeRecord = [&](uint8_t seq, uint8_t slot) {
        picHidIoctlArg arg{};
        std::fill(arg.report, arg.report + QX_REPORT_SIZE, 0xFF);
        const uint8_t head[] = {QX_HID_CMD_SET_FLASH_VAL, seq, 0xFF, slot, 0xDC, 0x05, 0x34, 0x12};
        std::copy(std::begin(head), std::end(head), arg.report);
        arg.report[12] = 0;
        EXPECT_EQ(platformSys.ioctl(fd, PIC_HID_SEND_REPORT, &arg), 0);
        return report();
    };
    auto info = [&](uint8_t seq) {
        picHidIoctlArg arg{{QX_HID_CMD_CPLD_INFO, seq}, PIC_HID_PARAM, 0, 0, 0, 0};
        EXPECT_EQ(platformSys.ioctl(fd, PIC_HID_SEND_REPORT, &arg), 0);
        return report();
    };
    simSetUpgradeFault(simUpgradeFault::RECORD_WRITE_UNCONFIRMED, 1);
    simSetUpgradeFault(simUpgradeFault::READBACK_OTHER_CRC, 1);
    EXPECT_EQ(writeRecord(20, 9)[1], 12); // stored, not answered: the last report again
    EXPECT_EQ(writeRecord(21, 3), (std::vector<uint8_t>{14, 21, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0})); // other slots answer
    EXPECT_EQ(writeRecord(22, 9)[1], 22);
    EXPECT_EQ(info(23), (std::vector<uint8_t>{56, 23, 0, 9, 0xDC, 0x05, 0xCB, 0xED, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(info(24)[6], 0x34);
    simSetCpldRunTimeUs(3000);
    simSetUpgradeFault(simUpgradeFault::RUN_NEVER_COMPLETES, 1);
    ASSERT_EQ(io(PIC_HID_CPLD_UPGRADE_RUN), 0);
    simAdvanceUs(3000);
    EXPECT_EQ(simGetSlot(9).word1, 0xFFFFFFFFu);
    ASSERT_EQ(io(PIC_HID_CPLD_UPGRADE_RUN), 0);
    simAdvanceUs(2999);
    EXPECT_EQ(simGetSlot(9).word1, 0xFFFFFFFFu);
    simAdvanceUs(1);
    EXPECT_EQ(simGetSlot(9).word1, 0u);
    EXPECT_EQ(simGetUpgradeState().cpldRuns, 2u);

    // The file-transfer buffer the driver cannot read.
    std::vector<uint8_t> buffer(64, 1);
    const uint64_t at = reinterpret_cast<uintptr_t>(buffer.data());
    picHidIoctlArg xfer{{QX_HID_CMD_FILE_TRANSFER_TEST}, PIC_HID_PARAM, 0, 64, 0, at};
    simSetUpgradeFault(simUpgradeFault::TRANSFER_UNREADABLE, 1);
    EXPECT_NE(platformSys.ioctl(fd, PIC_HID_FILE_TRANSFER_TEST, &xfer), 0);
    EXPECT_FALSE(simLastFileTransfer().readOk);
    EXPECT_EQ(platformSys.ioctl(fd, PIC_HID_FILE_TRANSFER_TEST, &xfer), 0);
    EXPECT_TRUE(simLastFileTransfer().readOk);
}

} // namespace
