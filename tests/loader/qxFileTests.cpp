// The firmware image loader: record rules on hand-made HEX files, and files that srec_cat, objcopy and real
// PIC32 projects wrote, held against srec_cat's picture of the flash range and their MD5.
#include "qxFile.h"

#include "logCapture.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

const std::string END = ":00000001FF";
const std::string FF_ROW = "QX_TRACE_FILE- ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff";
const std::string NO_COLON = "QX_TRACE_PRINTF-ERROR: no leading ':' in row";
const std::string CHECKSUM = "QX_TRACE_PRINTF-ERROR: Checksum error";
const std::string SHORT = "QX_TRACE_PRINTF-ERROR: short row: "; // a record shorter than its count

std::string hex(const bytes &data)
{
    std::string text;
    for (uint8_t b : data) {
        text += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
    }
    return text;
}

// One record with a correct checksum, in lower case.
std::string record(uint8_t type, uint16_t address, const bytes &data)
{
    bytes row{static_cast<uint8_t>(data.size()), static_cast<uint8_t>(address >> 8), static_cast<uint8_t>(address),
              type};
    row.insert(row.end(), data.begin(), data.end());
    row.push_back(static_cast<uint8_t>(-std::accumulate(row.begin(), row.end(), 0)));
    return ":" + hex(row);
}

std::string upper(uint16_t value)
{
    return record(4, 0, {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)});
}

std::string lines(const std::vector<std::string> &rows)
{
    return std::accumulate(rows.begin(), rows.end(), std::string(), [](auto t, auto &row) { return t + row + "\n"; });
}

bytes counting(size_t n, uint8_t first = 0)
{
    bytes data(n);
    std::iota(data.begin(), data.end(), first);
    return data;
}

class qxFileTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(mkdtemp(dir.data()), nullptr); }
    void TearDown() override { std::filesystem::remove_all(dir); }

    std::string path(const std::string &name) const { return dir + "/" + name; }
    void run(const std::string &command) const
    {
        ASSERT_EQ(std::system(("cd " + dir + " && " + command).c_str()), 0) << command;
    }
    // Loads the file, by default as a fresh process would; keeps standard output.
    int32_t loadPath(const std::string &file, bool fresh = true)
    {
        if (fresh) {
            qxFileReset();
        }
        log.clear();
        testing::internal::CaptureStdout();
        const int32_t rc = qxFileInit(file.c_str());
        out = testing::internal::GetCapturedStdout();
        return rc;
    }
    int32_t load(const std::string &text, bool fresh = true)
    {
        const std::string file = path("f.hex");
        std::ofstream(file, std::ios::binary) << text;
        return loadPath(file, fresh);
    }

    bytes image() const { return bytes(qxFileGetData(), qxFileGetData() + QX_FLASH_SIZE); }
    // The held length and the whole digest field.
    static std::string held()
    {
        int32_t len = -1;
        bytes digest(QX_FILE_DIGEST_SIZE, 0xAA);
        qxFileGetMd5AndLen(&len, digest.data());
        return std::to_string(len) + " " + hex(digest);
    }
    // What held() should say: the MD5 of the first `len` bytes (zeros behind the range), the field's rest zero.
    static std::string md5Of(bytes data, int32_t len)
    {
        data.resize(static_cast<size_t>(len), 0);
        bytes md5(QX_FILE_DIGEST_SIZE, 0);
        EXPECT_EQ(EVP_Digest(data.data(), data.size(), md5.data(), nullptr, EVP_md5(), nullptr), 1);
        return std::to_string(len) + " " + hex(md5);
    }
    // Image, length and digest against srec_cat's picture of the flash range.
    void expectLikeTools(const std::string &file, int32_t len)
    {
        SCOPED_TRACE(file);
        ASSERT_EQ(loadPath(path(file)), 0);
        run("srec_cat -disable-sequence-warnings " + file +
            " -intel -crop 0x1D010000 0x1D063000 -offset -0x1D010000 -fill 0xFF 0 0x53000 -o flash.bin -binary");
        std::ifstream in(path("flash.bin"), std::ios::binary);
        const bytes flash(std::istreambuf_iterator<char>(in), {});
        EXPECT_TRUE(image() == flash);
        EXPECT_EQ(held(), md5Of(flash, len));
        EXPECT_EQ(log.texts().size(), 9u) << "the trace only";
    }

    std::string dir = "/tmp/qxFileTest.XXXXXX";
    logCapture log;
    std::string out;
};

TEST_F(qxFileTest, recordsOutsideTheFlashRangeAreSkippedWholeAndOnlyTypeFourMovesTheUpperAddress)
{
    const bytes d = counting(16, 0x40);
    const std::string badUpper = record(4, 0, {0x1D, 0xFF}).replace(11, 2, "ZZ"); // checksum right, address -1
    ASSERT_EQ(load(lines({upper(0x1D01), record(0, 0, {1}), record(2, 0, {0x10, 0}), record(0, 0x10, {2}),
                          record(3, 0, {0, 0, 0x12, 0x34}), record(5, 0, {0x9D, 0, 0x10, 0}), record(7, 0, {0x55}),
                          record(0, 0x20, {3}), record(4, 0, {}), record(0, 0x30, {4}), badUpper,
                          record(0, 0x40, {5}), upper(0x1D00), record(0, 0xFFF8, d), upper(0x1D06),
                          record(0, 0x2FF0, d), record(0, 0x2FF8, d), record(0, 0x3000, d), upper(0xFFFF),
                          record(0, 0xFFF8, d), END})), 0);
    bytes expected(QX_FLASH_SIZE, 0xFF);
    std::tie(expected[0], expected[0x10], expected[0x20]) = std::tuple(1, 2, 3);
    std::copy(d.begin(), d.end(), expected.end() - 16); // ends exactly at the range end
    EXPECT_EQ(held(), md5Of(expected, 0x53000)) << "the image as expected";
    // The field is shown from its start to the end of the row, its newline escaped; a skipped record has no line.
    EXPECT_EQ(log.texts()[1], "QX_TRACE_PRINTF-ERROR: not a hex value: " + badUpper.substr(9) + "\\n, length: 4");
    EXPECT_EQ(log.texts().size(), 2u + 9u);
}

TEST_F(qxFileTest, imageEndFollowsPlacedAndSkippedRecordsAndTheDigestCoversItRoundedTo64)
{
    const std::tuple<const char *, std::vector<std::string>, int32_t> cases[] = {
        {"93 bytes and CRLF fit one read", {upper(0x1D01), record(0, 0, counting(93)) + "\r", END}, 128},
        {"skipped: from the last placed offset",
         {upper(0x1D01), record(0, 0x30, counting(16)), upper(0x1FC0), record(0, 0, counting(32)), END}, 0x80},
        {"skipped: before the first placed one from 0",
         {record(0, 0x100, counting(80)), upper(0x1D01), record(0, 0, counting(16)), END}, 128},
        {"count 0: its own offset", {upper(0x1D01), record(0, 0, {1}), record(0, 0x1000, {}), END}, 0x1000},
        {"into the zeros behind the range",
         {upper(0x1D01), record(0, 0, {1}), upper(0x1D06), record(0, 0x3000, {}), upper(0x1FC0),
          record(0, 0, bytes(93, 0x11)), END}, 0x53080},
        {"empty read passed over, nothing behind the end read",
         {upper(0x1D01), std::string("\0junk", 5), record(0, 0, {1}), END, "", "x", ":10000000FF"}, 64},
    };
    for (const auto &[what, rows, len] : cases) {
        SCOPED_TRACE(what);
        ASSERT_EQ(load(lines(rows)), 0);
        EXPECT_EQ(held(), md5Of(image(), len));
    }
}

TEST_F(qxFileTest, brokenFilesFailWith1Or5AndTheirLine)
{
    const std::string head = upper(0x1D01) + "\n", tail = "\n" + END + "\n";
    const std::string good = record(0, 0, counting(16));
    const std::string body = good.substr(0, good.size() - 2); // its checksum is 78
    const std::string badData = record(0, 0x10, {0xAA, 0xFF}).replace(11, 2, "ZZ");
    const std::tuple<const char *, std::string, int32_t, std::string> cases[] = { // the last line starts so
        {"checksum", head + body + "00" + tail, 5, CHECKSUM},
        {"unreadable checksum", head + body + "G0" + tail, 5, CHECKSUM},
        {"data not hex", head + badData + tail, 5, "QX_TRACE_PRINTF-ERROR: not a hex value: ZZ"},
        {"blank line", head + good + "\n" + tail, 1, NO_COLON},
        {"94 bytes leave the line end as a row", head + record(0, 0, counting(94)) + tail, 1, NO_COLON},
        {"no end record: the trace, then 5", head + good + "\n", 5, FF_ROW},
        {"empty file", "", 5, FF_ROW},
        {"nothing in the range", upper(0x1D00) + "\n" + record(0, 0x180, counting(16)) + tail, 5, FF_ROW},
        {"a count-0 record alone at offset 0", head + record(0, 0, {}) + tail, 5, FF_ROW},
        {"record cut short", head + good.substr(0, 20) + tail, 5, SHORT},
        {"cut short at the end of the file", head + good.substr(0, good.size() - 1), 5, SHORT},
        {"count 200 splits the record across reads", head + record(0, 0, counting(200)) + tail, 5, SHORT},
    };
    for (const auto &[what, text, rc, last] : cases) {
        SCOPED_TRACE(what);
        EXPECT_EQ(load(text), rc);
        ASSERT_FALSE(log.texts().empty());
        EXPECT_EQ(log.texts().back().rfind(last, 0), 0u) << log.texts().back();
        EXPECT_TRUE(out.empty() && held() == "0 " + std::string(64, '0'));
    }
    EXPECT_EQ(loadPath(path("missing.hex")), 5);
    EXPECT_TRUE(log.texts().empty());
}

TEST_F(qxFileTest, afterAFailedLoadAThreeRecordFileGivesLength64AndExactLinesAndStaysLoaded)
{
    EXPECT_EQ(load(lines({upper(0x1D01), record(0, 0x200, counting(16)), "x"})), 1);
    ASSERT_EQ(load(lines({upper(0x1D01), record(0, 0, counting(16)), END}), false), 0);
    bytes expected(QX_FLASH_SIZE, 0xFF); // nothing of the failed load
    std::iota(expected.begin(), expected.begin() + 16, 0);
    EXPECT_TRUE(image() == expected);
    const std::string digest = "64 ee72e8fb5b36b08e9115e2a845bdd2cc" + std::string(32, '0');
    EXPECT_EQ(held(), digest);
    EXPECT_EQ(out, "Md5 Digest: EE72 E8FB 5B36 B08E 9115 E2A8 45BD D2CC \r\n");
    std::vector<std::string> trace(9, FF_ROW);
    trace[0] = "QX_TRACE_FILE-Bin File:";
    trace[1] = "QX_TRACE_FILE- 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f";
    EXPECT_EQ(log.textsFrom(QX_FILE_LOG_SOURCE), trace);
    EXPECT_EQ(log.levelOf(FF_ROW), 0);
    EXPECT_EQ(load(lines({upper(0x1D01), record(0, 0, counting(64, 0x80)), END}), false), 0);
    EXPECT_EQ(loadPath(path("missing.hex"), false), 0);
    EXPECT_TRUE(image() == expected && held() == digest && out.empty()) << "the first image is kept";
}

TEST_F(qxFileTest, filesOfSrecCatObjcopyAndRealProjectsLoadLikeSrecCatReadsThem)
{
    bytes noise(QX_FLASH_SIZE);
    std::mt19937 gen(1);
    std::generate(noise.begin(), noise.end(), [&gen] { return static_cast<uint8_t>(gen()); });
    std::ofstream(path("r.bin"), std::ios::binary).write(reinterpret_cast<char *>(noise.data()), std::ssize(noise));
    // 16-byte records, LF, upper case; then the whole range, CRLF and a start address record.
    run("srec_cat r.bin -binary -crop 0 0x20000 -offset 0x1D010000 -o app.hex -intel -Output_Block_Size 16");
    expectLikeTools("app.hex", 0x20000);
    run("objcopy -I binary -O ihex --change-addresses 0x1D010000 r.bin full.hex");
    expectLikeTools("full.hex", QX_FLASH_SIZE);

    // 32-byte records, CRLF, lower case: zeros at low addresses, a piece entering the range from below, one
    // leaving it at the top, and (alone, so that srec_cat does not align it) a record across 0x1D040000.
    run("srec_cat -generate 0x100 0x400 -constant 0 r.bin -binary -crop 0 0x3000 -offset 0x1D00E000 r.bin -binary"
        " -crop 0 0x200 -offset 0x1D062F00 -o mixed.hex -intel -Output_Block_Size 32 -crlf");
    run("srec_cat r.bin -binary -crop 0 0x1020 -offset 0x1D03FFF0 -o cross.hex -intel -Output_Block_Size 32 -crlf");
    run("grep -v -i '^:00000001FF' mixed.hex | cat - cross.hex | tr A-F a-f > lower.hex");
    expectLikeTools("lower.hex", 0x53000);

    // Real PIC32 files (as they are, none of their data lies in the application range, which the broken-file
    // cases pin): their own records with the segment moved to 0x1D01: the bootloader's 0x1D00 (its boot flash
    // records stay) and KSEG0 0x9D00.
    const std::string hexDir = std::string(TARNHOLD_TESTDATA) + "/hex/";
    run("sed 's/^:020000041[dD]00[dD][dD]/:020000041D01DC/' " + hexDir + "HIDBoot_MX795.hex > boot.hex");
    expectLikeTools("boot.hex", 0x4A40);
    run("sed 's/^:020000049D005D/:020000041D01DC/' " + hexDir + "Blink440.hex > blink.hex");
    expectLikeTools("blink.hex", 0x7640);
}

} // namespace
