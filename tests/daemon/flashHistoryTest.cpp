// The flash history file: two copies per entry so that a torn write hides
// nothing before it, a ring that keeps the last 1,024 entries in fixed
// space, and tarnholdctl's reading of it (history, status's next step).
#include "daemonHarness.h"
#include "flashGuard.h"
#include "flashHistory.h"
#include "uniqueFd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/wait.h>

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

struct historyDir {
    historyDir() { EXPECT_NE(mkdtemp(dir.data()), nullptr); }
    ~historyDir() { fs::remove_all(dir); }
    std::string file() const { return dir + "/" + FLASH_HISTORY_FILE; }
    std::vector<flashHistoryEntry> read(int *damaged = nullptr) const
    {
        std::vector<flashHistoryEntry> rows;
        uniqueFd fd(open(file().c_str(), O_RDONLY | O_CLOEXEC));
        const int d = flashHistoryRead(
            fd.get(),
            [](const flashHistoryEntry &e, void *ctx) { static_cast<std::vector<flashHistoryEntry> *>(ctx)->push_back(e); },
            &rows);
        if (damaged != nullptr) {
            *damaged = d;
        }
        return rows;
    }
    // tarnholdctl with this folder as the service's state folder: its exit status and standard output.
    std::pair<int, std::string> ctl(const std::string &args) const
    {
        const std::string command = "STATE_DIRECTORY=" + dir + " " TARNHOLDCTL_BINARY " " + args + " 2>&1";
        FILE *out = popen(command.c_str(), "r");
        std::string text;
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, out)) > 0;) {
            text.append(buf, n);
        }
        const int status = pclose(out);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text};
    }
    std::string dir = "/tmp/flashHistory.XXXXXX";
};

const flashGuardOps FIXED_CLOCK = {
    .event = FLASH_GUARD_QUIET.event,
    .inhibit = FLASH_GUARD_QUIET.inhibit,
    .nowSec = [] { return int64_t(1'790'000'000); },
};

const uint8_t DIGEST[FLASH_HISTORY_DIGEST_SIZE] = {0xd4, 0x1d, 0x8c, 0xd9, 0x8f, 0x00, 0xb2, 0x04,
                                                    0xe9, 0x80, 0x09, 0x98, 0xec, 0xf8, 0x42, 0x7e};

// n whole flashes through the guard, alternately FPGA (ok) and CPLD (failed): begun, written in eighths, ended.
void flashes(const historyDir &h, int n)
{
    flashGuardInit(FIXED_CLOCK, h.dir.c_str(), nullptr);
    for (int i = 0; i < n; ++i) {
        const bool fpga = i % 2 == 0;
        flashGuardBegin(fpga ? flashWhat::FPGA : flashWhat::CPLD, ("/srv/image " + std::to_string(i)).c_str(), 1000 + i,
                        DIGEST, 160);
        for (uint32_t done = 0; done < 160; done += 30) {
            flashGuardProgress(done);
        }
        flashGuardProgress(160);
        flashGuardEnd(fpga ? 0 : -1, "the clean-up was not confirmed");
        flashGuardLeave(true);
    }
    flashGuardReset();
}

// n more entries written as the guard writes them, without waiting for the disk each time.
void bulk(const historyDir &h, uint64_t from, int n)
{
    uniqueFd fd(open(h.file().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    for (int i = 0; i < n; ++i) {
        flashHistoryEntry e;
        e.seq = from + uint64_t(i);
        e.what = flashWhat::CPLD;
        e.total = 200;
        snprintf(e.file.data(), e.file.size(), "/srv/bulk");
        for (uint32_t u = 0; u < 4; ++u) { // begun, two eighths, ended
            e.update = u;
            e.done = 60 * u;
            e.result = u == 3 ? flashResult::OK : flashResult::RUNNING;
            ASSERT_EQ(flashHistoryWrite(fd.get(), e, false), 0);
        }
    }
}

TEST(flashHistory, keepsTheLast1024EntriesInFixedSpaceOldestFirstAndATornLineHidesNothingBeforeIt)
{
    historyDir h;
    flashes(h, 4);
    bulk(h, 5, 996);
    EXPECT_EQ(fs::file_size(h.file()), 1000u * 2 * FLASH_HISTORY_LINE) << "1,000 entries";
    int damaged = -1;
    auto rows = h.read(&damaged);
    ASSERT_EQ(rows.size(), 1000u);
    EXPECT_EQ(damaged, 0);
    EXPECT_EQ(rows.front().seq, 1u);
    EXPECT_STREQ(rows.front().file.data(), "/srv/image 0");
    EXPECT_EQ(rows.front().result, flashResult::OK);
    EXPECT_EQ(rows[1].result, flashResult::FAILED);
    EXPECT_STREQ(rows[1].why.data(), "the clean-up was not confirmed");
    EXPECT_EQ(rows[1].done, 160u);
    EXPECT_TRUE(std::equal(std::begin(DIGEST), std::end(DIGEST), rows[1].digest.begin()));

    // 1,500 more: the ring holds the newest 1,024, in order, and grows no further.
    bulk(h, 1001, 1499);
    flashes(h, 1); // the guard finds where the ring stands
    EXPECT_EQ(fs::file_size(h.file()), FLASH_HISTORY_FILE_MAX);
    rows = h.read();
    ASSERT_EQ(rows.size(), FLASH_HISTORY_ENTRIES);
    for (size_t i = 0; i < rows.size(); ++i) {
        ASSERT_EQ(rows[i].seq, 2500 - FLASH_HISTORY_ENTRIES + 1 + i);
    }

    // The newest entry's last write torn half way: the copy before it stands, every other entry with it.
    const flashHistoryEntry newest = rows.back();
    const off_t place = off_t((newest.seq - 1) % FLASH_HISTORY_ENTRIES);
    const off_t lastCopy = (place * 2 + off_t((newest.update) % 2)) * off_t(FLASH_HISTORY_LINE);
    {
        uniqueFd fd(open(h.file().c_str(), O_WRONLY | O_CLOEXEC));
        const std::string junk(FLASH_HISTORY_LINE / 2, 'x');
        ASSERT_EQ(pwrite(fd.get(), junk.data(), junk.size(), lastCopy), ssize_t(junk.size()));
    }
    rows = h.read(&damaged);
    EXPECT_EQ(damaged, 1);
    ASSERT_EQ(rows.size(), FLASH_HISTORY_ENTRIES);
    EXPECT_EQ(rows.back().seq, newest.seq);
    EXPECT_EQ(rows.back().update, newest.update - 1);
    EXPECT_EQ(rows.back().result, flashResult::RUNNING) << "its state before the last write";
    EXPECT_EQ(rows.back().done, 150u);
    EXPECT_EQ(rows[rows.size() - 2].seq, newest.seq - 1);

    // A file cut inside its last line (a power loss while it grew) reads the same way.
    historyDir cut;
    flashes(cut, 2);
    flashGuardInit(FIXED_CLOCK, cut.dir.c_str(), nullptr);
    flashGuardBegin(flashWhat::FPGA, "/srv/third", 1, DIGEST, 160);
    flashGuardProgress(30); // the entry's second copy, the file's last line
    flashGuardReset();
    ASSERT_EQ(fs::file_size(cut.file()), 6 * FLASH_HISTORY_LINE);
    ASSERT_EQ(truncate(cut.file().c_str(), off_t(5 * FLASH_HISTORY_LINE + 100)), 0);
    rows = cut.read(&damaged);
    EXPECT_EQ(damaged, 1);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[2].result, flashResult::RUNNING);
    EXPECT_EQ(rows[2].done, 0u);
    EXPECT_EQ(rows[1].result, flashResult::FAILED);
}

TEST(flashHistory, anyPathAndReasonGoThroughTheLineAndBackAndForeignLinesAreRefused)
{
    flashHistoryEntry e;
    e.seq = 7;
    e.update = 3;
    e.pid = 1234;
    e.what = flashWhat::MICROCONTROLLER;
    e.result = flashResult::INTERRUPTED;
    e.rc = -2147483647 - 1;
    e.startSec = -1;
    e.total = 6071;
    e.size = UINT64_MAX;
    const std::string path = "/tmp/a b=c%d\n\t\x01\xff" + std::string(200, 'p');
    snprintf(e.file.data(), e.file.size(), "%s", path.c_str());
    snprintf(e.why.data(), e.why.size(), "%s", "no room = 100% gone");
    std::array<char, FLASH_HISTORY_LINE> line;
    flashHistoryFormat(e, line);
    EXPECT_EQ(line.back(), '\n');
    EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << "one line whatever the path holds";
    flashHistoryEntry back;
    ASSERT_TRUE(flashHistoryParse(line, back));
    EXPECT_EQ(back.seq, 7u);
    EXPECT_EQ(back.rc, e.rc);
    EXPECT_EQ(back.size, UINT64_MAX);
    EXPECT_EQ(back.what, flashWhat::MICROCONTROLLER);
    EXPECT_EQ(back.result, flashResult::INTERRUPTED);
    EXPECT_STREQ(back.file.data(), e.file.data());
    EXPECT_STREQ(back.why.data(), "no room = 100% gone");
    // One byte changed anywhere, or the line cut short: refused.
    for (size_t at : {size_t(0), size_t(40), FLASH_HISTORY_LINE - 2}) {
        auto bad = line;
        bad[at] ^= 1;
        EXPECT_FALSE(flashHistoryParse(bad, back)) << at;
    }
    EXPECT_FALSE(flashHistoryParse(std::span<const char>(line.data(), line.size() - 1), back));

    // The digest kept is the file's MD5 (the reference vectors, across the padding's block boundaries).
    for (const auto &[text, md5] : std::initializer_list<std::pair<std::string, std::string>>{
             {"", "d41d8cd98f00b204e9800998ecf8427e"},
             {"abc", "900150983cd24fb0d6963f7d28e17f72"},
             {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", "8215ef0796a20bcaaae116d3876c664a"},
             {std::string(64, 'a'), "014842d480b571495a4a0363793f7367"},
             {std::string(1'000'000, 'a'), "7707d6ae4e027c70eea2a935c2296f21"}}) {
        uint8_t digest[FLASH_HISTORY_DIGEST_SIZE];
        flashGuardMd5(reinterpret_cast<const uint8_t *>(text.data()), text.size(), digest);
        std::string hex;
        for (uint8_t b : digest) {
            hex += "0123456789abcdef"[b >> 4];
            hex += "0123456789abcdef"[b & 15];
        }
        EXPECT_EQ(hex, md5) << text.size();
    }
}

TEST(flashHistory, tarnholdctlPrintsItWithoutTheServiceAndStatusNamesAnUnfinishedFlashAsTheThingToDoNext)
{
    historyDir h;
    auto [status, text] = h.ctl("history");
    EXPECT_EQ(status, 0);
    EXPECT_THAT(text, HasSubstr("no flash recorded in " + h.file()));

    flashes(h, 2);
    std::tie(status, text) = h.ctl("history");
    EXPECT_EQ(status, 0) << text;
    EXPECT_THAT(text, ::testing::MatchesRegex("[-0-9: ]+ FPGA +ok +160/160 pages  /srv/image 0  1000 bytes  md5 "
                                              "d41d8cd98f00b204e9800998ecf8427e  ended [-0-9: ]+\n"
                                              "[-0-9: ]+ CPLD +failed +160/160 pages  /srv/image 1  1001 bytes  md5 "
                                              "d41d8cd98f00b204e9800998ecf8427e  ended [-0-9: ]+: the clean-up was "
                                              "not confirmed \\(status -1\\)\n"));
    // A flash cut short by a kill: its writer is gone, so it reads as interrupted, and status says what to do.
    if (fork() == 0) {
        flashGuardInit(FIXED_CLOCK, h.dir.c_str(), nullptr);
        flashGuardBegin(flashWhat::FPGA, "/srv/fpga.bin", 1 << 20, DIGEST, 4096);
        for (uint32_t done = 0; done < 3000; done += 30) {
            flashGuardProgress(done);
        }
        raise(SIGKILL);
    }
    wait(nullptr);
    std::tie(status, text) = h.ctl("--json history");
    EXPECT_EQ(status, 0);
    EXPECT_THAT(text, HasSubstr("{\"seq\":3,\"what\":\"FPGA\",\"result\":\"interrupted\",\"status\":0,"
                                "\"started\":1790000000,\"ended\":null,\"done\":2580,\"total\":4096,\"unit\":\"pages\","
                                "\"file\":\"/srv/fpga.bin\",\"size\":1048576"));
    std::tie(status, text) = h.ctl("status");
    EXPECT_NE(status, 0);
    const std::string what = "the FPGA flash from /srv/fpga.bin started ";
    EXPECT_THAT(text, ::testing::ContainsRegex("flash: +FAILED: " + what + "[-0-9: ]+ never finished at 2580 of 4096 "
                                               "pages: write it again \\(tarnholdctl fpga-upgrade /srv/fpga.bin\\)"));
    EXPECT_THAT(text, ::testing::ContainsRegex("next: +" + what));
    EXPECT_THAT(text, ::testing::ContainsRegex("the CPLD flash from /srv/image 1 started [-0-9: ]+ failed at 160 of"));
    // A later FPGA flash that ended well settles it.
    flashes(h, 1);
    std::tie(status, text) = h.ctl("status");
    EXPECT_THAT(text, ::testing::Not(HasSubstr("the FPGA flash")));
}

} // namespace
