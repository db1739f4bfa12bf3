// The real tarnhold under tarnhold-sim, each test in a mount namespace of
// its own: requests relayed to the simulated microcontroller, the codes the
// service answers itself while the microcontroller is gone, and the
// start-up firmware upgrade with its failures. The long fixed waits of the
// start-up run under libfaketime.
#include "daemonHarness.h"
#include "systemSupport.h"

#include "simAppliance.h"
#include "usbDaemonRequest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <sys/wait.h>

namespace {

using strings = std::vector<std::string>;

constexpr const char *APP_HEX = "/tmp/app.hex";
constexpr const char *CONTROL = "/tmp/sim-control";
constexpr const char *EVENTS = "/tmp/sim-events";
constexpr const char *STATE = "/tmp/sim-state";
constexpr const char *FAST = "+0 x50"; // 2 s of the daemon's sleeps take 40 ms
constexpr int STARTUP_MS = 60000;
constexpr size_t IMAGE_SIZE = 1000; // 18 chunks of 56 bytes; the digest covers 1024
constexpr uint32_t IMAGE_DIGEST_LEN = 1024;

std::vector<uint8_t> testImage()
{
    std::vector<uint8_t> image(IMAGE_SIZE);
    for (size_t i = 0; i < image.size(); ++i) {
        image[i] = static_cast<uint8_t>(i * 13 + 1);
    }
    return image;
}

// A fresh namespace with the test image at APP_HEX.
void prepare()
{
    ASSERT_EQ(daemonHarnessIsolate(), "");
    ASSERT_TRUE(systemWriteFile(APP_HEX, systemHexFile(testImage())));
}

bool startAppliance(daemonHarness &daemon, const strings &simArgs, const strings &daemonArgs)
{
    daemonHarnessCommand command;
    command.wrapper = {TARNHOLD_SIM_BINARY, "--control", CONTROL, "--log", EVENTS};
    command.wrapper.insert(command.wrapper.end(), simArgs.begin(), simArgs.end());
    command.wrapper.push_back("--");
    command.args = daemonArgs;
    return daemon.start(command);
}

// Requests wait in the FIFO until start-up is over: the first answer marks
// the end of start-up.
int relay(const daemonHarness &daemon, uint8_t code, usbDaemonRequest &record, int timeoutMs = 10000)
{
    record = daemonHarnessRecord(code);
    record.resp.fill(0xEE);
    if (daemon.exchange(record, timeoutMs) != 0) {
        return -1000;
    }
    return record.result;
}

// Stops the daemon the way an operator does and waits for tarnhold-sim.
void stopAppliance(daemonHarness &daemon)
{
    ASSERT_TRUE(daemon.signalDaemon(SIGTERM));
    int status = 0;
    ASSERT_TRUE(daemon.waitExit(status, 30000));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

int exitStatus(daemonHarness &daemon, int timeoutMs = STARTUP_MS)
{
    int status = 0;
    if (!daemon.waitExit(status, timeoutMs) || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

size_t countOf(const strings &texts, const std::string &text)
{
    return static_cast<size_t>(std::count(texts.begin(), texts.end(), text));
}

bool contains(const strings &texts, const std::string &text)
{
    return countOf(texts, text) > 0;
}

strings eventKinds()
{
    return systemEvents(systemReadFile(EVENTS), 1);
}

// The state tarnhold-sim left: flash holds the test image and slot 4 its
// length and MD5, as the service stores them.
void expectImageInstalled()
{
    const std::vector<uint8_t> image = testImage();
    std::vector<uint8_t> flash(SIM_FLASH_SIZE, 0xFF);
    std::copy(image.begin(), image.end(), flash.begin());
    simReset();
    simInstallApplication(flash, IMAGE_DIGEST_LEN);
    const simSlot expected = simGetSlot(4);

    simReset();
    ASSERT_TRUE(simLoadState(STATE));
    EXPECT_TRUE(std::equal(flash.begin(), flash.end(), simFlash().begin()));
    const simSlot slot4 = simGetSlot(4);
    EXPECT_EQ(slot4.word0, IMAGE_DIGEST_LEN);
    EXPECT_EQ(slot4.word1, 0u);
    ASSERT_EQ(slot4.len, 16);
    EXPECT_TRUE(std::equal(slot4.data, slot4.data + 16, expected.data));
}

TEST(tarnholdSystemRelay, replyCarriesTheSequenceNumberUsedAndAClearedTail)
{
    prepare();
    daemonHarness daemon;
    ASSERT_TRUE(startAppliance(daemon, {"--flash-image", APP_HEX}, {"--file", APP_HEX}));
    ASSERT_TRUE(daemon.waitReady());

    usbDaemonRequest info{};
    ASSERT_EQ(relay(daemon, 9, info, STARTUP_MS), 0);
    EXPECT_NE(info.cmd[1], 0);
    EXPECT_EQ(info.resp[0], 9);
    EXPECT_EQ(info.resp[1], info.cmd[1]);
    EXPECT_EQ(info.resp[2], 0);
    EXPECT_EQ(info.resp[3], 17); // the application answers
    for (size_t i = 64; i < 69; ++i) {
        EXPECT_EQ(info.resp[i], 0) << i;
    }

    usbDaemonRequest leds = daemonHarnessRecord(24);
    for (uint8_t i = 0; i < 8; ++i) {
        leds.cmd[3 + i] = static_cast<uint8_t>(0x41 + i);
    }
    leds.padding[0] = 0x12;
    leds.padding[1] = 0x34;
    ASSERT_EQ(daemon.exchange(leds), 0);
    EXPECT_EQ(leds.result, 0);
    EXPECT_EQ(leds.cmd[1], static_cast<uint8_t>(info.cmd[1] + 1));
    EXPECT_EQ(leds.resp[1], leds.cmd[1]);
    EXPECT_TRUE(std::equal(leds.cmd.begin() + 3, leds.cmd.begin() + 11, leds.resp.begin() + 3));
    EXPECT_EQ(leds.padding[0], 0x12);
    EXPECT_EQ(leds.padding[1], 0x34);

    // On the wire: each report once, with the number the client got back.
    const std::string events = systemControl(CONTROL, "events");
    EXPECT_NE(events.find("SEND code=9 seq=" + std::to_string(info.cmd[1]) + " "), std::string::npos) << events;
    EXPECT_NE(events.find("SEND code=24 seq=" + std::to_string(leds.cmd[1]) + " "), std::string::npos) << events;
    stopAppliance(daemon);

    // The whole log of a start on an up-to-date microcontroller and two relays.
    strings log;
    for (const auto &line : daemon.logLines()) {
        if (line.source != "qxFile") {
            log.push_back(line.text.rfind("qxUsbInit: Open '", 0) == 0 ? line.text.substr(0, line.text.find(';'))
                                                                        : line.text);
        }
    }
    EXPECT_EQ(log, (strings{"platform input: /tmp/app.hex", "usbMgmtInit: filename='/tmp/app.hex'",
                            "qxLoaderInit: forceUpgrade=0", "__qxLoaderFindUsbDev: starting",
                            "qxUsbInit: Open '/dev/corvanta_hid_backdoor' success",
                            "qxLoaderVerifyApplicationCode: Verification Success!",
                            "qxLoaderIsProductIdMatch: 17 matched!!!", "tarnhold(ERROR/TERM) stopped"}));
}

TEST(tarnholdSystemRelay, ioCommandReachesTheDriverUntouched)
{
    prepare();
    daemonHarness daemon;
    ASSERT_TRUE(startAppliance(daemon, {"--flash-image", APP_HEX}, {"--file", APP_HEX}));
    ASSERT_TRUE(daemon.waitReady());
    usbDaemonRequest warmUp{};
    ASSERT_EQ(relay(daemon, 9, warmUp, STARTUP_MS), 0);

    usbDaemonRequest io = daemonHarnessRecord(38);
    io.cmd[1] = 0x5A;
    io.cmd[3] = 0x04; // PIC_HID_FPGA_UPGRADE_SETUP, 0x00004804
    io.cmd[4] = 0x48;
    io.cmd[20] = 0x77;
    io.resp.fill(0xEE);
    const usbDaemonRequest sent = io;
    ASSERT_EQ(daemon.exchange(io), 0);
    EXPECT_EQ(io.result, 0);
    EXPECT_EQ(io.cmd, sent.cmd); // no sequence number of the service's own
    EXPECT_EQ(io.resp, sent.resp);
    const std::string events = systemControl(CONTROL, "events");
    EXPECT_NE(events.find("DRIVER code=38 seq=90 request=0x00004804"), std::string::npos) << events;

    // A request number the driver does not know fails in the driver.
    usbDaemonRequest unknown = daemonHarnessRecord(38);
    unknown.cmd[3] = 0x7F;
    unknown.cmd[4] = 0x48;
    ASSERT_EQ(daemon.exchange(unknown), 0);
    EXPECT_EQ(unknown.result, -1);
    EXPECT_TRUE(daemon.waitForLog("qxUsbCmd: ioctl(18559) failed - 'Invalid argument'"));
}

TEST(tarnholdSystemRelay, hostHeldCodesAnswerWhileTheNodeIsGoneAndRelaysRecover)
{
    prepare();
    daemonHarness daemon;
    ASSERT_TRUE(startAppliance(daemon, {"--flash-image", APP_HEX}, {"--file", APP_HEX}));
    ASSERT_TRUE(daemon.waitReady());
    usbDaemonRequest record{};
    ASSERT_EQ(relay(daemon, 9, record, STARTUP_MS), 0);

    ASSERT_EQ(systemControl(CONTROL, "unplug"), "ok\n");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(relay(daemon, 9, record), -1);
    }
    usbDaemonRequest held = daemonHarnessRecord(30);
    held.cmd[3] = 3;
    ASSERT_EQ(daemon.exchange(held), 0);
    EXPECT_EQ(held.result, 0);
    held = daemonHarnessRecord(32);
    held.cmd[3] = 3;
    ASSERT_EQ(daemon.exchange(held), 0);
    EXPECT_EQ(held.result, 0);
    EXPECT_EQ(held.resp[2], 0);
    EXPECT_EQ(held.resp[3], 3);
    EXPECT_EQ(held.resp[4], 1);

    // Back in: the dead descriptor keeps failing until the fifteenth failure
    // in a row re-opens the node; the request after that goes through.
    ASSERT_EQ(systemControl(CONTROL, "plug"), "ok\n");
    int failures = 0;
    while (failures < 20 && relay(daemon, 9, record) != 0) {
        ++failures;
    }
    EXPECT_EQ(failures, 12);
    EXPECT_EQ(record.resp[1], record.cmd[1]);
    EXPECT_TRUE(contains(daemon.logTexts("qxUsb"), "qxUsbCmd: re-opening device file (errCnt=15)"));
}

TEST(tarnholdSystemUpgrade, anotherImageIsReplacedInThreePasses)
{
    prepare();
    daemonHarness daemon;
    ASSERT_TRUE(startAppliance(daemon, {"--faketime", FAST, "--state", STATE}, {"--file", APP_HEX}));
    ASSERT_TRUE(daemon.waitReady());
    usbDaemonRequest info{};
    ASSERT_EQ(relay(daemon, 9, info, STARTUP_MS), 0);
    EXPECT_EQ(info.resp[3], 17);
    stopAppliance(daemon);

    const strings log = daemon.logTexts("qxLoader");
    EXPECT_EQ(countOf(log, "qxLoaderInit: forceUpgrade=0"), 3u);
    EXPECT_EQ(countOf(log, "QX_TRACE_PRINTF-Upgrading HID Application....."), 1u);
    const strings kinds = eventKinds();
    EXPECT_EQ(countOf(kinds, "GOTO_BOOTLOADER"), 1u);
    EXPECT_EQ(countOf(kinds, "ERASE"), 1u);
    EXPECT_EQ(countOf(kinds, "PROGRAM"), 18u);
    EXPECT_EQ(countOf(kinds, "PROGRAM_DROPPED"), 0u);
    EXPECT_EQ(countOf(kinds, "GOTO_APPLICATION"), 1u);
    EXPECT_EQ(countOf(kinds, "USB_RESET"), 2u);
    expectImageInstalled();
}

TEST(tarnholdSystemUpgrade, microcontrollerInItsBootloaderIsProgrammedAtOnce)
{
    prepare();
    daemonHarness daemon;
    ASSERT_TRUE(startAppliance(daemon, {"--faketime", FAST, "--state", STATE, "--mode", "boot"}, {"--file", APP_HEX}));
    ASSERT_TRUE(daemon.waitReady());
    usbDaemonRequest info{};
    ASSERT_EQ(relay(daemon, 9, info, STARTUP_MS), 0);
    EXPECT_EQ(info.resp[3], 17);
    stopAppliance(daemon);

    EXPECT_EQ(countOf(daemon.logTexts("qxLoader"), "qxLoaderInit: forceUpgrade=0"), 2u);
    const strings kinds = eventKinds();
    EXPECT_EQ(countOf(kinds, "GOTO_BOOTLOADER"), 0u);
    EXPECT_EQ(countOf(kinds, "PROGRAM"), 18u);
    expectImageInstalled();
}

TEST(tarnholdSystemUpgrade, powerLostWhileProgrammingIsRepairedByTheNextStart)
{
    prepare();
    {
        // Eight bootloader steps get through, the erase and seven chunks;
        // then the appliance, host and all, goes dark.
        daemonHarness daemon;
        ASSERT_TRUE(startAppliance(daemon, {"--faketime", FAST, "--state", STATE, "--mode", "boot", "--fault",
                                            "host-power-loss:8"},
                                   {"--file", APP_HEX}));
        EXPECT_EQ(exitStatus(daemon), 128 + SIGKILL);
        EXPECT_NE(daemon.stderrText().find("the appliance lost power"), std::string::npos);
        simReset();
        ASSERT_TRUE(simLoadState(STATE));
        const std::vector<uint8_t> image = testImage();
        EXPECT_TRUE(std::equal(image.begin(), image.begin() + 7 * 56, simFlash().begin()));
        EXPECT_EQ(simFlash()[7 * 56], 0xFF);
    }
    daemonHarness daemon;
    ASSERT_TRUE(startAppliance(daemon, {"--faketime", FAST, "--state", STATE}, {"--file", APP_HEX}));
    ASSERT_TRUE(daemon.waitReady());
    usbDaemonRequest info{};
    ASSERT_EQ(relay(daemon, 9, info, STARTUP_MS), 0);
    EXPECT_EQ(info.resp[3], 17);
    stopAppliance(daemon);
    // The bootloader answered with slot 4 already matching: programmed in
    // the first pass, done in the second.
    const strings log = daemon.logTexts("qxLoader");
    EXPECT_EQ(countOf(log, "qxLoaderInit: forceUpgrade=0"), 2u);
    EXPECT_EQ(countOf(log, "QX_TRACE_PRINTF-Upgrading HID Application....."), 1u);
    expectImageInstalled();
}

TEST(tarnholdSystemStartup, noDeviceNodeEndsWithStatusOneAfterTheSearch)
{
    prepare();
    daemonHarness daemon;
    ASSERT_TRUE(startAppliance(daemon, {"--faketime", FAST, "--no-node"}, {}));
    EXPECT_EQ(exitStatus(daemon), 1);
    const strings log = daemon.logTexts();
    EXPECT_EQ(countOf(log, "qxUsbInit: Failed to open '/dev/corvanta_hid_backdoor' - 'No such file or directory'"),
              24u);
    EXPECT_EQ(countOf(log, "__qxLoaderFindUsbDev: resetting USB device"), 1u);
    EXPECT_TRUE(contains(
        log, "QX_TRACE_PRINTF-qxLoaderGetClientFileName():: Error Finding QX_HID_DEVICE *****************"));
    EXPECT_TRUE(contains(log, "QX_TRACE_USBMGMT-Error finding USB device"));
    EXPECT_TRUE(contains(log, "usbMgmtInit: failed"));
}

TEST(tarnholdSystemStartup, missingFirmwareFileFailsBeforeTheDeviceIsTouched)
{
    prepare();
    daemonHarness daemon;
    ASSERT_TRUE(startAppliance(daemon, {}, {"--file", "/tmp/missing.hex"}));
    EXPECT_EQ(exitStatus(daemon), 1);
    const strings log = daemon.logTexts();
    EXPECT_TRUE(contains(log, "QX_TRACE_USBMGMT-/tmp/missing.hex file Error"));
    EXPECT_TRUE(contains(log, "usbMgmtInit: failed"));
    EXPECT_EQ(systemReadFile(EVENTS), ""); // not one open of the node
}

} // namespace
