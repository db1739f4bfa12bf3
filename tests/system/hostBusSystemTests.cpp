// The real tarnhold inside tarnhold-sim with the fan controller on /dev/i2c-0 and SCSI controllers on the PCI
// bus: tarnholdctl fan against the simulated registers, and the heartbeat in the configuration file.
#include "systemSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <sys/mount.h>
#include <thread>

namespace {

using strings = std::vector<std::string>;
using namespace std::chrono_literals;

constexpr const char *APP_HEX = "/tmp/app.hex";
constexpr const char *PLATFORM_1_FIRMWARE = "/usr/sbin/briska-pic-client.hex"; // HW=BRISKA, platform 1
constexpr const char *CTRL_PATH = "/sys/devices/0000:03:00.0";

// What a control command printed before its "ok"; "error" when refused.
std::string controlOutput(const std::string &line)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string(SYSTEM_CONTROL).copy(addr.sun_path, sizeof(addr.sun_path) - 1);
    const uniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const std::string request = line + "\n";
    if (::connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 ||
        ::write(fd.get(), request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
        return "error";
    }
    std::string reply;
    char buffer[256];
    while (reply.find("ok\n") == std::string::npos && reply.find("error") == std::string::npos) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n <= 0) {
            return "error";
        }
        reply.append(buffer, static_cast<size_t>(n));
    }
    return reply.find("error") != std::string::npos ? "error" : reply.substr(0, reply.size() - 3);
}

// tarnholdctl with `args`: exit status and standard output.
std::pair<int, std::string> ctl(strings args)
{
    daemonHarness client;
    const int status = client.runToEnd({.binary = TARNHOLDCTL_BINARY, .args = std::move(args)});
    return {status, client.stdoutText() + client.stderrText()};
}

long voluntarySwitches(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0) {
            return std::stol(line.substr(line.find(':') + 1));
        }
    }
    return -1;
}

TEST(tarnholdSystemFans, fanGetAndSetReadAndChangeTheSimulatedRegisters)
{
    // Platform 1 takes its firmware from /usr/sbin, which this namespace gets empty.
    ASSERT_EQ(daemonHarnessIsolate(), "");
    ASSERT_EQ(mount("tmpfs", "/usr/sbin", "tmpfs", MS_NOSUID | MS_NODEV, "size=1m"), 0);
    ASSERT_TRUE(daemonHarnessWriteImage(PLATFORM_1_FIRMWARE));
    daemonHarness daemon;
    ASSERT_TRUE(daemon.start(systemOnSim({"--flash-image", PLATFORM_1_FIRMWARE}, {})) && daemon.waitReady());

    ASSERT_TRUE(systemControl("fan-set control 0x20") && systemControl("fan-set level 4"));
    EXPECT_EQ(ctl({"fan"}),
              std::pair(0, std::string("result: 0 (ok)\nmode: fixed level\nlevel: 4 (duty cycle 48.67 %)\n")));
    EXPECT_EQ(ctl({"fan", "set", "13"}).first, 0);
    EXPECT_EQ(controlOutput("fan"), "control=0x20 level=13\n");
    EXPECT_EQ(ctl({"fan", "set", "auto"}).first, 0);
    EXPECT_EQ(controlOutput("fan"), "control=0x21 level=13\n");
    const auto [status, json] = ctl({"--json", "fan"});
    EXPECT_EQ(status, 0);
    EXPECT_NE(json.find("\"decoded\":{\"status\":0,\"mode\":\"automatic\",\"level\":13,\"dutyCycle\":90.67}"),
              std::string::npos)
        << json;

    // A controller that does not answer: the status byte says so.
    ASSERT_TRUE(systemControl("fault fan-absent"));
    EXPECT_EQ(ctl({"fan", "set", "3"}), std::pair(1, std::string("result: 0 (ok)\ntransfer failed\n")));
    const auto [getStatus, getText] = ctl({"fan"});
    EXPECT_EQ(getStatus, 1);
    EXPECT_NE(getText.find("transfer failed"), std::string::npos) << getText;
    EXPECT_THAT(daemon.logTexts("via-i2c"),
                ::testing::ElementsAre("QX_TRACE_FILE-errno: 6 [ No such device or address ]",
                                       "QX_TRACE_FILE-errno: 6 [ No such device or address ]"));
    EXPECT_TRUE(daemon.signalDaemon(SIGTERM));
}

// Beats seen in the configuration file while requests keep being answered, over `window` of real time.
int countBeats(const daemonHarness &daemon, std::chrono::milliseconds window, int &answered)
{
    int beats = 0;
    answered = 0;
    const auto end = std::chrono::steady_clock::now() + window;
    while (std::chrono::steady_clock::now() < end) {
        if (controlOutput("pci-config 0 0x300 2") != "00 00\n") {
            ++beats;
            EXPECT_TRUE(systemControl("pci-config-set 0 0x300 0 0"));
        }
        usbDaemonRequest r = daemonHarnessRecord(200);
        answered += daemon.exchange(r, 1000) == 0 && r.result == USB_DAEMON_RESULT_UNKNOWN_FUNCTION ? 1 : 0;
        std::this_thread::sleep_for(5ms);
    }
    return beats;
}

TEST(tarnholdSystemHeartbeat, withAControllerTheConfigBytesChangeOnceASecondBetweenAnsweredRequests)
{
    ASSERT_EQ(daemonHarnessIsolate(), "");
    ASSERT_TRUE(daemonHarnessWriteImage(APP_HEX));
    daemonHarness daemon;
    // Ten seconds of the daemon's clock pass in one.
    ASSERT_TRUE(daemon.start(systemOnSim({"--flash-image", APP_HEX, "--scsi-ctrl", "--faketime", "+0 x10"},
                                         {"--file", APP_HEX})) &&
                daemon.waitReady());
    ASSERT_TRUE(systemControl("pci-config-set 0 0x301 0x40"));
    int answered = 0;
    const int beats = countBeats(daemon, 1500ms, answered);
    EXPECT_GE(beats, 10);
    EXPECT_LE(beats, 17);
    EXPECT_GT(answered, 50);
    EXPECT_NE(daemon.stdoutText().find(std::string("VID/PID[0x12d8 0xe130] path: ") + CTRL_PATH + "\n"),
              std::string::npos)
        << daemon.stdoutText();
    // With --file no platform is looked up: the fans answer as on any platform but 1.
    const auto [status, text] = ctl({"fan", "set", "auto"});
    EXPECT_EQ(status, 1);
    EXPECT_NE(text.find("no option-bay fans on this platform"), std::string::npos) << text;
    EXPECT_TRUE(daemon.signalDaemon(SIGTERM));
}

TEST(tarnholdSystemHeartbeat, withoutAControllerTheIdleLoopNeverWakes)
{
    ASSERT_EQ(daemonHarnessIsolate(), "");
    ASSERT_TRUE(daemonHarnessWriteImage(APP_HEX));
    daemonHarness daemon;
    ASSERT_TRUE(daemon.start(systemOnSim({"--flash-image", APP_HEX, "--scsi-ctrl=0x12D8:0xe130"},
                                         {"--file", APP_HEX})) &&
                daemon.waitReady());
    usbDaemonRequest r = daemonHarnessRecord(200);
    ASSERT_EQ(daemon.exchange(r), 0); // start-up is over
    std::this_thread::sleep_for(300ms); // the daemon is back in its wait
    const pid_t pid = daemon.daemonPid();
    const long before = voluntarySwitches(pid);
    std::this_thread::sleep_for(2500ms);
    EXPECT_EQ(voluntarySwitches(pid) - before, 0) << "no timeout: the wait never ends by itself";
    EXPECT_EQ(controlOutput("pci-config 0 0x300 2"), "00 00\n");
    EXPECT_EQ(daemon.stdoutText().find("VID/PID"), std::string::npos);
    EXPECT_TRUE(daemon.signalDaemon(SIGTERM));
}

} // namespace
