// The firmware image loader on hand-made HEX files: record rules, the image
// end and length, the digest, the fixed log and digest lines.
#include "qxFile.h"

#include "logCapture.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

constexpr const char *EOF_RECORD = ":00000001FF";
const std::string TRACE_FF_ROW = " ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff";

std::string hexByte(uint32_t value, bool lower)
{
    char text[3];
    snprintf(text, sizeof text, lower ? "%02x" : "%02X", value & 0xFF);
    return text;
}

// One record with a correct checksum, without its line end.
std::string record(uint8_t type, uint16_t address, const bytes &data, bool lower = false)
{
    uint32_t sum = static_cast<uint32_t>(data.size()) + (address >> 8) + (address & 0xFF) + type;
    std::string text = ":" + hexByte(static_cast<uint32_t>(data.size()), lower) + hexByte(address >> 8, lower) +
                       hexByte(address, lower) + hexByte(type, lower);
    for (uint8_t b : data) {
        text += hexByte(b, lower);
        sum += b;
    }
    return text + hexByte(0x100 - (sum & 0xFF), lower);
}

std::string upper(uint16_t value, bool lower = false)
{
    return record(4, 0, {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)}, lower);
}

std::string lines(const std::vector<std::string> &rows, const std::string &eol = "\n")
{
    std::string text;
    for (const auto &row : rows) {
        text += row + eol;
    }
    return text;
}

bytes counting(size_t n, uint8_t first = 0)
{
    bytes data(n);
    for (size_t i = 0; i < n; ++i) {
        data[i] = static_cast<uint8_t>(first + i);
    }
    return data;
}

std::array<uint8_t, 16> md5Of(const bytes &data)
{
    std::array<uint8_t, 16> digest{};
    unsigned int len = 0;
    EXPECT_EQ(EVP_Digest(data.data(), data.size(), digest.data(), &len, EVP_md5(), nullptr), 1);
    return digest;
}

class QxFileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qxFileReset();
        char pattern[] = "/tmp/qxFileTest.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
    }
    void TearDown() override
    {
        std::filesystem::remove_all(dir);
        qxFileReset();
    }

    std::string write(const std::string &content)
    {
        std::string path = dir + "/f" + std::to_string(files++) + ".hex";
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }
    int32_t loadPath(const std::string &path)
    {
        log.clear();
        ::testing::internal::CaptureStdout();
        int32_t result = qxFileInit(path.c_str());
        out = ::testing::internal::GetCapturedStdout();
        return result;
    }
    int32_t load(const std::string &content) { return loadPath(write(content)); }

    bytes image() const { return bytes(qxFileGetData(), qxFileGetData() + QX_FLASH_SIZE); }
    int32_t dataLen() const
    {
        int32_t len = -7;
        std::array<uint8_t, 32> digest{};
        qxFileGetMd5AndLen(&len, digest.data());
        return len;
    }
    std::array<uint8_t, 32> digest() const
    {
        int32_t len = 0;
        std::array<uint8_t, 32> digest;
        digest.fill(0xAA);
        qxFileGetMd5AndLen(&len, digest.data());
        return digest;
    }
    // The MD5 the module should hold for its first len image bytes.
    void expectDigestOverImage(int32_t len) const
    {
        bytes covered(qxFileGetData(), qxFileGetData() + len);
        auto expected = md5Of(covered);
        auto held = digest();
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), held.begin()));
    }
    std::vector<std::string> logTexts() const { return log.texts(); }
    // The lines written when reading stopped with the image all erased.
    static std::vector<std::string> erasedTrace()
    {
        std::vector<std::string> trace{"QX_TRACE_FILE-Bin File:"};
        trace.insert(trace.end(), 8, "QX_TRACE_FILE-" + TRACE_FF_ROW);
        return trace;
    }

    std::string dir;
    int files = 0;
    logCapture log;
    std::string out;
};

TEST_F(QxFileTest, ThreeRecordFileDigestsItsSixteenBytesAndErasedFillWithExactLines)
{
    ASSERT_EQ(load(lines({upper(0x1D01), record(0, 0, counting(16)), EOF_RECORD})), 0);

    bytes img = image();
    EXPECT_TRUE(std::equal(img.begin(), img.begin() + 16, counting(16).begin()));
    EXPECT_TRUE(std::all_of(img.begin() + 16, img.end(), [](uint8_t b) { return b == 0xFF; }));
    EXPECT_EQ(dataLen(), 64);

    const std::array<uint8_t, 16> expected{0xEE, 0x72, 0xE8, 0xFB, 0x5B, 0x36, 0xB0, 0x8E,
                                           0x91, 0x15, 0xE2, 0xA8, 0x45, 0xBD, 0xD2, 0xCC};
    auto held = digest();
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), held.begin()));
    EXPECT_TRUE(std::all_of(held.begin() + 16, held.end(), [](uint8_t b) { return b == 0; }))
        << "bytes 16 to 31 of the digest field stay zero";

    EXPECT_EQ(out, "Md5 Digest: EE72 E8FB 5B36 B08E 9115 E2A8 45BD D2CC \r\n");
    EXPECT_EQ(out.size(), 54u);

    std::vector<std::string> trace{"QX_TRACE_FILE-Bin File:",
                                   "QX_TRACE_FILE- 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f"};
    trace.insert(trace.end(), 7, "QX_TRACE_FILE-" + TRACE_FF_ROW);
    EXPECT_EQ(logTexts(), trace);
    for (const auto &line : logCapture::lines()) {
        EXPECT_EQ(line.level, 0);
        EXPECT_EQ(line.source, "qxFile");
    }
}

TEST_F(QxFileTest, LowerCaseDigitsAreAcceptedEverywhereAndGiveTheSameImage)
{
    const bytes data = counting(32, 0xA0);
    ASSERT_EQ(load(lines({upper(0x1D01), record(0, 0x1230, data), EOF_RECORD}, "\r\n")), 0);
    const bytes upperImage = image();
    const auto upperDigest = digest();

    qxFileReset();
    ASSERT_EQ(load(lines({upper(0x1d01, true), record(0, 0x1230, data, true), ":00000001ff"})), 0);
    EXPECT_EQ(image(), upperImage);
    EXPECT_EQ(digest(), upperDigest);
    EXPECT_EQ(dataLen(), 0x1280);
    EXPECT_EQ(image()[0x1230], 0xA0);
}

TEST_F(QxFileTest, StrToHWeighsDigitsFromTheLastAndFlagsAnyOtherCharacter)
{
    EXPECT_EQ(strToH("1D01", 4), 0x1D01u);
    EXPECT_EQ(strToH("fF", 2), 0xFFu);
    EXPECT_EQ(strToH("12345678", 8), 0x12345678u);
    EXPECT_EQ(strToH("9123456789", 10), 0x23456789u) << "32-bit arithmetic drops the high digits";
    EXPECT_EQ(strToH("10xyz", 2), 0x10u) << "only len characters are read";
    EXPECT_EQ(strToH("G", 0), 0u);
    EXPECT_EQ(strToH("G", -1), 0u);
    EXPECT_TRUE(logTexts().empty());

    EXPECT_EQ(strToH("1x\r\n", 2), 0xFFFFFFFFu);
    EXPECT_EQ(strToH("1", 2), 0xFFFFFFFFu) << "the end of the text is not a digit";
    EXPECT_EQ(strToH(" 1", 2), 0xFFFFFFFFu);
    EXPECT_EQ(logTexts(), (std::vector<std::string>{
                              "QX_TRACE_PRINTF-ERROR: not a hex value: 1x\r\n, length: 2",
                              "QX_TRACE_PRINTF-ERROR: not a hex value: 1, length: 2",
                              "QX_TRACE_PRINTF-ERROR: not a hex value:  1, length: 2",
                          }));
}

TEST_F(QxFileTest, RecordOf93BytesFitsOneReadAnd94BytesLeavesItsLineEndAsARow)
{
    ASSERT_EQ(load(lines({upper(0x1D01), record(0, 0, counting(93)), EOF_RECORD}, "\r\n")), 0);
    EXPECT_EQ(image()[92], 92);
    EXPECT_EQ(image()[93], 0xFF);
    EXPECT_EQ(dataLen(), 128);

    qxFileReset();
    EXPECT_EQ(load(lines({upper(0x1D01), record(0, 0, counting(94)), EOF_RECORD})), 1);
    EXPECT_EQ(logTexts(), std::vector<std::string>{"QX_TRACE_PRINTF-ERROR: no leading ':' in row"});
    EXPECT_EQ(out, "");
}

TEST_F(QxFileTest, RecordsOutsideTheFlashRangeAreSkippedWholeWithoutAMessage)
{
    const bytes data = counting(16, 0x40);
    ASSERT_EQ(load(lines({
                  upper(0x1D01),
                  record(0, 0x0000, counting(16)),
                  upper(0x1D00),
                  record(0, 0xFFF8, data), // straddles the start
                  upper(0x0000),
                  record(0, 0x0100, bytes(16, 0)), // low RAM
                  upper(0x1D06),
                  record(0, 0x2FF0, data), // ends exactly at the end of the range: placed
                  record(0, 0x2FF8, data), // straddles the end
                  record(0, 0x3000, data), // behind the range
                  upper(0xFFFF),
                  record(0, 0xFFF8, data), // its end wraps past 2^32
                  EOF_RECORD,
              })),
              0);
    bytes img = image();
    bytes expected(QX_FLASH_SIZE, 0xFF);
    std::copy_n(counting(16).begin(), 16, expected.begin());
    std::copy_n(data.begin(), 16, expected.begin() + 0x52FF0);
    EXPECT_EQ(img, expected);
    // The placed record at 0x52FF0 ends the image; the three skipped 16-byte
    // records behind it keep that end.
    EXPECT_EQ(dataLen(), 0x53000);
    expectDigestOverImage(0x53000);
    EXPECT_EQ(logTexts().size(), 9u) << "only the Bin File trace";
}

TEST_F(QxFileTest, AddDataPlacesOnlyWholeRecordsAndWritesTheOffsetOnlyWhenInRange)
{
    ASSERT_EQ(load(lines({upper(0x1D01), record(0, 0, {1}), EOF_RECORD})), 0);
    log.clear();

    int32_t offset = 1234;
    EXPECT_EQ(qxFileAddData(0x1D00FFFF, 2, "AABB", &offset), 0);
    EXPECT_EQ(qxFileAddData(0x1D062FFF, 2, "AABB", &offset), 0);
    EXPECT_EQ(qxFileAddData(0xFFFFFFF0, 0x20, "AABB", &offset), 0);
    EXPECT_EQ(offset, 1234) << "a skipped record leaves the offset alone";

    EXPECT_EQ(qxFileAddData(0x1D063000, 0, "", &offset), 0);
    EXPECT_EQ(offset, 0x53000);
    EXPECT_EQ(qxFileAddData(0x1D010010, 3, "0a0B0c", &offset), 0);
    EXPECT_EQ(offset, 0x10);
    EXPECT_EQ(image()[0x10], 0x0A);
    EXPECT_EQ(image()[0x12], 0x0C);
    EXPECT_TRUE(logTexts().empty());

    // A bad pair stops the record; the bytes before it stay written.
    EXPECT_EQ(qxFileAddData(0x1D010020, 3, "11zz33", &offset), 5);
    EXPECT_EQ(image()[0x20], 0x11);
    EXPECT_EQ(image()[0x21], 0xFF);
    EXPECT_EQ(image()[0x22], 0xFF);
    // A text shorter than the count is not read past its end.
    EXPECT_EQ(qxFileAddData(0x1D010030, 4, "44", &offset), 5);
    EXPECT_EQ(image()[0x30], 0x44);
    EXPECT_EQ(logTexts(), (std::vector<std::string>{
                              "QX_TRACE_PRINTF-ERROR: not a hex value: zz33, length: 2",
                              "QX_TRACE_PRINTF-ERROR: not a hex value: , length: 2",
                          }));
}

TEST_F(QxFileTest, SkippedRecordsRaiseTheImageEndBehindTheLastPlacedRecord)
{
    // 16 bytes at 0x30 end at 0x40; a skipped 32-byte record counts from 0x30.
    ASSERT_EQ(load(lines({upper(0x1D01), record(0, 0x30, counting(16)), upper(0x1FC0), record(0, 0, counting(32)),
                          EOF_RECORD})),
              0);
    EXPECT_EQ(dataLen(), 0x80);
    EXPECT_EQ(image()[0x40], 0xFF) << "the skipped record writes nothing";
    expectDigestOverImage(0x80);

    // Before the first placed record the skipped one counts from offset 0.
    qxFileReset();
    ASSERT_EQ(load(lines({record(0, 0x100, counting(80)), upper(0x1D01), record(0, 0, counting(16)), EOF_RECORD})),
              0);
    EXPECT_EQ(dataLen(), 128);

    // Behind a count-0 record at the very end of the range, a skipped record
    // carries the digest into the zero bytes behind the range.
    qxFileReset();
    ASSERT_EQ(load(lines({upper(0x1D01), record(0, 0, {0x5A}), upper(0x1D06), record(0, 0x3000, {}),
                          upper(0x1FC0), record(0, 0, bytes(93, 0x11)), EOF_RECORD})),
              0);
    EXPECT_EQ(dataLen(), 0x53080);
    bytes covered(0x53080, 0x00);
    std::fill_n(covered.begin(), QX_FLASH_SIZE, 0xFF);
    covered[0] = 0x5A;
    auto expected = md5Of(covered);
    auto held = digest();
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), held.begin()));
}

TEST_F(QxFileTest, CountZeroDataRecordRaisesTheEndToItsOwnOffset)
{
    ASSERT_EQ(load(lines({upper(0x1D01), record(0, 0, counting(16)), record(0, 0x1000, {}), EOF_RECORD})), 0);
    EXPECT_EQ(dataLen(), 0x1000);
    expectDigestOverImage(0x1000);

    // Alone at offset 0 it leaves the end at 0: no image.
    qxFileReset();
    EXPECT_EQ(load(lines({upper(0x1D01), record(0, 0, {}), EOF_RECORD})), 5);
    EXPECT_EQ(logTexts(), erasedTrace());
    EXPECT_EQ(out, "");
}

TEST_F(QxFileTest, OnlyTypeFourMovesTheUpperAddress)
{
    ASSERT_EQ(load(lines({
                  upper(0x1D01),
                  record(0, 0x0000, {0x01}),
                  record(2, 0, {0x10, 0x00}),             // extended segment address
                  record(0, 0x0010, {0x02}),
                  record(3, 0, {0x00, 0x00, 0x12, 0x34}), // start segment address
                  record(5, 0, {0x9D, 0x00, 0x10, 0x00}), // start linear address
                  record(7, 0, {0x55}),                   // no such type
                  record(0, 0x0020, {0x03}),
                  record(4, 0, {}),                       // count 0: upper address 0
                  record(0, 0x0030, {0x04}),
                  upper(0x1D01),
                  record(0, 0x0040, {0x05}),
                  EOF_RECORD,
              })),
              0);
    bytes img = image();
    EXPECT_EQ(img[0x00], 0x01);
    EXPECT_EQ(img[0x10], 0x02);
    EXPECT_EQ(img[0x20], 0x03);
    EXPECT_EQ(img[0x30], 0xFF) << "placed at 0x00000030, below the range";
    EXPECT_EQ(img[0x40], 0x05);
    EXPECT_EQ(dataLen(), 0x80);
    EXPECT_EQ(logTexts().size(), 9u);
}

TEST_F(QxFileTest, UnreadableFieldsGoOnToTheChecksumWhichDecides)
{
    // Upper address data "1DZZ" summed as 0x1D and 0xFF: the checksum holds,
    // the upper address becomes 0xFFFFFFFF and the next data record is skipped.
    const std::string badUpper = ":020000041DZZ" + hexByte(0x100 - ((2 + 4 + 0x1D + 0xFF) & 0xFF), false);
    ASSERT_EQ(load(lines({upper(0x1D01), record(0, 0, {0x01}), badUpper, record(0, 0x10, {0x02}), upper(0x1D01),
                          record(0, 0x20, {0x03}), EOF_RECORD})),
              0);
    EXPECT_EQ(image()[0x10], 0xFF);
    EXPECT_EQ(image()[0x20], 0x03);
    // Each message shows the text from the field to the end of the row,
    // its line end included.
    const std::string checksum = badUpper.substr(13) + "\n";
    std::vector<std::string> expected{
        "QX_TRACE_PRINTF-ERROR: not a hex value: ZZ" + checksum + ", length: 2",
        "QX_TRACE_PRINTF-ERROR: not a hex value: 1DZZ" + checksum + ", length: 4",
    };
    std::vector<std::string> logged = logTexts();
    logged.resize(2);
    EXPECT_EQ(logged, expected);

    // An unreadable count is -1: the checksum moves to position 7 (here the
    // type field, 01) over three bytes 0xFF, 0x00, 0x00, so this row ends the file.
    qxFileReset();
    ASSERT_EQ(load(lines({upper(0x1D01), record(0, 0, {0x01}), ":ZZ000001", "garbage"})), 0);
    EXPECT_EQ(dataLen(), 64);
    EXPECT_EQ(logTexts()[0], "QX_TRACE_PRINTF-ERROR: not a hex value: ZZ000001\n, length: 2");

    // A data byte that is not hex fails the load once its checksum matched.
    qxFileReset();
    const std::string badData = ":02001000AAZZ" + hexByte(0x100 - ((2 + 0x10 + 0xAA + 0xFF) & 0xFF), false);
    EXPECT_EQ(load(lines({upper(0x1D01), badData, EOF_RECORD})), 5);
    EXPECT_EQ(logTexts(), (std::vector<std::string>{
                              "QX_TRACE_PRINTF-ERROR: not a hex value: ZZ" + badData.substr(13) + "\n, length: 2",
                              "QX_TRACE_PRINTF-ERROR: not a hex value: ZZ" + badData.substr(13) + "\n, length: 2",
                          }));
    EXPECT_EQ(image()[0x10], 0xAA);
    EXPECT_EQ(out, "");
}

TEST_F(QxFileTest, ChecksumMismatchFailsWith5BeforeAnyTrace)
{
    std::string bad = record(0, 0, counting(16));
    bad.back() = bad.back() == '0' ? '1' : '0';
    EXPECT_EQ(load(lines({upper(0x1D01), bad, EOF_RECORD})), 5);
    EXPECT_EQ(logTexts(), std::vector<std::string>{"QX_TRACE_PRINTF-ERROR: Checksum error"});

    // An unreadable checksum never matches.
    qxFileReset();
    std::string unreadable = record(0, 0, counting(16));
    unreadable.replace(unreadable.size() - 2, 2, "G0");
    EXPECT_EQ(load(lines({upper(0x1D01), unreadable, EOF_RECORD})), 5);
    EXPECT_EQ(logTexts().back(), "QX_TRACE_PRINTF-ERROR: Checksum error");
}

TEST_F(QxFileTest, RowsWithoutColonFailWith1AndNothingBehindTheEndRecordIsRead)
{
    const std::string good = lines({upper(0x1D01), record(0, 0, counting(16))});
    EXPECT_EQ(load(good + "\n" + EOF_RECORD + "\n"), 1);
    EXPECT_EQ(logTexts(), std::vector<std::string>{"QX_TRACE_PRINTF-ERROR: no leading ':' in row"});
    qxFileReset();
    EXPECT_EQ(load(good + "\r\n" + EOF_RECORD + "\n"), 1);
    qxFileReset();
    EXPECT_EQ(load(" " + good + EOF_RECORD + "\n"), 1);

    // A read that yields an empty text (a NUL first) is passed over.
    qxFileReset();
    EXPECT_EQ(load(good + std::string("\0junk\n", 6) + EOF_RECORD + "\n"), 0);

    // Behind the end record: blank lines, junk, bad checksums, no line end.
    qxFileReset();
    EXPECT_EQ(load(good + EOF_RECORD + "\n\nnot hex\n:10000000FF\n:0"), 0);
    EXPECT_EQ(dataLen(), 64);
    EXPECT_EQ(logTexts().size(), 9u);

    // The end record may be the last characters of the file.
    qxFileReset();
    EXPECT_EQ(load(good + EOF_RECORD), 0);
}

TEST_F(QxFileTest, LoadFailsWith5WithoutEndRecordOrFlashDataOrFile)
{
    EXPECT_EQ(load(lines({upper(0x1D01), record(0, 0, counting(16))})), 5);
    std::vector<std::string> trace{"QX_TRACE_FILE-Bin File:",
                                   "QX_TRACE_FILE- 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f"};
    trace.insert(trace.end(), 7, "QX_TRACE_FILE-" + TRACE_FF_ROW);
    EXPECT_EQ(logTexts(), trace) << "the trace is written before the missing end record fails";
    EXPECT_EQ(out, "");

    qxFileReset();
    EXPECT_EQ(load(lines({upper(0x1D00), record(0, 0x0180, counting(16)), upper(0x1FC0), record(0, 0, counting(32)),
                          EOF_RECORD})),
              5);
    EXPECT_EQ(logTexts(), erasedTrace());

    qxFileReset();
    EXPECT_EQ(load(""), 5);
    EXPECT_EQ(load(EOF_RECORD), 5);

    qxFileReset();
    EXPECT_EQ(loadPath(dir + "/missing.hex"), 5);
    EXPECT_TRUE(logTexts().empty());
    EXPECT_EQ(loadPath(dir), 5) << "a directory opens but reads nothing";
    int32_t len = -1;
    std::array<uint8_t, 32> held;
    held.fill(0xAA);
    qxFileGetMd5AndLen(&len, held.data());
    EXPECT_EQ(len, 0);
    EXPECT_TRUE(std::all_of(held.begin(), held.end(), [](uint8_t b) { return b == 0; }));
}

TEST_F(QxFileTest, FirstLoadedImageIsKeptAndAFailedLoadStartsAfreshNextTime)
{
    // A failed load leaves its bytes in the flash range; the next load erases them.
    EXPECT_EQ(load(lines({upper(0x1D01), record(0, 0x200, counting(16)), "x"})), 1);
    EXPECT_EQ(image()[0x200], 0);
    EXPECT_EQ(dataLen(), 0);

    ASSERT_EQ(load(lines({upper(0x1D01), record(0, 0, counting(16)), EOF_RECORD})), 0);
    EXPECT_EQ(image()[0x200], 0xFF);
    const bytes firstImage = image();
    const auto firstDigest = digest();

    EXPECT_EQ(load(lines({upper(0x1D01), record(0, 0, counting(64, 0x80)), EOF_RECORD})), 0);
    EXPECT_EQ(loadPath(dir + "/missing.hex"), 0);
    EXPECT_EQ(image(), firstImage);
    EXPECT_EQ(digest(), firstDigest);
    EXPECT_EQ(dataLen(), 64);
    EXPECT_TRUE(logTexts().empty());
    EXPECT_EQ(out, "");
}

TEST_F(QxFileTest, RecordsShorterThanTheirCountFailWith5AndNothingPastTheRowIsRead)
{
    const std::string head = lines({upper(0x1D01)});
    const std::string full = record(0, 0, counting(16));
    for (size_t cut : {1ul, 2ul, 3ul, 8ul, 9ul, 10ul, 20ul, full.size() - 2}) {
        qxFileReset();
        EXPECT_EQ(load(head + full.substr(0, cut) + "\n" + EOF_RECORD + "\n"), 5) << "cut at " << cut;
        EXPECT_EQ(out, "");
        EXPECT_EQ(logTexts().back().rfind("QX_TRACE_PRINTF-ERROR: short row: ", 0), 0u) << logTexts().back();
    }
    // One character short, the line end stands in the checksum field.
    qxFileReset();
    EXPECT_EQ(load(head + full.substr(0, full.size() - 1) + "\n" + EOF_RECORD + "\n"), 5);
    EXPECT_EQ(logTexts().back(), "QX_TRACE_PRINTF-ERROR: Checksum error");
    // Short as the last characters of the file.
    qxFileReset();
    EXPECT_EQ(load(head + full.substr(0, full.size() - 1)), 5);

    // A count of 95 or more splits the record itself across reads.
    for (size_t n : {95ul, 200ul, 255ul}) {
        qxFileReset();
        EXPECT_EQ(load(lines({upper(0x1D01), record(0, 0, counting(n)), EOF_RECORD})), 5) << n;
    }
    // A NUL inside a record ends the characters read.
    qxFileReset();
    std::string withNul = full;
    withNul[20] = '\0';
    EXPECT_EQ(load(head + withNul + "\n" + EOF_RECORD + "\n"), 5);
    EXPECT_EQ(image()[0], 0xFF);
}

} // namespace
