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

namespace {

using ::testing::Contains;

constexpr const char *FPGA_FILE = "/tmp/fpga.bin";
constexpr const char *JBC_FILE = "/tmp/idcode.jbc";
constexpr const char *CPLD_SUCCESS = "QX_TRACE_FILE-***CPLD PROGRAM SUCCESSFUL!!!!!!!!!!!!***";

// A fresh namespace with the sample JBC file at JBC_FILE (its bytes returned) and the daemon serving.
std::vector<uint8_t> serveWithJbc(daemonHarness &daemon, const std::vector<std::string> &simArgs)
{
    std::ifstream in(std::string(TARNHOLD_TESTDATA) + "/jbc/idcode.jbc", std::ios::binary);
    std::vector<uint8_t> jbc{std::istreambuf_iterator<char>(in), {}};
    EXPECT_TRUE(systemPrepare() && systemServe(daemon, simArgs));
    std::ofstream(JBC_FILE, std::ios::binary).write(reinterpret_cast<const char *>(jbc.data()), std::ssize(jbc));
    return jbc;
}

TEST(tarnholdSystemFpga, upgradeOf1048577BytesLeavesTheFileAndItsFillInTheFpgaMemory)
{
    daemonHarness daemon;
    ASSERT_TRUE(systemPrepare() && systemServe(daemon, {"--faketime", SYSTEM_FAST, "--flash-image", SYSTEM_APP_HEX,
                                                        "--fault", "fpga-erase-time:1000000", "--fault",
                                                        "urb-busy:20000"}));
    std::string file(1048577, '\0');
    for (size_t i = 0; i < file.size(); ++i) {
        file[i] = static_cast<char>(i * 131 + i / 977); // no block of 1,024 bytes of 0xFF
    }
    ASSERT_TRUE(std::ofstream(FPGA_FILE, std::ios::binary) << file);
    const usbDaemonRequest reply = systemRequest(daemon, 39, FPGA_FILE);
    EXPECT_EQ(reply.result, 0);
    EXPECT_TRUE(std::all_of(reply.resp.begin(), reply.resp.end(), [](uint8_t b) { return b == 0xEE; }));
    // 1,049,600 bytes programmed: the file, then 0xFF; the rest of the memory is erased, 0xFF as well.
    EXPECT_EQ(systemControlOutput(std::string("fpga-compare ") + FPGA_FILE), "equal\n");
    EXPECT_EQ(systemControlOutput("upgrade-state"), "fpga-set-up=1 fpga-erased=1 fpga-pages=4100 fpga-clean-ups=1 "
                                                   "cpld-set-up=0 cpld-erased=0 cpld-pages=0 cpld-runs=0\n");
    ASSERT_EQ(systemExitStatus(daemon, SIGTERM), 0);
    EXPECT_THAT(daemon.logTexts("fpgaUpgrade"), Contains("QX_TRACE_FILE-*****FPGA PROGRAM SUCCEFUL!!!!!!!!!!!!*****"));
    // The driver read every chunk's pages when it sent them on, none was lost.
    const std::string events = daemonHarnessReadFile(SYSTEM_EVENTS);
    EXPECT_EQ(systemCountLines(events, "PAGES_READ "), 137u);
    EXPECT_EQ(systemCountLines(events, "PAGES_UNREADABLE "), 0u);
}

TEST(tarnholdSystemCpld, upgradeThroughTarnholdctlLeavesSizeCrcStampAndStateWordZeroInSlot9)
{
    daemonHarness daemon;
    const std::vector<uint8_t> jbc =
        serveWithJbc(daemon, {"--faketime", SYSTEM_FAST, "--flash-image", SYSTEM_APP_HEX, "--state", SYSTEM_STATE});
    systemRequest(daemon, 9); // start-up is over
    daemonHarness ctl;
    EXPECT_EQ(ctl.runToEnd({.binary = TARNHOLDCTL_BINARY, .args = {"--json", "cpld-upgrade", JBC_FILE}},
                           SYSTEM_STARTUP_MS),
              0) << ctl.stderrText();
    const std::string out = ctl.stdoutText();
    EXPECT_EQ(out.rfind("{\"result\":0,", 0), 0u) << out;
    EXPECT_NE(out.find("\"decoded\":{\"file\":\"/tmp/idcode.jbc\""), std::string::npos) << out;
    EXPECT_EQ(systemControlOutput(std::string("cpld-compare ") + JBC_FILE), "equal\n");
    ASSERT_EQ(systemExitStatus(daemon, SIGTERM), 0);
    EXPECT_THAT(daemon.logTexts("cpldUpgrade"), Contains(CPLD_SUCCESS).Times(1));

    simReset();
    ASSERT_TRUE(simLoadState(SYSTEM_STATE));
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
    serveWithJbc(daemon,
                 {"--faketime", SYSTEM_FAST, "--flash-image", SYSTEM_APP_HEX, "--fault", "run-never-completes:1"});
    EXPECT_EQ(systemRequest(daemon, 55, JBC_FILE).result, 0);
    EXPECT_EQ(systemControlOutput("slot9").rfind("slot9 size=47471 crc=0x7ae6 state=0x00000000 stamp='time : ", 0), 0u);
    EXPECT_NE(systemControlOutput("upgrade-state").find("cpld-runs=2"), std::string::npos);
    ASSERT_EQ(systemExitStatus(daemon, SIGTERM), 0);
    const std::vector<std::string> log = daemon.logTexts("cpldUpgrade");
    EXPECT_THAT(log, Contains("QX_TRACE_FILE-Error CPLD Upgrade Clean Up!!!!!").Times(1));
    EXPECT_TRUE(!log.empty() && log.back() == CPLD_SUCCESS);
}

TEST(tarnholdSystemSlowRelay, aShutdownAnsweredLateIsWaitedForAndFileTransferHandsTheDriverThe8MiBPattern)
{
    daemonHarness daemon;
    ASSERT_TRUE(systemPrepare() && systemServe(daemon, {"--faketime", SYSTEM_FAST, "--flash-image", SYSTEM_APP_HEX,
                                                        "--fault", "reply-delay:12:4000000"}));
    const usbDaemonRequest reply = systemRequest(daemon, 12);
    EXPECT_EQ(reply.result, 0);
    EXPECT_EQ(reply.resp[0], 12);
    EXPECT_EQ(reply.resp[1], reply.cmd[1]);

    usbDaemonRequest record = daemonHarnessRecord(37);
    record.cmd[3] = 0x00, record.cmd[4] = 0x00, record.cmd[5] = 0x90; // 0x900000: cut to the buffer's 8 MiB
    ASSERT_EQ(daemon.exchange(record, SYSTEM_STARTUP_MS), 0);
    EXPECT_EQ(record.result, 0);
    // The start-up pattern: 200 bytes of each block number, zeros after the last whole block.
    uint32_t fnv = 2166136261u;
    for (uint32_t i = 0; i < 0x800000; ++i) {
        fnv = (fnv ^ (i < 41943u * 200u ? uint8_t(i / 200) : 0)) * 16777619u;
    }
    char expected[100];
    std::snprintf(expected, sizeof expected, "file-transfer done=1 read=ok len=8388608 fnv=0x%08x\n", fnv);
    EXPECT_EQ(systemControlOutput("file-transfer"), expected);
    ASSERT_EQ(systemExitStatus(daemon, SIGTERM), 0);

    // The 2 s pause, then reads 500 ms apart until the shutdown's answer shows: about five, not one, not all 22.
    const std::string events = daemonHarnessReadFile(SYSTEM_EVENTS);
    const size_t sent = events.find("SEND code=12 ");
    ASSERT_NE(sent, std::string::npos);
    const size_t reads = systemCountLines(events.substr(sent, events.find("code=37 ") - sent), "GET_REPORT ");
    EXPECT_GE(reads, 3u);
    EXPECT_LT(reads, 22u);
}

} // namespace
