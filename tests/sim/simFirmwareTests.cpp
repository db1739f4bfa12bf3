// The simulated microcontroller behaves like the appliance's: the application
// and its stored values, the bootloader's erase and programming, the switch
// between them, power loss and the saved state.
#include "simTestSupport.h"

#include <cstdio>
#include <string>
#include <unistd.h>

namespace {

using simFirmwareTest = simTest;

TEST_F(simFirmwareTest, ApplicationAnswersWithTheCommandsSequenceNumber)
{
    // Before any reply the driver hands back zeros.
    EXPECT_EQ(read(), simTestReport{});

    EXPECT_EQ(productId(0x42), SIM_TEST_APPLICATION_ID);
    // The identity in bytes 4-7 follows what flash holds.
    const simTestReport info = read(); // nothing new: the same report again
    EXPECT_EQ(info[1], 0x42);
    uint32_t identity = 0;
    std::memcpy(&identity, &info[4], 4);
    EXPECT_EQ(identity, simFlashIdentity());

    // Bootloader codes mean nothing to the application: no reply, the old one repeats.
    ASSERT_EQ(send(cmd(ERASE_DEVICE, 0)), 0);
    EXPECT_EQ(read()[1], 0x42);
    EXPECT_EQ(simFlash()[0], 3); // the built-in application is untouched

    // Replies queue up in order and keep state between commands.
    ASSERT_EQ(send(cmd(QX_HID_CMD_TURN_ONE_DRV_ON_OFF, 5, {3, 1})), 0);
    ASSERT_EQ(send(cmd(QX_HID_CMD_TURN_ONE_DRV_ON_OFF, 6, {9, 1})), 0);
    ASSERT_EQ(send(cmd(QX_HID_CMD_TURN_ONE_DRV_ON_OFF, 7, {3, 0})), 0);
    ASSERT_EQ(send(cmd(QX_HID_CMD_GET_ALL_DRV_STATUS, 8)), 0);
    ASSERT_EQ(send(cmd(QX_HID_CMD_SET_FAN_SPEED, 9, {0x34, 0x12})), 0);
    ASSERT_EQ(send(cmd(QX_HID_CMD_GET_FAN_SPEED, 10)), 0);
    ASSERT_EQ(send(cmd(QX_HID_CMD_STEALTH_ON, 11)), 0);
    ASSERT_EQ(send(cmd(QX_HID_CMD_GET_STEALTH, 12)), 0);
    for (uint8_t seq = 5; seq <= 7; ++seq) {
        EXPECT_EQ(read()[1], seq);
    }
    const simTestReport drives = read();
    EXPECT_EQ(drives[0], QX_HID_CMD_GET_ALL_DRV_STATUS);
    EXPECT_EQ(drives[2], 0);
    EXPECT_EQ(drives[3] | drives[4] << 8, 1 << 9);
    read();
    const simTestReport fan = read();
    EXPECT_EQ(fan[3], 0x34);
    EXPECT_EQ(fan[4], 0x12);
    read();
    EXPECT_EQ(read()[3], 1);
    EXPECT_EQ(simGetPanel().drivePower, 1 << 9);
}

TEST_F(simFirmwareTest, SlotWriteThenReadRoundTrips)
{
    auto slotRead = [this](uint8_t seq, uint8_t slot) {
        EXPECT_EQ(send(cmd(QX_HID_CMD_GET_FLASH_VAL, seq, {slot})), 0);
        return read();
    };
    // An erased slot reads 0xFF from byte 4 on.
    simTestReport erased = slotRead(2, 3);
    EXPECT_EQ(erased[0], QX_HID_CMD_GET_FLASH_VAL);
    EXPECT_EQ(erased[2], 0);
    for (size_t i = 4; i < erased.size(); ++i) {
        ASSERT_EQ(erased[i], 0xFF) << i;
    }

    simTestReport set = cmd(QX_HID_CMD_SET_FLASH_VAL, 3, {3, 0x00, 0x30, 0x05, 0x00, 7, 0, 0, 0, 48});
    for (uint8_t i = 0; i < 48; ++i) {
        set[13 + i] = static_cast<uint8_t>(0xA0 + i);
    }
    ASSERT_EQ(send(set), 0);
    EXPECT_EQ(read()[2], 0);
    const simTestReport got = slotRead(4, 3);
    EXPECT_EQ(got[1], 4);
    EXPECT_TRUE(std::equal(got.begin() + 4, got.begin() + 61, set.begin() + 4));
    EXPECT_EQ(simGetSlot(3).word0, 0x53000u);

    // More than 48 bytes is refused and nothing is stored.
    simTestReport tooLong = set;
    tooLong[1] = 5;
    tooLong[12] = 49;
    tooLong[4] = 0x11;
    ASSERT_EQ(send(tooLong), 0);
    EXPECT_EQ(read()[2], 1);
    EXPECT_EQ(slotRead(6, 3)[4], 0x00);

    // Slot 10 holds the platform text.
    const simTestReport platform = slotRead(7, 10);
    EXPECT_EQ(platform[12], 9);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(&platform[13]), 9), "HW=BRISKA");
    EXPECT_EQ(slotRead(8, SIM_SLOT_COUNT)[2], 1);
}

class simBootloaderTest : public simTest {
protected:
    void SetUp() override
    {
        simTest::SetUp();
        simSetMode(simMode::BOOTLOADER);
        for (size_t i = 0; i < data.size(); ++i) {
            data[i] = static_cast<uint8_t>(i + 1);
        }
    }
    std::array<uint8_t, 56> data{};
};

TEST_F(simBootloaderTest, EraseProgramCompleteWritesFlash)
{
    EXPECT_EQ(productId(9), SIM_TEST_BOOTLOADER_ID);

    // Set-up and availability: the driver's acknowledgement in the block itself.
    picHidIoctlArg setup = ioBlock(PIC_HID_PIC32_UPGRADE_SETUP, 0x10);
    ASSERT_EQ(ioctlErr(PIC_HID_PIC32_UPGRADE_SETUP, setup), 0);
    EXPECT_EQ(setup.report[0], PIC_HID_ACK_PIC32);
    EXPECT_EQ(setup.report[1], 0x10 ^ PIC_HID_ACK_SEQ_XOR);
    EXPECT_EQ(setup.report[2], 0);

    ASSERT_EQ(send(cmd(ERASE_DEVICE, 0)), 0);
    EXPECT_TRUE(std::all_of(simFlash().begin(), simFlash().end(), [](uint8_t b) { return b == 0xFF; }));
    EXPECT_EQ(simGetSlot(10).len, 9); // the slots have their own page

    ASSERT_EQ(program(SIM_FLASH_START, data.data(), 56), 0);
    ASSERT_EQ(program(SIM_FLASH_START + 56, data.data(), 56), 0);
    ASSERT_EQ(complete(), 0);
    // The last chunk of the range is 48 bytes, right-justified in its packet.
    ASSERT_EQ(program(SIM_FLASH_START + SIM_FLASH_SIZE - 48, data.data(), 48), 0);
    ASSERT_EQ(complete(), 0);

    EXPECT_EQ(simFlash()[0], 1);
    EXPECT_EQ(simFlash()[55], 56);
    EXPECT_EQ(simFlash()[56], 1);
    EXPECT_EQ(simFlash()[112], 0xFF);
    EXPECT_EQ(simFlash()[SIM_FLASH_SIZE - 48], 1);
    EXPECT_EQ(simFlash()[SIM_FLASH_SIZE - 1], 48);
    EXPECT_EQ(kinds({simEventKind::ERASE, simEventKind::PROGRAM, simEventKind::COMPLETE}),
              (std::vector<simEventKind>{simEventKind::ERASE, simEventKind::PROGRAM, simEventKind::PROGRAM,
                                         simEventKind::COMPLETE, simEventKind::PROGRAM, simEventKind::COMPLETE}));

    // Flash cells only go from 1 to 0: programming without an erase ANDs.
    const uint8_t zeros[4] = {0xF0, 0x0F, 0xF0, 0x0F};
    ASSERT_EQ(program(SIM_FLASH_START, zeros, 4), 0);
    EXPECT_EQ(simFlash()[0], 0x01 & 0xF0);
    EXPECT_EQ(simFlash()[1], 0x02 & 0x0F);
}

TEST_F(simBootloaderTest, BlockNotFollowingThePreviousIsDroppedUntilComplete)
{
    ASSERT_EQ(send(cmd(ERASE_DEVICE, 0)), 0);
    ASSERT_EQ(program(SIM_FLASH_START, data.data(), 56), 0);
    // A gap without PROGRAM_COMPLETE: the bootloader drops the block, and the
    // next one, which follows only the dropped block, too.
    ASSERT_EQ(program(SIM_FLASH_START + 112, data.data(), 56), 0);
    ASSERT_EQ(program(SIM_FLASH_START + 168, data.data(), 56), 0);
    EXPECT_EQ(simFlash()[112], 0xFF);
    EXPECT_EQ(simFlash()[168], 0xFF);
    ASSERT_EQ(complete(), 0);
    ASSERT_EQ(program(SIM_FLASH_START + 112, data.data(), 56), 0);
    EXPECT_EQ(simFlash()[112], 1);
    // Outside the application range: dropped.
    ASSERT_EQ(complete(), 0);
    ASSERT_EQ(program(SIM_FLASH_START - 56, data.data(), 56), 0);
    ASSERT_EQ(complete(), 0);
    ASSERT_EQ(program(SIM_FLASH_START + SIM_FLASH_SIZE - 8, data.data(), 56), 0);

    std::vector<uint32_t> dropped;
    for (const simEvent &e : simEvents()) {
        if (e.kind == simEventKind::PROGRAM_DROPPED) {
            dropped.push_back(e.address - SIM_FLASH_START);
        }
    }
    EXPECT_EQ(dropped, (std::vector<uint32_t>{112, 168, static_cast<uint32_t>(-56), SIM_FLASH_SIZE - 8}));
}

TEST_F(simFirmwareTest, GotoCommandsTakeEffectAtTheNextReset)
{
    ASSERT_EQ(send(cmd(QX_HID_CMD_GOTO_BOOTLOADER, 0)), 0);
    EXPECT_EQ(productId(2), SIM_TEST_APPLICATION_ID); // still running until reset
    restartThroughReset();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(simGetMode(), simMode::BOOTLOADER);
    EXPECT_EQ(productId(3), SIM_TEST_BOOTLOADER_ID);
    EXPECT_EQ(simCommands(), (std::vector<std::string>{"rmmod picdev", "modprobe picdev"}));

    // Back to the application that flash holds.
    ASSERT_EQ(send(cmd(QX_HID_CMD_GOTO_APPLICATION, 0)), 0);
    restartThroughReset();
    EXPECT_EQ(productId(4), SIM_TEST_APPLICATION_ID);

    // A bootloader with blank flash has nothing to start.
    ASSERT_EQ(send(cmd(QX_HID_CMD_GOTO_BOOTLOADER, 0)), 0);
    restartThroughReset();
    ASSERT_EQ(send(cmd(ERASE_DEVICE, 0)), 0);
    ASSERT_EQ(send(cmd(QX_HID_CMD_GOTO_APPLICATION, 0)), 0);
    restartThroughReset();
    EXPECT_EQ(productId(5), SIM_TEST_BOOTLOADER_ID);
}

TEST_F(simBootloaderTest, PowerLossMidProgrammingLeavesTheNodeAbsentAndFlashPartial)
{
    ASSERT_EQ(send(cmd(ERASE_DEVICE, 0)), 0);
    simPowerLossAfter(2); // two chunks get through
    for (uint32_t i = 0; i < 4; ++i) {
        const int err = program(SIM_FLASH_START + i * 56, data.data(), 56);
        EXPECT_EQ(err, i < 2 ? 0 : ENODEV) << i;
    }
    EXPECT_EQ(simFlash()[56], 1);
    EXPECT_EQ(simFlash()[112], 0xFF);
    EXPECT_EQ(simGetMode(), simMode::DEAD);
    EXPECT_EQ(openNode(), -1);
    EXPECT_EQ(errno, ENOENT);

    // A USB reset finds nothing; the next module load brings the bootloader back.
    restartThroughReset();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(productId(6), SIM_TEST_BOOTLOADER_ID);
    EXPECT_EQ(simFlash()[56], 1);
}

TEST(simState, InstalledApplicationIsRecordedInSlot4AsTheServiceStoresIt)
{
    simReset();
    std::array<uint8_t, 16> image;
    for (uint8_t i = 0; i < 16; ++i) {
        image[i] = i;
    }
    // The digest covers the image and the erased bytes up to its length...
    simInstallApplication(image, 64);
    constexpr uint8_t md5Short[16] = {0xee, 0x72, 0xe8, 0xfb, 0x5b, 0x36, 0xb0, 0x8e,
                                      0x91, 0x15, 0xe2, 0xa8, 0x45, 0xbd, 0xd2, 0xcc};
    simSlot slot = simGetSlot(4);
    EXPECT_EQ(slot.word0, 64u);
    EXPECT_EQ(slot.word1, 0u);
    EXPECT_EQ(slot.len, 16);
    EXPECT_TRUE(std::equal(md5Short, md5Short + 16, slot.data));
    EXPECT_EQ(simFlash()[15], 15);
    EXPECT_EQ(simFlash()[16], 0xFF);
    // ...and zeros past the end of the flash range, as the service's image holds.
    simInstallApplication(image, SIM_FLASH_SIZE + 64);
    constexpr uint8_t md5Long[16] = {0x08, 0x74, 0x50, 0x54, 0x4b, 0x4c, 0xb3, 0xc9,
                                     0xcf, 0xd6, 0xcf, 0xa9, 0x3b, 0x62, 0xd0, 0x82};
    slot = simGetSlot(4);
    EXPECT_TRUE(std::equal(md5Long, md5Long + 16, slot.data));
}

TEST(simState, SavedStateRoundTripsAndCorruptFilesAreRejected)
{
    char dir[] = "/tmp/simStateXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/state";

    simReset();
    simSetMode(simMode::BOOTLOADER);
    simFlash()[100] = 0x5A;
    simSetPlatformText("HW=OTHER");
    simSetNodePresent(false);
    ASSERT_TRUE(simSaveState(path));
    const uint32_t identity = simFlashIdentity();

    simReset();
    ASSERT_TRUE(simLoadState(path));
    EXPECT_EQ(simGetMode(), simMode::BOOTLOADER);
    EXPECT_EQ(simFlashIdentity(), identity);
    EXPECT_EQ(simGetSlot(10).len, 8);
    EXPECT_FALSE(simNodePresent());
    EXPECT_EQ(simGetSlot(4).len, 16);

    // Each damage is refused and leaves the model as it was.
    auto damaged = [&](auto damage) {
        FILE *f = std::fopen(path.c_str(), "r+b");
        damage(f);
        std::fclose(f);
        simReset();
        return simLoadState(path);
    };
    EXPECT_FALSE(damaged([](FILE *f) {
        std::fseek(f, 200, SEEK_SET);
        std::fputc(0x77, f);
    }));
    EXPECT_EQ(simGetMode(), simMode::APPLICATION);
    ASSERT_TRUE(simSaveState(path));
    EXPECT_FALSE(damaged([](FILE *f) { std::fputc('X', f); })); // magic
    ASSERT_TRUE(simSaveState(path));
    EXPECT_FALSE(damaged([](FILE *f) {
        std::fseek(f, 0, SEEK_END);
        std::fputc(0, f); // one byte too many
    }));
    ASSERT_TRUE(simSaveState(path));
    EXPECT_EQ(truncate(path.c_str(), 100), 0);
    EXPECT_FALSE(simLoadState(path));
    EXPECT_FALSE(simLoadState(std::string(dir) + "/missing"));

    // Power lost in one run: the next run's module load finds the bootloader.
    simReset();
    simPowerLossAfter(0);
    ASSERT_TRUE(simSaveState(path));
    simReset();
    ASSERT_TRUE(simLoadState(path));
    EXPECT_FALSE(simNodePresent());
    simModuleLoad();
    EXPECT_EQ(simGetMode(), simMode::BOOTLOADER);
    EXPECT_TRUE(simNodePresent());

    unlink(path.c_str());
    rmdir(dir);
}

} // namespace
