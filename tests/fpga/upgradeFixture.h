// The upgrade tests' fixture: the link open on the in-process simulated
// appliance, every driver request recorded as the service built it, and one
// scratch file.
#pragma once

#include "leBytes.h"
#include "simFixture.h"
#include "simUpgrade.h"
#include "usbMgmt.h"

#include <cstring>
#include <fstream>

constexpr uint64_t S = 1000000;
constexpr uint64_t MS = 1000;
using report64 = std::array<uint8_t, QX_REPORT_SIZE>;
using ioctlFn = int (*)(int, unsigned long, void *);

// head, then n copies of pattern.
inline std::vector<uint64_t> repeat(std::vector<uint64_t> head, const std::vector<uint64_t> &pattern, size_t n)
{
    while (n-- > 0) {
        head.insert(head.end(), pattern.begin(), pattern.end());
    }
    return head;
}

class upgradeTest : public simLinkTest {
protected:
    void SetUp() override
    {
        simLinkTest::SetUp();
        sent().clear();
        model() = platformSys.ioctl;
        platformSys.ioctl = [](int fd, unsigned long request, void *arg) {
            sent().push_back({static_cast<uint32_t>(request), {}});
            std::memcpy(sent().back().second.data(), arg, QX_REPORT_SIZE);
            return model()(fd, request, arg);
        };
    }
    void TearDown() override
    {
        platformSys.ioctl = model();
        std::remove(file_.c_str());
        simLinkTest::TearDown();
    }
    static std::vector<std::pair<uint32_t, report64>> &sent()
    {
        static std::vector<std::pair<uint32_t, report64>> all;
        return all;
    }
    static ioctlFn &model()
    {
        static ioctlFn ioctl = nullptr;
        return ioctl;
    }
    // The reports sent with driver request `request`; for IO commands (code 38) the request they carry.
    static std::vector<report64> reports(uint32_t request, uint8_t code = QX_HID_CMD_IO_CMD)
    {
        std::vector<report64> out;
        for (const auto &[r, rep] : sent()) {
            const uint32_t carried = rep[0] == QX_HID_CMD_IO_CMD ? leGet32(&rep[3]) : r;
            if (rep[0] == code && carried == request) {
                out.push_back(rep);
            }
        }
        return out;
    }
    // Bytes 0..254 in a pattern of the size's own, so no 1 KiB block is blank.
    static std::vector<uint8_t> bytesOf(size_t size)
    {
        std::vector<uint8_t> b(size);
        for (size_t i = 0; i < size; ++i) {
            b[i] = static_cast<uint8_t>((i * 7 + i / 251 + size) % 255);
        }
        return b;
    }
    const std::string &write(const std::vector<uint8_t> &bytes)
    {
        std::ofstream(file_, std::ios::binary).write(reinterpret_cast<const char *>(bytes.data()), std::ssize(bytes));
        return file_;
    }
    qxUsbBlock cmdFor(uint8_t code, const std::string &path)
    {
        qxUsbBlock cmd{};
        cmd[QX_REPORT_CODE] = code;
        const size_t len = std::min(path.size() + 1, QX_BLOCK_SIZE - QX_REPORT_PAYLOAD);
        std::copy_n(path.c_str(), len, &cmd[QX_REPORT_PAYLOAD]);
        return cmd;
    }
    std::string file_ = testing::TempDir() + "upgrade-" + std::to_string(getpid());
    qxUsbBlock resp{};
};
