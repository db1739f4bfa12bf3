// The real tarnhold inside tarnhold-sim with the fan controller on /dev/i2c-0 and SCSI controllers on the PCI
// bus: tarnholdctl fan against the simulated registers, and the heartbeat in the configuration file.
#include "systemSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sys/mount.h>
#include <thread>

namespace {

using namespace std::chrono_literals;

constexpr const char *PLATFORM_1_FIRMWARE = "/usr/sbin/briska-pic-client.hex"; // HW=BRISKA, platform 1

TEST(tarnholdSystemFans, fanGetAndSetReadAndChangeTheSimulatedRegisters)
{
    // Platform 1 takes its firmware from /usr/sbin, which this namespace gets empty.
    ASSERT_EQ(daemonHarnessIsolate(), "");
    ASSERT_EQ(mount("tmpfs", "/usr/sbin", "tmpfs", MS_NOSUID | MS_NODEV, "size=1m"), 0);
    ASSERT_TRUE(daemonHarnessWriteImage(PLATFORM_1_FIRMWARE));
    daemonHarness daemon;
    ASSERT_TRUE(daemon.start(systemOnSim({"--flash-image", PLATFORM_1_FIRMWARE}, {})) && daemon.waitReady());

    ASSERT_TRUE(systemControl("fan-set control 0x20") && systemControl("fan-set level 4"));
    EXPECT_EQ(daemonHarnessCtl({"fan"}),
              std::pair(0, std::string("result: 0 (ok)\nmode: fixed level\nlevel: 4 (duty cycle 48.67 %)\n")));
    auto statusFanMode = [] {
        const std::string text = daemonHarnessCtl({"status"}).second;
        const size_t at = text.find("fan mode:");
        return at == std::string::npos ? text : text.substr(at, text.find('\n', at) - at);
    };
    EXPECT_EQ(statusFanMode(), "fan mode:   OK: fixed level 4 (duty cycle 48.67 %)");
    EXPECT_EQ(daemonHarnessCtl({"fan", "set", "13"}).first, 0);
    EXPECT_EQ(systemControlOutput("fan"), "control=0x20 level=13\n");
    EXPECT_EQ(daemonHarnessCtl({"fan", "set", "auto"}).first, 0);
    EXPECT_EQ(systemControlOutput("fan"), "control=0x21 level=13\n");
    EXPECT_EQ(statusFanMode(), "fan mode:   OK: automatic");
    const auto [status, json] = daemonHarnessCtl({"--json", "fan"});
    EXPECT_EQ(status, 0);
    EXPECT_NE(json.find("\"decoded\":{\"status\":0,\"mode\":\"automatic\",\"level\":13,\"dutyCycle\":90.67}"),
              std::string::npos)
        << json;

    // A controller that does not answer: the status byte says so.
    ASSERT_TRUE(systemControl("fault fan-absent"));
    EXPECT_EQ(daemonHarnessCtl({"fan", "set", "3"}), std::pair(1, std::string("result: 0 (ok)\ntransfer failed\n")));
    EXPECT_EQ(daemonHarnessCtl({"fan"}).first, 1);
}

// That without a matching controller (an upper-case vendor text too) the loop waits without a timeout and never
// beats is pinned on virtual time by the heartbeat tests.
TEST(tarnholdSystemHeartbeat, withAControllerTheConfigBytesChangeOnceASecondBetweenAnsweredRequests)
{
    daemonHarness daemon;
    // Ten seconds of the daemon's clock pass in one.
    ASSERT_TRUE(systemPrepare() &&
                systemServe(daemon, {"--flash-image", SYSTEM_APP_HEX, "--scsi-ctrl", "--faketime", "+0 x10"}));
    ASSERT_TRUE(systemControl("pci-config-set 0 0x301 0x40"));
    // Over 1.5 s of real time, each beat is seen in the configuration bytes and cleared again.
    int beats = 0, answered = 0;
    for (const auto end = std::chrono::steady_clock::now() + 1500ms; std::chrono::steady_clock::now() < end;) {
        if (systemControlOutput("pci-config 0 0x300 2") != "00 00\n") {
            ++beats;
            EXPECT_TRUE(systemControl("pci-config-set 0 0x300 0 0"));
        }
        usbDaemonRequest r = daemonHarnessRecord(200);
        answered += daemon.exchange(r, 1000) == 0 && r.result == USB_DAEMON_RESULT_UNKNOWN_FUNCTION ? 1 : 0;
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_GE(beats, 10);
    EXPECT_LE(beats, 17);
    EXPECT_GT(answered, 50);
    // With --file no platform is looked up: the fans answer as on any platform but 1.
    const auto [status, text] = daemonHarnessCtl({"fan", "set", "auto"});
    EXPECT_EQ(status, 1);
    EXPECT_NE(text.find("no option-bay fans on this platform"), std::string::npos) << text;
}

} // namespace
