// Support for the system tests: running tarnhold-sim around a command and
// reading back what it leaves (state file, event log).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// When this variable is set, the test binary does not run tests: it runs
// the probe script it holds against the emulated node and exits. Steps are
// separated by ';', one output line each (see simProbe.cpp).
constexpr const char *SYSTEM_PROBE_ENV = "TARNHOLD_SIM_PROBE";

struct systemRun {
    int status = -1; // exit status, 128+N for signal N, -1 when it did not end in time
    std::string out;
    std::string err;
};

// A directory of the test's own, removed with everything in it.
class systemTempDir {
public:
    systemTempDir();
    ~systemTempDir();
    systemTempDir(const systemTempDir &) = delete;
    systemTempDir &operator=(const systemTempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Runs argv to its end with its output captured; `env` entries are
// "NAME=value" added for the child.
systemRun systemRunCommand(const std::vector<std::string> &argv, const std::vector<std::string> &env = {},
                           int timeoutMs = 60000);

// tarnhold-sim with `simArgs`, around this test binary running `probe`.
systemRun systemRunProbe(const std::vector<std::string> &simArgs, const std::string &probe, int timeoutMs = 60000);

// Output lines without their line ends.
std::vector<std::string> systemLines(const std::string &text);

// The event log's lines, each cut to its first `fields` words (kind first).
std::vector<std::string> systemEvents(const std::string &logText, size_t fields = 3);

// One Intel HEX record with its line end.
std::string systemHexRecord(uint8_t type, uint16_t address, const std::vector<uint8_t> &data);
// A whole Intel HEX file putting `image` at flash address 0x1D010000 on, in
// 16-byte records.
std::string systemHexFile(const std::vector<uint8_t> &image);

// One command on a tarnhold-sim control socket; its whole answer, the final
// "ok" or "error: ..." line included ("" when it cannot be reached).
std::string systemControl(const std::string &socketPath, const std::string &line);

std::string systemReadFile(const std::string &path);
bool systemWriteFile(const std::string &path, const std::string &text);
