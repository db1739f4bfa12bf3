// Black-box runs of the real tarnhold binary, each test in a mount namespace
// of its own so that side-by-side tests never share the request FIFO, the
// pid file or the crash logs, and never touch the host's.
//
// Typical use:
//     ASSERT_EQ(daemonHarnessIsolate(), "");
//     daemonHarness daemon;
//     ASSERT_TRUE(daemonHarnessWriteImage("/tmp/app.hex"));
//     ASSERT_TRUE(daemon.start(daemonHarnessOnAppliance("/tmp/app.hex", {"--file", "/tmp/app.hex"})));
//     ASSERT_TRUE(daemon.waitReady());
//     usbDaemonRequest record = daemonHarnessRecord(200);
//     ASSERT_EQ(daemon.exchange(record), 0);
//
// The test process itself enters the namespace, so its own client calls reach
// the daemon's "/tmp/qx-usb-daemon-fifo". To put the simulated appliance
// around the daemon, give a wrapper: command.wrapper = {TARNHOLD_SIM_BINARY, opts..., "--"}.
#pragma once

#include "usbDaemonRequest.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

#ifdef TARNHOLD_BINARY
constexpr const char *DAEMON_HARNESS_DEFAULT_BINARY = TARNHOLD_BINARY;
#else
constexpr const char *DAEMON_HARNESS_DEFAULT_BINARY = "tarnhold";
#endif
#ifdef TARNHOLD_SIM_BINARY
constexpr const char *DAEMON_HARNESS_SIM_BINARY = TARNHOLD_SIM_BINARY;
#else
constexpr const char *DAEMON_HARNESS_SIM_BINARY = "tarnhold-sim";
#endif

// A fresh private mount namespace for the calling process, with new tmpfs
// on /tmp, /var/run and /var/crash (made first when missing). Every call
// starts afresh. "" on success, else what failed. Needs root. Binaries to be
// started later must not live under those three folders.
std::string daemonHarnessIsolate();

struct daemonHarnessCommand {
    std::vector<std::string> wrapper; // run as wrapper... binary args...
    std::string binary = DAEMON_HARNESS_DEFAULT_BINARY;
    std::vector<std::string> args;
    mode_t umask = 022;
};

// The tarnhold binary with these arguments; any other program (a client tool) likewise.
daemonHarnessCommand daemonHarnessDaemon(std::vector<std::string> args = {}, mode_t umask = 022);
daemonHarnessCommand daemonHarnessProgram(const std::string &binary, std::vector<std::string> args = {});

// The daemon inside tarnhold-sim, whose flash already holds `image` (an
// Intel HEX file): with args {"--file", image} start-up finds the firmware
// current and the daemon serves at once. Also keeps the daemon's module
// commands and USB reset away from the host.
daemonHarnessCommand daemonHarnessOnAppliance(const std::string &image, std::vector<std::string> args,
                                              mode_t umask = 022);

// Writes a small application image as Intel HEX: 16 bytes at 0x1D010000.
bool daemonHarnessWriteImage(const std::string &path);

// An evm_log line as the daemon's standard error shows it.
struct daemonHarnessLogLine {
    int pid;
    int level;
    std::string source;
    int line;
    std::string text;
};

// A record with code `code` in cmd byte 0; everything else zero.
usbDaemonRequest daemonHarnessRecord(uint8_t code);

// One started command. Kills what it started (its process group, and the
// daemon named in the pid file) when it goes out of scope; the started
// process also dies with the test process. Send the daemon exit signals only
// once it serves (idle in its loop): one that lands inside a log call during
// start-up can hang the exit handler, whose daemon_stop logs through syslog
// while the interrupted call holds syslog's lock.
class daemonHarness {
public:
    daemonHarness() = default;
    daemonHarness(const daemonHarness &) = delete;
    daemonHarness &operator=(const daemonHarness &) = delete;
    ~daemonHarness();

    // Starts the command with standard output and error going to files
    // (under /var/run, so that a test may mount another /tmp).
    // Isolates the process first if it never was.
    bool start(const daemonHarnessCommand &command);

    // The started process (the wrapper when there is one), and the daemon as
    // its pid file names it (-1 when there is none).
    pid_t pid() const { return pid_; }
    pid_t daemonPid() const;
    const std::string &argv0() const { return argv0_; }

    // Waits for the text on the daemon's standard output / error.
    bool waitForStdout(const std::string &text, int timeoutMs = 10000) const;
    bool waitForStderr(const std::string &text, int timeoutMs = 10000) const;
    // Until the daemon has its request FIFO open ("fdDaemon: ..." printed).
    bool waitReady(int timeoutMs = 10000) const { return waitForStdout("fdDaemon: ", timeoutMs); }
    // Until some process reads the request FIFO: works for a daemon that
    // detached (its output is gone) and for one inside a wrapper.
    bool waitFifoReader(int timeoutMs = 10000) const;
    // Until the pid file names a process.
    bool waitDaemonPid(int timeoutMs = 10000) const;
    // Until a log line with exactly this text is there.
    bool waitForLog(const std::string &text, int timeoutMs = 10000) const;

    // Reaps the started process: true with its wait status.
    bool waitExit(int &status, int timeoutMs = 10000);
    bool signalDaemon(int sig) const;
    // Kills and reaps what is still running.
    void stop();

    std::string stdoutText() const;
    std::string stderrText() const;
    std::vector<daemonHarnessLogLine> logLines() const;
    // Texts of the log lines, optionally only those of one source.
    std::vector<std::string> logTexts(const std::string &source = "") const;

    // One exchange through the client library (0 or a negative errno).
    int exchange(usbDaemonRequest &record, int timeoutMs = 10000) const;

private:
    pid_t pid_ = -1;
    bool reaped_ = false;
    bool detaches_ = false; // started with --daemon
    pid_t pidBefore_ = -1;  // what the pid file named before the start
    std::string outDir_;
    std::string argv0_;
};

// Reads a whole file; "" when it cannot.
std::string daemonHarnessReadFile(const std::string &path);
// Runs a command to its end with output captured (not in a namespace of its
// own: the caller's). True with the wait status and both outputs.
bool daemonHarnessRun(const std::vector<std::string> &argv, int &status, std::string &out, std::string &err,
                      int timeoutMs = 30000);
