// Commands inside tarnhold-sim from an isolated test (daemonHarnessIsolate), and what the appliance saw.
#pragma once

#include "daemonHarness.h"
#include "uniqueFd.h"

#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>

constexpr const char *SYSTEM_CONTROL = "/tmp/sim-control";
constexpr const char *SYSTEM_EVENTS = "/tmp/sim-events"; // the model's event list, written when the sim ends
constexpr const char *SYSTEM_PROBE_ARG = "--sim-probe";   // makes the test binary the probe (simProbe.cpp)

inline daemonHarnessCommand systemOnSim(std::vector<std::string> simArgs, std::vector<std::string> args)
{
    simArgs.insert(simArgs.begin(), {TARNHOLD_SIM_BINARY, "--control", SYSTEM_CONTROL, "--log", SYSTEM_EVENTS});
    simArgs.push_back("--");
    return {.wrapper = std::move(simArgs), .args = std::move(args)};
}

// How often `line` starts a line of `text`.
inline size_t systemCountLines(const std::string &text, const std::string &line)
{
    std::istringstream in(text);
    size_t n = 0;
    for (std::string each; std::getline(in, each);) {
        n += each.rfind(line, 0) == 0 ? 1 : 0;
    }
    return n;
}

// One control command: what tarnhold-sim printed before its "ok", or "error: ..." / "" when it refused or
// could not be reached.
inline std::string systemControlOutput(const std::string &line)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string(SYSTEM_CONTROL).copy(addr.sun_path, sizeof(addr.sun_path) - 1);
    const uniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const std::string request = line + "\n";
    if (::connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 ||
        ::write(fd.get(), request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
        return "";
    }
    std::string reply;
    char chunk[256];
    ssize_t n;
    while ((reply.size() < 3 || (reply.compare(reply.size() - 3, 3, "ok\n") != 0 && reply.rfind("error: ", 0) != 0)) &&
           (n = ::read(fd.get(), chunk, sizeof(chunk))) > 0) {
        reply.append(chunk, static_cast<size_t>(n));
    }
    return reply.size() >= 3 && reply.compare(reply.size() - 3, 3, "ok\n") == 0 ? reply.substr(0, reply.size() - 3)
                                                                                : reply;
}

// One control command; true when tarnhold-sim answers "ok".
inline bool systemControl(const std::string &line)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string(SYSTEM_CONTROL).copy(addr.sun_path, sizeof(addr.sun_path) - 1);
    const uniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const std::string request = line + "\n";
    char reply[3] = {};
    return ::connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0 &&
           ::write(fd.get(), request.data(), request.size()) == static_cast<ssize_t>(request.size()) &&
           ::recv(fd.get(), reply, sizeof(reply), MSG_WAITALL) == 3 && std::string(reply, 3) == "ok\n";
}
