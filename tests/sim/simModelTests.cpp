// The simulated appliance as a model, reached as the service reaches it (the seam and the driver's 88-byte
// block): the bootloader's flash rules, the driver's acknowledgements, slots, fault injection, the saved state,
// and the FPGA and CPLD paths: the driver reads the pages it was handed by address only when it sends them on.
#include "leBytes.h"
#include "qxUsb.h"
#include "simAppliance.h"
#include "simInProcess.h"
#include "simUpgrade.h"
#include "sysSeam.h"
#include "tarnholdSim.h"

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
#include <sys/mman.h>
#include <tuple>
#include <unistd.h>

namespace {

using report64 = std::array<uint8_t, QX_REPORT_SIZE>;
constexpr size_t CHUNK = 30 * SIM_PAGE_SIZE;

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
    // 0 or the errno of the failed ioctl; the driver's answer is kept in `last`.
    int ioctlErr(uint32_t request, picHidIoctlArg arg)
    {
        arg.param = PIC_HID_PARAM;
        const int err = platformSys.ioctl(fd, request, &arg) == 0 ? 0 : errno;
        last = arg;
        return err;
    }
    int send(report64 r)
    {
        picHidIoctlArg arg{};
        std::copy(r.begin(), r.end(), arg.report);
        return ioctlErr(PIC_HID_SEND_REPORT, arg);
    }
    report64 read()
    {
        EXPECT_EQ(ioctlErr(PIC_HID_GET_REPORT, {}), 0);
        return std::to_array(last.report);
    }
    std::vector<uint8_t> readHead()
    {
        const report64 r = read();
        return {r.begin(), r.begin() + 12};
    }
    // A code-38 request; for chunks the first page, the count, and the address of `block` at bytes 12-19.
    int io(uint32_t request, uint8_t seq = 0, const void *block = nullptr, uint32_t first = 0, uint8_t count = 0)
    {
        picHidIoctlArg arg{{QX_HID_CMD_IO_CMD, seq}, 0, 0, 0, 0, 0};
        lePut32(&arg.report[3], request);
        lePut24(&arg.report[7], first);
        arg.report[11] = count;
        lePut64(&arg.report[12], reinterpret_cast<uintptr_t>(block));
        return ioctlErr(request, arg);
    }
    // PROGRAM_DEVICE with n bytes of data right-justified, for flash offset `at`; PROGRAM_COMPLETE without.
    // Each packet keeps its place: the driver reads it at the next request.
    int program(std::optional<uint32_t> at = {}, uint8_t n = 56)
    {
        auto &p = packets.emplace_back(std::array<uint8_t, QX_BLOCK_SIZE>{at ? PROGRAM_DEVICE : PROGRAM_COMPLETE});
        lePut32(&p[1], SIM_FLASH_START + at.value_or(0));
        p[5] = at ? n : 0;
        std::copy_n(data.begin(), p[5], &p[QX_REPORT_SIZE - p[5]]);
        return io(at ? PIC_HID_PIC32_PROGRAM : PIC_HID_PIC32_PROGRAM_DONE, 7, p.data());
    }
    // The first three bytes of the driver's answer to a code-38 request.
    std::vector<uint8_t> ack(uint32_t request, uint8_t seq)
    {
        EXPECT_EQ(io(request, seq), 0);
        return std::vector(last.report, last.report + 3);
    }
    bool room(uint8_t seq)
    {
        return ack(PIC_HID_IS_URB_AVAILABLE, seq) == std::vector<uint8_t>{PIC_HID_ACK_URB, uint8_t(seq ^ 0x57), 0};
    }
    // The status report's state after a status query or a clean-up.
    uint32_t status(uint32_t request, uint8_t seq)
    {
        EXPECT_EQ(io(request, seq), 0);
        const report64 r = read();
        EXPECT_EQ(std::tuple(r[0], r[1]), std::tuple(39, seq));
        return leGet32(&r[3]);
    }
    size_t count(simEventKind kind) { return std::ranges::count(simEvents(), kind, &simEvent::kind); }
    int fd = -1;
    std::array<uint8_t, 56> data{};
    std::deque<std::array<uint8_t, QX_BLOCK_SIZE>> packets;
    picHidIoctlArg last{};
};

TEST_F(simModelTest, bootloaderProgramsOnlyErasedCellsAndDropsBlocksThatDoNotFollow)
{
    simSetMode(simMode::BOOTLOADER);
    simFlash()[SIM_FLASH_SIZE - 1] = 0;
    ASSERT_EQ(send({ERASE_DEVICE}), 0);
    EXPECT_TRUE(std::all_of(simFlash().begin(), simFlash().end(), [](uint8_t b) { return b == 0xFF; }));
    EXPECT_EQ(simGetSlot(10).len, 9); // the slots have a page of their own
    // A gap drops the block, and the next that follows only the dropped one, until a COMPLETE; the last chunk of
    // the range is right-justified; blocks beyond the range and before it are dropped.
    for (auto [at, n] : std::vector<std::pair<std::optional<uint32_t>, uint8_t>>{
             {0, 56}, {56, 56}, {168, 56}, {224, 56}, {{}, 0}, {168, 56}, {{}, 0}, {SIM_FLASH_SIZE - 48, 48}, {{}, 0},
             {SIM_FLASH_SIZE - 8, 56}, {{}, 0}, {-56u, 56}}) {
        ASSERT_EQ(program(at, n), 0);
    }
    read(); // the driver sends the last packet on
    const auto flash = simFlash();
    EXPECT_EQ(std::tuple(flash[111], flash[168], flash[224]), std::tuple(56, 1, 0xFF));
    EXPECT_EQ(std::tuple(flash[SIM_FLASH_SIZE - 48], flash[SIM_FLASH_SIZE - 1]), std::tuple(1, 48));
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
    packets.back()[QX_REPORT_SIZE - 1] = 0x10; // changed after the request: the driver has not read it yet
    EXPECT_EQ(flash[55], 56);
    read();
    EXPECT_EQ(std::tuple(flash[0], flash[55]), std::tuple(0x00, 0x10));
}

TEST_F(simModelTest, driverAcknowledgesWithItsCodeAndTheNumberXor57OnlyWhenItCanTakeMore)
{
    EXPECT_NE(ack(PIC_HID_PIC32_UPGRADE_SETUP, 0x30)[2], 0); // the application cannot be programmed
    EXPECT_EQ(ack(PIC_HID_IS_URB_AVAILABLE, 0x31), (std::vector<uint8_t>{PIC_HID_ACK_URB, 0x31 ^ 0x57, 0}));
    simSetMode(simMode::BOOTLOADER);
    EXPECT_EQ(ack(PIC_HID_PIC32_IS_URB_AVAILABLE, 0x32), (std::vector<uint8_t>{PIC_HID_ACK_PIC32, 0x32 ^ 0x57, 0}));
    simSetBootloaderNoAck(true);
    EXPECT_NE(ack(PIC_HID_PIC32_UPGRADE_SETUP, 0x40)[0], PIC_HID_ACK_PIC32);
    EXPECT_EQ(io(0x80584802, 0x42), EINVAL); // a request the driver does not know
    EXPECT_EQ(io(PIC_HID_PIC32_PROGRAM, 0x43), EFAULT); // programming without a block
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

// The reply delay's timing is pinned by the slow relay tests.
TEST_F(simModelTest, injectedFaultsHitOnlyWhatTheyName)
{
    simFailIoctl(PIC_HID_SEND_REPORT, EAGAIN, 2);
    simFailIoctl(0, EIO, 1); // any request: behind the send's in line, but it matches a read
    EXPECT_EQ(send({QX_HID_CMD_GET_INFO, 2}), EAGAIN);
    EXPECT_EQ(ioctlErr(PIC_HID_GET_REPORT, {}), EIO);
    EXPECT_EQ(send({QX_HID_CMD_GET_INFO, 3}), EAGAIN);
    EXPECT_EQ(send({QX_HID_CMD_GET_INFO, 4}), 0);
    simSetReplyFault(simReplyFault::NO_REPLY, 1);
    ASSERT_EQ(send({PROGRAM_COMPLETE}), 0); // awaits no reply: does not use the fault up
    EXPECT_EQ(send({QX_HID_CMD_GET_INFO, 5}), 0);
    EXPECT_EQ(read()[1], 4); // no reply: the last one again
    EXPECT_EQ(send({QX_HID_CMD_GET_INFO, 6}), 0);
    EXPECT_EQ(read()[1], 6);
}

TEST_F(simModelTest, driverReadsChunkPagesWhenItSendsThemOnNotInTheChunksIoctl)
{
    std::vector<uint8_t> pages(CHUNK, 0x11);
    ASSERT_EQ(io(PIC_HID_FPGA_UPGRADE_SETUP), 0);
    ASSERT_EQ(io(PIC_HID_ERASE_FPGA), 0);
    ASSERT_EQ(io(PIC_HID_PROGRAM_FPGA, 5, pages.data(), 2, 30), 0);
    std::fill(pages.begin(), pages.end(), 0x22); // changed too early: the driver has not read them yet
    EXPECT_EQ(simFpgaMemory()[2 * SIM_PAGE_SIZE], 0xFF);
    EXPECT_EQ(count(simEventKind::PAGES_READ), 0u);
    EXPECT_TRUE(room(6)); // the next request sends the chunk on
    EXPECT_EQ(count(simEventKind::PAGES_READ), 1u);
    const auto fpga = simFpgaMemory();
    EXPECT_TRUE(std::all_of(fpga.begin() + 2 * SIM_PAGE_SIZE, fpga.begin() + 2 * SIM_PAGE_SIZE + CHUNK,
                            [](uint8_t b) { return b == 0x22; }));
    EXPECT_EQ(std::tuple(fpga[2 * SIM_PAGE_SIZE - 1], fpga[2 * SIM_PAGE_SIZE + CHUNK]), std::tuple(0xFF, 0xFF));

    // A CPLD chunk whose buffer is gone when the node closes: nothing arrives.
    void *map = mmap(nullptr, CHUNK, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(map, MAP_FAILED);
    std::memset(map, 0x33, CHUNK);
    ASSERT_EQ(io(PIC_HID_ERASE_CPLD), 0);
    ASSERT_EQ(io(PIC_HID_PROGRAM_CPLD, 7, map, 0, 30), 0);
    munmap(map, CHUNK);
    platformSys.close(fd);
    fd = platformSys.open(QX_USB_DEVICE_PATH, O_RDWR, 0);
    EXPECT_EQ(count(simEventKind::PAGES_UNREADABLE), 1u);
    EXPECT_EQ(simCpldImage()[0], 0xFF);
    EXPECT_EQ(simGetUpgradeState().cpldPages, 0u);
}

// The armed faults' effect on each step is pinned by the FPGA and CPLD tests; here the times the model takes.
TEST_F(simModelTest, eraseRunAndCapacityTakeTheirTimesAndTheRecordAnswersAsLaidOut)
{
    simSetFpgaEraseTimeUs(1000);
    ASSERT_EQ(io(PIC_HID_ERASE_FPGA), 0);
    EXPECT_EQ(status(PIC_HID_ERASE_FPGA_STATUS, 1), 0u); // too early
    simAdvanceUs(1000);
    EXPECT_EQ(status(PIC_HID_ERASE_FPGA_STATUS, 2), 1u);
    simSetUrbBusyUs(50000);
    std::vector<uint8_t> pages(SIM_PAGE_SIZE, 0);
    ASSERT_EQ(io(PIC_HID_PROGRAM_FPGA, 4, pages.data(), 0, 1), 0);
    EXPECT_FALSE(room(5));
    simAdvanceUs(50000);
    EXPECT_TRUE(room(6));
    EXPECT_EQ(io(PIC_HID_PROGRAM_FPGA, 10, pages.data(), 0, 31), EINVAL); // at most 30 pages

    // The CPLD record: other slots answer a write; the information report's layout; the run's time.
    report64 record{QX_HID_CMD_SET_FLASH_VAL, 21, 0xFF, 3, 0xDC, 0x05, 0x34, 0x12, 0xFF, 0xFF, 0xFF, 0xFF, 0};
    ASSERT_EQ(send(record), 0);
    EXPECT_EQ(readHead(), (std::vector<uint8_t>{14, 21, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0}));
    record[1] = 22;
    record[3] = 9;
    ASSERT_EQ(send(record), 0);
    EXPECT_EQ(read()[1], 22);
    ASSERT_EQ(send({QX_HID_CMD_CPLD_INFO, 23}), 0);
    EXPECT_EQ(readHead(), (std::vector<uint8_t>{56, 23, 0, 9, 0xDC, 0x05, 0x34, 0x12, 0xFF, 0xFF, 0xFF, 0xFF}));
    simSetCpldRunTimeUs(3000);
    ASSERT_EQ(io(PIC_HID_CPLD_UPGRADE_RUN), 0);
    simAdvanceUs(2999);
    EXPECT_EQ(simGetSlot(9).word1, 0xFFFFFFFFu);
    simAdvanceUs(1);
    EXPECT_EQ(simGetSlot(9).word1, 0u);

    // The file-transfer buffer the driver cannot read.
    std::vector<uint8_t> buffer(64, 1);
    const picHidIoctlArg xfer{{QX_HID_CMD_FILE_TRANSFER_TEST}, 0, 0, 64, 0, reinterpret_cast<uintptr_t>(buffer.data())};
    simSetUpgradeFault(simUpgradeFault::TRANSFER_UNREADABLE, 1);
    EXPECT_NE(ioctlErr(PIC_HID_FILE_TRANSFER_TEST, xfer), 0);
    EXPECT_FALSE(simLastFileTransfer().readOk);
    EXPECT_EQ(ioctlErr(PIC_HID_FILE_TRANSFER_TEST, xfer), 0);
    EXPECT_TRUE(simLastFileTransfer().readOk);
}

// A round trip of the saved state is what the system tests rely on throughout.
TEST(simState, damagedStateFilesAreRefusedAndLeaveTheModelAlone)
{
    const std::string path = testing::TempDir() + "simState-" + std::to_string(getpid());
    simReset();
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

// The control connections of both out-of-process front ends: a command runs only once its line is whole, each
// line gets its own answer, and a line that never ends is refused rather than buffered without bound.
TEST(simControl, linesRunWhenWholeAnsweredEachAndAnEndlessLineIsRefused)
{
    simReset();
    std::string pending;
    std::string replies;
    EXPECT_TRUE(tarnholdSimControlFeed(pending, "mode bo", replies));
    EXPECT_EQ(replies, "");
    EXPECT_EQ(simGetMode(), simMode::APPLICATION);
    EXPECT_TRUE(tarnholdSimControlFeed(pending, "ot\nping\nmode sideways\nping", replies));
    EXPECT_EQ(replies, "ok\nok\nerror: mode app|boot|dead expected\n");
    EXPECT_EQ(simGetMode(), simMode::BOOTLOADER);
    EXPECT_EQ(pending, "ping");

    replies.clear();
    EXPECT_FALSE(tarnholdSimControlFeed(pending, std::string(4096, 'x'), replies));
    EXPECT_EQ(replies, "error: line too long\n");
    simReset();
}
