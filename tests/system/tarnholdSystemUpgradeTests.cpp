// The real tarnhold inside tarnhold-sim doing its long requests under libfaketime: the FPGA and CPLD upgrades end
// with the parts holding the files byte for byte, a failed CPLD attempt is repaired by the second, the shutdown
// waits for a late answer, and the driver reads the file-transfer test's 8 MiB from the daemon's own memory.
#include "systemSupport.h"

#include "simAppliance.h"
#include "simUpgrade.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sys/wait.h>

namespace {

using strings = std::vector<std::string>;
using ::testing::Contains;

constexpr const char *APP_HEX = "/tmp/app.hex";
constexpr const char *STATE = "/tmp/sim-state";
constexpr const char *FAST = "+0 x50";
constexpr const char *FPGA_FILE = "/tmp/fpga.bin";
constexpr const char *JBC_FILE = "/tmp/idcode.jbc";
constexpr int STARTUP_MS = 60000;

bool serve(daemonHarness &daemon, const strings &simArgs)
{
    return daemonHarnessIsolate().empty() && daemonHarnessWriteImage(APP_HEX) &&
           daemon.start(systemOnSim(simArgs, {"--file", APP_HEX})) && daemon.waitReady();
}

usbDaemonRequest request(const daemonHarness &daemon, uint8_t code, const std::string &path = "")
{
    usbDaemonRequest record = daemonHarnessRecord(code);
    path.copy(reinterpret_cast<char *>(&record.cmd[3]), path.size());
    record.resp.fill(0xEE);
    record.result = -1000;
    EXPECT_EQ(daemon.exchange(record, STARTUP_MS), 0);
    return record;
}

bool stop(daemonHarness &daemon)
{
    int status = 0;
    return daemon.signalDaemon(SIGTERM) && daemon.waitExit(status, STARTUP_MS) && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

std::vector<uint8_t> testData(const std::string &name)
{
    std::ifstream in(std::string(TARNHOLD_TESTDATA) + "/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

bool writeFile(const std::string &path, const std::vector<uint8_t> &bytes)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(bytes.data()), std::streamsize(bytes.size()));
    return bool(out);
}

const strings CPLD_SUCCESS_LOG = {
    "QX_TRACE_FILE-cpldUpgradeFileInit:: fileName: /tmp/idcode.jbc",
    "QX_TRACE_FILE-_this->upgradeSize: 47471",
    "QX_TRACE_FILE-expected_crc: 0x7ae6, actual_crc: 0x7ae6",
    "QX_TRACE_FILE-*****CPLD ERASE DONE*****",
    "QX_TRACE_FILE-*****CPLD INFO CLEAR DONE*****",
    "QX_TRACE_FILE-*****CPLD FIRMWARE UPDATE DONE!!!*****",
    "QX_TRACE_FILE-***CPLD INFO UPDATE DONE***",
    "QX_TRACE_FILE-***CPLD CRC CHECK PASSED!!!***",
    "QX_TRACE_FILE-***CPLD UPGRADE RUN PASSED!!!***",
    "QX_TRACE_FILE-***CPLD PROGRAM SUCCESSFUL!!!!!!!!!!!!***",
};

TEST(tarnholdSystemFpga, upgradeOf1048577BytesLeavesTheFileAndItsFillInTheFpgaMemory)
{
    daemonHarness daemon;
    ASSERT_TRUE(serve(daemon, {"--faketime", FAST, "--flash-image", APP_HEX, "--fault", "fpga-erase-time:1000000",
                               "--fault", "urb-busy:20000"}));
    std::vector<uint8_t> file(1048577);
    for (size_t i = 0; i < file.size(); ++i) {
        file[i] = static_cast<uint8_t>(i * 131 + i / 977); // no block of 1,024 bytes of 0xFF
    }
    ASSERT_TRUE(writeFile(FPGA_FILE, file));
    const usbDaemonRequest reply = request(daemon, 39, FPGA_FILE);
    EXPECT_EQ(reply.result, 0);
    EXPECT_TRUE(std::all_of(reply.resp.begin(), reply.resp.end(), [](uint8_t b) { return b == 0xEE; }));
    // 1,049,600 bytes programmed: the file, then 0xFF; the rest of the memory is erased, 0xFF as well.
    EXPECT_EQ(systemControlOutput(std::string("fpga-compare ") + FPGA_FILE), "equal\n");
    EXPECT_EQ(systemControlOutput("upgrade-state"), "fpga-set-up=1 fpga-erased=1 fpga-pages=4100 fpga-clean-ups=1 "
                                                   "cpld-set-up=0 cpld-erased=0 cpld-pages=0 cpld-runs=0\n");
    ASSERT_TRUE(stop(daemon));
    EXPECT_EQ(daemon.logTexts("fpgaUpgrade"),
              (strings{"QX_TRACE_FILE-fpgaUpgradeFileInit:: fileName: /tmp/fpga.bin",
                       "QX_TRACE_FILE-st.st_size: 1048577",
                       "QX_TRACE_FILE-_this->upgradeSize: 1025k", "QX_TRACE_FILE-*****FPGA ERASE DONE*****",
                       "QX_TRACE_FILE-*****FPGA PROGRAM DONE*****",
                       "QX_TRACE_FILE-*****FPGA PROGRAM SUCCEFUL!!!!!!!!!!!!*****"}));
    // The driver read every chunk's pages when it sent them on, none was lost.
    const std::string events = daemonHarnessReadFile(SYSTEM_EVENTS);
    EXPECT_EQ(systemCountLines(events, "PAGES_READ "), 137u);
    EXPECT_EQ(systemCountLines(events, "PAGES_UNREADABLE "), 0u);
}

TEST(tarnholdSystemCpld, upgradeThroughTarnholdctlLeavesSizeCrcStampAndStateWordZeroInSlot9)
{
    daemonHarness daemon;
    ASSERT_TRUE(serve(daemon, {"--faketime", FAST, "--flash-image", APP_HEX, "--state", STATE}));
    const std::vector<uint8_t> jbc = testData("jbc/idcode.jbc");
    ASSERT_TRUE(writeFile(JBC_FILE, jbc));
    request(daemon, 9); // start-up is over
    FILE *ctl = popen((std::string(TARNHOLDCTL_BINARY) + " --json cpld-upgrade /tmp/idcode.jbc 2>&1").c_str(), "r");
    ASSERT_NE(ctl, nullptr);
    std::string out;
    char chunk[512];
    while (fgets(chunk, sizeof chunk, ctl) != nullptr) {
        out += chunk;
    }
    EXPECT_EQ(WEXITSTATUS(pclose(ctl)), 0) << out;
    EXPECT_EQ(out.rfind("{\"result\":0,", 0), 0u) << out;
    EXPECT_NE(out.find("\"decoded\":{\"file\":\"/tmp/idcode.jbc\""), std::string::npos) << out;
    EXPECT_EQ(systemControlOutput(std::string("cpld-compare ") + JBC_FILE), "equal\n");
    ASSERT_TRUE(stop(daemon));
    EXPECT_EQ(daemon.logTexts("cpldUpgrade"), CPLD_SUCCESS_LOG);

    simReset();
    ASSERT_TRUE(simLoadState(STATE));
    const simSlot record = simGetSlot(9);
    EXPECT_EQ(record.word0, 47471u | 0x7AE6u << 16);
    EXPECT_EQ(record.word1, 0u);
    const std::string stamp(reinterpret_cast<const char *>(record.data), record.len);
    EXPECT_THAT(stamp, ::testing::MatchesRegex("time : 20[0-9][0-9]-[0-9]+-[0-9]+ [0-9]+:[0-9]+:[0-9]+"));
    EXPECT_TRUE(std::equal(jbc.begin(), jbc.end(), simCpldImage().begin()));
}

TEST(tarnholdSystemCpld, firstAttemptWhoseRunNeverCompletesIsRepairedByTheSecond)
{
    daemonHarness daemon;
    ASSERT_TRUE(serve(daemon, {"--faketime", FAST, "--flash-image", APP_HEX, "--fault", "run-never-completes:1"}));
    ASSERT_TRUE(writeFile(JBC_FILE, testData("jbc/idcode.jbc")));
    EXPECT_EQ(request(daemon, 55, JBC_FILE).result, 0);
    EXPECT_EQ(systemControlOutput("slot9").rfind("slot9 size=47471 crc=0x7ae6 state=0x00000000 stamp='time : ", 0), 0u);
    EXPECT_NE(systemControlOutput("upgrade-state").find("cpld-runs=2"), std::string::npos);
    ASSERT_TRUE(stop(daemon));
    strings expected(CPLD_SUCCESS_LOG.begin(), CPLD_SUCCESS_LOG.end() - 1);
    expected.push_back("QX_TRACE_FILE-Error CPLD Upgrade Clean Up!!!!!");
    expected.insert(expected.end(), CPLD_SUCCESS_LOG.begin(), CPLD_SUCCESS_LOG.end());
    EXPECT_EQ(daemon.logTexts("cpldUpgrade"), expected);
}

TEST(tarnholdSystemSlowRelay, shutdownAnsweredFourSecondsLateIsWaitedFor)
{
    daemonHarness daemon;
    ASSERT_TRUE(serve(daemon, {"--faketime", FAST, "--flash-image", APP_HEX, "--fault", "reply-delay:12:4000000"}));
    const usbDaemonRequest reply = request(daemon, 12);
    EXPECT_EQ(reply.result, 0);
    EXPECT_EQ(reply.resp[0], 12);
    EXPECT_EQ(reply.resp[1], reply.cmd[1]);
    ASSERT_TRUE(stop(daemon));
    // The 2 s pause, then reads 500 ms apart until the answer shows: about five reads, not one, not all 22.
    const std::string events = daemonHarnessReadFile(SYSTEM_EVENTS);
    const size_t sent = events.find("SEND code=12 ");
    ASSERT_NE(sent, std::string::npos);
    const size_t reads = systemCountLines(events.substr(sent), "GET_REPORT ");
    EXPECT_GE(reads, 3u);
    EXPECT_LT(reads, 22u);
}

TEST(tarnholdSystemSlowRelay, fileTransferTestHandsTheDriverTheStartUpPatternOf8MiB)
{
    daemonHarness daemon;
    ASSERT_TRUE(serve(daemon, {"--flash-image", APP_HEX}));
    usbDaemonRequest record = daemonHarnessRecord(37);
    record.cmd[3] = 0x00, record.cmd[4] = 0x00, record.cmd[5] = 0x90; // 0x900000: cut to the buffer's 8 MiB
    ASSERT_EQ(daemon.exchange(record, STARTUP_MS), 0);
    EXPECT_EQ(record.result, 0);
    // The start-up pattern: 200 bytes of each block number, zeros after the last whole block.
    uint32_t fnv = 2166136261u;
    for (uint32_t i = 0; i < 0x800000; ++i) {
        fnv = (fnv ^ (i < 41943u * 200u ? uint8_t(i / 200) : 0)) * 16777619u;
    }
    char expected[100];
    std::snprintf(expected, sizeof expected, "file-transfer done=1 read=ok len=8388608 fnv=0x%08x\n", fnv);
    EXPECT_EQ(systemControlOutput("file-transfer"), expected);
    ASSERT_TRUE(stop(daemon));
}

} // namespace
