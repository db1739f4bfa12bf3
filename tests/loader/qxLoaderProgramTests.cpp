// Programming the application flash through the driver, on the simulated
// bootloader: chunk packing, blank chunks and gaps, the driver's
// acknowledgements, and the failures on the way.
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
#include <climits>
#include <functional>
#include <vector>

// Defined in qxLoaderTestSupport.cpp.
namespace qxLoaderTest {
using report64 = std::array<uint8_t, QX_REPORT_SIZE>;
void tapInstall();
void tapSetBefore(std::function<int(uint32_t, const picHidIoctlArg &)> before);
void tapSetAfter(std::function<void(uint32_t, picHidIoctlArg &)> after);
void tapClear();
size_t tapCount(uint32_t request);
std::vector<uint32_t> tapRequests();
std::vector<report64> tapReports(uint32_t request, int code);
std::vector<report64> tapPackets(uint32_t request);
std::vector<uint8_t> blankImage();
int32_t loadImage(const std::vector<uint8_t> &image);
} // namespace qxLoaderTest

using namespace qxLoaderTest;
using testing::ElementsAre;

namespace {

constexpr uint32_t CHUNK = QX_PACKET_DATA_SIZE;
constexpr size_t CHUNKS = (QX_FLASH_SIZE + CHUNK - 1) / CHUNK; // 6,071, the last one 48 bytes
static_assert(CHUNKS == 6071);

struct programmed {
    uint32_t address;
    uint32_t len;
};

class qxLoaderProgramOnSim : public testing::Test {
protected:
    void SetUp() override
    {
        simInProcessInstall();
        tapInstall();
        simSetMode(simMode::BOOTLOADER);
        std::fill(simFlash().begin(), simFlash().end(), 0xFF);
        qxLoaderSetPacketDataSize();
    }
    void TearDown() override
    {
        qxUsbCleanUp();
        simInProcessUninstall();
    }

    // Loads the image, opens the link and forgets what that took.
    void prepare(const std::vector<uint8_t> &image)
    {
        ASSERT_EQ(loadImage(image), 0);
        ASSERT_EQ(qxUsbInit(), 0);
        tapClear();
        simClearEvents();
        simClearSleeps();
        log.clear();
    }

    // What reached the bootloader, in order: PROGRAM_DEVICE as (address,
    // length), PROGRAM_COMPLETE as (0, 0).
    static std::vector<std::pair<uint32_t, uint32_t>> bootloaderSteps()
    {
        std::vector<std::pair<uint32_t, uint32_t>> out;
        for (const auto &e : simEvents()) {
            if (e.kind == simEventKind::PROGRAM) {
                out.emplace_back(e.address, e.len);
            } else if (e.kind == simEventKind::COMPLETE) {
                out.emplace_back(0, 0);
            } else if (e.kind == simEventKind::PROGRAM_DROPPED) {
                ADD_FAILURE() << "bootloader dropped a packet for " << std::hex << e.address;
            }
        }
        return out;
    }

    static bool flashIs(const std::vector<uint8_t> &image)
    {
        return std::equal(image.begin(), image.end(), simFlash().begin());
    }

    logCapture log;
};

void fill(std::vector<uint8_t> &image, size_t offset, size_t len, uint8_t first)
{
    for (size_t i = 0; i < len; ++i) {
        image[offset + i] = static_cast<uint8_t>(first + i);
    }
}

uint64_t addressIn(const report64 &io)
{
    uint64_t v = 0;
    for (int i = 19; i >= 12; --i) {
        v = v << 8 | io[static_cast<size_t>(i)];
    }
    return v;
}

TEST_F(qxLoaderProgramOnSim, chunksCarryAddressCountAndRightJustifiedData)
{
    std::vector<uint8_t> image = blankImage();
    fill(image, 0, CHUNK, 0x10);                       // chunk 0, whole
    image[CHUNK + 5] = 0x00;                           // chunk 1: one byte not erased
    fill(image, QX_FLASH_SIZE - 48, 48, 0x80);         // the last chunk, 48 bytes at 0x1D062FD0
    prepare(image);

    EXPECT_EQ(qxLoaderProgram(), 0);
    EXPECT_TRUE(flashIs(image));

    const auto packets = tapPackets(PIC_HID_PIC32_PROGRAM);
    ASSERT_EQ(packets.size(), 3u);
    report64 first{};
    first[0] = PROGRAM_DEVICE;
    first[1] = 0x00;
    first[2] = 0x00;
    first[3] = 0x01;
    first[4] = 0x1D;
    first[5] = 56;
    std::copy_n(image.begin(), CHUNK, first.begin() + 8);
    EXPECT_EQ(packets[0], first);

    // A chunk with one byte other than 0xFF goes whole, its 0xFF bytes included.
    EXPECT_EQ(packets[1][5], 56);
    EXPECT_TRUE(std::equal(image.begin() + CHUNK, image.begin() + 2 * CHUNK, packets[1].begin() + 8));

    report64 last{};
    last[0] = PROGRAM_DEVICE;
    last[1] = 0xD0;
    last[2] = 0x2F;
    last[3] = 0x06;
    last[4] = 0x1D;
    last[5] = 48;
    std::copy_n(image.end() - 48, 48, last.begin() + 16);
    EXPECT_EQ(packets[2], last);

    EXPECT_THAT(bootloaderSteps(), ElementsAre(std::pair(0x1D010000u, 56u), std::pair(0x1D010038u, 56u),
                                               std::pair(0u, 0u), std::pair(0x1D062FD0u, 48u), std::pair(0u, 0u)));
    // Mandated wait at the end only.
    EXPECT_THAT(simSleeps(), ElementsAre(2000000u));
}

TEST_F(qxLoaderProgramOnSim, driverIsAskedBeforeEveryChunkAndBlocksStayInPlace)
{
    std::vector<uint8_t> image = blankImage();
    fill(image, 0, 3 * CHUNK, 1);
    fill(image, 1000 * CHUNK, CHUNK, 7);
    prepare(image);
    EXPECT_EQ(qxLoaderProgram(), 0);
    EXPECT_TRUE(flashIs(image));

    // Set-up first, then one availability poll before each of the 6,071
    // chunks, blank ones included; every hand-over follows a poll.
    const auto requests = tapRequests();
    ASSERT_FALSE(requests.empty());
    EXPECT_EQ(requests.front(), PIC_HID_PIC32_UPGRADE_SETUP);
    EXPECT_EQ(tapCount(PIC_HID_PIC32_UPGRADE_SETUP), 1u);
    EXPECT_EQ(tapCount(PIC_HID_PIC32_IS_URB_AVAILABLE), CHUNKS);
    for (size_t i = 1; i < requests.size(); ++i) {
        if (requests[i] == PIC_HID_PIC32_PROGRAM) {
            const uint32_t before = requests[i - 1];
            const bool afterPoll = before == PIC_HID_PIC32_IS_URB_AVAILABLE
                || (before == PIC_HID_PIC32_PROGRAM_DONE && requests[i - 2] == PIC_HID_PIC32_IS_URB_AVAILABLE);
            EXPECT_TRUE(afterPoll) << i;
        }
    }
    EXPECT_EQ(requests.back(), PIC_HID_PIC32_PROGRAM_DONE);

    // Every IO request takes a fresh sequence number; the driver answers the
    // polls with seq ^ 0x57.
    const auto polls = tapReports(PIC_HID_PIC32_IS_URB_AVAILABLE, QX_HID_CMD_IO_CMD);
    for (size_t i = 1; i < polls.size(); ++i) {
        ASSERT_NE(polls[i][1], polls[i - 1][1]) << i;
    }

    // The driver is handed the same two blocks every time.
    const auto programs = tapReports(PIC_HID_PIC32_PROGRAM, QX_HID_CMD_IO_CMD);
    const auto dones = tapReports(PIC_HID_PIC32_PROGRAM_DONE, QX_HID_CMD_IO_CMD);
    ASSERT_EQ(programs.size(), 4u);
    ASSERT_EQ(dones.size(), 2u);
    for (const auto &p : programs) {
        EXPECT_EQ(addressIn(p), addressIn(programs[0]));
        EXPECT_THAT(std::vector<uint8_t>(p.begin() + 3, p.begin() + 7), ElementsAre(0x0A, 0x48, 0x58, 0x80));
    }
    EXPECT_EQ(addressIn(dones[0]), addressIn(dones[1]));
    EXPECT_NE(addressIn(dones[0]), addressIn(programs[0]));
    report64 complete{};
    complete[0] = PROGRAM_COMPLETE;
    for (const auto &p : tapPackets(PIC_HID_PIC32_PROGRAM_DONE)) {
        EXPECT_EQ(p, complete);
    }
}

TEST_F(qxLoaderProgramOnSim, blankChunksAreSkippedAndACompleteClosesEachRun)
{
    // Data in chunks 0 and 2, chunk 1 blank.
    std::vector<uint8_t> image = blankImage();
    fill(image, 0, CHUNK, 1);
    fill(image, 2 * CHUNK, CHUNK, 2);
    prepare(image);
    EXPECT_EQ(qxLoaderProgram(), 0);
    EXPECT_THAT(bootloaderSteps(), ElementsAre(std::pair(0x1D010000u, 56u), std::pair(0u, 0u),
                                               std::pair(0x1D010070u, 56u), std::pair(0u, 0u)));
    EXPECT_TRUE(flashIs(image));
}

TEST_F(qxLoaderProgramOnSim, leadingBlankRangeStartsWithAComplete)
{
    // Data from 0x1D010070 on, over two chunks: one COMPLETE before the
    // first, none between the two.
    std::vector<uint8_t> image = blankImage();
    fill(image, 112, 80, 0x33);
    prepare(image);
    EXPECT_EQ(qxLoaderProgram(), 0);
    EXPECT_THAT(bootloaderSteps(), ElementsAre(std::pair(0u, 0u), std::pair(0x1D010070u, 56u),
                                               std::pair(0x1D0100A8u, 56u), std::pair(0u, 0u)));
    EXPECT_TRUE(flashIs(image));
}

TEST_F(qxLoaderProgramOnSim, whollyBlankImageSendsOnlyTheFinalComplete)
{
    prepare(blankImage());
    EXPECT_EQ(qxLoaderProgram(), 0);
    EXPECT_EQ(tapCount(PIC_HID_PIC32_IS_URB_AVAILABLE), CHUNKS);
    EXPECT_EQ(tapCount(PIC_HID_PIC32_PROGRAM), 0u);
    EXPECT_THAT(bootloaderSteps(), ElementsAre(std::pair(0u, 0u)));
    EXPECT_THAT(simSleeps(), ElementsAre(2000000u));
}

TEST_F(qxLoaderProgramOnSim, setupNeedsTheDriversFullAcknowledgement)
{
    std::vector<uint8_t> image = blankImage();
    fill(image, 0, 64, 1);
    prepare(image);

    // Byte 1 carrying the sequence number itself, not XOR 0x57.
    tapSetAfter([](uint32_t request, picHidIoctlArg &arg) {
        if (request == PIC_HID_PIC32_UPGRADE_SETUP) {
            arg.report[QX_REPORT_SEQ] ^= PIC_HID_ACK_SEQ_XOR;
        }
    });
    EXPECT_EQ(qxLoaderProgram(), -1);
    EXPECT_TRUE(log.contains("QX_TRACE_FILE-PIC_HID_PIC32_UPGRADE_SETUP rc: 0"));

    // A busy status.
    tapSetAfter([](uint32_t request, picHidIoctlArg &arg) {
        if (request == PIC_HID_PIC32_UPGRADE_SETUP) {
            arg.report[QX_REPORT_STATUS] = 1;
        }
    });
    EXPECT_EQ(qxLoaderProgram(), -1);
    tapSetAfter(nullptr);

    // The request itself failing.
    log.clear();
    simFailIoctl(PIC_HID_PIC32_UPGRADE_SETUP, EIO, 1);
    EXPECT_EQ(qxLoaderProgram(), -1);
    EXPECT_TRUE(log.contains("QX_TRACE_FILE-PIC_HID_PIC32_UPGRADE_SETUP rc: -1"));

    // Nothing beyond the set-up went out, and no wait was made.
    EXPECT_EQ(tapCount(PIC_HID_PIC32_IS_URB_AVAILABLE), 0u);
    EXPECT_EQ(tapCount(PIC_HID_PIC32_PROGRAM), 0u);
    EXPECT_EQ(tapCount(PIC_HID_PIC32_PROGRAM_DONE), 0u);
    EXPECT_TRUE(simSleeps().empty());

    // Check the raw block as it went to the driver: code 38, request number
    // in bytes 3-6, everything else zero but the sequence number.
    const auto setups = tapReports(PIC_HID_PIC32_UPGRADE_SETUP, -1);
    ASSERT_FALSE(setups.empty());
    report64 expected{};
    expected[0] = QX_HID_CMD_IO_CMD;
    expected[1] = setups[0][1];
    expected[3] = 0x0D;
    expected[4] = 0x48;
    expected[5] = 0x58;
    expected[6] = 0xC0;
    EXPECT_EQ(setups[0], expected);
}

TEST_F(qxLoaderProgramOnSim, failedAvailabilityRequestEndsTheWalkWithTheFinalComplete)
{
    std::vector<uint8_t> image = blankImage();
    fill(image, 0, 10 * CHUNK, 1);
    prepare(image);
    int polls = 0;
    tapSetBefore([&polls](uint32_t request, const picHidIoctlArg &) {
        return request == PIC_HID_PIC32_IS_URB_AVAILABLE && ++polls == 3 ? EIO : 0;
    });
    EXPECT_EQ(qxLoaderProgram(), 0);
    EXPECT_TRUE(log.contains("QX_TRACE_FILE-PIC_HID_PIC32_IS_URB_AVAILABLE rc: -1"));
    EXPECT_THAT(bootloaderSteps(),
                ElementsAre(std::pair(0x1D010000u, 56u), std::pair(0x1D010038u, 56u), std::pair(0u, 0u)));
    EXPECT_EQ(polls, 3);
    EXPECT_THAT(simSleeps(), ElementsAre(2000000u));
}

TEST_F(qxLoaderProgramOnSim, busyDriverIsPolledEvery50msUpToThirtySeconds)
{
    std::vector<uint8_t> image = blankImage();
    fill(image, 0, CHUNK, 1);
    prepare(image);

    // Busy for three polls: three waits of 50 ms, then on.
    simSetDriverBusyPolls(3);
    EXPECT_EQ(qxLoaderProgram(), 0);
    EXPECT_THAT(simSleeps(), ElementsAre(50000u, 50000u, 50000u, 2000000u));
    EXPECT_TRUE(flashIs(image));

    // Busy for good: 600 polls, 30 s, then -1 with nothing handed over.
    std::fill(simFlash().begin(), simFlash().end(), 0xFF);
    tapClear();
    simClearEvents();
    simClearSleeps();
    simSetDriverBusyPolls(INT_MAX);
    EXPECT_EQ(qxLoaderProgram(), -1);
    EXPECT_EQ(tapCount(PIC_HID_PIC32_IS_URB_AVAILABLE), QX_PROGRAM_POLL_MAX);
    EXPECT_EQ(simSleeps().size(), QX_PROGRAM_POLL_MAX);
    EXPECT_EQ(simVirtualNowUs() - simEvents().front().atUs, 30000000u);
    EXPECT_EQ(tapCount(PIC_HID_PIC32_PROGRAM), 0u);
    EXPECT_EQ(tapCount(PIC_HID_PIC32_PROGRAM_DONE), 0u);
    EXPECT_TRUE(log.contains("QX_TRACE_FILE-PIC_HID_PIC32_IS_URB_AVAILABLE: driver still busy after 600 polls, giving up"));
}

TEST_F(qxLoaderProgramOnSim, failedHandOverStopsAtOnceWithoutFinalComplete)
{
    std::vector<uint8_t> image = blankImage();
    fill(image, 0, CHUNK, 1);
    fill(image, 2 * CHUNK, CHUNK, 2);
    prepare(image);

    simFailIoctl(PIC_HID_PIC32_PROGRAM, EIO, 1);
    EXPECT_EQ(qxLoaderProgram(), -1);
    EXPECT_TRUE(log.contains("QX_TRACE_FILE-***ERROR*** PIC_HID_PIC32_PROGRAM rc: -1"));
    EXPECT_TRUE(bootloaderSteps().empty());
    EXPECT_EQ(tapCount(PIC_HID_PIC32_PROGRAM_DONE), 0u);
    EXPECT_TRUE(simSleeps().empty());

    // The COMPLETE after the gap failing.
    std::fill(simFlash().begin(), simFlash().end(), 0xFF);
    simClearEvents();
    log.clear();
    simFailIoctl(PIC_HID_PIC32_PROGRAM_DONE, EIO, 1);
    EXPECT_EQ(qxLoaderProgram(), -1);
    EXPECT_TRUE(log.contains("QX_TRACE_FILE-***ERROR*** PIC_HID_PIC32_PROGRAM_DONE rc: -1"));
    EXPECT_THAT(bootloaderSteps(), ElementsAre(std::pair(0x1D010000u, 56u)));
    EXPECT_TRUE(simSleeps().empty());
}

} // namespace
