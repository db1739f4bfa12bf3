// The firmware image loader against HEX files that other people's tools
// wrote: srec_cat and objcopy output generated here from seeded random data,
// and real files of PIC32 projects. The image must match what srec_cat makes
// of the same file, and the digest what md5sum says.
#include "qxFile.h"

#include "logCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

const std::string HEX_DIR = std::string(TARNHOLD_TESTDATA) + "/hex";

bytes readBytes(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string readText(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeBytes(const std::string &path, const bytes &data)
{
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(data.data()),
                                                static_cast<std::streamsize>(data.size()));
}

void writeRandom(const std::string &path, size_t size, uint32_t seed)
{
    std::mt19937 gen(seed);
    bytes data(size);
    for (auto &b : data) {
        b = static_cast<uint8_t>(gen());
    }
    writeBytes(path, data);
}

std::string capture(const std::string &command)
{
    std::string text;
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return text;
    }
    std::array<char, 256> chunk;
    size_t n;
    while ((n = fread(chunk.data(), 1, chunk.size(), pipe)) > 0) {
        text.append(chunk.data(), n);
    }
    pclose(pipe);
    return text;
}

// Where the flash image ends by the loader's rule, from the record list of
// the file: a placed record ends at its own offset plus its count, a skipped
// one at the last placed offset plus its count; no placed record, no image.
int32_t ruleImageEnd(const std::string &hexText)
{
    std::istringstream in(hexText);
    std::string row;
    int32_t end = 0;
    int32_t last = 0;
    uint32_t upper = 0;
    bool placed = false;
    while (std::getline(in, row)) {
        if (row.size() < 9) {
            continue;
        }
        const auto n = static_cast<int32_t>(std::stoul(row.substr(1, 2), nullptr, 16));
        const auto address = static_cast<uint32_t>(std::stoul(row.substr(3, 4), nullptr, 16));
        const auto type = std::stoul(row.substr(7, 2), nullptr, 16);
        if (type == 1) {
            break;
        }
        if (type == 4) {
            upper = static_cast<uint32_t>(std::stoul(row.substr(9, 4), nullptr, 16));
        } else if (type == 0) {
            const uint64_t absolute = (uint64_t{upper} << 16) + address;
            if (absolute >= QX_FLASH_START && absolute + static_cast<uint64_t>(n) <= QX_FLASH_END) {
                last = static_cast<int32_t>(absolute - QX_FLASH_START);
                placed = true;
            }
            end = std::max(end, last + n);
        }
    }
    return placed ? end : 0;
}

std::string hexByte(uint32_t value)
{
    char text[3];
    snprintf(text, sizeof text, "%02X", value & 0xFF);
    return text;
}

// Rewrites every extended linear address record for `from` to `to`, leaving
// every other record as the file has it.
std::string moveSegment(const std::string &hexText, uint16_t from, uint16_t to)
{
    const uint32_t sum = 2 + 4 + (to >> 8) + (to & 0xFF);
    const std::string moved = ":02000004" + hexByte(to >> 8) + hexByte(to) + hexByte(0x100 - (sum & 0xFF));
    const std::string match = ":02000004" + hexByte(from >> 8) + hexByte(from);
    std::istringstream in(hexText);
    std::string row;
    std::string out;
    while (std::getline(in, row)) {
        std::string head = row.substr(0, match.size());
        std::transform(head.begin(), head.end(), head.begin(), ::toupper);
        const bool crlf = !row.empty() && row.back() == '\r';
        out += (head == match ? moved + (crlf ? "\r" : "") : row) + "\n";
    }
    return out;
}

class QxFileToolsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qxFileReset();
        char pattern[] = "/tmp/qxFileToolsTest.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
    }
    void TearDown() override
    {
        std::filesystem::remove_all(dir);
        qxFileReset();
    }

    std::string path(const std::string &name) const { return dir + "/" + name; }
    void run(const std::string &command) const
    {
        ASSERT_EQ(std::system(("cd " + dir + " && " + command).c_str()), 0) << command;
    }
    int32_t load(const std::string &hexPath)
    {
        log.clear();
        qxFileReset();
        ::testing::internal::CaptureStdout();
        int32_t result = qxFileInit(hexPath.c_str());
        out = ::testing::internal::GetCapturedStdout();
        return result;
    }

    // Loads the file and holds image, length and digest against srec_cat's
    // picture of the flash range and md5sum's digest of the covered bytes.
    void expectLikeTools(const std::string &hexPath)
    {
        ASSERT_EQ(load(hexPath), 0) << hexPath;
        run("srec_cat -disable-sequence-warnings " + hexPath + " -intel -crop 0x1D010000 0x1D063000 -offset -0x1D010000 -fill 0xFF 0 0x53000" +
            " -o flash.bin -binary");
        const bytes flash = readBytes(path("flash.bin"));
        ASSERT_EQ(flash.size(), QX_FLASH_SIZE);
        const bytes image(qxFileGetData(), qxFileGetData() + QX_FLASH_SIZE);
        const auto mismatch = std::mismatch(image.begin(), image.end(), flash.begin());
        EXPECT_TRUE(mismatch.first == image.end()) << "first difference at offset 0x" << std::hex
                                                   << (mismatch.first - image.begin());

        const int32_t end = ruleImageEnd(readText(hexPath));
        const int32_t expectedLen = (end + 63) / 64 * 64;
        int32_t len = 0;
        std::array<uint8_t, 32> digest;
        qxFileGetMd5AndLen(&len, digest.data());
        EXPECT_EQ(len, expectedLen);

        // Behind the flash range the image holds zeros.
        bytes covered(static_cast<size_t>(expectedLen), 0);
        std::copy_n(flash.begin(), std::min(covered.size(), flash.size()), covered.begin());
        writeBytes(path("covered.bin"), covered);
        const std::string sum = capture("md5sum " + path("covered.bin")).substr(0, 32);
        std::string upperSum = sum;
        std::transform(upperSum.begin(), upperSum.end(), upperSum.begin(), ::toupper);
        std::string line = "Md5 Digest: ";
        for (size_t i = 0; i < 32; i += 4) {
            line += upperSum.substr(i, 4) + " ";
        }
        EXPECT_EQ(out, line + "\r\n");
        std::string held;
        for (size_t i = 0; i < 16; ++i) {
            char pair[3];
            snprintf(pair, sizeof pair, "%02x", digest[i]);
            held += pair;
        }
        EXPECT_EQ(held, sum);
        EXPECT_TRUE(std::all_of(digest.begin() + 16, digest.end(), [](uint8_t b) { return b == 0; }));
        for (const auto &text : log.texts()) {
            EXPECT_EQ(text.rfind("QX_TRACE_FILE-", 0), 0u) << "unexpected line: " << text;
        }
    }

    std::string dir;
    logCapture log;
    std::string out;
};

TEST_F(QxFileToolsTest, SrecCatSixteenByteRecordsLoadLikeSrecCatReadsThem)
{
    writeRandom(path("app.bin"), 0x20000, 1);
    run("srec_cat app.bin -binary -offset 0x1D010000 -o app.hex -intel -Output_Block_Size 16");
    expectLikeTools(path("app.hex"));
    int32_t len = 0;
    std::array<uint8_t, 32> digest;
    qxFileGetMd5AndLen(&len, digest.data());
    EXPECT_EQ(len, 0x20000);

    // An odd size leaves a short last record; the length rounds up to 64.
    writeRandom(path("odd.bin"), 0x12345, 2);
    run("srec_cat odd.bin -binary -offset 0x1D020000 -o odd.hex -intel -line-length 43");
    expectLikeTools(path("odd.hex"));
    qxFileGetMd5AndLen(&len, digest.data());
    EXPECT_EQ(len, 0x22380);
}

TEST_F(QxFileToolsTest, SrecCatMixedFileWithLowZerosSegmentCrossingAndBothRangeEndsLoadsLikeSrecCat)
{
    writeRandom(path("below.bin"), 0x3000, 3); // 0x1D00E000..0x1D011000: into the range from below
    writeRandom(path("cross.bin"), 0x1020, 4); // 0x1D03FFF0..: a record across 0x1D040000
    writeRandom(path("top.bin"), 0x200, 5);    // 0x1D062F00..0x1D063100: out of the range at the top
    run("srec_cat -generate 0x100 0x400 -constant 0"
        " below.bin -binary -offset 0x1D00E000"
        " top.bin -binary -offset 0x1D062F00"
        " -o mixed.hex -intel -Output_Block_Size 32 -crlf");
    // srec_cat aligns the records of several inputs to the block size; alone,
    // a piece is cut from its own start and its record crosses the segment.
    run("srec_cat cross.bin -binary -offset 0x1D03FFF0 -o cross.hex -intel -Output_Block_Size 32 -crlf");
    run("grep -v -i '^:00000001FF' mixed.hex > both.hex && cat cross.hex >> both.hex");
    run("tr A-F a-f < both.hex > lower.hex");
    const std::string text = readText(path("lower.hex"));
    ASSERT_NE(text.find(":020000041d03da\r\n:20fff000"), std::string::npos) << "a 32-byte record crosses 64 KiB";
    ASSERT_NE(text.find(":020000040000fa\r\n:20010000000000"), std::string::npos) << "zero records at low addresses";
    expectLikeTools(path("lower.hex"));
    int32_t len = 0;
    std::array<uint8_t, 32> digest;
    qxFileGetMd5AndLen(&len, digest.data());
    EXPECT_EQ(len, 0x53000);
    EXPECT_EQ(qxFileGetData()[0x10000], 0xFF) << "nothing between the pieces";
}

TEST_F(QxFileToolsTest, ObjcopyOutputLoadsLikeSrecCatReadsIt)
{
    // The whole range: objcopy's 16-byte records, CRLF, 64 KiB splits and a
    // start address record.
    writeRandom(path("full.bin"), QX_FLASH_SIZE, 6);
    run("objcopy -I binary -O ihex --change-addresses 0x1D010000 full.bin full.hex");
    ASSERT_NE(readText(path("full.hex")).find("\r\n"), std::string::npos);
    expectLikeTools(path("full.hex"));
    EXPECT_TRUE(std::equal(qxFileGetData(), qxFileGetData() + QX_FLASH_SIZE, readBytes(path("full.bin")).begin()));

    // objcopy re-writing a file that srec_cat made, lower case and all.
    writeRandom(path("piece.bin"), 0x4321, 7);
    run("srec_cat -generate 0x100 0x400 -constant 0 piece.bin -binary -offset 0x1D04FFF0"
        " -o piece.hex -intel -Output_Block_Size 32");
    run("tr A-F a-f < piece.hex > lower.hex && objcopy -I ihex -O ihex lower.hex again.hex");
    expectLikeTools(path("again.hex"));
}

TEST_F(QxFileToolsTest, RealBootloaderAndKseg0FilesParseFullyButHoldNoFlashData)
{
    std::vector<std::string> erased{"QX_TRACE_FILE-Bin File:"};
    erased.insert(erased.end(), 8, "QX_TRACE_FILE- ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff");
    for (const char *name : {"HIDBoot_MX795.hex", "Blink440.hex"}) {
        // Every record is read to the end record (no checksum or row error),
        // and none falls into the physical flash range.
        EXPECT_EQ(load(HEX_DIR + "/" + name), 5) << name;
        EXPECT_EQ(log.texts(), erased) << name;
        EXPECT_EQ(out, "");
    }
}

TEST_F(QxFileToolsTest, RealFilesMovedIntoTheFlashRangeLoadLikeSrecCatReadsThem)
{
    // Their own records, only the segment moved: 0x1D00 to 0x1D01 for the
    // bootloader (its boot flash records stay and are skipped), the KSEG0
    // segment 0x9D00 to its physical 0x1D01 for the application.
    std::ofstream(path("boot.hex"), std::ios::binary)
        << moveSegment(readText(HEX_DIR + "/HIDBoot_MX795.hex"), 0x1D00, 0x1D01);
    expectLikeTools(path("boot.hex"));
    EXPECT_EQ(qxFileGetData()[0x180 - 1], 0xFF);
    EXPECT_NE(ruleImageEnd(readText(path("boot.hex"))), 0);

    std::ofstream(path("blink.hex"), std::ios::binary)
        << moveSegment(readText(HEX_DIR + "/Blink440.hex"), 0x9D00, 0x1D01);
    expectLikeTools(path("blink.hex"));
    EXPECT_EQ(qxFileGetData()[0x5260 - 1], 0xFF);

    // The same data as srec_cat relays it to other addresses.
    run("srec_cat -disable-sequence-warnings " + HEX_DIR + "/HIDBoot_MX795.hex -intel -offset 0x10000 -o boot2.hex -intel");
    expectLikeTools(path("boot2.hex"));
    run("srec_cat " + HEX_DIR + "/Blink440.hex -intel -offset -0x7FFF0000 -o blink2.hex -intel");
    expectLikeTools(path("blink2.hex"));
}

} // namespace
