// Commands inside tarnhold-sim from an isolated test (daemonHarnessIsolate), and what the appliance saw.
#pragma once

#include "daemonHarness.h"
#include "uniqueFd.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/socket.h>
#include <sys/un.h>

constexpr const char *SYSTEM_CONTROL = "/tmp/sim-control";
constexpr const char *SYSTEM_EVENTS = "/tmp/sim-events"; // the model's event list, written when the sim ends
constexpr const char *SYSTEM_PROBE_ARG = "--sim-probe";   // makes the test binary the probe (simProbe.cpp)
constexpr const char *SYSTEM_APP_HEX = "/tmp/app.hex";    // two PROGRAM packets 4 KiB apart, digest over 0x1040
constexpr const char *SYSTEM_STATE = "/tmp/sim-state";
constexpr const char *SYSTEM_FAST = "+0 x50"; // 2 s of the daemon's sleeps take 40 ms
constexpr int SYSTEM_STARTUP_MS = 60000;

inline daemonHarnessCommand systemOnSim(std::vector<std::string> simArgs, std::vector<std::string> args)
{
    simArgs.insert(simArgs.begin(), {TARNHOLD_SIM_BINARY, "--control", SYSTEM_CONTROL, "--log", SYSTEM_EVENTS});
    simArgs.push_back("--");
    return {.wrapper = std::move(simArgs), .args = std::move(args)};
}

// A fresh namespace with the test image at SYSTEM_APP_HEX.
inline bool systemPrepare()
{
    return daemonHarnessIsolate().empty() && daemonHarnessWriteImage(SYSTEM_APP_HEX);
}

// The daemon with --file SYSTEM_APP_HEX inside tarnhold-sim, until its request FIFO is open.
inline bool systemServe(daemonHarness &daemon, const std::vector<std::string> &simArgs)
{
    return daemon.start(systemOnSim(simArgs, {"--file", SYSTEM_APP_HEX})) && daemon.waitReady();
}

// One exchange of `code` with `path` from cmd byte 3 and a response block of 0xEE. Requests wait in the FIFO
// while start-up runs; the first answer ends it.
inline usbDaemonRequest systemRequest(const daemonHarness &daemon, uint8_t code, const std::string &path = "")
{
    usbDaemonRequest record = daemonHarnessRecord(code);
    path.copy(reinterpret_cast<char *>(&record.cmd[3]), path.size());
    record.resp.fill(0xEE);
    record.result = -1000;
    EXPECT_EQ(daemon.exchange(record, SYSTEM_STARTUP_MS), 0);
    return record;
}

// How often `line` starts a line of `text`.
inline size_t systemCountLines(const std::string &text, const std::string &line)
{
    size_t n = text.starts_with(line) ? 1 : 0;
    for (size_t at = text.find("\n" + line); at != std::string::npos; at = text.find("\n" + line, at + 1)) {
        ++n;
    }
    return n;
}

// One control command: what tarnhold-sim printed before its "ok", else "error: ..." (refused or unreachable).
inline std::string systemControlOutput(const std::string &line)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string(SYSTEM_CONTROL).copy(addr.sun_path, sizeof(addr.sun_path) - 1);
    const uniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const std::string request = line + "\n";
    if (::connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 ||
        ::write(fd.get(), request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
        return "error: unreachable";
    }
    std::string reply;
    char chunk[256];
    ssize_t n;
    while (!reply.ends_with("ok\n") && !reply.starts_with("error: ") &&
           (n = ::read(fd.get(), chunk, sizeof(chunk))) > 0) {
        reply.append(chunk, static_cast<size_t>(n));
    }
    if (reply.ends_with("ok\n")) {
        return reply.substr(0, reply.size() - 3);
    }
    return reply.starts_with("error: ") ? reply : "error: " + reply;
}

// One control command; true when tarnhold-sim answers "ok".
inline bool systemControl(const std::string &line)
{
    return !systemControlOutput(line).starts_with("error: ");
}
