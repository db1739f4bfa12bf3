// Black-box runs of the real binaries in a mount namespace the test process enters too: tests never share the
// request FIFO, pid file or crash logs, never touch the host's, and their own client calls reach the daemon.
#pragma once

#include "tarnholdClient.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <thread>
#include <utility>
#include <vector>

// Where the daemons the harness runs keep their flash history ($STATE_DIRECTORY, in the fresh /tmp).
constexpr const char *DAEMON_HARNESS_STATE_DIR = "/tmp/tarnhold-state";

// A private mount namespace with fresh tmpfs on /tmp, /var/run and /var/crash (needs root): "" or what failed.
// A checkout or build below one of them stays visible in the fresh one, so the tests run wherever they live.
std::string daemonHarnessIsolate();

// Polls until `done` holds or the time is up: for waits on real processes.
template <typename Fn> bool daemonHarnessPoll(int timeoutMs, Fn done)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    bool ok = false;
    while (!(ok = done()) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return ok;
}

// Runs as wrapper... binary args...; any program, the daemon by default.
struct daemonHarnessCommand {
    std::vector<std::string> wrapper = {};
    std::string binary = TARNHOLD_BINARY;
    std::vector<std::string> args;
    mode_t umask = 022;
};

// The daemon inside tarnhold-sim, whose flash holds `image` (Intel HEX; with {"--file", image} start-up finds
// it current), which also keeps the daemon's module commands and USB reset away from the host.
daemonHarnessCommand daemonHarnessOnAppliance(const std::string &image, std::vector<std::string> args,
                                              mode_t umask = 022);

// Writes a small application image as Intel HEX: bytes 0..15 at 0x1D010000, 16..31 at 0x1D011000.
bool daemonHarnessWriteImage(const std::string &path);

// A record with `code` in cmd byte 0; everything else zero.
usbDaemonRequest daemonHarnessRecord(uint8_t code);

// A whole file; "" when it cannot be read.
std::string daemonHarnessReadFile(const std::string &path);

// One started command, killed with its process group when this goes out of scope or the test process dies (one
// that detached with --daemon is out of reach).
class daemonHarness {
public:
    daemonHarness() = default;
    daemonHarness(const daemonHarness &) = delete;
    daemonHarness &operator=(const daemonHarness &) = delete;
    ~daemonHarness();

    // Output goes to files under /var/run (a test may mount another /tmp).
    bool start(const daemonHarnessCommand &command);
    // Starts the command and waits for its end: its exit status, else -1.
    int runToEnd(const daemonHarnessCommand &command, int timeoutMs = 10000);
    // The exit status, after sending the daemon `sig` when one is given; -1 when it did not exit.
    int exitStatus(int sig = 0, int timeoutMs = 10000);

    // The daemon as the pid file names it, -1 when none does.
    pid_t daemonPid() const;
    // Until the daemon has its request FIFO open ("fdDaemon: ..." printed).
    bool waitReady(int timeoutMs = 10000) const;
    bool signalDaemon(int sig) const;

    std::string stdoutText() const { return daemonHarnessReadFile(outDir_ + "/stdout"); }
    std::string stderrText() const { return daemonHarnessReadFile(outDir_ + "/stderr"); }
    // Texts of the evm_log lines on standard error, optionally only those of one source.
    std::vector<std::string> logTexts(const std::string &source = "") const;

    // One exchange through the client library (0 or a negative errno).
    int exchange(usbDaemonRequest &record, int timeoutMs = 10000) const
    {
        return tarnholdClientExchange(record, {.timeoutMs = timeoutMs});
    }

private:
    pid_t pid_ = -1;
    bool reaped_ = false;
    std::string outDir_;
};

// tarnholdctl with `args` to its end: its exit status (-1 when it did not end) and what it printed.
std::pair<int, std::string> daemonHarnessCtl(std::vector<std::string> args, int timeoutMs = 10000);
