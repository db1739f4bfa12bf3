// The real tarnhold under load: many clients at once, some that never read their reply and some whose reply
// path does not exist.
#include "systemSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <barrier>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <set>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

namespace {

namespace fs = std::filesystem;

constexpr const char *CLIENT_DIR = "/tmp/load";
constexpr size_t READING = 1000;
constexpr size_t NOT_READING = 200;
constexpr size_t NO_PATH = 100;
constexpr size_t CLIENTS = READING + NOT_READING + NO_PATH;
constexpr size_t WRITERS = 100;
constexpr uint8_t NO_HANDLER = 200; // answered in the daemon, the response block returned as sent

// What the process holds open, one "fd -> target" per descriptor, once no reply descriptor is: the daemon closes
// one just after the client has its record.
std::set<std::string> settledDescriptors(pid_t pid)
{
    std::set<std::string> open;
    daemonHarnessPoll(2000, [&] {
        open.clear();
        std::error_code ec;
        for (const auto &e : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec)) {
            open.insert(e.path().filename().string() + " -> " + fs::read_symlink(e.path(), ec).string());
        }
        return std::ranges::none_of(open, [](const std::string &fd) {
            return fd.find("/tmp/tarnhold-client.") != std::string::npos || fd.find(CLIENT_DIR) != std::string::npos;
        });
    });
    return open;
}

std::string clientPath(size_t i) { return std::string(CLIENT_DIR) + "/c" + std::to_string(i); }

// Client i's record: its reply path and its number as a tag in the response block.
usbDaemonRequest clientRecord(size_t i)
{
    usbDaemonRequest r = daemonHarnessRecord(NO_HANDLER);
    clientPath(i).copy(r.clientFifo, sizeof r.clientFifo - 1);
    memcpy(r.resp.data(), &i, sizeof i);
    r.resp[sizeof i] = 0x5A;
    return r;
}

TEST(tarnholdSystemLoad, everyReadingClientOfAThousandGetsItsOwnRecordAndLostRepliesLeakNothing)
{
    rlimit files = {CLIENTS + 256, CLIENTS + 256};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
    ASSERT_TRUE(systemPrepare());
    daemonHarness daemon;
    ASSERT_TRUE(systemServe(daemon, {"--flash-image", SYSTEM_APP_HEX}));
    usbDaemonRequest first = daemonHarnessRecord(NO_HANDLER);
    ASSERT_EQ(daemon.exchange(first), 0);
    const pid_t pid = daemon.daemonPid();
    const auto descriptors = settledDescriptors(pid);
    ASSERT_FALSE(descriptors.empty());

    // Reading clients hold their FIFO open; the next 200 have a FIFO nobody reads; the last 100 have no path.
    ASSERT_TRUE(fs::create_directory(CLIENT_DIR));
    std::vector<uniqueFd> readers;
    for (size_t i = 0; i < READING + NOT_READING; ++i) {
        ASSERT_EQ(mkfifo(clientPath(i).c_str(), 0600), 0);
        if (i < READING) {
            readers.emplace_back(open(clientPath(i).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
            ASSERT_TRUE(readers.back().valid());
        }
    }

    // Every writer thread opens the request FIFO and, once all are ready, writes its clients' records at once.
    std::barrier ready(WRITERS);
    std::vector<std::thread> writers;
    std::atomic<size_t> written = 0;
    for (size_t w = 0; w < WRITERS; ++w) {
        writers.emplace_back([&, w] {
            uniqueFd fifo(open(USB_DAEMON_FIFO, O_WRONLY | O_CLOEXEC));
            ready.arrive_and_wait();
            for (size_t i = w; i < CLIENTS && fifo.valid(); i += WRITERS) {
                usbDaemonRequest r = clientRecord(i);
                written += write(fifo.get(), &r, sizeof r) == ssize_t(sizeof r) ? 1 : 0;
            }
        });
    }
    for (auto &t : writers) {
        t.join();
    }
    ASSERT_EQ(written, CLIENTS);

    // Each reply gets up to 10 s while all before it came; after a miss the rest are only counted.
    size_t own = 0;
    for (size_t i = 0; i < READING; ++i) {
        pollfd p = {readers[i].get(), POLLIN, 0};
        usbDaemonRequest back = {};
        if (poll(&p, 1, i == own ? 10000 : 0) == 1 && read(p.fd, &back, sizeof back) == ssize_t(sizeof back)) {
            usbDaemonRequest sent = clientRecord(i);
            own += back.result == 8 && back.resp == sent.resp && back.cmd == sent.cmd &&
                           strcmp(back.clientFifo, sent.clientFifo) == 0 ? 1 : 0;
        }
    }
    EXPECT_EQ(own, READING);

    // Still serving, with the descriptors it had before, and each lost reply logged once.
    usbDaemonRequest after = daemonHarnessRecord(NO_HANDLER);
    EXPECT_EQ(daemon.exchange(after), 0);
    EXPECT_THAT(settledDescriptors(pid), ::testing::ContainerEq(descriptors));
    const std::vector<std::string> log = daemon.logTexts("main");
    EXPECT_EQ(size_t(std::ranges::count(log, "fdClient: -1 - 'No such device or address'")), NOT_READING);
    EXPECT_EQ(size_t(std::ranges::count(log, "fdClient: -1 - 'No such file or directory'")), NO_PATH);
}

} // namespace
