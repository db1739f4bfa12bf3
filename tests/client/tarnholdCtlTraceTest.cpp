// tarnholdctl trace on hand-built recordings: what it refuses, where it stops, how an exchange reads.
#include "qxUsb.h"
#include "recordFormat.h"
#include "usbDaemonRequest.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <tuple>
#include <vector>

namespace {

// A recording built by hand: the header, then records of a kind, a time, a fixed part and the bytes after it.
struct recording {
    std::vector<uint8_t> bytes;

    explicit recording(uint16_t version = RECORD_FORMAT_VERSION)
    {
        recordFileHeader h = {{}, version, sizeof h, 0, 1764072000250, "tarnhold 1.0.0"};
        memcpy(h.magic, RECORD_MAGIC, sizeof h.magic);
        put(&h, sizeof h);
    }
    void put(const void *p, size_t n) { bytes.insert(bytes.end(), (const uint8_t *)p, (const uint8_t *)p + n); }
    template <typename T> recording &add(recordKind kind, uint64_t us, const T &fixed, const void *rest = nullptr,
                                         size_t len = 0, const void *rest2 = nullptr, size_t len2 = 0)
    {
        const recordHead head = {uint32_t(sizeof head + sizeof fixed + len + len2), uint8_t(kind), {}, us};
        put(&head, sizeof head), put(&fixed, sizeof fixed), put(rest, len), put(rest2, len2);
        return *this;
    }
};

// tarnholdctl trace on the recording: exit status, standard output, standard error.
std::tuple<int, std::string, std::string> __trace(const recording &r)
{
    const auto dir = std::filesystem::temp_directory_path() / ("traceTest." + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    std::ofstream(dir / "rec", std::ios::binary).write((const char *)r.bytes.data(), std::streamsize(r.bytes.size()));
    const int status = std::system((TARNHOLDCTL_BINARY " trace " + (dir / "rec").string() + " >" +
                                    (dir / "out").string() + " 2>" + (dir / "err").string()).c_str());
    auto slurp = [&](const char *name) { return (std::stringstream() << std::ifstream(dir / name).rdbuf()).str(); };
    std::tuple<int, std::string, std::string> run{WEXITSTATUS(status), slurp("out"), slurp("err")};
    std::filesystem::remove_all(dir);
    return run;
}

const std::string HEADER = "recording format 1, tarnhold 1.0.0, started 2025-11-25 12:00:00.250 UTC, "
                           "file and memory hashes only\n";

TEST(tarnholdCtlTrace, anotherFormatVersionIsRefusedByNumberAndACutRecordEndsTheOutputAtItsExchange)
{
    auto [status, out, err] = __trace(recording(2));
    EXPECT_EQ(status, 4);
    EXPECT_EQ(out, "");
    EXPECT_TRUE(err.ends_with("/rec: recording format version 2; this build reads version 1\n")) << err;

    recording cut;
    cut.add(recordKind::SLEEP, 1500000, recordSleep{100000, 0}).add(recordKind::EXIT, 2000001, recordExit{15, 0});
    cut.add(recordKind::CLOCK, 2500000, recordClock{1764072002000}).bytes.resize(cut.bytes.size() - 1);
    std::tie(status, out, err) = __trace(cut);
    EXPECT_EQ(status, 4);
    EXPECT_EQ(out, HEADER + "1 1.500000 sleep 100000 us\n2 2.000001 exit signal 15 (SIGTERM)\n");
    EXPECT_TRUE(err.ends_with("/rec: exchange 3 (offset 144): truncated: size 24, only 23 bytes left\n")) << err;
}

TEST(tarnholdCtlTrace, aRequestItsReportsAndItsReplyReadAsCommandNameSequenceAndResult)
{
    usbDaemonRequest request = {"/tmp/ctl.1/reply", 0, {QX_HID_CMD_SET_LEDS, 0, 0, 1, 0, 1}, {}, {}};
    usbDaemonRequest reply = request;
    reply.result = 1, reply.cmd[QX_REPORT_SEQ] = 7, reply.resp = {QX_HID_CMD_GET_INFO, 6, 0};
    // The driver's 88-byte block, before and after: the report at its start.
    const std::array<uint8_t, 88> sent = {QX_HID_CMD_SET_LEDS, 7, 0, 1, 0, 1}, empty = {}, answer = {9, 6, 2};
    const char *node = QX_USB_DEVICE_PATH, *fifo = "/tmp/ctl.1/reply";
    recording r;
    r.add(recordKind::START, 0, recordStart{2, 3, 0, 42, 0}, "tarnhold\0--daemon", 18)
        .add(recordKind::READ, 1000, recordTransfer{3, 244, 244, 0, 0}, &request, 244)
        .add(recordKind::OPEN, 2000, recordOpen{O_RDWR, 0, 5, 0}, node, strlen(node))
        .add(recordKind::IOCTL, 3000, recordIoctl{5, PIC_HID_SEND_REPORT, 0, 0, 1, 88}, &sent, 88, &sent, 88)
        .add(recordKind::IOCTL, 3000, recordIoctl{5, PIC_HID_GET_REPORT, 0, 0, 1, 88}, &empty, 88, &answer, 88)
        .add(recordKind::OPEN, 4000, recordOpen{O_WRONLY | O_NONBLOCK, 0, 6, 0}, fifo, strlen(fifo))
        .add(recordKind::WRITE, 5000, recordTransfer{6, 244, 244, 0, 0}, &reply, 244)
        .add(recordKind::CLOSE, 6000, recordClose{6, 0, 0, 0});
    const auto [status, out, err] = __trace(r);
    EXPECT_EQ(status, 0) << err;
    EXPECT_EQ(out, HEADER +
                           "1 0.000000 start pid 42 request FIFO fd 3 watchdog 0.000000 s argv: tarnhold --daemon\n"
                           "2 0.001000 read request FIFO request QX_HID_CMD_SET_LEDS (24) seq 0 reply to "
                           "/tmp/ctl.1/reply -> 244\n"
                           "3 0.002000 open /dev/corvanta_hid_backdoor O_RDWR -> 5\n"
                           "4 0.003000 ioctl /dev/corvanta_hid_backdoor PIC_HID_SEND_REPORT QX_HID_CMD_SET_LEDS (24) "
                           "seq 7 01 00 01 -> 0\n"
                           "5 0.003000 ioctl /dev/corvanta_hid_backdoor PIC_HID_GET_REPORT answer QX_HID_CMD_GET_INFO "
                           "(9) seq 6 status 2 -> 0\n"
                           "6 0.004000 open /tmp/ctl.1/reply O_WRONLY|O_NONBLOCK -> 6\n"
                           "7 0.005000 write /tmp/ctl.1/reply reply QX_HID_CMD_SET_LEDS (24) seq 7 result 1 (reply "
                           "answers another command) resp QX_HID_CMD_GET_INFO (9) seq 6 status 0 -> 244\n"
                           "8 0.006000 close /tmp/ctl.1/reply -> 0\n");
}

} // namespace
