// The real tarnhold inside tarnhold-sim doing its long requests under libfaketime: the FPGA and CPLD upgrades end,
// through faults the model answers with, with the parts holding the files byte for byte and slot 9 describing the
// CPLD's, a failed CPLD attempt repaired by the second, a shutdown answered late is waited for, and the driver
// reads the file-transfer test's 8 MiB from the daemon's own memory.
#include "systemSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <tuple>

namespace {

constexpr const char *FPGA_FILE = "/tmp/fpga.bin";
constexpr const char *JBC_FILE = "/tmp/idcode.jbc";

TEST(tarnholdSystemFpga, upgradeOf1048577BytesLeavesTheFileAndItsFillInTheFpgaMemory)
{
    daemonHarness daemon;
    ASSERT_TRUE(systemPrepare() && systemServe(daemon, {"--faketime", SYSTEM_FAST, "--flash-image", SYSTEM_APP_HEX,
                                                        "--fault", "fpga-erase-time:1000000", "--fault",
                                                        "urb-busy:20000", "--fault", "capacity-own-seq:2", "--fault",
                                                        "capacity-status-busy:2", "--fault", "clean-up-status-1:1"}));
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
    EXPECT_NE(systemControlOutput("upgrade-state").find("fpga-clean-ups=2"), std::string::npos) << "one not confirmed";
    ASSERT_EQ(daemon.exitStatus(SIGTERM, SYSTEM_STARTUP_MS), 0);
    // The driver read every chunk's pages when it sent them on, none was lost.
    const std::string events = daemonHarnessReadFile(SYSTEM_EVENTS);
    EXPECT_EQ(systemCountLines(events, "PAGES_READ "), 137u);
    EXPECT_EQ(systemCountLines(events, "PAGES_UNREADABLE "), 0u);
}

constexpr const char *SLOT9_AFTER_RUN = "slot9 size=47471 crc=0x7ae6 state=0x00000000 stamp='time : ";

// The first attempt's run never completes; the second repairs it.
TEST(tarnholdSystemCpld, upgradeThroughTarnholdctlLeavesTheFileInTheCpldAndItsSizeCrcStampAndRunInSlot9)
{
    daemonHarness daemon;
    ASSERT_TRUE(systemPrepare() && systemServe(daemon, {"--faketime", SYSTEM_FAST, "--flash-image", SYSTEM_APP_HEX,
                                                        "--fault", "run-never-completes:1"}));
    std::filesystem::copy_file(std::string(TARNHOLD_TESTDATA) + "/jbc/idcode.jbc", JBC_FILE);
    systemRequest(daemon, 9); // start-up is over
    const auto [status, out] = daemonHarnessCtl({"--json", "cpld-upgrade", JBC_FILE}, SYSTEM_STARTUP_MS);
    EXPECT_EQ(status, 0) << out;
    EXPECT_EQ(out.rfind("{\"result\":0,", 0), 0u) << out;
    EXPECT_NE(out.find("\"decoded\":{\"file\":\"/tmp/idcode.jbc\""), std::string::npos) << out;
    EXPECT_EQ(systemControlOutput(std::string("cpld-compare ") + JBC_FILE), "equal\n");
    EXPECT_EQ(systemControlOutput("slot9").rfind(SLOT9_AFTER_RUN, 0), 0u);
    EXPECT_NE(systemControlOutput("upgrade-state").find("cpld-runs=2"), std::string::npos);
}

// The slow relays' exact waits are pinned on virtual time by the device management tests.
TEST(tarnholdSystemSlowRelay, aShutdownAnsweredLateIsWaitedForAndFileTransferHandsTheDriverThe8MiBPattern)
{
    daemonHarness daemon;
    ASSERT_TRUE(systemPrepare() && systemServe(daemon, {"--faketime", SYSTEM_FAST, "--flash-image", SYSTEM_APP_HEX,
                                                        "--fault", "reply-delay:12:4000000"}));
    const usbDaemonRequest shutdown = systemRequest(daemon, 12);
    EXPECT_EQ(shutdown.result, 0);
    EXPECT_EQ(std::tuple(shutdown.resp[0], shutdown.resp[1]), std::tuple(12, shutdown.cmd[1]));

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
}

} // namespace
