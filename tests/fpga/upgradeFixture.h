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

// head, then n copies of pattern, then tail; of sleeps unless told otherwise.
template <typename T = uint64_t>
std::vector<T> repeat(std::vector<T> head, const std::vector<T> &pattern, size_t n, const std::vector<T> &tail = {})
{
    while (n-- > 0) {
        head.insert(head.end(), pattern.begin(), pattern.end());
    }
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

inline std::vector<std::pair<uint32_t, report64>> upgradeSent;
inline int (*upgradeModelIoctl)(int, unsigned long, void *) = nullptr;

class upgradeTest : public simLinkTest {
protected:
    void SetUp() override
    {
        simLinkTest::SetUp();
        upgradeSent.clear();
        upgradeModelIoctl = platformSys.ioctl;
        platformSys.ioctl = [](int fd, unsigned long request, void *arg) {
            upgradeSent.push_back({static_cast<uint32_t>(request), {}});
            std::memcpy(upgradeSent.back().second.data(), arg, QX_REPORT_SIZE);
            return upgradeModelIoctl(fd, request, arg);
        };
    }
    void TearDown() override
    {
        platformSys.ioctl = upgradeModelIoctl;
        std::remove(file_.c_str());
        simLinkTest::TearDown();
    }
    // The reports sent with driver request `request`; for IO commands (code 38) the request they carry.
    static std::vector<report64> reports(uint32_t request, uint8_t code = QX_HID_CMD_IO_CMD)
    {
        std::vector<report64> out;
        for (const auto &[r, rep] : upgradeSent) {
            const uint32_t carried = rep[0] == QX_HID_CMD_IO_CMD ? leGet32(&rep[3]) : r;
            if (rep[0] == code && carried == request) {
                out.push_back(rep);
            }
        }
        return out;
    }
    // The page counts of the chunks sent, when each starts 30 pages after the one before, at its address in
    // `data`; empty otherwise.
    static std::vector<size_t> chunkPages(uint32_t request, const uint8_t *data)
    {
        std::vector<size_t> pages;
        for (const report64 &c : reports(request)) {
            const size_t first = 30 * pages.size();
            if (leGet24(&c[7]) != first || leGet64(&c[12]) != reinterpret_cast<uintptr_t>(data + 256 * first)) {
                return {};
            }
            pages.push_back(size_t{c[10]} << 8 | c[11]);
        }
        return pages;
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
    static qxUsbBlock cmdFor(uint8_t code, const std::string &path)
    {
        qxUsbBlock cmd{};
        cmd[QX_REPORT_CODE] = code;
        const size_t len = std::min(path.size() + 1, QX_BLOCK_SIZE - QX_REPORT_PAYLOAD);
        std::copy_n(path.c_str(), len, &cmd[QX_REPORT_PAYLOAD]);
        return cmd;
    }
    // The upgrade request `code` for `path` through the dispatch table, which leaves resp as sent.
    int32_t upgradeFrom(uint8_t code, const std::string &path)
    {
        qxUsbBlock cmd = cmdFor(code, path);
        resp.fill(0xEE);
        const int32_t rc = usbMgmtCmd(cmd, resp);
        EXPECT_TRUE(allAre(resp, 0xEE)) << "resp comes back as sent";
        return rc;
    }
    std::string file_ = testing::TempDir() + "upgrade-" + std::to_string(getpid());
    qxUsbBlock resp{};
};
