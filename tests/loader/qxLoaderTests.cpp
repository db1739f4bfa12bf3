// The loader on the simulated appliance, in virtual time: platform selection,
// the send-and-wait exchange, stored values, GET_INFO, go and erase, the
// device search, programming and the start-up upgrade.
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
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <functional>
#include <numeric>
#include <set>
#include <string>
#include <tuple>
#include <unistd.h>
#include <vector>

using testing::ElementsAre;

namespace {

using bytes = std::vector<uint8_t>;
using report64 = std::array<uint8_t, QX_REPORT_SIZE>;
using step = std::pair<uint32_t, uint32_t>; // PROGRAM_DEVICE (address, count), PROGRAM_COMPLETE (0, 0)

constexpr uint32_t CHUNK = QX_PACKET_DATA_SIZE;
constexpr step COMPLETE{0, 0};
const char *const TORVA = "/usr/sbin/torva-pic-client.hex";
const char *const FALLBACK = "/usr/sbin/pic-client";
const std::string PASS_0 = "qxLoaderInit: forceUpgrade=0";
const std::string PASS_1 = "qxLoaderInit: forceUpgrade=1";
const std::string UPGRADING = "QX_TRACE_PRINTF-Upgrading HID Application.....";
const std::string RESETTING = "qxLoaderInit: resetting USB device!";
const std::string HASH_FAILED = "qxLoaderGetStoredHash: Failed!";
const std::string VERIFIED = "qxLoaderVerifyApplicationCode: Verification Success!";
const std::string NOT_VERIFIED = "qxLoaderVerifyApplicationCode: Verification Failed!";
const std::string ERASE_MESSAGE = "****ERROR*** SHOULD ERASE FLASH*************, sn->storedNumLen: ";

// Between the loader and the simulated node, for what the model does not
// record: the blocks handed to the driver, the PROGRAM_DEVICE reports they
// name, the opens of the node (which fail while it is gone), and a hook that
// fails a request (an errno before it is issued) or changes the answer (after).
struct {
    platformSysOps sim;
    std::vector<std::pair<uint32_t, report64>> sent;
    std::vector<report64> packets;
    std::vector<uint64_t> opens;
    bool nodeGone;
    std::function<int(uint32_t, picHidIoctlArg &, bool answered)> hook;
} wirePrivateMembers;
auto &W = wirePrivateMembers;

uint64_t blockAddress(const uint8_t *io) // where an IO command names the block whose report goes out
{
    uint64_t address;
    memcpy(&address, &io[12], sizeof address);
    return address;
}

int __wireOpen(const char *path, int flags, mode_t mode)
{
    const bool node = strcmp(path, QX_USB_DEVICE_PATH) == 0;
    if (node) {
        W.opens.push_back(simVirtualNowUs());
    }
    if (node && (W.nodeGone || W.opens.size() > 100)) { // an upgrade going round for good ends here
        errno = ENOENT;
        return -1;
    }
    return W.sim.open(path, flags, mode);
}

int __wireIoctl(int fd, unsigned long request, void *arg)
{
    auto &block = *static_cast<picHidIoctlArg *>(arg);
    if (const int err = W.hook ? W.hook(request, block, false) : 0; err != 0) {
        errno = err;
        return -1;
    }
    W.sent.emplace_back(request, report64{});
    memcpy(W.sent.back().second.data(), block.report, QX_REPORT_SIZE);
    if (request == PIC_HID_PIC32_PROGRAM) {
        W.packets.push_back(*reinterpret_cast<const report64 *>(blockAddress(block.report)));
    }
    const int rc = W.sim.ioctl(fd, request, arg);
    if (rc == 0 && W.hook) {
        W.hook(request, block, true);
    }
    return rc;
}

std::vector<report64> reports(uint32_t request, int code = -1)
{
    std::vector<report64> out;
    for (const auto &[r, report] : W.sent) {
        if (r == request && (code < 0 || report[QX_REPORT_CODE] == code)) {
            out.push_back(report);
        }
    }
    return out;
}

// What the bootloader took, in order.
std::vector<step> steps()
{
    std::vector<step> out;
    for (const auto &e : simEvents()) {
        EXPECT_NE(e.kind, simEventKind::PROGRAM_DROPPED) << std::hex << e.address;
        if (e.kind == simEventKind::PROGRAM || e.kind == simEventKind::COMPLETE) {
            out.emplace_back(e.address, e.len);
        }
    }
    return out;
}

auto firstEvent(simEventKind kind, int code = -1)
{
    const auto &ev = simEvents();
    return std::find_if(ev.begin(), ev.end(), [=](auto &e) { return e.kind == kind && (code < 0 || e.code == code); });
}

void setSlot(int slot, uint32_t word0, uint8_t len, const bytes &data)
{
    simSlot s{word0, 0x22222222, len, {}}; // word1 is never the stored length
    std::copy_n(data.begin(), std::min(data.size(), sizeof s.data), s.data);
    simSetSlot(slot, s);
}

bytes imageWith(size_t at, size_t len)
{
    bytes image(QX_FLASH_SIZE, 0xFF);
    std::iota(image.begin() + at, image.begin() + at + len, 1);
    return image;
}

class qxLoaderOnSim : public testing::Test {
protected:
    void SetUp() override
    {
        simInProcessInstall();
        W = {platformSys, {}, {}, {}, false, nullptr};
        platformSys.open = __wireOpen;
        platformSys.ioctl = __wireIoctl;
    }
    void TearDown() override
    {
        qxUsbCleanUp();
        simInProcessUninstall();
    }

    void forget()
    {
        W.sent.clear();
        W.packets.clear();
        W.opens.clear();
        simClearEvents();
        simClearSleeps();
        log.clear();
    }
    void openLink()
    {
        ASSERT_EQ(qxUsbInit(), 0);
        forget();
    }
    void loadImage(const bytes &data)
    {
        image = data;
        const std::string bin = testing::TempDir() + "qxLoaderImage" + std::to_string(getpid());
        std::ofstream(bin, std::ios::binary).write(reinterpret_cast<const char *>(data.data()), std::ssize(data));
        const std::string toHex = "srec_cat " + bin + " -binary -offset 0x1D010000 -o " + bin + ".hex -intel";
        ASSERT_EQ(std::system(toHex.c_str()), 0);
        qxFileReset();
        testing::internal::CaptureStdout(); // the digest line
        EXPECT_EQ(qxFileInit((bin + ".hex").c_str()), 0);
        testing::internal::GetCapturedStdout();
        unlink(bin.c_str());
        unlink((bin + ".hex").c_str());
        qxFileGetMd5AndLen(&imageLen, md5.data());
        forget();
    }
    // Programs the image into a freshly erased bootloader.
    int32_t program(const bytes &data)
    {
        simSetMode(simMode::BOOTLOADER);
        std::fill(simFlash().begin(), simFlash().end(), 0xFF);
        qxLoaderSetPacketDataSize();
        loadImage(data);
        EXPECT_TRUE(qxUsbGetState().fd >= 0 || qxUsbInit() == 0);
        forget();
        return qxLoaderProgram();
    }
    // The start-up upgrade's image, optionally with the appliance running it already.
    void loadApplication(bool installed)
    {
        loadImage(imageWith(0x100, 5000));
        if (installed) {
            simInstallApplication(image, static_cast<uint32_t>(imageLen));
        }
    }
    bool flashHoldsImage() const { return std::equal(image.begin(), image.end(), simFlash().begin()); }
    std::vector<std::string> passLines() const // the passes and what happened between them
    {
        std::vector<std::string> out;
        for (const auto &t : log.texts()) {
            if (t == PASS_0 || t == PASS_1 || t == UPGRADING || t == RESETTING) {
                out.push_back(t);
            }
        }
        return out;
    }
    size_t slotWrites() const { return reports(PIC_HID_SEND_REPORT, QX_HID_CMD_SET_FLASH_VAL).size(); }

    bytes image;
    int32_t imageLen = 0;
    std::array<uint8_t, QX_FILE_DIGEST_SIZE> md5{};
    logCapture log;
};

TEST_F(qxLoaderOnSim, platformLookupTakesTheFirstTableRowContainedInTheText)
{
    const std::tuple<const char *, int32_t, const char *, int32_t> rows[] = { // text, result, file, platform
        {"HW=BRISKA", 0, "/usr/sbin/briska-pic-client.hex", 1},
        {"HW=TORVA_2X", 0, TORVA, 3}, // "HW=TORVA" stands first and is contained
        {"HW=TORVA_DEFAULT", 0, TORVA, 2},
        {"HW=BRISKA HW=MOSSEL", 0, FALLBACK, 0}, // table order, not text order
        {"HW=TORV_TOWER", 0, "/usr/sbin/qx-multi-pic-client.hex", 7},
        {"hw=briska", -1, FALLBACK, 0}, // case counts; no match takes row 0
        {"rev 2;HW=GRENDA_U;sn=42", 0, "/usr/sbin/vantu-pic-client.hex", 1},
        {"HW=RL_LCD", 0, "/usr/sbin/rb-pic-client.hex", 1},
    };
    for (const auto &[text, rc, file, id] : rows) {
        char name[64];
        memset(name, 'x', sizeof name);
        EXPECT_EQ(__qxLoaderGetPicClientFileNameFromPlatform(text, name), rc) << text;
        EXPECT_STREQ(name, file) << text;
        EXPECT_EQ(qxLoaderGetPlatform(), id) << text;
    }
}

TEST_F(qxLoaderOnSim, platformTextIsReadFromSlot10CutAt48AndAFailedReadChangesNothing)
{
    openLink();
    char name[QX_LOADER_FILE_NAME_MIN];
    const std::string text48 = "HW=TORVA_DEFAULT;" + std::string(31, 'y');
    setSlot(QX_SLOT_PLATFORM, 0, 200, bytes(text48.begin(), text48.end()));
    EXPECT_EQ(qxLoaderGetClientFileName(name), 0);
    EXPECT_STREQ(name, TORVA);
    EXPECT_EQ(qxLoaderGetPlatform(), 2);
    EXPECT_EQ(log.levelOf("QX_TRACE_PRINTF-platformStr: " + text48), 0);

    strcpy(name, "untouched");
    simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 1);
    EXPECT_EQ(qxLoaderGetClientFileName(name), 1);
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    EXPECT_EQ(qxLoaderGetClientFileName(name), 255); // the low 8 bits of -1
    EXPECT_TRUE(strcmp(name, "untouched") == 0 && qxLoaderGetPlatform() == 2);
}

TEST_F(qxLoaderOnSim, exchangeTakesTheReplyWithItsSequenceWithinThreeReadsOrWithItsOwnCode)
{
    openLink();
    const std::tuple<const char *, std::function<void()>, int32_t, size_t> cases[] = { // what, fault, result, reads
        {"echoed at once", [] {}, 0, 1},
        {"echoed on the third read", [] { simSetReplyDelayReads(2); }, 0, 3},
        {"never echoed, own code", [] { simSetReplyFault(simReplyFault::WRONG_SEQ, 1); }, 0, 3},
        {"never echoed, other code", [] { simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 1); }, 1, 3},
        {"the last read fails", [] { simFailIoctl(PIC_HID_GET_REPORT, EIO, 3); }, -1, 3},
        {"the send fails: nothing read", [] { simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1); }, -1, 0},
    };
    for (const auto &[what, fault, rc, reads] : cases) {
        SCOPED_TRACE(what);
        forget();
        fault();
        qxUsbBlock b{QX_HID_CMD_GET_FLASH_VAL, 0, 0, QX_SLOT_PLATFORM};
        EXPECT_EQ(qxLoaderGenericCmd(b.data()), rc);
        EXPECT_EQ(reports(PIC_HID_GET_REPORT).size(), reads);
        EXPECT_EQ(simSleeps(), std::vector<uint64_t>(reads > 0 ? reads - 1 : 0, 10000)); // 10 ms between reads
        simSetReplyDelayReads(0);
    }
    EXPECT_EQ(log.levelOf("QX_TRACE_USB-***usb cmd failed***"), 0);
}

TEST_F(qxLoaderOnSim, slotValuesTravelAsLaidOutAndFailuresLeaveTheRecordAlone)
{
    openLink();
    qxLoaderStoredNum sn{0x1234567890ABCDEFull, 0xFEDCBA0987654321ull, 48, {}};
    std::iota(sn.storedNum, sn.storedNum + 48, 0x40);
    EXPECT_EQ(qxLoaderSetStoredNum(&sn, 7), 0); // the low 32 bits of each word travel
    const simSlot s = simGetSlot(7);
    EXPECT_EQ(std::tuple(s.word0, s.word1, s.len), std::tuple(0x90ABCDEFu, 0x87654321u, uint8_t{48}));
    EXPECT_TRUE(std::equal(sn.storedNum, sn.storedNum + 48, s.data));
    qxLoaderStoredNum back{};
    EXPECT_EQ(qxLoaderGetStoredNum(&back, 7), 0);
    EXPECT_EQ(std::tuple(back.storedNumWord0, back.storedNumWord1, back.storedNumLen),
              std::tuple(0x90ABCDEFull, 0x87654321ull, uint8_t{48}));
    EXPECT_TRUE(std::equal(sn.storedNum, sn.storedNum + 48, back.storedNum));
    forget();
    sn.storedNumLen = 49;
    EXPECT_EQ(qxLoaderSetStoredNum(&sn, 7), -1);
    EXPECT_TRUE(W.sent.empty());

    // A reply length of 49: the message, a read without data, the words as they were.
    setSlot(QX_SLOT_FIRMWARE, 0x11111111, 49, {});
    back = {7, 9, 33, {}};
    testing::internal::CaptureStdout();
    EXPECT_EQ(qxLoaderGetStoredNum(&back, QX_SLOT_FIRMWARE), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), ERASE_MESSAGE + "49\n");
    EXPECT_EQ(std::tuple(back.storedNumWord0, back.storedNumWord1, back.storedNumLen),
              std::tuple(7ull, 9ull, uint8_t{0}));

    // A failed read gives the low 8 bits, the record untouched; a failed write 1.
    back.storedNumLen = 33;
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 2);
    EXPECT_EQ(qxLoaderGetStoredNum(&back, QX_SLOT_FIRMWARE), 255);
    EXPECT_EQ(back.storedNumLen, 33);
    EXPECT_EQ(qxLoaderSetStoredNum(&back, 7), 1);
}

TEST_F(qxLoaderOnSim, slot4IsReadWithThreeTriesAndVerificationWritesItOnlyWhenAskedOnMismatch)
{
    loadApplication(false);
    openLink();
    const bytes digest(md5.begin(), md5.begin() + 16);
    setSlot(QX_SLOT_FIRMWARE, imageLen, 16, digest);
    simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 2);
    uint32_t len = 0;
    std::array<uint8_t, QX_STORED_NUM_MAX> stored{};
    EXPECT_EQ(qxLoaderGetStoredHash(&len, stored.data()), 0);
    EXPECT_TRUE(len == static_cast<uint32_t>(imageLen) && std::equal(digest.begin(), digest.end(), stored.begin()));
    EXPECT_TRUE(log.texts().empty());
    simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 3);
    len = 0xDEAD;
    EXPECT_EQ(qxLoaderGetStoredHash(&len, stored.data()), 1);
    EXPECT_EQ(len, 0xDEADu);
    EXPECT_EQ(reports(PIC_HID_SEND_REPORT).size(), 6u);
    EXPECT_EQ(log.levelOf(HASH_FAILED), 6);

    EXPECT_EQ(qxLoaderVerifyApplicationCode(1), 0);
    EXPECT_EQ(log.levelOf(VERIFIED), 1);
    bytes other = digest;
    other[15] ^= 1;
    setSlot(QX_SLOT_FIRMWARE, imageLen, 16, other);
    EXPECT_EQ(qxLoaderVerifyApplicationCode(0), 1);
    EXPECT_EQ(log.levelOf(NOT_VERIFIED), 6);
    EXPECT_EQ(slotWrites(), 0u);
    setSlot(QX_SLOT_FIRMWARE, imageLen + 64, 16, digest);
    EXPECT_EQ(qxLoaderVerifyApplicationCode(1), 1);
    const simSlot s = simGetSlot(QX_SLOT_FIRMWARE); // as qxLoaderSetHash writes it
    EXPECT_TRUE(s.word0 == static_cast<uint32_t>(imageLen) && s.word1 == 0 && s.len == 16);
    EXPECT_TRUE(std::equal(digest.begin(), digest.end(), s.data));
    EXPECT_EQ(slotWrites(), 1u);

    // An erased slot and an unreadable slot disagree.
    simSetSlot(QX_SLOT_FIRMWARE, simSlot{});
    testing::internal::CaptureStdout();
    EXPECT_EQ(qxLoaderVerifyApplicationCode(0), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), ERASE_MESSAGE + "255\n");
    setSlot(QX_SLOT_FIRMWARE, imageLen, 16, digest);
    simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 3);
    log.clear();
    EXPECT_EQ(qxLoaderVerifyApplicationCode(0), 1);
    EXPECT_THAT(log.textsFrom(QX_LOADER_LOG_SOURCE), ElementsAre(HASH_FAILED, NOT_VERIFIED));
}

TEST_F(qxLoaderOnSim, getInfoMatchesOnCodeSequenceStatusAndProductId)
{
    openLink();
    EXPECT_EQ(qxLoaderIsHidApplication(), 1);
    EXPECT_EQ(qxLoaderIsHidBootloader(), 0);
    EXPECT_EQ(log.levelOf("qxLoaderIsProductIdMatch: 17 matched!!!"), 1);
    EXPECT_EQ(log.levelOf("qxLoaderIsProductIdMatch: 18 doesn't match!!!"), 6);
    simSetMode(simMode::BOOTLOADER);
    EXPECT_EQ(qxLoaderIsHidBootloader(), 1);
    simSetMode(simMode::APPLICATION);

    // Echoed on the third read: still tested, after two 10 ms waits; never echoed: no match.
    simClearSleeps();
    simSetReplyDelayReads(2);
    EXPECT_EQ(qxLoaderIsHidApplication(), 1);
    EXPECT_THAT(simSleeps(), ElementsAre(10000u, 10000u));
    simSetReplyDelayReads(0);
    simSetReplyFault(simReplyFault::NO_REPLY, 1);
    EXPECT_EQ(qxLoaderIsHidApplication(), 0);
    W.hook = [](uint32_t request, picHidIoctlArg &arg, bool answered) {
        arg.report[QX_REPORT_STATUS] |= answered && request == PIC_HID_GET_REPORT ? 1 : 0; // busy
        return 0;
    };
    EXPECT_EQ(qxLoaderIsHidApplication(), 0);
}

TEST_F(qxLoaderOnSim, goAndEraseCommandsGoOutWithoutSequenceNumberAndAwaitNoReply)
{
    openLink();
    qxLoaderEraseApplication();
    EXPECT_THAT(simSleeps(), ElementsAre(3000000u));
    qxLoaderGotoBootLoader(); // the link resets the device and stays closed
    EXPECT_EQ(qxUsbGetState().fd, -1);
    EXPECT_EQ(simGetMode(), simMode::BOOTLOADER);
    qxLoaderGotoApplication(); // not sent on a closed link
    ASSERT_EQ(qxUsbInit(), 0);
    qxLoaderGotoApplication();
    EXPECT_EQ(reports(PIC_HID_SEND_REPORT),
              (std::vector<report64>{{ERASE_DEVICE}, {QX_HID_CMD_GOTO_BOOTLOADER}, {QX_HID_CMD_GOTO_APPLICATION}}));
    EXPECT_TRUE(reports(PIC_HID_GET_REPORT).empty());
}

TEST_F(qxLoaderOnSim, deviceSearchWaitsGrowToOneSecondResetsAfterTheFifthAndGivesUpAfterTheTwentieth)
{
    const std::string notFound =
        "QX_TRACE_PRINTF-qxLoaderGetClientFileName():: Error Finding QX_HID_DEVICE *****************";
    EXPECT_EQ(__qxLoaderFindUsbDev(), 0);
    EXPECT_THAT(log.textsFrom(QX_LOADER_LOG_SOURCE), ElementsAre("__qxLoaderFindUsbDev: starting"));
    EXPECT_EQ(log.levelOf("__qxLoaderFindUsbDev: starting"), 1);
    EXPECT_TRUE(simSleeps().empty());

    qxUsbCleanUp();
    forget();
    W.nodeGone = true;
    EXPECT_EQ(qxLoaderFindUSBDevice(), 1);
    ASSERT_EQ(W.opens.size(), 24u);
    const uint64_t growing[] = {1000, 10000, 100000};
    for (size_t i = 1; i < 24; ++i) {
        if (i != 8) { // the ninth attempt follows the reset
            EXPECT_EQ(W.opens[i] - W.opens[i - 1], i < 4 ? growing[i - 1] : 1000000u) << i;
        }
    }
    const auto reset = firstEvent(simEventKind::USB_RESET);
    ASSERT_NE(reset, simEvents().end());
    EXPECT_EQ(reset->atUs, W.opens[7] + 1000000u) << "right after the fifth one-second wait";
    EXPECT_THAT(log.textsFrom(QX_LOADER_LOG_SOURCE),
                ElementsAre("__qxLoaderFindUsbDev: starting", "__qxLoaderFindUsbDev: resetting USB device", notFound));
    EXPECT_EQ(log.levelOf("__qxLoaderFindUsbDev: resetting USB device"), 6);
    EXPECT_EQ(log.levelOf(notFound), 0);
    log.clear();
    EXPECT_EQ(__qxLoaderFindUsbDev(), 1);
    EXPECT_FALSE(log.contains(notFound));
}

TEST_F(qxLoaderOnSim, programmingHandsOverNonBlankChunksByAddressWithACompleteAfterEachGapAndAtTheEnd)
{
    bytes data = imageWith(0, CHUNK);
    data[CHUNK + 5] = 0; // one byte not erased: the chunk goes whole
    std::iota(data.end() - 48, data.end(), 0x80);
    std::fill_n(data.begin() + 1000 * CHUNK, CHUNK, 7);
    EXPECT_EQ(program(data), 0);
    EXPECT_TRUE(flashHoldsImage());
    EXPECT_THAT(steps(), ElementsAre(step{0x1D010000, 56}, step{0x1D010038, 56}, COMPLETE, step{0x1D01DAC0, 56},
                                     COMPLETE, step{0x1D062FD0, 48}, COMPLETE));
    EXPECT_THAT(simSleeps(), ElementsAre(2000000u));
    report64 last{PROGRAM_DEVICE, 0xD0, 0x2F, 0x06, 0x1D, 48}; // the data at the end, zeros before them
    std::copy(data.end() - 48, data.end(), last.begin() + 16);
    EXPECT_EQ(W.packets.back(), last);
    // The set-up first; before each hand-over the driver is asked; every request has a
    // fresh sequence number; the driver is given the same two blocks throughout.
    ASSERT_EQ(W.sent.front().first, PIC_HID_PIC32_UPGRADE_SETUP);
    std::set<uint64_t> blocks[2]; // PROGRAM_DEVICE, PROGRAM_COMPLETE
    for (size_t i = 1; i < W.sent.size(); ++i) {
        const auto &[request, report] = W.sent[i];
        EXPECT_NE(report[QX_REPORT_SEQ], W.sent[i - 1].second[QX_REPORT_SEQ]) << i;
        if (request == PIC_HID_PIC32_PROGRAM) {
            const size_t poll = W.sent[i - 1].first == PIC_HID_PIC32_PROGRAM_DONE ? i - 2 : i - 1;
            EXPECT_EQ(W.sent[poll].first, PIC_HID_PIC32_IS_URB_AVAILABLE) << i;
        }
        if (request == PIC_HID_PIC32_PROGRAM || request == PIC_HID_PIC32_PROGRAM_DONE) {
            blocks[request == PIC_HID_PIC32_PROGRAM_DONE].insert(blockAddress(report.data()));
        }
    }
    EXPECT_TRUE(blocks[0].size() == 1 && blocks[1].size() == 1 && *blocks[0].begin() != *blocks[1].begin());

    EXPECT_EQ(program(imageWith(112, 80)), 0);
    EXPECT_THAT(steps(), ElementsAre(COMPLETE, step{0x1D010070, 56}, step{0x1D0100A8, 56}, COMPLETE));
    EXPECT_EQ(program(imageWith(0, 0)), 0);
    EXPECT_THAT(steps(), ElementsAre(COMPLETE));
    EXPECT_EQ(reports(PIC_HID_PIC32_IS_URB_AVAILABLE).size(), 6071u) << "a poll for each chunk, blank ones too";
}

TEST_F(qxLoaderOnSim, programmingStopsOnTheDriversFailuresAndGivesUpOnADriverBusyFor30s)
{
    bytes data = imageWith(0, CHUNK);
    std::fill_n(data.begin() + 2 * CHUNK, 10 * CHUNK, 2);
    // The set-up answered with the sequence number itself, not XOR 0x57, or failing: -1, nothing more.
    W.hook = [](uint32_t request, picHidIoctlArg &arg, bool answered) {
        arg.report[QX_REPORT_SEQ] ^= answered && request == PIC_HID_PIC32_UPGRADE_SETUP ? PIC_HID_ACK_SEQ_XOR : 0;
        return 0;
    };
    EXPECT_EQ(program(data), -1);
    EXPECT_TRUE(log.contains("QX_TRACE_FILE-PIC_HID_PIC32_UPGRADE_SETUP rc: 0"));
    W.hook = nullptr;
    simFailIoctl(PIC_HID_PIC32_UPGRADE_SETUP, EIO, 1);
    EXPECT_EQ(program(data), -1);
    EXPECT_TRUE(log.contains("QX_TRACE_FILE-PIC_HID_PIC32_UPGRADE_SETUP rc: -1"));
    EXPECT_EQ(W.sent.size(), 1u);

    // The availability request failing ends the walk: the final COMPLETE, 2 s, 0.
    simFailIoctl(PIC_HID_PIC32_IS_URB_AVAILABLE, EIO, 1);
    EXPECT_EQ(program(data), 0);
    EXPECT_TRUE(log.contains("QX_TRACE_FILE-PIC_HID_PIC32_IS_URB_AVAILABLE rc: -1"));
    EXPECT_THAT(steps(), ElementsAre(COMPLETE));
    EXPECT_THAT(simSleeps(), ElementsAre(2000000u));

    // A hand-over failing: -1 at once, without the final COMPLETE.
    simFailIoctl(PIC_HID_PIC32_PROGRAM, EIO, 1);
    EXPECT_EQ(program(data), -1);
    EXPECT_TRUE(log.contains("QX_TRACE_FILE-***ERROR*** PIC_HID_PIC32_PROGRAM rc: -1"));
    EXPECT_TRUE(reports(PIC_HID_PIC32_PROGRAM_DONE).empty());
    simFailIoctl(PIC_HID_PIC32_PROGRAM_DONE, EIO, 1);
    EXPECT_EQ(program(data), -1);
    EXPECT_TRUE(log.contains("QX_TRACE_FILE-***ERROR*** PIC_HID_PIC32_PROGRAM_DONE rc: -1"));
    EXPECT_THAT(steps(), ElementsAre(step{0x1D010000, 56}));
    EXPECT_TRUE(simSleeps().empty());

    // Busy: asked again every 50 ms, 600 times at most, then -1 with nothing handed over.
    simSetDriverBusyPolls(3);
    EXPECT_EQ(program(data), 0);
    EXPECT_THAT(simSleeps(), ElementsAre(50000u, 50000u, 50000u, 2000000u));
    simSetDriverBusyPolls(INT_MAX);
    EXPECT_EQ(program(data), -1);
    EXPECT_EQ(W.sent.size(), 1 + QX_PROGRAM_POLL_MAX);
    EXPECT_EQ(simSleeps(), std::vector<uint64_t>(QX_PROGRAM_POLL_MAX, QX_PROGRAM_POLL_WAIT_US));
    EXPECT_TRUE(log.contains("QX_TRACE_FILE-PIC_HID_PIC32_IS_URB_AVAILABLE: driver still busy after 600 polls, "
                             "giving up"));
}

TEST_F(qxLoaderOnSim, startUpUpgradeGoesRoundPassesUntilTheRightApplicationAnswers)
{
    enum startState { RUNNING, OTHER, BOOTLOADER, UNREADABLE, GOTO_REFUSED, NO_NODE };
    // what, the appliance at the start, forceUpgrade, result, the passes, slot 4 reads and writes
    const std::tuple<const char *, startState, int, int32_t, std::vector<std::string>, size_t, size_t> cases[] = {
        {"the application runs: one pass", RUNNING, 0, 0, {PASS_0}, 2, 0},
        {"another application: three passes", OTHER, 0, 0, {PASS_0, PASS_0, UPGRADING, PASS_0}, 8, 4},
        {"the bootloader, slot 4 matching: programmed at once", BOOTLOADER, 0, 0, {PASS_0, UPGRADING, PASS_0}, 5, 1},
        {"slot 4 unreadable: a reset, the same forceUpgrade", UNREADABLE, 1, 0, {PASS_1, RESETTING, PASS_1}, 8, 0},
        {"go-to-bootloader refused: again", GOTO_REFUSED, 0, 0, {PASS_0, PASS_0, PASS_0, UPGRADING, PASS_0}, 11, 6},
        {"no node: 1 after the search", NO_NODE, 0, 1, {PASS_0}, 0, 0},
    };
    for (const auto &[what, state, force, rc, passes, reads, writes] : cases) {
        SCOPED_TRACE(what);
        TearDown();
        SetUp();
        loadApplication(state == RUNNING || state == BOOTLOADER || state == UNREADABLE);
        if (state == BOOTLOADER) {
            std::fill(simFlash().begin(), simFlash().end(), 0x00); // whatever a cut-short run left
            simSetMode(simMode::BOOTLOADER);
        }
        if (state == UNREADABLE) {
            simSetSlotUnreadable(QX_SLOT_FIRMWARE, 6);
        }
        W.nodeGone = state == NO_NODE;
        bool refused = state != GOTO_REFUSED;
        W.hook = [&refused](uint32_t request, picHidIoctlArg &arg, bool answered) {
            const bool refuse = !answered && !refused && request == PIC_HID_SEND_REPORT &&
                                arg.report[QX_REPORT_CODE] == QX_HID_CMD_GOTO_BOOTLOADER;
            refused = refused || refuse;
            return refuse ? EIO : 0;
        };
        EXPECT_EQ(qxLoaderInit(force), rc);
        EXPECT_TRUE(refused);
        EXPECT_EQ(passLines(), passes);
        EXPECT_EQ(log.levelOf(passes[0]), 1);
        EXPECT_EQ(reports(PIC_HID_SEND_REPORT, QX_HID_CMD_GET_FLASH_VAL).size(), reads);
        EXPECT_EQ(slotWrites(), writes);
        EXPECT_EQ(simOpenNodeFds(), 1 - rc) << "no descriptor left behind";
        EXPECT_TRUE(rc != 0 || (flashHoldsImage() && log.contains(VERIFIED) &&
                                log.contains("qxLoaderIsProductIdMatch: 17 matched!!!")));
        if (state == UNREADABLE) { // twice three tries, then the reset through the module
            EXPECT_EQ(log.count(HASH_FAILED), 2u);
            EXPECT_EQ(log.levelOf(RESETTING), 6);
            EXPECT_THAT(simCommands(), ElementsAre("rmmod picdev", "modprobe picdev"));
        }
    }
    EXPECT_EQ(log.levelOf("QX_TRACE_PRINTF-qxLoaderInit():: Error Finding QX_HID_DEVICE *****************"), 0);
    EXPECT_EQ(W.opens.size(), 24u);
}

TEST_F(qxLoaderOnSim, anUpgradeInvalidatesSlot4BeforeTheBootloaderAndWaits2sThen3sThen2s)
{
    loadApplication(false);
    EXPECT_EQ(qxLoaderInit(0), 0);
    EXPECT_EQ(log.levelOf(UPGRADING), 0);
    // Slot 4: the image's digest, then the invalidated one; the image's twice more.
    const auto writes = reports(PIC_HID_SEND_REPORT, QX_HID_CMD_SET_FLASH_VAL);
    ASSERT_EQ(writes.size(), 4u);
    for (size_t i = 0; i < writes.size(); ++i) {
        auto digest = md5;
        std::fill_n(digest.begin(), i == 1 ? 10 : 0, 0xFF);
        EXPECT_TRUE(std::equal(digest.begin(), digest.begin() + 16, writes[i].begin() + QX_SLOT_BYTE_DATA)) << i;
    }
    // 2 s before the go-to-bootloader, 3 s after the erase, 2 s after programming;
    // the others are the module reloads of the two USB resets.
    EXPECT_THAT(simSleeps(), ElementsAre(2000000u, 2000000u, 2000000u, 3000000u, 2000000u, 2000000u, 2000000u));
    const auto go = firstEvent(simEventKind::SEND, QX_HID_CMD_GOTO_BOOTLOADER);
    ASSERT_TRUE(go != simEvents().begin() && go != simEvents().end());
    EXPECT_EQ(go->atUs - (go - 1)->atUs, 2000000u);
}

} // namespace
