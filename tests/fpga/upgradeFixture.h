// The FPGA and CPLD upgrade tests' fixture: the link open on the in-process
// simulated appliance, every driver request recorded as the service built it,
// and files written into a scratch folder.
#pragma once

#include "leBytes.h"
#include "simFixture.h"
#include "simUpgrade.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

struct sentRequest {
    uint32_t request;
    std::array<uint8_t, QX_REPORT_SIZE> report;
};

using ioctlFn = int (*)(int, unsigned long, void *);

class upgradeTest : public simLinkTest {
protected:
    static ioctlFn &simIoctl()
    {
        static ioctlFn ioctl = nullptr;
        return ioctl;
    }
    void SetUp() override
    {
        simLinkTest::SetUp();
        sent().clear();
        simIoctl() = platformSys.ioctl;
        platformSys.ioctl = [](int fd, unsigned long request, void *arg) {
            if (arg != nullptr && ((request >> 8) & 0xFF) == 'H') {
                sentRequest r{static_cast<uint32_t>(request), {}};
                std::memcpy(r.report.data(), arg, QX_REPORT_SIZE);
                sent().push_back(r);
            }
            return simIoctl()(fd, request, arg);
        };
        dir_ = std::filesystem::path(::testing::TempDir()) / ("upgrade-" + std::to_string(getpid()));
        std::filesystem::create_directories(dir_);
    }
    void TearDown() override
    {
        platformSys.ioctl = simIoctl();
        std::filesystem::remove_all(dir_);
        simLinkTest::TearDown();
    }
    static std::vector<sentRequest> &sent()
    {
        static std::vector<sentRequest> all;
        return all;
    }
    // The IO commands (code 38) that carried `request`, in order.
    static std::vector<std::array<uint8_t, QX_REPORT_SIZE>> ioCommands(uint32_t request)
    {
        std::vector<std::array<uint8_t, QX_REPORT_SIZE>> out;
        for (const sentRequest &r : sent()) {
            if (r.report[0] == QX_HID_CMD_IO_CMD && leGet32(&r.report[3]) == request) {
                out.push_back(r.report);
            }
        }
        return out;
    }
    // Random bytes (never 0xFF, so no 1 KiB block is blank) of the given size.
    std::string write(const std::string &name, size_t size)
    {
        std::vector<uint8_t> bytes(size);
        std::mt19937 gen(static_cast<unsigned>(size));
        for (uint8_t &b : bytes) {
            b = static_cast<uint8_t>(gen() % 255);
        }
        return write(name, bytes);
    }
    std::string write(const std::string &name, const std::vector<uint8_t> &bytes)
    {
        const std::string path = (dir_ / name).string();
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(bytes.data()),
                                                    static_cast<std::streamsize>(bytes.size()));
        return path;
    }
    static std::vector<uint8_t> read(const std::string &path)
    {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    // A command block for `code` with the path from byte 3.
    static qxUsbBlock pathCommand(uint8_t code, const std::string &path)
    {
        qxUsbBlock cmd{};
        cmd[QX_REPORT_CODE] = code;
        std::memcpy(&cmd[QX_REPORT_PAYLOAD], path.c_str(), std::min(path.size() + 1, QX_BLOCK_SIZE - 3));
        return cmd;
    }
    // The sleeps, with n copies of `pattern` expected from `at` on.
    static bool sleepsRepeat(size_t at, const std::vector<uint64_t> &pattern, size_t n)
    {
        const auto &s = simSleeps();
        if (s.size() < at + pattern.size() * n) {
            return false;
        }
        for (size_t i = 0; i < pattern.size() * n; ++i) {
            if (s[at + i] != pattern[i % pattern.size()]) {
                return false;
            }
        }
        return true;
    }
    std::filesystem::path dir_;
};
