// The start-up upgrade end to end on the simulated appliance: the passes it
// makes from each state the microcontroller can be found in.
#include "qxFile.h"
#include "qxLoader.h"
#include "qxUsb.h"
#include "simAppliance.h"
#include "simInProcess.h"

#include "logCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

// Defined in qxLoaderTestSupport.cpp.
namespace qxLoaderTest {
using report64 = std::array<uint8_t, QX_REPORT_SIZE>;
void tapInstall();
void tapSetBefore(std::function<int(uint32_t, const picHidIoctlArg &)> before);
void tapSetOpenFailures(int count);
int tapOpenAttempts();
void tapClear();
size_t tapCount(uint32_t request);
std::vector<report64> tapReports(uint32_t request, int code);
std::vector<uint8_t> blankImage();
int32_t loadImage(const std::vector<uint8_t> &image);
} // namespace qxLoaderTest

using namespace qxLoaderTest;
using testing::ElementsAre;

namespace {

const std::string PASS_0 = "qxLoaderInit: forceUpgrade=0";
const std::string PASS_1 = "qxLoaderInit: forceUpgrade=1";
const std::string UPGRADING = "QX_TRACE_PRINTF-Upgrading HID Application.....";

class qxLoaderInitOnSim : public testing::Test {
protected:
    void SetUp() override
    {
        simInProcessInstall();
        tapInstall();
        image = blankImage();
        // Code at the bottom, a table further up, a gap in between.
        for (size_t i = 0; i < 5000; ++i) {
            image[i] = static_cast<uint8_t>(i * 13 + 1);
        }
        for (size_t i = 0; i < 700; ++i) {
            image[0x20000 + i] = static_cast<uint8_t>(i ^ 0x5A);
        }
        ASSERT_EQ(loadImage(image), 0);
        qxFileGetMd5AndLen(&imageLen, md5);
        simClearEvents();
        log.clear();
    }
    void TearDown() override
    {
        qxUsbCleanUp();
        simInProcessUninstall();
    }

    // The microcontroller already runs the loaded image.
    void installImage() { simInstallApplication(image, static_cast<uint32_t>(imageLen)); }

    size_t lineIndex(const std::string &text, size_t occurrence = 0) const
    {
        const auto &all = logCapture::lines();
        for (size_t i = 0; i < all.size(); ++i) {
            if (all[i].text == text && occurrence-- == 0) {
                return i;
            }
        }
        return SIZE_MAX;
    }

    int levelOf(const std::string &text) const
    {
        for (const auto &l : logCapture::lines()) {
            if (l.text == text) {
                return l.level;
            }
        }
        return -1;
    }

    bool slotHoldsImage() const
    {
        const simSlot s = simGetSlot(QX_SLOT_FIRMWARE);
        return s.word0 == static_cast<uint32_t>(imageLen) && s.word1 == 0 && s.len == 16
            && std::equal(md5, md5 + 16, s.data);
    }

    bool flashHoldsImage() const { return std::equal(image.begin(), image.end(), simFlash().begin()); }

    std::vector<uint8_t> image;
    int32_t imageLen = 0;
    uint8_t md5[QX_FILE_DIGEST_SIZE] = {};
    logCapture log;
};

TEST_F(qxLoaderInitOnSim, matchingApplicationEndsAfterOnePassWithoutWriting)
{
    installImage();
    EXPECT_EQ(qxLoaderInit(0), 0);
    EXPECT_EQ(log.count(PASS_0), 1u);
    EXPECT_EQ(levelOf(PASS_0), 1);
    EXPECT_TRUE(log.contains("qxLoaderVerifyApplicationCode: Verification Success!"));
    EXPECT_TRUE(log.contains("qxLoaderIsProductIdMatch: 17 matched!!!"));
    EXPECT_EQ(tapReports(PIC_HID_SEND_REPORT, QX_HID_CMD_SET_FLASH_VAL).size(), 0u);
    // The probe and the first check, one GET_INFO.
    EXPECT_EQ(tapReports(PIC_HID_SEND_REPORT, QX_HID_CMD_GET_FLASH_VAL).size(), 2u);
    EXPECT_EQ(tapReports(PIC_HID_SEND_REPORT, QX_HID_CMD_GET_INFO).size(), 1u);
    EXPECT_EQ(qxLoaderGetPacketDataSize(), QX_PACKET_DATA_SIZE);
    EXPECT_GE(qxUsbGetState().fd, 0);
    EXPECT_TRUE(simSleeps().empty());

    // forceUpgrade changes the first line and nothing else. (The caller
    // hands over a closed link.)
    qxUsbCleanUp();
    log.clear();
    tapClear();
    EXPECT_EQ(qxLoaderInit(1), 0);
    EXPECT_EQ(log.count(PASS_1), 1u);
    EXPECT_EQ(log.count(PASS_0), 0u);
    EXPECT_EQ(tapReports(PIC_HID_SEND_REPORT, QX_HID_CMD_SET_FLASH_VAL).size(), 0u);
    EXPECT_EQ(simOpenNodeFds(), 1);
}

TEST_F(qxLoaderInitOnSim, applicationOfAnotherImageIsReplacedInThreePasses)
{
    // simReset left its own small application, recorded in slot 4.
    ASSERT_FALSE(flashHoldsImage());
    EXPECT_EQ(qxLoaderInit(0), 0);

    EXPECT_EQ(log.count(PASS_0), 3u);
    EXPECT_EQ(log.count(UPGRADING), 1u);
    EXPECT_EQ(levelOf(UPGRADING), 0);
    EXPECT_GT(lineIndex(UPGRADING), lineIndex(PASS_0, 1));
    EXPECT_LT(lineIndex(UPGRADING), lineIndex(PASS_0, 2));
    EXPECT_TRUE(flashHoldsImage());
    EXPECT_TRUE(slotHoldsImage());
    EXPECT_EQ(simGetMode(), simMode::APPLICATION);
    EXPECT_EQ(simOpenNodeFds(), 1);

    // Slot 4 writes: pass 1 the image's values, then the invalidated digest;
    // pass 2 the image's values twice.
    const auto writes = tapReports(PIC_HID_SEND_REPORT, QX_HID_CMD_SET_FLASH_VAL);
    ASSERT_EQ(writes.size(), 4u);
    std::array<uint8_t, 16> invalidated;
    std::copy_n(md5, 16, invalidated.begin());
    std::fill_n(invalidated.begin(), 10, 0xFF);
    EXPECT_TRUE(std::equal(md5, md5 + 16, writes[0].begin() + 13));
    EXPECT_TRUE(std::equal(invalidated.begin(), invalidated.end(), writes[1].begin() + 13));
    EXPECT_TRUE(std::equal(md5, md5 + 16, writes[2].begin() + 13));
    EXPECT_TRUE(std::equal(md5, md5 + 16, writes[3].begin() + 13));
    for (const auto &w : writes) {
        EXPECT_EQ(w[3], QX_SLOT_FIRMWARE);
        EXPECT_EQ(w[12], 16);
    }

    // The fixed waits of an upgrade, measured between the events around them:
    // 2 s before the go-to-bootloader, 3 s after the erase, 2 s after the
    // last PROGRAM_COMPLETE.
    const auto &events = simEvents();
    auto find = [&events](simEventKind kind, uint8_t code) {
        for (size_t i = 1; i + 1 < events.size(); ++i) {
            if (events[i].kind == kind && events[i].code == code) {
                return i;
            }
        }
        ADD_FAILURE() << "no event " << static_cast<int>(kind);
        return size_t{1};
    };
    const size_t gotoBoot = find(simEventKind::SEND, QX_HID_CMD_GOTO_BOOTLOADER);
    EXPECT_EQ(events[gotoBoot].atUs - events[gotoBoot - 1].atUs, 2000000u);
    const size_t erase = find(simEventKind::ERASE, ERASE_DEVICE);
    EXPECT_EQ(events[erase + 1].atUs - events[erase].atUs, 3000000u);
    size_t lastComplete = 0;
    size_t erases = 0;
    for (size_t i = 0; i < events.size(); ++i) {
        lastComplete = events[i].kind == simEventKind::COMPLETE ? i : lastComplete;
        erases += events[i].kind == simEventKind::ERASE ? 1 : 0;
    }
    ASSERT_GT(lastComplete, 0u);
    EXPECT_EQ(events[lastComplete + 1].kind, simEventKind::SEND);
    EXPECT_EQ(events[lastComplete + 1].code, QX_HID_CMD_SET_FLASH_VAL);
    EXPECT_EQ(events[lastComplete + 1].atUs - events[lastComplete].atUs, 2000000u);
    EXPECT_EQ(erases, 1u);
}

TEST_F(qxLoaderInitOnSim, bootloaderWithMatchingSlotIsProgrammedInTheFirstPass)
{
    installImage();
    std::fill(simFlash().begin(), simFlash().end(), 0x00); // whatever a cut-short run left
    simSetMode(simMode::BOOTLOADER);

    EXPECT_EQ(qxLoaderInit(0), 0);
    EXPECT_EQ(log.count(PASS_0), 2u);
    EXPECT_LT(lineIndex(UPGRADING), lineIndex(PASS_0, 1));
    EXPECT_TRUE(flashHoldsImage());
    EXPECT_TRUE(slotHoldsImage());
    EXPECT_EQ(simGetMode(), simMode::APPLICATION);
    // The checks agreed: only the store after programming wrote.
    EXPECT_EQ(tapReports(PIC_HID_SEND_REPORT, QX_HID_CMD_SET_FLASH_VAL).size(), 1u);
}

TEST_F(qxLoaderInitOnSim, unreadableSlotResetsTheDeviceAndStartsOverWithTheSameForceUpgrade)
{
    installImage();
    simSetSlotUnreadable(QX_SLOT_FIRMWARE, 6);
    EXPECT_EQ(qxLoaderInit(1), 0);

    EXPECT_EQ(log.count("qxLoaderGetStoredHash: Failed!"), 2u);
    EXPECT_EQ(log.count("qxLoaderInit: resetting USB device!"), 1u);
    EXPECT_EQ(levelOf("qxLoaderInit: resetting USB device!"), 6);
    EXPECT_EQ(log.count(PASS_1), 2u);
    EXPECT_EQ(log.count(PASS_0), 0u);
    EXPECT_LT(lineIndex("qxLoaderInit: resetting USB device!"), lineIndex(PASS_1, 1));
    EXPECT_THAT(simCommands(), ElementsAre("rmmod picdev", "modprobe picdev"));
    // Six unanswered reads, then the second pass's probe and check.
    EXPECT_EQ(tapReports(PIC_HID_SEND_REPORT, QX_HID_CMD_GET_FLASH_VAL).size(), 8u);
    EXPECT_EQ(tapReports(PIC_HID_SEND_REPORT, QX_HID_CMD_SET_FLASH_VAL).size(), 0u);
    EXPECT_EQ(simOpenNodeFds(), 1);
}

TEST_F(qxLoaderInitOnSim, missingNodeFailsAfterTheSearchWithoutTouchingSlots)
{
    tapSetOpenFailures(-1);
    EXPECT_EQ(qxLoaderInit(0), 1);
    const std::string giveUp = "QX_TRACE_PRINTF-qxLoaderInit():: Error Finding QX_HID_DEVICE *****************";
    EXPECT_EQ(log.count(giveUp), 1u);
    EXPECT_EQ(levelOf(giveUp), 0);
    EXPECT_FALSE(
        log.contains("QX_TRACE_PRINTF-qxLoaderGetClientFileName():: Error Finding QX_HID_DEVICE *****************"));
    EXPECT_EQ(log.count("__qxLoaderFindUsbDev: resetting USB device"), 1u);
    EXPECT_EQ(tapOpenAttempts(), 24);
    EXPECT_EQ(tapCount(PIC_HID_SEND_REPORT), 0u);
}

TEST_F(qxLoaderInitOnSim, unsentGoToBootloaderClosesTheLinkBeforeTheNextPass)
{
    // The first go-to-bootloader is refused by the driver.
    bool refused = false;
    tapSetBefore([&refused](uint32_t request, const picHidIoctlArg &arg) {
        if (request == PIC_HID_SEND_REPORT && arg.report[QX_REPORT_CODE] == QX_HID_CMD_GOTO_BOOTLOADER && !refused) {
            refused = true;
            return EIO;
        }
        return 0;
    });
    EXPECT_EQ(qxLoaderInit(0), 0);
    EXPECT_TRUE(refused);
    // Application again, then the bootloader, then the new application.
    EXPECT_EQ(log.count(PASS_0), 4u);
    EXPECT_EQ(log.count(UPGRADING), 1u);
    EXPECT_TRUE(flashHoldsImage());
    // No descriptor was left behind by the pass whose command failed.
    EXPECT_EQ(simOpenNodeFds(), 1);
}

} // namespace
