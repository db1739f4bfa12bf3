// The loader's exchanges on the simulated appliance: platform selection, the
// send-and-wait exchange, stored value slots and verification, GET_INFO, the
// go and erase commands, and the device search with its waits.
#include "qxFile.h"
#include "qxLoader.h"
#include "qxUsb.h"
#include "simAppliance.h"
#include "simInProcess.h"
#include "sysSeam.h"

#include "logCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

// Defined in qxLoaderTestSupport.cpp.
namespace qxLoaderTest {
using report64 = std::array<uint8_t, QX_REPORT_SIZE>;
void tapInstall();
void tapSetBefore(std::function<int(uint32_t, const picHidIoctlArg &)> before);
void tapSetAfter(std::function<void(uint32_t, picHidIoctlArg &)> after);
void tapSetOpenFailures(int count);
int tapOpenAttempts();
std::vector<uint64_t> tapOpenTimes();
void tapClear();
size_t tapCount(uint32_t request);
std::vector<uint32_t> tapRequests();
std::vector<report64> tapReports(uint32_t request, int code);
std::vector<uint8_t> blankImage();
int32_t loadImage(const std::vector<uint8_t> &image);
} // namespace qxLoaderTest

using namespace qxLoaderTest;
using testing::ElementsAre;

namespace {

const char *const BRISKA_FILE = "/usr/sbin/briska-pic-client.hex";
const char *const TORVA_FILE = "/usr/sbin/torva-pic-client.hex";
const char *const FALLBACK_FILE = "/usr/sbin/pic-client";

class qxLoaderOnSim : public testing::Test {
protected:
    void SetUp() override
    {
        simInProcessInstall();
        tapInstall();
    }
    void TearDown() override
    {
        qxUsbCleanUp();
        simInProcessUninstall();
    }

    // Opens the link and forgets what that took.
    void openLink()
    {
        ASSERT_EQ(qxUsbInit(), 0);
        tapClear();
        simClearEvents();
        simClearSleeps();
        log.clear();
    }

    std::vector<std::string> loaderLines() const
    {
        std::vector<std::string> out;
        for (const auto &l : logCapture::lines()) {
            if (l.source == "qxLoader") {
                out.push_back(l.text);
            }
        }
        return out;
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

    logCapture log;
};

void setSlot(int slot, uint32_t word0, uint32_t word1, uint8_t len, const std::vector<uint8_t> &data)
{
    simSlot s;
    s.word0 = word0;
    s.word1 = word1;
    s.len = len;
    std::copy_n(data.begin(), std::min<size_t>(data.size(), sizeof s.data), s.data);
    simSetSlot(slot, s);
}

std::vector<uint8_t> counting(size_t n, uint8_t first)
{
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) {
        v[i] = static_cast<uint8_t>(first + i);
    }
    return v;
}

// ---- Platform selection ------------------------------------------------------

TEST_F(qxLoaderOnSim, platformSelectionTakesFirstTableRowContainedInTheText)
{
    struct row {
        const char *text;
        int32_t rc;
        const char *file;
        int32_t id;
    };
    const row rows[] = {
        {"HW=BRISKA", 0, BRISKA_FILE, 1},
        {"HW=TORVA_2X", 0, TORVA_FILE, 3}, // "HW=TORVA" stands first and is contained
        {"HW=TORVA_10X", 0, TORVA_FILE, 3},
        {"HW=TORVA_DEFAULT", 0, TORVA_FILE, 2},
        {"HW=TORV_TOWER", 0, "/usr/sbin/qx-multi-pic-client.hex", 7},
        {"HW=RL_LCD", 0, "/usr/sbin/rb-pic-client.hex", 1},
        {"rev 2;HW=GRENDA_U;sn=42", 0, "/usr/sbin/vantu-pic-client.hex", 1},
        {"HW=BRISKA HW=MOSSEL", 0, FALLBACK_FILE, 0}, // table order, not text order
        {"HW=BRISKA", 0, BRISKA_FILE, 1},
        {"hw=briska", -1, FALLBACK_FILE, 0}, // case-sensitive; no match still sets row 0's id
        {"", -1, FALLBACK_FILE, 0},
    };
    for (const auto &r : rows) {
        char name[64];
        memset(name, 'x', sizeof name);
        EXPECT_EQ(__qxLoaderGetPicClientFileNameFromPlatform(r.text, name), r.rc) << r.text;
        EXPECT_STREQ(name, r.file) << r.text;
        EXPECT_EQ(qxLoaderGetPlatform(), r.id) << r.text;
    }
    EXPECT_TRUE(tapRequests().empty());
}

TEST_F(qxLoaderOnSim, platformTextIsReadFromSlotTenAndCutAt48Characters)
{
    openLink();
    simSetPlatformText("HW=TORVA_2X");
    char name[QX_LOADER_FILE_NAME_MIN];
    EXPECT_EQ(qxLoaderGetClientFileName(name), 0);
    EXPECT_STREQ(name, TORVA_FILE);
    EXPECT_EQ(qxLoaderGetPlatform(), 3);
    EXPECT_TRUE(log.contains("QX_TRACE_PRINTF-platformStr: HW=TORVA_2X"));
    EXPECT_EQ(levelOf("QX_TRACE_PRINTF-platformStr: HW=TORVA_2X"), 0);

    auto sent = tapReports(PIC_HID_SEND_REPORT, QX_HID_CMD_GET_FLASH_VAL);
    ASSERT_EQ(sent.size(), 1u);
    report64 expected{};
    expected[0] = QX_HID_CMD_GET_FLASH_VAL;
    expected[1] = sent[0][1];
    expected[3] = QX_SLOT_PLATFORM;
    EXPECT_EQ(sent[0], expected);

    // A length byte of 200: only reply bytes 13 to 60 are taken, whatever follows.
    std::string text48 = "HW=TORVA_DEFAULT;" + std::string(31, 'y');
    ASSERT_EQ(text48.size(), 48u);
    std::vector<uint8_t> data(text48.begin(), text48.end());
    setSlot(QX_SLOT_PLATFORM, 0, 0, 200, data);
    tapSetAfter([](uint32_t request, picHidIoctlArg &arg) {
        if (request == PIC_HID_GET_REPORT) {
            arg.report[61] = arg.report[62] = arg.report[63] = 'Z';
        }
    });
    log.clear();
    EXPECT_EQ(qxLoaderGetClientFileName(name), 0);
    EXPECT_STREQ(name, TORVA_FILE);
    EXPECT_EQ(qxLoaderGetPlatform(), 2);
    EXPECT_TRUE(log.contains("QX_TRACE_PRINTF-platformStr: " + text48));
    tapSetAfter(nullptr);

    // An empty text matches nothing: row 0 and -1.
    setSlot(QX_SLOT_PLATFORM, 0, 0, 0, {});
    EXPECT_EQ(qxLoaderGetClientFileName(name), -1);
    EXPECT_STREQ(name, FALLBACK_FILE);
    EXPECT_EQ(qxLoaderGetPlatform(), 0);
}

TEST_F(qxLoaderOnSim, failedPlatformExchangeLeavesNameAndPlatformAlone)
{
    openLink();
    char name[QX_LOADER_FILE_NAME_MIN];
    ASSERT_EQ(qxLoaderGetClientFileName(name), 0);
    ASSERT_EQ(qxLoaderGetPlatform(), 1);

    strcpy(name, "untouched");
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    EXPECT_EQ(qxLoaderGetClientFileName(name), 255); // low 8 bits of -1
    EXPECT_TRUE(log.contains("QX_TRACE_USB-***usb cmd failed***"));
    EXPECT_EQ(levelOf("QX_TRACE_USB-***usb cmd failed***"), 0);

    simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 1);
    EXPECT_EQ(qxLoaderGetClientFileName(name), 1);
    EXPECT_STREQ(name, "untouched");
    EXPECT_EQ(qxLoaderGetPlatform(), 1);
}

// ---- The loader's exchange ---------------------------------------------------

TEST_F(qxLoaderOnSim, exchangeAcceptsOwnSequenceWithinThreeReadsOrOwnCode)
{
    openLink();
    auto slotRead = [] {
        qxUsbBlock b{};
        b[0] = QX_HID_CMD_GET_FLASH_VAL;
        b[3] = QX_SLOT_PLATFORM;
        return b;
    };

    // Echoed at once: one read, no wait; the sequence number is written into byte 1.
    qxUsbBlock b = slotRead();
    const uint8_t before = qxUsbGetState().seqNum;
    EXPECT_EQ(qxLoaderGenericCmd(b.data()), 0);
    EXPECT_EQ(b[1], static_cast<uint8_t>(before + 1));
    EXPECT_EQ(tapCount(PIC_HID_GET_REPORT), 1u);
    EXPECT_TRUE(simSleeps().empty());

    // Echoed only on the third read: two 10 ms waits.
    tapClear();
    simSetReplyDelayReads(2);
    b = slotRead();
    EXPECT_EQ(qxLoaderGenericCmd(b.data()), 0);
    EXPECT_EQ(tapCount(PIC_HID_GET_REPORT), 3u);
    EXPECT_THAT(simSleeps(), ElementsAre(10000u, 10000u));
    simSetReplyDelayReads(0);

    // Never echoed but carrying the command's code: accepted after three reads.
    tapClear();
    simClearSleeps();
    simSetReplyFault(simReplyFault::WRONG_SEQ, 1);
    b = slotRead();
    EXPECT_EQ(qxLoaderGenericCmd(b.data()), 0);
    EXPECT_EQ(tapCount(PIC_HID_GET_REPORT), 3u);
    EXPECT_EQ(simSleeps().size(), 2u);

    // Another code and another number: 1.
    simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 1);
    b = slotRead();
    EXPECT_EQ(qxLoaderGenericCmd(b.data()), 1);

    // The last read failing gives its result.
    simFailIoctl(PIC_HID_GET_REPORT, EIO, 3);
    b = slotRead();
    EXPECT_EQ(qxLoaderGenericCmd(b.data()), -1);

    // A failed send reads nothing.
    tapClear();
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    b = slotRead();
    EXPECT_EQ(qxLoaderGenericCmd(b.data()), -1);
    EXPECT_EQ(tapCount(PIC_HID_GET_REPORT), 0u);
}

// ---- Stored values -------------------------------------------------------------

TEST_F(qxLoaderOnSim, slotReadTakesWordsLengthAndDataFromTheReply)
{
    openLink();
    const auto digest = counting(16, 0xA0);
    setSlot(QX_SLOT_FIRMWARE, 0x53000, 0xA1B2C3D4, 16, digest);

    qxLoaderStoredNum sn{};
    EXPECT_EQ(qxLoaderGetStoredNum(&sn, QX_SLOT_FIRMWARE), 0);
    EXPECT_EQ(sn.storedNumWord0, 0x53000u);
    EXPECT_EQ(sn.storedNumWord1, 0xA1B2C3D4u);
    EXPECT_EQ(sn.storedNumLen, 16);
    EXPECT_TRUE(std::equal(digest.begin(), digest.end(), sn.storedNum));
    EXPECT_EQ(sn.storedNum[16], 0);

    auto sent = tapReports(PIC_HID_SEND_REPORT, QX_HID_CMD_GET_FLASH_VAL);
    ASSERT_EQ(sent.size(), 1u);
    report64 expected{};
    expected[0] = QX_HID_CMD_GET_FLASH_VAL;
    expected[1] = sent[0][1];
    expected[3] = QX_SLOT_FIRMWARE;
    EXPECT_EQ(sent[0], expected);

    // Length 49: the message on standard output, a successful read with no
    // data, and the words as they were.
    setSlot(QX_SLOT_FIRMWARE, 0x11111111, 0x22222222, 49, counting(48, 1));
    sn = {};
    sn.storedNumWord0 = 7;
    sn.storedNumWord1 = 9;
    testing::internal::CaptureStdout();
    EXPECT_EQ(qxLoaderGetStoredNum(&sn, QX_SLOT_FIRMWARE), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "****ERROR*** SHOULD ERASE FLASH*************, sn->storedNumLen: 49\n");
    EXPECT_EQ(sn.storedNumLen, 0);
    EXPECT_EQ(sn.storedNumWord0, 7u);
    EXPECT_EQ(sn.storedNumWord1, 9u);

    // A failed exchange: the low 8 bits of its result, the record untouched.
    sn.storedNumLen = 33;
    simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 1);
    EXPECT_EQ(qxLoaderGetStoredNum(&sn, QX_SLOT_FIRMWARE), 1);
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    EXPECT_EQ(qxLoaderGetStoredNum(&sn, QX_SLOT_FIRMWARE), 255);
    EXPECT_EQ(sn.storedNumLen, 33);
    EXPECT_EQ(sn.storedNumWord0, 7u);
}

TEST_F(qxLoaderOnSim, slotWriteSendsWordsLengthAndDataAsLaidOut)
{
    openLink();
    const auto digest = counting(16, 0x30);
    EXPECT_EQ(qxLoaderSetHash(0x53000, digest.data()), 0);
    auto sent = tapReports(PIC_HID_SEND_REPORT, QX_HID_CMD_SET_FLASH_VAL);
    ASSERT_EQ(sent.size(), 1u);
    report64 expected{};
    expected[0] = QX_HID_CMD_SET_FLASH_VAL;
    expected[1] = sent[0][1];
    expected[3] = 4;
    expected[4] = 0x00;
    expected[5] = 0x30;
    expected[6] = 0x05;
    expected[7] = 0x00;
    expected[12] = 16;
    std::copy(digest.begin(), digest.end(), expected.begin() + 13);
    EXPECT_EQ(sent[0], expected);
    const simSlot stored = simGetSlot(QX_SLOT_FIRMWARE);
    EXPECT_EQ(stored.word0, 0x53000u);
    EXPECT_EQ(stored.word1, 0u);
    EXPECT_EQ(stored.len, 16);

    // 48 data bytes fill bytes 13 to 60; only the low 32 bits of each word travel.
    tapClear();
    qxLoaderStoredNum sn{};
    sn.storedNumWord0 = 0x1234567890ABCDEFull;
    sn.storedNumWord1 = 0xFEDCBA0987654321ull;
    sn.storedNumLen = 48;
    const auto data = counting(48, 0x40);
    std::copy(data.begin(), data.end(), sn.storedNum);
    EXPECT_EQ(qxLoaderSetStoredNum(&sn, 7), 0);
    sent = tapReports(PIC_HID_SEND_REPORT, QX_HID_CMD_SET_FLASH_VAL);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0][3], 7);
    EXPECT_THAT(std::vector<uint8_t>(sent[0].begin() + 4, sent[0].begin() + 12),
                ElementsAre(0xEF, 0xCD, 0xAB, 0x90, 0x21, 0x43, 0x65, 0x87));
    EXPECT_EQ(sent[0][12], 48);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), sent[0].begin() + 13));
    EXPECT_THAT(std::vector<uint8_t>(sent[0].begin() + 61, sent[0].end()), ElementsAre(0, 0, 0));

    // 49 bytes: nothing goes out.
    tapClear();
    sn.storedNumLen = 49;
    EXPECT_EQ(qxLoaderSetStoredNum(&sn, 7), -1);
    EXPECT_EQ(tapCount(PIC_HID_SEND_REPORT), 0u);

    // A failed exchange gives 1, whatever its own result.
    sn.storedNumLen = 4;
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    EXPECT_EQ(qxLoaderSetStoredNum(&sn, 7), 1);
    simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 1);
    EXPECT_EQ(qxLoaderSetStoredNum(&sn, 7), 1);
}

TEST_F(qxLoaderOnSim, storedHashGetsThreeTriesAndKeepsOutputsOnFailure)
{
    openLink();
    const auto digest = counting(16, 0x50);
    setSlot(QX_SLOT_FIRMWARE, 0x2C0, 0, 16, digest);

    // Two failures, then a good read: no log line.
    simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 2);
    uint32_t len = 0;
    std::array<uint8_t, 48> out{};
    EXPECT_EQ(qxLoaderGetStoredHash(&len, out.data()), 0);
    EXPECT_EQ(len, 0x2C0u);
    EXPECT_TRUE(std::equal(digest.begin(), digest.end(), out.begin()));
    EXPECT_EQ(tapReports(PIC_HID_SEND_REPORT, QX_HID_CMD_GET_FLASH_VAL).size(), 3u);
    EXPECT_FALSE(log.contains("qxLoaderGetStoredHash: Failed!"));

    // Three failures: the line, the last result, the outputs untouched.
    tapClear();
    simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 3);
    len = 0xDEAD;
    out.fill(0xEE);
    EXPECT_EQ(qxLoaderGetStoredHash(&len, out.data()), 1);
    EXPECT_EQ(tapReports(PIC_HID_SEND_REPORT, QX_HID_CMD_GET_FLASH_VAL).size(), 3u);
    EXPECT_EQ(len, 0xDEADu);
    EXPECT_EQ(out[0], 0xEE);
    EXPECT_EQ(log.count("qxLoaderGetStoredHash: Failed!"), 1u);
    EXPECT_EQ(levelOf("qxLoaderGetStoredHash: Failed!"), 6);
}

TEST_F(qxLoaderOnSim, verificationComparesLengthAndMd5AndStoresOnlyWhenAsked)
{
    std::vector<uint8_t> image = blankImage();
    std::copy_n(counting(300, 9).begin(), 300, image.begin());
    ASSERT_EQ(loadImage(image), 0);
    int32_t imageLen = 0;
    uint8_t md5[QX_FILE_DIGEST_SIZE];
    qxFileGetMd5AndLen(&imageLen, md5);
    ASSERT_EQ(imageLen, 320);
    const std::vector<uint8_t> md5v(md5, md5 + 16);
    openLink();

    auto slotWrites = [] { return tapReports(PIC_HID_SEND_REPORT, QX_HID_CMD_SET_FLASH_VAL).size(); };

    // Agreement: storing asked or not, nothing is written.
    setSlot(QX_SLOT_FIRMWARE, 320, 0, 16, md5v);
    EXPECT_EQ(qxLoaderVerifyApplicationCode(0), 0);
    EXPECT_EQ(qxLoaderVerifyApplicationCode(1), 0);
    EXPECT_EQ(log.count("qxLoaderVerifyApplicationCode: Verification Success!"), 2u);
    EXPECT_EQ(levelOf("qxLoaderVerifyApplicationCode: Verification Success!"), 1);
    EXPECT_EQ(slotWrites(), 0u);

    // The digest's last byte differs.
    auto other = md5v;
    other[15] ^= 1;
    setSlot(QX_SLOT_FIRMWARE, 320, 0, 16, other);
    EXPECT_EQ(qxLoaderVerifyApplicationCode(0), 1);
    EXPECT_EQ(levelOf("qxLoaderVerifyApplicationCode: Verification Failed!"), 6);
    EXPECT_EQ(slotWrites(), 0u);
    EXPECT_EQ(simGetSlot(QX_SLOT_FIRMWARE).data[15], other[15]);

    // The length differs; storing asked: the slot gets the image's values.
    setSlot(QX_SLOT_FIRMWARE, 384, 0, 16, md5v);
    EXPECT_EQ(qxLoaderVerifyApplicationCode(1), 1);
    EXPECT_EQ(slotWrites(), 1u);
    simSlot s = simGetSlot(QX_SLOT_FIRMWARE);
    EXPECT_EQ(s.word0, 320u);
    EXPECT_EQ(s.len, 16);
    EXPECT_TRUE(std::equal(md5v.begin(), md5v.end(), s.data));
    EXPECT_EQ(qxLoaderVerifyApplicationCode(0), 0);

    // An erased slot reads as length 255: the message, then a disagreement.
    simSlot erased;
    simSetSlot(QX_SLOT_FIRMWARE, erased);
    log.clear();
    testing::internal::CaptureStdout();
    EXPECT_EQ(qxLoaderVerifyApplicationCode(0), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "****ERROR*** SHOULD ERASE FLASH*************, sn->storedNumLen: 255\n");
    EXPECT_TRUE(log.contains("qxLoaderVerifyApplicationCode: Verification Failed!"));

    // A record too short to hold an MD5 disagrees, its length matching.
    setSlot(QX_SLOT_FIRMWARE, 320, 0, 8, md5v);
    EXPECT_EQ(qxLoaderVerifyApplicationCode(0), 1);

    // An unreadable slot disagrees.
    setSlot(QX_SLOT_FIRMWARE, 320, 0, 16, md5v);
    simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 3);
    log.clear();
    EXPECT_EQ(qxLoaderVerifyApplicationCode(0), 1);
    EXPECT_THAT(loaderLines(), ElementsAre("qxLoaderGetStoredHash: Failed!",
                                           "qxLoaderVerifyApplicationCode: Verification Failed!"));
}

// ---- Firmware identity, go and erase -------------------------------------------

TEST_F(qxLoaderOnSim, getInfoMatchesOnCodeSequenceStatusAndProductId)
{
    openLink();
    EXPECT_EQ(qxLoaderIsHidApplication(), 1);
    EXPECT_EQ(qxLoaderIsHidBootloader(), 0);
    EXPECT_THAT(loaderLines(), ElementsAre("qxLoaderIsProductIdMatch: 17 matched!!!",
                                           "qxLoaderIsProductIdMatch: 18 doesn't match!!!"));
    EXPECT_EQ(levelOf("qxLoaderIsProductIdMatch: 17 matched!!!"), 1);
    EXPECT_EQ(levelOf("qxLoaderIsProductIdMatch: 18 doesn't match!!!"), 6);
    auto sent = tapReports(PIC_HID_SEND_REPORT, QX_HID_CMD_GET_INFO);
    ASSERT_EQ(sent.size(), 2u);
    report64 expected{};
    expected[0] = QX_HID_CMD_GET_INFO;
    expected[1] = sent[0][1];
    EXPECT_EQ(sent[0], expected);
    EXPECT_NE(sent[1][1], sent[0][1]);

    simSetMode(simMode::BOOTLOADER);
    EXPECT_EQ(qxLoaderIsHidBootloader(), 1);
    EXPECT_EQ(qxLoaderIsHidApplication(), 0);
    simSetMode(simMode::APPLICATION);

    // The same reply with status 1 matches neither.
    tapSetAfter([](uint32_t request, picHidIoctlArg &arg) {
        if (request == PIC_HID_GET_REPORT) {
            arg.report[QX_REPORT_STATUS] = 1;
        }
    });
    EXPECT_EQ(qxLoaderIsHidApplication(), 0);
    EXPECT_EQ(qxLoaderIsHidBootloader(), 0);
    tapSetAfter(nullptr);

    // Echoed on the third read: still tested, after two 10 ms waits.
    simClearSleeps();
    simSetReplyDelayReads(2);
    EXPECT_EQ(qxLoaderIsHidApplication(), 1);
    EXPECT_THAT(simSleeps(), ElementsAre(10000u, 10000u));
    simSetReplyDelayReads(0);

    // Never echoed: three reads, no match.
    tapClear();
    simSetReplyFault(simReplyFault::NO_REPLY, 1);
    EXPECT_EQ(qxLoaderIsHidApplication(), 0);
    EXPECT_EQ(tapCount(PIC_HID_GET_REPORT), 3u);

    // A dead link: no match, and no way out but 0.
    qxUsbCleanUp();
    EXPECT_EQ(qxLoaderIsHidApplication(), 0);
}

TEST_F(qxLoaderOnSim, goAndEraseCommandsCarryNoSequenceAndAwaitNoReply)
{
    openLink();
    qxLoaderEraseApplication();
    auto sent = tapReports(PIC_HID_SEND_REPORT, -1);
    ASSERT_EQ(sent.size(), 1u);
    report64 expected{};
    expected[0] = ERASE_DEVICE;
    EXPECT_EQ(sent[0], expected);
    EXPECT_EQ(tapCount(PIC_HID_GET_REPORT), 0u);
    EXPECT_THAT(simSleeps(), ElementsAre(3000000u));

    // The go command makes the link reset the USB device and leaves it closed.
    tapClear();
    qxLoaderGotoBootLoader();
    sent = tapReports(PIC_HID_SEND_REPORT, -1);
    ASSERT_EQ(sent.size(), 1u);
    expected[0] = QX_HID_CMD_GOTO_BOOTLOADER;
    EXPECT_EQ(sent[0], expected);
    EXPECT_EQ(tapCount(PIC_HID_GET_REPORT), 0u);
    EXPECT_EQ(qxUsbGetState().fd, -1);
    EXPECT_EQ(simGetMode(), simMode::BOOTLOADER);

    // On a closed link the command is simply not sent.
    tapClear();
    qxLoaderGotoApplication();
    EXPECT_EQ(tapCount(PIC_HID_SEND_REPORT), 0u);
    ASSERT_EQ(qxUsbInit(), 0);
    qxLoaderGotoApplication();
    sent = tapReports(PIC_HID_SEND_REPORT, -1);
    ASSERT_EQ(sent.size(), 1u);
    expected[0] = QX_HID_CMD_GOTO_APPLICATION;
    EXPECT_EQ(sent[0], expected);
}

// ---- Device search ---------------------------------------------------------------

TEST_F(qxLoaderOnSim, deviceSearchWaitsGrowThenCountsSecondsResetsOnceAndGivesUp)
{
    // Found at once: no wait.
    EXPECT_EQ(__qxLoaderFindUsbDev(), 0);
    EXPECT_THAT(loaderLines(), ElementsAre("__qxLoaderFindUsbDev: starting"));
    EXPECT_EQ(levelOf("__qxLoaderFindUsbDev: starting"), 1);
    EXPECT_TRUE(simSleeps().empty());
    qxUsbCleanUp();

    // Found at the fourth attempt: 1, 10 and 100 ms before it.
    tapInstall();
    tapSetOpenFailures(3);
    EXPECT_EQ(qxLoaderFindUSBDevice(), 0);
    EXPECT_EQ(tapOpenAttempts(), 4);
    EXPECT_THAT(simSleeps(), ElementsAre(1000u, 10000u, 100000u));
    qxUsbCleanUp();

    // Never found: 24 attempts, the waits growing to one second, one USB
    // reset right after the fifth one-second wait, failure after the 20th.
    tapInstall();
    simClearSleeps();
    simClearEvents();
    log.clear();
    tapSetOpenFailures(-1);
    const uint64_t start = simVirtualNowUs();
    EXPECT_EQ(qxLoaderFindUSBDevice(), 1);
    const auto times = tapOpenTimes();
    ASSERT_EQ(times.size(), 24u);
    const uint64_t expectedStart[] = {0, 1000, 11000, 111000, 1111000, 2111000, 3111000, 4111000};
    for (size_t i = 0; i < std::size(expectedStart); ++i) {
        EXPECT_EQ(times[i] - start, expectedStart[i]) << i;
    }
    for (size_t i = 9; i < times.size(); ++i) {
        EXPECT_EQ(times[i] - times[i - 1], 1000000u) << i;
    }
    size_t resets = 0;
    for (const auto &e : simEvents()) {
        if (e.kind == simEventKind::USB_RESET) {
            ++resets;
            EXPECT_EQ(e.atUs - start, 5111000u);
        }
    }
    EXPECT_EQ(resets, 1u);
    EXPECT_EQ(std::count(simSleeps().begin(), simSleeps().end(), 1000000u), 20);
    EXPECT_THAT(loaderLines(),
                ElementsAre("__qxLoaderFindUsbDev: starting", "__qxLoaderFindUsbDev: resetting USB device",
                            "QX_TRACE_PRINTF-qxLoaderGetClientFileName():: Error Finding QX_HID_DEVICE *****************"));
    EXPECT_EQ(levelOf("__qxLoaderFindUsbDev: resetting USB device"), 6);
    EXPECT_EQ(levelOf("QX_TRACE_PRINTF-qxLoaderGetClientFileName():: Error Finding QX_HID_DEVICE *****************"),
              0);

    // The inner search gives up without the line.
    log.clear();
    EXPECT_EQ(__qxLoaderFindUsbDev(), 1);
    EXPECT_THAT(loaderLines(),
                ElementsAre("__qxLoaderFindUsbDev: starting", "__qxLoaderFindUsbDev: resetting USB device"));
}

TEST_F(qxLoaderOnSim, deviceSearchFindsTheNodeTheUsbResetBringsBack)
{
    // The driver lost the device; the reset makes it enumerate again.
    simSetNodePresent(false);
    EXPECT_EQ(qxLoaderFindUSBDevice(), 0);
    EXPECT_EQ(tapOpenAttempts(), 9);
    EXPECT_EQ(qxUsbGetState().fd >= 0, true);
    EXPECT_EQ(log.count("__qxLoaderFindUsbDev: resetting USB device"), 1u);
}

} // namespace
