// The loader on the simulated appliance, in virtual time: platform selection, the send-and-wait exchange,
// stored values, GET_INFO, go and erase, the device search, programming and the start-up upgrade.
#include "leBytes.h"
#include "qxFile.h"
#include "qxLoader.h"
#include "simFixture.h"

#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <numeric>
#include <set>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace {

using bytes = std::vector<uint8_t>;
using report64 = std::array<uint8_t, QX_REPORT_SIZE>;
using step = std::pair<uint32_t, uint32_t>; // PROGRAM_DEVICE (address, count), PROGRAM_COMPLETE (0, 0)

constexpr uint32_t CHUNK = QX_PACKET_DATA_SIZE;
constexpr step COMPLETE{0, 0};
const std::string PASS_0 = "qxLoaderInit: forceUpgrade=0";
const std::string PASS_1 = "qxLoaderInit: forceUpgrade=1";
const std::string UPGRADING = "QX_TRACE_PRINTF-Upgrading HID Application.....";
const std::string RESETTING = "qxLoaderInit: resetting USB device!";
const std::string VERIFIED = "qxLoaderVerifyApplicationCode: Verification Success!";
const std::string NOT_VERIFIED = "qxLoaderVerifyApplicationCode: Verification Failed!";
const std::string RETRYING = UPGRADING.substr(0, 41) + " failed (rc: -1), staying in the bootloader, programming again in ";

// Between the loader and the simulated node: a node gone for good (no module load brings it back), the reports
// handed over for sending, and a hook that fails a request (an errno, before it is issued) or changes its answer.
struct {
    platformSysOps sim;
    bool nodeGone;
    int opens;
    std::vector<report64> sends;
    std::function<int(uint32_t, picHidIoctlArg &, bool answered)> hook;
} wirePrivateMembers;
auto &wire = wirePrivateMembers;

int __wireOpen(const char *path, int flags, mode_t mode)
{
    // An upgrade going round for good ends here too.
    if (strcmp(path, QX_USB_DEVICE_PATH) == 0 && (wire.nodeGone || ++wire.opens > 100)) {
        simSetNodePresent(false);
    }
    return wire.sim.open(path, flags, mode);
}

int __wireIoctl(int fd, unsigned long request, void *arg)
{
    auto &block = *static_cast<picHidIoctlArg *>(arg);
    if (const int err = wire.hook ? wire.hook(request, block, false) : 0; err != 0) {
        errno = err;
        return -1;
    }
    if (request == PIC_HID_SEND_REPORT) {
        wire.sends.push_back(std::to_array(block.report));
    }
    const int rc = wire.sim.ioctl(fd, request, arg);
    if (rc == 0 && wire.hook) {
        wire.hook(request, block, true);
    }
    return rc;
}

// The requests that reached the driver, failed ones too (0: of any kind); sends only of `code`.
size_t issued(uint32_t request = 0, int code = -1)
{
    return std::ranges::count_if(simEvents(), [=](const simEvent &e) {
        return e.request != 0 && (request == 0 || e.request == request) && (code < 0 || e.code == code);
    });
}

// What the bootloader took, in order (a dropped packet is not taken).
std::vector<step> steps()
{
    std::vector<step> out;
    for (const auto &e : simEvents()) {
        if (e.kind == simEventKind::PROGRAM || e.kind == simEventKind::COMPLETE) {
            out.emplace_back(e.address, e.len);
        }
    }
    return out;
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

class qxLoaderOnSim : public simLinkTest {
protected:
    void SetUp() override
    {
        simLinkTest::SetUp();
        wire = {platformSys, false, 0, {}, nullptr};
        platformSys.open = __wireOpen;
        platformSys.ioctl = __wireIoctl;
    }

    // The image, loaded from the HEX file srec_cat makes of it.
    void loadImage(const bytes &data)
    {
        const std::string bin = testing::TempDir() + "qxLoaderImage" + std::to_string(getpid()), hex = bin + ".hex";
        std::ofstream(bin, std::ios::binary).write(reinterpret_cast<const char *>(data.data()), std::ssize(data));
        ASSERT_EQ(std::system(("srec_cat " + bin + " -binary -offset 0x1D010000 -o " + hex + " -intel").c_str()), 0);
        qxFileReset();
        testing::internal::CaptureStdout(); // the digest line
        EXPECT_EQ(qxFileInit(hex.c_str()), 0);
        testing::internal::GetCapturedStdout();
        unlink(bin.c_str());
        unlink(hex.c_str());
        qxFileGetMd5AndLen(&imageLen, md5.data());
        forget();
    }
    // A fresh appliance and process for a start-up with the image, the link not yet open.
    void freshStart(const bytes &image)
    {
        TearDown();
        SetUp();
        qxUsbCleanUp();
        loadImage(image);
    }
    // Programs the image into a freshly erased bootloader.
    int32_t program(const bytes &data)
    {
        simSetMode(simMode::BOOTLOADER);
        std::fill(simFlash().begin(), simFlash().end(), 0xFF);
        qxLoaderSetPacketDataSize();
        loadImage(data);
        const int32_t rc = qxLoaderProgram();
        // The driver sends the report it still holds when the node closes:
        // after programming has returned, so its block must still be there.
        qxUsbCleanUp();
        EXPECT_EQ(qxUsbInit(), 0);
        return rc;
    }
    static bool flashHoldsImage() { return std::equal(simFlash().begin(), simFlash().end(), qxFileGetData()); }
    bool installed() const // flash, slot 4 and the running firmware
    {
        const simSlot s = simGetSlot(QX_SLOT_FIRMWARE);
        return flashHoldsImage() && s.word0 == static_cast<uint32_t>(imageLen) && s.len == 16 &&
               std::equal(md5.begin(), md5.begin() + 16, s.data) && simGetMode() == simMode::APPLICATION;
    }
    // Nothing claims the image before it is in flash: each slot 4 write of its digest must find it there.
    void guardClaims()
    {
        wire.hook = [this](uint32_t request, picHidIoctlArg &arg, bool answered) {
            const uint8_t *r = arg.report;
            if (answered && request == PIC_HID_SEND_REPORT && r[QX_REPORT_CODE] == QX_HID_CMD_SET_FLASH_VAL &&
                r[QX_SLOT_BYTE_SLOT] == QX_SLOT_FIRMWARE && std::equal(md5.begin(), md5.begin() + 16, &r[13])) {
                EXPECT_TRUE(flashHoldsImage()) << "slot 4 claims an image the flash does not hold";
            }
            return 0;
        };
    }

    int32_t imageLen = 0;
    std::array<uint8_t, QX_FILE_DIGEST_SIZE> md5{};
};

TEST_F(qxLoaderOnSim, platformIsTheFirstTableRowContainedInTheTextOfSlot10CutAt48)
{
    const std::tuple<const char *, int32_t, const char *, int32_t> rows[] = { // text, result, file, platform
        {"HW=TORVA_2X", 0, "/usr/sbin/torva-pic-client.hex", 3}, // "HW=TORVA" stands first and is contained
        {"HW=TORVA_DEFAULT", 0, "/usr/sbin/torva-pic-client.hex", 2},
        {"HW=BRISKA HW=MOSSEL", 0, "/usr/sbin/pic-client", 0}, // table order, not text order
        {"HW=TORV_TOWER", 0, "/usr/sbin/qx-multi-pic-client.hex", 7},
        {"hw=briska", -1, "/usr/sbin/pic-client", 0}, // case counts; no match takes row 0
        {"rev 2;HW=GRENDA_U;sn=42", 0, "/usr/sbin/vantu-pic-client.hex", 1},
        {"HW=RL_LCD", 0, "/usr/sbin/rb-pic-client.hex", 1},
    };
    for (const auto &[text, rc, file, id] : rows) {
        std::string name(63, 'x'); // the name written must end in its NUL
        EXPECT_EQ(__qxLoaderGetPicClientFileNameFromPlatform(text, name.data()), rc) << text;
        EXPECT_EQ(std::tuple(std::string(name.c_str()), qxLoaderGetPlatform()), std::tuple(file, id)) << text;
    }

    char name[QX_LOADER_FILE_NAME_MIN];
    const std::string text48 = "HW=TORVA_DEFAULT;" + std::string(31, 'y');
    setSlot(QX_SLOT_PLATFORM, 0, 200, bytes(text48.begin(), text48.end()));
    EXPECT_EQ(qxLoaderGetClientFileName(name), 0);
    EXPECT_STREQ(name, "/usr/sbin/torva-pic-client.hex");
    EXPECT_EQ(log.levelOf("QX_TRACE_PRINTF-platformStr: " + text48), 0);
    // A failed read changes nothing.
    simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 1);
    EXPECT_EQ(qxLoaderGetClientFileName(name), 1);
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    EXPECT_EQ(qxLoaderGetClientFileName(name), 255); // the low 8 bits of -1
    EXPECT_TRUE(strcmp(name, "/usr/sbin/torva-pic-client.hex") == 0 && qxLoaderGetPlatform() == 2);
}

TEST_F(qxLoaderOnSim, exchangeTakesTheReplyWithItsSequenceWithinThreeReadsOrWithItsOwnCode)
{
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
        EXPECT_EQ(qxLoaderGenericCmd(qxUsbBlock{QX_HID_CMD_GET_FLASH_VAL, 0, 0, QX_SLOT_PLATFORM}.data()), rc);
        EXPECT_EQ(issued(PIC_HID_GET_REPORT), reads);
        EXPECT_EQ(simSleeps(), std::vector<uint64_t>(reads > 0 ? reads - 1 : 0, 10000)); // 10 ms between reads
        simSetReplyDelayReads(0);
    }
    EXPECT_EQ(log.levelOf("QX_TRACE_USB-***usb cmd failed***"), 0);
}

TEST_F(qxLoaderOnSim, slotValuesTravelAsLaidOutAndFailuresLeaveTheRecordAlone)
{
    qxLoaderStoredNum sn{0x1234567890ABCDEFull, 0xFEDCBA0987654321ull, 48, {}};
    std::iota(sn.storedNum, sn.storedNum + 48, 0x40);
    EXPECT_EQ(qxLoaderSetStoredNum(&sn, 7), 0); // the low 32 bits of each word travel
    const simSlot s = simGetSlot(7);
    EXPECT_EQ(std::tuple(s.word0, s.word1, s.len), std::tuple(0x90ABCDEFu, 0x87654321u, uint8_t{48}));
    EXPECT_TRUE(std::equal(sn.storedNum, sn.storedNum + 48, s.data));
    qxLoaderStoredNum back{};
    EXPECT_EQ(qxLoaderGetStoredNum(&back, 7), 0);
    EXPECT_EQ(std::tuple(back.storedNumWord0, back.storedNumWord1, back.storedNumLen,
                         bytes(back.storedNum, back.storedNum + 48)),
              std::tuple(0x90ABCDEFull, 0x87654321ull, uint8_t{48}, bytes(sn.storedNum, sn.storedNum + 48)));
    forget();
    sn.storedNumLen = 49;
    EXPECT_EQ(qxLoaderSetStoredNum(&sn, 7), -1);
    EXPECT_TRUE(simEvents().empty());

    // A reply length of 49: the message, a read without data, the words as they were.
    setSlot(QX_SLOT_FIRMWARE, 0x11111111, 49, {});
    back = {7, 9, 33, {}};
    testing::internal::CaptureStdout();
    EXPECT_EQ(qxLoaderGetStoredNum(&back, QX_SLOT_FIRMWARE), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "****ERROR*** SHOULD ERASE FLASH*************, sn->storedNumLen: 49\n");
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
    loadImage(imageWith(0x100, 5000));
    const bytes digest(md5.begin(), md5.begin() + 16);
    setSlot(QX_SLOT_FIRMWARE, imageLen, 16, digest);
    simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 2); // the third try is answered
    uint32_t len = 0;
    std::array<uint8_t, QX_STORED_NUM_MAX> stored{};
    EXPECT_EQ(qxLoaderGetStoredHash(&len, stored.data()), 0);
    EXPECT_TRUE(len == static_cast<uint32_t>(imageLen) && std::equal(digest.begin(), digest.end(), stored.begin()));
    simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 3); // no fourth: unreadable, which disagrees
    EXPECT_EQ(qxLoaderVerifyApplicationCode(0), 1);
    EXPECT_EQ(qxLoaderVerifyApplicationCode(1), 0);
    bytes other = digest;
    other[15] ^= 1;
    setSlot(QX_SLOT_FIRMWARE, imageLen, 16, other);
    EXPECT_EQ(qxLoaderVerifyApplicationCode(0), 1);
    EXPECT_THAT(log.leveled(QX_LOADER_LOG_SOURCE), ElementsAre("6 qxLoaderGetStoredHash: Failed!", "6 " + NOT_VERIFIED,
                                                           "1 " + VERIFIED, "6 " + NOT_VERIFIED));
    // Asked: written (the record as stored is pinned by the system tests of a whole upgrade).
    setSlot(QX_SLOT_FIRMWARE, imageLen + 64, 16, digest);
    EXPECT_EQ(qxLoaderVerifyApplicationCode(1), 1);
    EXPECT_EQ(simGetSlot(QX_SLOT_FIRMWARE).word0, static_cast<uint32_t>(imageLen));
    EXPECT_EQ(issued(PIC_HID_SEND_REPORT, QX_HID_CMD_SET_FLASH_VAL), 1u) << "only the last call writes";
}

TEST_F(qxLoaderOnSim, getInfoMatchesOnCodeSequenceStatusAndProductId)
{
    EXPECT_EQ(qxLoaderIsHidApplication(), 1);
    EXPECT_EQ(qxLoaderIsHidBootloader(), 0);
    EXPECT_THAT(log.leveled(QX_LOADER_LOG_SOURCE), ElementsAre("1 qxLoaderIsProductIdMatch: 17 matched!!!",
                                                           "6 qxLoaderIsProductIdMatch: 18 doesn't match!!!"));

    // Never echoed: no match (the reads and their waits are the exchange's, pinned above). An error status is the
    // start-up's unusable GET_INFO case.
    simSetReplyFault(simReplyFault::NO_REPLY, 1);
    EXPECT_EQ(qxLoaderIsHidApplication(), 0);
}

TEST_F(qxLoaderOnSim, goAndEraseCommandsGoOutWithoutSequenceNumberAndAwaitNoReply)
{
    qxLoaderEraseApplication();
    EXPECT_THAT(simSleeps(), ElementsAre(3000000u));
    qxLoaderGotoBootLoader(); // the link resets the device and stays closed (the link tests pin how)
    qxLoaderGotoApplication(); // not sent on a closed link
    ASSERT_EQ(qxUsbInit(), 0);
    qxLoaderGotoApplication();
    EXPECT_EQ(wire.sends,
              (std::vector<report64>{{ERASE_DEVICE}, {QX_HID_CMD_GOTO_BOOTLOADER}, {QX_HID_CMD_GOTO_APPLICATION}}));
    EXPECT_EQ(issued(PIC_HID_GET_REPORT), 0u);
}

TEST_F(qxLoaderOnSim, deviceSearchWaitsGrowToOneSecondResetsAfterTheFifthAndGivesUpAfterTheTwentieth)
{
    qxUsbCleanUp();
    wire.nodeGone = true;
    EXPECT_EQ(qxLoaderFindUSBDevice(), 1);
    std::vector<uint64_t> waits{1000, 10000, 100000, 1000000, 1000000, 1000000, 1000000, 1000000, 2000000};
    waits.insert(waits.end(), 15, 1000000); // the 2 s are the module reload of the reset, after the fifth 1 s
    EXPECT_EQ(simSleeps(), waits);
    EXPECT_THAT(log.leveled(QX_LOADER_LOG_SOURCE),
                ElementsAre("1 __qxLoaderFindUsbDev: starting", "6 __qxLoaderFindUsbDev: resetting USB device",
                            "0 QX_TRACE_PRINTF-qxLoaderGetClientFileName():: Error Finding QX_HID_DEVICE "
                            "*****************"));
}

TEST_F(qxLoaderOnSim, programmingHandsOverNonBlankChunksByAddressWithACompleteAfterEachGapAndAtTheEnd)
{
    std::set<uint64_t> blocks[2]; // the driver is given the same two blocks throughout
    wire.hook = [&blocks](uint32_t request, picHidIoctlArg &arg, bool answered) {
        if (!answered && (request == PIC_HID_PIC32_PROGRAM || request == PIC_HID_PIC32_PROGRAM_DONE)) {
            blocks[request == PIC_HID_PIC32_PROGRAM_DONE].insert(leGet64(&arg.report[12])); // where its report lies
        }
        return 0;
    };
    bytes data = imageWith(0, CHUNK);
    data[CHUNK + 5] = 0; // one byte not erased: the chunk goes whole
    std::iota(data.end() - 48, data.end(), 0x80);
    std::fill_n(data.begin() + 1000 * CHUNK, CHUNK, 7);
    EXPECT_EQ(program(data), 0);
    EXPECT_TRUE(flashHoldsImage());
    EXPECT_THAT(steps(), ElementsAre(step{0x1D010000, 56}, step{0x1D010038, 56}, COMPLETE, step{0x1D01DAC0, 56},
                                     COMPLETE, step{0x1D062FD0, 48}, COMPLETE));
    EXPECT_TRUE(blocks[0].size() == 1 && blocks[1].size() == 1 && *blocks[0].begin() != *blocks[1].begin());
    // The set-up first; the driver asked before each hand-over; a fresh sequence number on every request.
    std::vector<simEvent> io;
    std::ranges::copy_if(simEvents(), std::back_inserter(io), [](const simEvent &e) { return e.request != 0; });
    ASSERT_EQ(io.front().request, PIC_HID_PIC32_UPGRADE_SETUP);
    for (size_t i = 1; i < io.size(); ++i) {
        EXPECT_NE(io[i].seq, io[i - 1].seq) << i;
        const size_t poll = io[i - 1].request == PIC_HID_PIC32_PROGRAM_DONE ? i - 2 : i - 1;
        EXPECT_TRUE(io[i].request != PIC_HID_PIC32_PROGRAM || io[poll].request == PIC_HID_PIC32_IS_URB_AVAILABLE) << i;
    }

    EXPECT_EQ(program(imageWith(112, 80)), 0);
    EXPECT_THAT(steps(), ElementsAre(COMPLETE, step{0x1D010070, 56}, step{0x1D0100A8, 56}, COMPLETE));
    EXPECT_EQ(program(imageWith(0, 0)), 0);
    EXPECT_THAT(steps(), ElementsAre(COMPLETE));
    EXPECT_EQ(issued(PIC_HID_PIC32_IS_URB_AVAILABLE), 6071u) << "a poll for each chunk, blank ones too";
}

TEST_F(qxLoaderOnSim, programmingStopsOnTheDriversFailuresAndGivesUpOnADriverBusyFor30s)
{
    bytes data = imageWith(0, CHUNK);
    std::fill_n(data.begin() + 2 * CHUNK, 10 * CHUNK, 2);
    // The set-up answered with the sequence number itself, not XOR 0x57: -1.
    wire.hook = [](uint32_t request, picHidIoctlArg &arg, bool answered) {
        arg.report[QX_REPORT_SEQ] ^= answered && request == PIC_HID_PIC32_UPGRADE_SETUP ? PIC_HID_ACK_SEQ_XOR : 0;
        return 0;
    };
    EXPECT_EQ(program(data), -1);
    EXPECT_TRUE(log.contains("QX_TRACE_FILE-PIC_HID_PIC32_UPGRADE_SETUP rc: 0"));
    wire.hook = nullptr;
    // The request failing, the line then logged, the result, what the bootloader took, the waits.
    const std::tuple<uint32_t, const char *, int32_t, std::vector<step>, std::vector<uint64_t>> cases[] = {
        {PIC_HID_PIC32_UPGRADE_SETUP, "PIC_HID_PIC32_UPGRADE_SETUP rc: -1", -1, {}, {}},
        {PIC_HID_PIC32_IS_URB_AVAILABLE, "PIC_HID_PIC32_IS_URB_AVAILABLE rc: -1", -1, {}, {}}, // the image incomplete
        {PIC_HID_PIC32_PROGRAM, "***ERROR*** PIC_HID_PIC32_PROGRAM rc: -1", -1, {}, {}}, // no final COMPLETE
        {PIC_HID_PIC32_PROGRAM_DONE, "***ERROR*** PIC_HID_PIC32_PROGRAM_DONE rc: -1", -1, {step{0x1D010000, 56}}, {}},
    };
    for (const auto &[request, line, rc, took, waits] : cases) {
        SCOPED_TRACE(line);
        simFailIoctl(request, EIO, 1);
        EXPECT_EQ(program(data), rc);
        EXPECT_TRUE(log.contains(std::string("QX_TRACE_FILE-") + line));
        EXPECT_EQ(steps(), took);
        EXPECT_EQ(simSleeps(), waits);
    }
    simFailIoctl(PIC_HID_PIC32_PROGRAM_DONE, EIO, 1, 1); // the final one: the bootloader may still hold data
    EXPECT_EQ(program(data), -1);

    // Busy: asked again every 50 ms, 600 times at most, then -1 with nothing handed over.
    simSetDriverBusyPolls(3);
    EXPECT_EQ(program(data), 0);
    EXPECT_THAT(simSleeps(), ElementsAre(50000u, 50000u, 50000u, 2000000u));
    simSetDriverBusyPolls(INT_MAX);
    EXPECT_EQ(program(data), -1);
    EXPECT_EQ(issued(), 1 + QX_PROGRAM_POLL_MAX);
    EXPECT_EQ(simSleeps(), std::vector<uint64_t>(QX_PROGRAM_POLL_MAX, QX_PROGRAM_POLL_WAIT_US));
    EXPECT_TRUE(log.contains("QX_TRACE_FILE-PIC_HID_PIC32_IS_URB_AVAILABLE: driver still busy after 600 polls, "
                             "giving up"));
}

// A start on the right application (one pass) and one without a device node are pinned by the system tests and
// the device management start-up tests.
TEST_F(qxLoaderOnSim, startUpGoesRoundPassesUntilTheRightApplicationAnswersAndInvalidatesSlot4BeforeTheBootloader)
{
    enum startState { OTHER, BOOTLOADER, UNREADABLE, GOTO_REFUSED, INFO_UNUSABLE };
    // what, the appliance at the start, forceUpgrade, the passes, slot 4 reads and writes
    const std::tuple<const char *, startState, int, std::vector<std::string>, size_t, size_t> cases[] = {
        {"the bootloader, slot 4 matching: programmed at once", BOOTLOADER, 0, {PASS_0, UPGRADING, PASS_0}, 4, 2},
        {"slot 4 unreadable: a reset, the same forceUpgrade", UNREADABLE, 1, {PASS_1, RESETTING, PASS_1}, 8, 0},
        {"go-to-bootloader refused: again", GOTO_REFUSED, 0, {PASS_0, PASS_0, PASS_0, UPGRADING, PASS_0}, 8, 4},
        // Slot 4 matches but the application's GET_INFO answers with an error: not taken as running, so slot 4 is
        // invalidated and the image programmed again rather than trusting a record the firmware cannot confirm.
        {"slot 4 matching, GET_INFO unusable: programmed again", INFO_UNUSABLE, 0, {PASS_0, PASS_0, UPGRADING, PASS_0},
         6, 3},
        {"another application: three passes", OTHER, 0, {PASS_0, PASS_0, UPGRADING, PASS_0}, 6, 3},
    };
    for (const auto &[what, state, force, passes, reads, writes] : cases) {
        SCOPED_TRACE(what);
        freshStart(imageWith(0x100, 5000));
        if (state != OTHER && state != GOTO_REFUSED) { // slot 4 and flash hold it
            simInstallApplication({qxFileGetData(), QX_FLASH_SIZE}, static_cast<uint32_t>(imageLen));
        }
        if (state == BOOTLOADER) {
            std::fill(simFlash().begin(), simFlash().end(), 0x00); // whatever a cut-short run left
            simSetMode(simMode::BOOTLOADER);
        }
        if (state == UNREADABLE) {
            simSetSlotUnreadable(QX_SLOT_FIRMWARE, 6);
        }
        bool refused = state != GOTO_REFUSED; // the first go-to-bootloader fails to go out
        bool garbled = state != INFO_UNUSABLE; // the first GET_INFO reply carries an error status
        wire.hook = [&refused, &garbled](uint32_t request, picHidIoctlArg &arg, bool answered) {
            const bool go = request == PIC_HID_SEND_REPORT && arg.report[QX_REPORT_CODE] == QX_HID_CMD_GOTO_BOOTLOADER;
            if (answered && request == PIC_HID_GET_REPORT && arg.report[QX_REPORT_CODE] == QX_HID_CMD_GET_INFO &&
                !std::exchange(garbled, true)) {
                arg.report[QX_REPORT_STATUS] = 1;
            }
            return !answered && go && !std::exchange(refused, true) ? EIO : 0;
        };
        EXPECT_EQ(qxLoaderInit(force), 0);
        std::vector<std::string> seen; // the passes and what happened between them
        std::ranges::copy_if(log.texts(), std::back_inserter(seen), [](const std::string &t) {
            return t == PASS_0 || t == PASS_1 || t == UPGRADING || t == RESETTING;
        });
        EXPECT_EQ(seen, passes);
        EXPECT_EQ(log.levelOf(passes[0]), 1);
        EXPECT_EQ(issued(PIC_HID_SEND_REPORT, QX_HID_CMD_GET_FLASH_VAL), reads);
        EXPECT_EQ(issued(PIC_HID_SEND_REPORT, QX_HID_CMD_SET_FLASH_VAL), writes);
        EXPECT_EQ(simOpenNodeFds(), 1) << "no descriptor left behind";
        EXPECT_TRUE(flashHoldsImage());
        if (state == UNREADABLE) { // twice three tries, then the reset through the module
            EXPECT_EQ(log.levelOf(RESETTING), 6);
            EXPECT_THAT(simCommands(), ElementsAre("rmmod picdev", "modprobe picdev"));
        }
    }
    // The last case, another application: slot 4 invalidated before the go-to-bootloader and again before the erase,
    // the image's digest only once programming has succeeded.
    std::vector<bytes> digests;
    for (const report64 &r : wire.sends) {
        if (r[QX_REPORT_CODE] == QX_HID_CMD_SET_FLASH_VAL) {
            digests.emplace_back(r.begin() + QX_SLOT_BYTE_DATA, r.begin() + QX_SLOT_BYTE_DATA + 16);
        }
    }
    bytes ours(md5.begin(), md5.begin() + 16), invalidated = ours;
    std::fill_n(invalidated.begin(), 10, 0xFF);
    EXPECT_THAT(digests, ElementsAre(invalidated, invalidated, ours));
    // 2 s before the go-to-bootloader and after each module reload, 3 s after the erase, 2 s at the end.
    EXPECT_THAT(simSleeps(), ElementsAre(2000000u, 2000000u, 2000000u, 3000000u, 2000000u, 2000000u, 2000000u));
    const auto go = std::ranges::find_if(simEvents(), [](const simEvent &e) {
        return e.kind == simEventKind::SEND && e.code == QX_HID_CMD_GOTO_BOOTLOADER;
    });
    ASSERT_TRUE(go != simEvents().begin() && go != simEvents().end());
    EXPECT_EQ(go->atUs - (go - 1)->atUs, 2000000u);
    EXPECT_EQ(log.levelOf(UPGRADING), 0);
}

// Programming that fails never ends in slot 4's claim or a go-to-application: the bootloader stays, and the pass
// starts over after 1, 2, 4 ... 60 s (announced in the log, made right after the failed run's 3 s erase wait).
TEST_F(qxLoaderOnSim, failedProgrammingStaysInTheBootloaderAndProgramsAgainAfterGrowingWaits)
{
    const std::tuple<const char *, std::function<void()>, std::vector<uint64_t>> cases[] = { // what, fault, waits (s)
        {"a USB hiccup: 20 blocks of 377 refused from block 150",
         [] { simFailIoctl(PIC_HID_PIC32_PROGRAM, EIO, 20, 149); },
         {1, 2, 4, 8, 16, 32, 60, 60, 60, 60, 60, 60, 60, 60, 60, 60, 60, 60, 60, 60}},
        {"power lost mid-programming, the bootloader then starting what is written", [] {
             simSetBootloaderStartsWrittenApp(true);
             simPowerLossAfter(100);
         }, {1}},
    };
    for (const auto &[what, fault, waits] : cases) {
        SCOPED_TRACE(what);
        freshStart(imageWith(0, 377 * CHUNK));
        guardClaims();
        fault();
        EXPECT_EQ(qxLoaderInit(0), 0);
        EXPECT_TRUE(installed());
        std::vector<std::string> announced, expected;
        std::vector<uint64_t> afterErase, expectedAfterErase;
        std::ranges::copy_if(log.texts(), std::back_inserter(announced),
                             [](const std::string &t) { return t.starts_with(RETRYING); });
        for (const uint64_t s : waits) {
            expected.push_back(RETRYING + std::to_string(s) + " s");
            expectedAfterErase.push_back(s * 1000000);
        }
        expectedAfterErase.push_back(2000000); // the successful run's end
        for (size_t i = 1; i < simSleeps().size(); ++i) {
            if (simSleeps()[i - 1] == 3000000) {
                afterErase.push_back(simSleeps()[i]);
            }
        }
        EXPECT_EQ(announced, expected);
        EXPECT_EQ(afterErase, expectedAfterErase);
    }
}

// The service killed at each boundary of an upgrade (each slot write, go command, module unload and load, USB
// reset, the erase, each block, the completion; alone, or with the appliance losing power and its bootloader then
// starting whatever is written), then started again: the image ends in flash, claimed by slot 4, and running.
TEST_F(qxLoaderOnSim, startUpKilledAtAnyBoundaryAndStartedAgainEndsWithTheImageInstalled)
{
    int boundaries = 0;
    for (int at = 1; boundaries == 0; ++at) {
        for (const bool powerLoss : {false, true}) {
            SCOPED_TRACE(testing::Message() << "killed at boundary " << at << (powerLoss ? ", power lost" : ""));
            freshStart(imageWith(0, 3 * CHUNK));
            guardClaims();
            simSetBootloaderStartsWrittenApp(powerLoss);
            simStopServiceAfter(at, powerLoss);
            const int32_t rc = qxLoaderInit(0);
            if (!simServiceStopped()) {
                EXPECT_EQ(rc, 0);
                boundaries = at - 1;
                break;
            }
            EXPECT_EQ(rc, 1) << "the dead service's search gives up";
            simRestartService();
            qxUsbCleanUp(); // a fresh process holds nothing open
            EXPECT_EQ(qxLoaderInit(0), 0);
            EXPECT_TRUE(installed());
        }
    }
    EXPECT_EQ(boundaries, 16);
}

} // namespace
