// tarnhold-sim on its own: the emulated node, the module commands, the USB
// reset through libusb 0.1, flash images, state across runs, the control
// socket and the exit status, each checked with the probe as the client.
#include "systemSupport.h"

#include "simAppliance.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using strings = std::vector<std::string>;

// Loads a state file the front end saved into this process's model.
bool loadState(const std::string &path)
{
    simReset();
    return simLoadState(path);
}

TEST(tarnholdSimNode, everyIoctlReachesTheModelAndItsAnswerComesBack)
{
    systemTempDir dir;
    const systemRun run = systemRunProbe({"--log", dir.file("log")}, "open; send 9 5; get; send 63 6; get; close");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(systemLines(run.out), (strings{"open ok", "send 0", "get 0 9 5 0 17", "send 0", "get 0 63 6 0 0", "close"}));
    EXPECT_EQ(systemEvents(systemReadFile(dir.file("log"))),
              (strings{"OPEN code=0 seq=0", "SEND code=9 seq=5", "GET_REPORT code=9 seq=5", "SEND code=63 seq=6",
                       "GET_REPORT code=63 seq=6", "CLOSE code=0 seq=0"}));
}

TEST(tarnholdSimNode, driverReadsAndWritesTheCallersMemory)
{
    systemTempDir dir;
    const systemRun run = systemRunProbe(
        {"--mode", "boot", "--state", dir.file("state"), "--log", dir.file("log")},
        "open; raw 0xC058480D 7; send 4 0; program 0x1D010038 0xA5; complete; xfer 100000; raw 0x8058480C 9; close");
    ASSERT_EQ(run.status, 0) << run.err;
    // The set-up and availability answers are written into the caller's block.
    EXPECT_EQ(systemLines(run.out), (strings{"open ok", "raw 0 5 80 0", "send 0", "program 0", "complete 0",
                                             "xfer 0", "raw 0 5 94 0", "close"}));
    const std::string log = systemReadFile(dir.file("log"));
    EXPECT_NE(log.find("PROGRAM code=5 seq=0 request=0x00000000 address=0x1d010038 len=56"), std::string::npos) << log;
    EXPECT_NE(log.find("FILE_TRANSFER code=37 seq=0 request=0x80584803"), std::string::npos) << log;
    EXPECT_NE(log.find("len=100000"), std::string::npos) << log;

    // The packet the driver fetched by address landed in flash.
    ASSERT_TRUE(loadState(dir.file("state")));
    const auto flash = simFlash();
    for (size_t i = 0; i < 56; ++i) {
        ASSERT_EQ(flash[0x38 + i], 0xA5) << i;
    }
    EXPECT_EQ(flash[0x37], 0xFF);
    EXPECT_EQ(flash[0x38 + 56], 0xFF);
}

TEST(tarnholdSimNode, missingNodeFailsLikeTheKernel)
{
    systemTempDir dir;
    // The preload still routes the failed open's -1 to the node: it must
    // answer EBADF, and the USB device is gone as well.
    const systemRun run = systemRunProbe({"--no-node", "--log", dir.file("log")},
                                         "open; send 9 1; usb-reset; system modprobe picdev; open; send 9 2");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(systemLines(run.out),
              (strings{"open ENOENT", "send EBADF", "usb 0 -", "system 0", "open ENOENT", "send EBADF"}));
    EXPECT_EQ(systemEvents(systemReadFile(dir.file("log")), 1), (strings{"OPEN_FAILED", "OPEN_FAILED"}));
}

TEST(tarnholdSimModuleCommands, unloadAndLoadTheDriverLikeTheRealOnes)
{
    systemTempDir dir;
    const systemRun run = systemRunProbe(
        {"--log", dir.file("log")},
        "open; system rmmod picdev; send 9 1; close; open; system rmmod picdev; system modprobe other; "
        "system modprobe picdev; system modprobe picdev; open; send 9 2; get");
    ASSERT_EQ(run.status, 0) << run.err;
    // A descriptor from before the unload is dead; a second rmmod fails as
    // the module is not loaded; a second modprobe is quietly accepted.
    EXPECT_EQ(systemLines(run.out), (strings{"open ok", "system 0", "send ENODEV", "close", "open ENOENT", "system 1",
                                             "system 1", "system 0", "system 0", "open ok", "send 0",
                                             "get 0 9 2 0 17"}));
    EXPECT_NE(run.err.find("rmmod: ERROR: Module picdev is not currently loaded"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("modprobe: ERROR: Module other not found"), std::string::npos) << run.err;
    const strings kinds = systemEvents(systemReadFile(dir.file("log")), 1);
    EXPECT_EQ(std::count(kinds.begin(), kinds.end(), "RMMOD"), 1);
    EXPECT_EQ(std::count(kinds.begin(), kinds.end(), "MODPROBE"), 1);
}

TEST(tarnholdSimUsb, portResetThroughLibusbRestartsTheMicrocontroller)
{
    systemTempDir dir;
    const systemRun run = systemRunProbe(
        {"--log", dir.file("log")},
        "open; send 11 0; close; system rmmod picdev; usb-reset; system modprobe picdev; open; send 9 3; get");
    ASSERT_EQ(run.status, 0) << run.err;
    // libusb finds 04D8:003C under the testbed's /dev/bus/usb and resets it;
    // the reset applies the pending switch to the bootloader (product id 18).
    EXPECT_EQ(systemLines(run.out), (strings{"open ok", "send 0", "close", "system 0", "usb 1 0", "system 0",
                                             "open ok", "send 0", "get 0 9 3 0 18"}));
    const strings kinds = systemEvents(systemReadFile(dir.file("log")), 1);
    EXPECT_NE(std::find(kinds.begin(), kinds.end(), "USB_RESET"), kinds.end());
}

TEST(tarnholdSimImage, flashImageIsInstalledAsTheServiceStoresIt)
{
    systemTempDir dir;
    std::vector<uint8_t> first(16);
    std::vector<uint8_t> second(8);
    for (size_t i = 0; i < first.size(); ++i) {
        first[i] = static_cast<uint8_t>(0x10 + i);
    }
    for (size_t i = 0; i < second.size(); ++i) {
        second[i] = static_cast<uint8_t>(0xC0 + i);
    }
    const std::string hex = systemHexRecord(4, 0, {0x1D, 0x00}) + systemHexRecord(0, 0x0000, {1, 2, 3, 4}) + // below the range
                            systemHexRecord(4, 0, {0x1D, 0x01}) + systemHexRecord(0, 0x0000, first) +
                            systemHexRecord(5, 0, {0x9D, 0x00, 0x10, 0x00}) + systemHexRecord(0, 0x0100, second) +
                            systemHexRecord(1, 0, {});
    ASSERT_TRUE(systemWriteFile(dir.file("app.hex"), hex));
    systemRun run = systemRunCommand(
        {TARNHOLD_SIM_BINARY, "--flash-image", dir.file("app.hex"), "--state", dir.file("state"), "--", "/bin/true"});
    ASSERT_EQ(run.status, 0) << run.err;

    // What the service would store for this image: length 0x108 rounded up
    // to 64 and the MD5 over it, computed by the model here.
    std::vector<uint8_t> image(SIM_FLASH_SIZE, 0xFF);
    std::copy(first.begin(), first.end(), image.begin());
    std::copy(second.begin(), second.end(), image.begin() + 0x100);
    simReset();
    simInstallApplication(image, 0x140);
    const simSlot expected = simGetSlot(4);

    ASSERT_TRUE(loadState(dir.file("state")));
    EXPECT_TRUE(std::equal(image.begin(), image.end(), simFlash().begin()));
    const simSlot slot4 = simGetSlot(4);
    EXPECT_EQ(slot4.word0, 0x140u);
    EXPECT_EQ(slot4.word1, 0u);
    ASSERT_EQ(slot4.len, 16);
    EXPECT_TRUE(std::equal(slot4.data, slot4.data + 16, expected.data));

    // A binary image goes to the start of flash.
    ASSERT_TRUE(systemWriteFile(dir.file("app.bin"), std::string(100, '\x5A')));
    run = systemRunCommand(
        {TARNHOLD_SIM_BINARY, "--flash-image", dir.file("app.bin"), "--state", dir.file("state2"), "--", "/bin/true"});
    ASSERT_EQ(run.status, 0) << run.err;
    ASSERT_TRUE(loadState(dir.file("state2")));
    EXPECT_EQ(simGetSlot(4).word0, 128u);
    EXPECT_EQ(simFlash()[99], 0x5A);
    EXPECT_EQ(simFlash()[100], 0xFF);
}

TEST(tarnholdSimImage, unusableImagesStopBeforeTheCommandRuns)
{
    systemTempDir dir;
    std::string bad = systemHexRecord(4, 0, {0x1D, 0x01}) + systemHexRecord(0, 0, {1, 2, 3}) + systemHexRecord(1, 0, {});
    bad[bad.find("0102") + 1] = '9'; // the checksum no longer matches
    ASSERT_TRUE(systemWriteFile(dir.file("bad.hex"), bad));
    const std::string marker = dir.file("ran");
    struct imageCase {
        std::string path;
        std::string reason;
    };
    // The bootloader's own HEX file and an application linked for virtual
    // addresses put nothing into 0x1D010000-0x1D062FFF.
    const std::vector<imageCase> cases = {
        {dir.file("bad.hex"), "checksum error"},
        {std::string(TARNHOLD_TESTDATA) + "/hex/HIDBoot_MX795.hex", "nothing for the application flash"},
        {std::string(TARNHOLD_TESTDATA) + "/hex/Blink440.hex", "nothing for the application flash"},
        {dir.file("missing.hex"), "cannot read"},
    };
    for (const imageCase &c : cases) {
        const systemRun run =
            systemRunCommand({TARNHOLD_SIM_BINARY, "--flash-image", c.path, "--", "/bin/touch", marker});
        EXPECT_EQ(run.status, 2) << c.path;
        EXPECT_NE(run.err.find(c.reason), std::string::npos) << run.err;
        EXPECT_NE(access(marker.c_str(), F_OK), 0) << c.path;
    }
}

TEST(tarnholdSimState, powerLossTakesTheHostDownAndTheBootloaderAnswersNextTime)
{
    systemTempDir dir;
    const std::string state = dir.file("state");
    // The erase and the first chunk are the two steps; power goes with the
    // second, before its ioctl has returned.
    systemRun run = systemRunProbe({"--mode", "boot", "--state", state, "--fault", "host-power-loss:2"},
                                   "open; send 4 0; program 0x1D010000 0x11; program 0x1D010038 0x22; send 9 1");
    EXPECT_EQ(run.status, 128 + SIGKILL);
    EXPECT_EQ(systemLines(run.out), (strings{"open ok", "send 0"}));
    EXPECT_NE(run.err.find("the appliance lost power"), std::string::npos) << run.err;

    // Power-on: the bootloader answers, flash as far as it got.
    run = systemRunProbe({"--state", state}, "open; send 9 2; get");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(systemLines(run.out), (strings{"open ok", "send 0", "get 0 9 2 0 18"}));
    ASSERT_TRUE(loadState(state));
    EXPECT_EQ(simFlash()[0], 0x11);
    EXPECT_EQ(simFlash()[0x38], 0xFF);

    // A state file that is not one is refused before anything runs.
    ASSERT_TRUE(systemWriteFile(dir.file("junk"), "not a state file"));
    run = systemRunCommand({TARNHOLD_SIM_BINARY, "--state", dir.file("junk"), "--", "/bin/true"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("cannot load the state file"), std::string::npos) << run.err;
}

TEST(tarnholdSimControl, commandsAndFaultsTakeEffectAtOnce)
{
    systemTempDir dir;
    const systemRun run = systemRunProbe(
        {"--fault", "reply:wrong-seq:1", "--log", dir.file("log")},
        "open; send 9 1; get; ctl fault ioctl:send:EIO:1; send 9 2; send 9 3; get; ctl fault bogus:1; "
        "ctl unplug; send 9 4; ctl state; ctl plug; ctl mode boot; ctl frobnicate");
    ASSERT_EQ(run.status, 0) << run.err;
    const strings lines = systemLines(run.out);
    ASSERT_EQ(lines.size(), 14u) << run.out;
    EXPECT_EQ(lines[0], "open ok");
    EXPECT_EQ(lines[1], "send 0");
    EXPECT_EQ(lines[2].rfind("get 0 9 ", 0), 0u);
    EXPECT_NE(lines[2], "get 0 9 1 0 17"); // the start-up fault: another sequence number
    EXPECT_EQ(lines[3], "ctl ok");
    EXPECT_EQ(lines[4], "send EIO");
    EXPECT_EQ(lines[5], "send 0");
    EXPECT_EQ(lines[6], "get 0 9 3 0 17");
    EXPECT_EQ(lines[7].rfind("ctl error: unknown fault 'bogus'", 0), 0u) << lines[7];
    EXPECT_EQ(lines[8], "ctl ok");
    EXPECT_EQ(lines[9], "send ENODEV"); // the cable is out: the open descriptor is dead
    EXPECT_EQ(lines[10].rfind("ctl mode=app node=absent cable=out module=loaded", 0), 0u) << lines[10];
    EXPECT_EQ(lines[11], "ctl ok");
    EXPECT_EQ(lines[12], "ctl ok");
    EXPECT_EQ(lines[13].rfind("ctl error: unknown command 'frobnicate'", 0), 0u) << lines[13];

    // A fault the start-up cannot parse stops before the command runs.
    const systemRun bad = systemRunCommand({TARNHOLD_SIM_BINARY, "--fault", "ioctl:send:EWHAT", "--", "/bin/true"});
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.err.find("--fault ioctl:send:EWHAT"), std::string::npos) << bad.err;
}

TEST(tarnholdSimProcess, exitStatusIsTheCommandsAndSignalsReachIt)
{
    EXPECT_EQ(systemRunCommand({TARNHOLD_SIM_BINARY, "--", "/bin/sh", "-c", "exit 7"}).status, 7);
    EXPECT_EQ(systemRunCommand({TARNHOLD_SIM_BINARY, "--", "/bin/sh", "-c", "kill -SEGV $$"}).status, 128 + SIGSEGV);
    EXPECT_EQ(systemRunCommand({TARNHOLD_SIM_BINARY, "--", "/nonexistent/command"}).status, 127);
    // Without a command, tarnhold from PATH is what runs.
    systemTempDir dir;
    ASSERT_TRUE(systemWriteFile(dir.file("tarnhold"), "#!/bin/sh\nexit 42\n"));
    ASSERT_EQ(chmod(dir.file("tarnhold").c_str(), 0755), 0);
    EXPECT_EQ(systemRunCommand({TARNHOLD_SIM_BINARY}, {"PATH=" + dir.path() + ":/usr/bin:/bin"}).status, 42);

    // Signals sent to tarnhold-sim go to the command, which says when it
    // has its handler in place.
    for (int sig : {SIGTERM, SIGINT, SIGSEGV}) {
        int pipeFds[2];
        ASSERT_EQ(pipe(pipeFds), 0);
        const pid_t pid = fork();
        if (pid == 0) {
            dup2(pipeFds[1], STDOUT_FILENO);
            close(pipeFds[0]);
            execl(TARNHOLD_SIM_BINARY, TARNHOLD_SIM_BINARY, "--", "/bin/sh", "-c",
                  "trap 'echo got; exit 3' TERM INT SEGV; echo ready; while :; do sleep 1; done", nullptr);
            _exit(127);
        }
        close(pipeFds[1]);
        FILE *out = fdopen(pipeFds[0], "r");
        char line[64] = {};
        ASSERT_NE(fgets(line, sizeof(line), out), nullptr);
        EXPECT_STREQ(line, "ready\n");
        kill(pid, sig);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status)) << sig;
        EXPECT_EQ(WEXITSTATUS(status), 3) << sig;
        ASSERT_NE(fgets(line, sizeof(line), out), nullptr);
        EXPECT_STREQ(line, "got\n");
        fclose(out);
    }
}

} // namespace
