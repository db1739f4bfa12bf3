// The firmware image: an Intel HEX file turned into a RAM copy of the
// programmed flash range, with the MD5 digest the microcontroller keeps of it.
#include "qxFile.h"

#include "evmLog.h"
#include "sysSeam.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace {

// One read of a line returns at most 199 characters: a record of up to 93
// data bytes arrives whole with its line end.
constexpr size_t QX_FILE_LINE_SIZE = 200;
constexpr size_t QX_FILE_MD5_SIZE = 16;
constexpr int32_t QX_FILE_DATA_ALIGN = 64;
constexpr uint8_t QX_FILE_ERASED = 0xFF;
constexpr size_t QX_FILE_TRACE_ROWS = 8;
constexpr size_t QX_FILE_TRACE_ROW_BYTES = 16;
constexpr uint32_t QX_FILE_NOT_HEX = 0xFFFFFFFF;

// Record field positions, in characters from the start of the line.
constexpr int32_t QX_FILE_POS_COUNT = 1;
constexpr int32_t QX_FILE_POS_ADDRESS = 3;
constexpr int32_t QX_FILE_POS_TYPE = 7;
constexpr int32_t QX_FILE_POS_DATA = 9;
// ":" count(2) address(4) type(2) checksum(2), besides the data.
constexpr int32_t QX_FILE_RECORD_FRAME = 11;
// Bytes the checksum covers besides the data: count, address high and low, type.
constexpr int32_t QX_FILE_SUM_HEADER_BYTES = 4;

constexpr uint32_t QX_FILE_RECORD_DATA = 0;
constexpr uint32_t QX_FILE_RECORD_EOF = 1;
constexpr uint32_t QX_FILE_RECORD_EXT_LINEAR = 4;

// A skipped record can carry the image end past the flash range by at most
// its byte count (255), rounded up to 64: that must stay inside data.
static_assert(QX_FLASH_SIZE == 0x53000);
static_assert(QX_FLASH_SIZE + 255 + QX_FILE_DATA_ALIGN - 1 <= QX_FILE_DATA_SIZE);
static_assert(QX_FILE_MD5_SIZE <= QX_FILE_DIGEST_SIZE);
static_assert(QX_FILE_TRACE_ROWS * QX_FILE_TRACE_ROW_BYTES <= QX_FLASH_SIZE);

struct {
    std::array<uint8_t, QX_FILE_DATA_SIZE> data;
    std::array<uint8_t, QX_FILE_DIGEST_SIZE> md5Digest;
    int32_t dataLen;
    std::array<char, QX_FILE_PATH_SIZE> path; // of the loaded file, for the flash history
} qxFilePrivateMembers;

int32_t fileLoaded = 0;

struct __qxFileCloser {
    void operator()(FILE *file) const { (void)fclose(file); } // read only: a failed close loses nothing
};
using __qxFileHandle = std::unique_ptr<FILE, __qxFileCloser>;

// What the records read so far have given.
struct __qxFileParse {
    int32_t imageEnd = 0;
    uint32_t upperAddress = 0;
    int32_t lastOffset = 0;
    bool placedAny = false;
    bool eofSeen = false;
};

// What one record asks of the read loop.
enum class __qxFileStep { NEXT, STOP, FAIL };

constexpr std::array<int8_t, 256> __qxFileHexDigits = [] {
    std::array<int8_t, 256> digits{};
    for (auto &d : digits) {
        d = -1;
    }
    for (int i = 0; i < 10; ++i) {
        digits['0' + i] = static_cast<int8_t>(i);
    }
    for (int i = 0; i < 6; ++i) {
        digits['A' + i] = static_cast<int8_t>(10 + i);
        digits['a' + i] = static_cast<int8_t>(10 + i);
    }
    return digits;
}();

void __qxFileLogNotHex(const char *s, int32_t len)
{
    evm_log(0, QX_FILE_LOG_SOURCE, __LINE__, "QX_TRACE_PRINTF-ERROR: not a hex value: %s, length: %d", evmLogEscape(s), len);
}

// Sum of the count, address, type and data bytes; a pair that is not
// hexadecimal counts as 0xFF.
uint32_t __qxFileRecordSum(const char *line, int32_t count)
{
    uint32_t sum = 0;
    for (int32_t i = 0; i < count + QX_FILE_SUM_HEADER_BYTES; ++i) {
        sum += strToH(line + QX_FILE_POS_COUNT + 2 * static_cast<size_t>(i), 2) & 0xFF;
    }
    return sum;
}

__qxFileStep __qxFileTakeRecord(const char *line, int32_t lineLen, __qxFileParse &parse)
{
    // A record shorter than its byte count implies (cut short, or split
    // across reads by a count above 94) fails the load like the other record
    // errors, with 5. Field positions follow from the count alone, so each is
    // checked against the characters actually read before it is looked at.
    if (lineLen < QX_FILE_POS_COUNT + 2) {
        evm_log(0, QX_FILE_LOG_SOURCE, __LINE__, "QX_TRACE_PRINTF-ERROR: short row: %d characters", lineLen);
        return __qxFileStep::FAIL;
    }
    // An unreadable count is -1, which moves the checksum to position 7.
    const auto count = static_cast<int32_t>(strToH(line + QX_FILE_POS_COUNT, 2));
    if (lineLen < QX_FILE_RECORD_FRAME + 2 * count) {
        evm_log(0, QX_FILE_LOG_SOURCE, __LINE__,
                "QX_TRACE_PRINTF-ERROR: short row: %d characters for %d data bytes", lineLen, count);
        return __qxFileStep::FAIL;
    }
    const uint32_t address = strToH(line + QX_FILE_POS_ADDRESS, 4);
    const uint32_t type = strToH(line + QX_FILE_POS_TYPE, 2);
    // Signed: an unreadable count (-1) puts the checksum before the data field.
    const uint32_t checksum = strToH(line + QX_FILE_POS_DATA + 2 * static_cast<ptrdiff_t>(count), 2);

    // An unreadable checksum (0xFFFFFFFF) never equals a byte.
    const uint32_t expected = (0u - __qxFileRecordSum(line, count)) & 0xFF;
    if (expected != checksum) {
        evm_log(0, QX_FILE_LOG_SOURCE, __LINE__, "QX_TRACE_PRINTF-ERROR: Checksum error");
        return __qxFileStep::FAIL;
    }

    if (type == QX_FILE_RECORD_EOF) {
        parse.eofSeen = true;
        return __qxFileStep::STOP;
    }
    if (type == QX_FILE_RECORD_EXT_LINEAR) {
        // Unreadable data gives 0xFFFFFFFF: the data records that follow fall
        // above the flash range until the next type 4.
        parse.upperAddress = 2 * count >= 1 ? strToH(line + QX_FILE_POS_DATA, 2 * count) : 0;
        return __qxFileStep::NEXT;
    }
    if (type != QX_FILE_RECORD_DATA) {
        return __qxFileStep::NEXT;
    }

    const uint32_t absolute = (parse.upperAddress << 16) + address;
    // Placed offsets are never negative: -1 left in place means skipped.
    int32_t offset = -1;
    if (qxFileAddData(absolute, count, line + QX_FILE_POS_DATA, &offset) != 0) {
        return __qxFileStep::FAIL;
    }
    if (offset >= 0) {
        parse.placedAny = true;
        parse.lastOffset = offset;
    }
    // A skipped record still raises the end by its own byte count behind
    // the last placed record (offset 0 before the first one).
    parse.imageEnd = std::max(parse.imageEnd, count + parse.lastOffset);
    return __qxFileStep::NEXT;
}

} // namespace

uint32_t strToH(const char *s, int32_t len)
{
    if (len < 1) {
        return 0;
    }
    // The digits are weighed from the last one back; a NUL inside the field
    // is found first, so the scan never runs past the end of the text (a NUL
    // is not a hex digit, so the result is the same).
    if (strnlen(s, static_cast<size_t>(len)) < static_cast<size_t>(len)) {
        __qxFileLogNotHex(s, len);
        return QX_FILE_NOT_HEX;
    }
    uint32_t value = 0;
    uint32_t weight = 1;
    for (int32_t i = len - 1; i >= 0; --i) {
        const int8_t digit = __qxFileHexDigits[static_cast<uint8_t>(s[i])];
        if (digit < 0) {
            __qxFileLogNotHex(s, len);
            return QX_FILE_NOT_HEX;
        }
        value += static_cast<uint32_t>(digit) * weight;
        weight *= 16;
    }
    return value;
}

int32_t qxFileAddData(uint32_t address, int32_t count, const char *hex, int32_t *offset)
{
    auto &m = qxFilePrivateMembers;
    if (address < QX_FLASH_START) {
        return 0;
    }
    // The end is a 32-bit sum as the address is, but a positive count that
    // wraps it past 2^32 lies above the range: it must not land at the start.
    const uint32_t end = address + static_cast<uint32_t>(count);
    if ((count > 0 && end < address) || end > QX_FLASH_END) {
        return 0;
    }
    const uint32_t base = address - QX_FLASH_START;
    *offset = static_cast<int32_t>(base);
    for (int32_t i = 0; i < count; ++i) {
        // Pairs are taken in order, so a NUL stops the record before any
        // character behind it is read.
        const uint32_t byte = strToH(hex + 2 * static_cast<size_t>(i), 2);
        if (byte == QX_FILE_NOT_HEX) {
            return QX_FILE_ERROR;
        }
        m.data[base + static_cast<uint32_t>(i)] = static_cast<uint8_t>(byte);
    }
    return 0;
}

int32_t qxFileInit(const char *path)
{
    auto &m = qxFilePrivateMembers;
    if (fileLoaded != 0) {
        return 0;
    }
    std::fill_n(m.data.begin(), QX_FLASH_SIZE, QX_FILE_ERASED);
    snprintf(m.path.data(), m.path.size(), "%s", path);

    // Opened through the seam, so that a recording holds the file the service read.
    const int fd = platformSys.open(path, O_RDONLY | O_CLOEXEC, 0);
    __qxFileHandle file(fd >= 0 ? fdopen(fd, "r") : nullptr);
    if (!file) {
        if (fd >= 0) {
            close(fd);
        }
        return QX_FILE_ERROR;
    }

    __qxFileParse parse;
    std::array<char, QX_FILE_LINE_SIZE> line;
    while (!parse.eofSeen && fgets(line.data(), static_cast<int>(line.size()), file.get()) != nullptr) {
        const auto lineLen = static_cast<int32_t>(strlen(line.data()));
        if (lineLen == 0) {
            continue;
        }
        if (line[0] != ':') {
            evm_log(0, QX_FILE_LOG_SOURCE, __LINE__, "QX_TRACE_PRINTF-ERROR: no leading ':' in row");
            return QX_FILE_BAD_ROW;
        }
        if (__qxFileTakeRecord(line.data(), lineLen, parse) == __qxFileStep::FAIL) {
            return QX_FILE_ERROR;
        }
    }

    qxFileDumpData();
    if (!parse.eofSeen) {
        return QX_FILE_ERROR;
    }
    // Records outside the range raise the end behind the last placed record,
    // and before the first one behind offset 0: a file without a single
    // record in the flash range would otherwise pass as a 64-byte image of
    // erased flash. Such a file is the wrong firmware and fails.
    if (!parse.placedAny || parse.imageEnd <= 0) {
        return QX_FILE_ERROR;
    }

    const int32_t dataLen = (parse.imageEnd + QX_FILE_DATA_ALIGN - 1) / QX_FILE_DATA_ALIGN * QX_FILE_DATA_ALIGN;
    std::array<uint8_t, EVP_MAX_MD_SIZE> digest{};
    unsigned int digestLen = 0;
    // One-shot EVP: OpenSSL keeps the digest context to itself.
    if (EVP_Digest(m.data.data(), static_cast<size_t>(dataLen), digest.data(), &digestLen, EVP_md5(), nullptr) != 1 ||
        digestLen != QX_FILE_MD5_SIZE) {
        evm_log(0, QX_FILE_LOG_SOURCE, __LINE__, "QX_TRACE_PRINTF-ERROR: MD5 failed");
        return QX_FILE_ERROR;
    }
    std::copy_n(digest.begin(), QX_FILE_MD5_SIZE, m.md5Digest.begin());
    m.dataLen = dataLen;
    dumpMd5Digest(m.md5Digest.data());
    fileLoaded = 1;
    return 0;
}

const uint8_t *qxFileGetData() { return qxFilePrivateMembers.data.data(); }

void qxFileGetMd5AndLen(int32_t *len, uint8_t *digest)
{
    *len = qxFilePrivateMembers.dataLen;
    std::copy(qxFilePrivateMembers.md5Digest.begin(), qxFilePrivateMembers.md5Digest.end(), digest);
}

void qxFileDumpData()
{
    const auto &m = qxFilePrivateMembers;
    evm_log(0, QX_FILE_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-Bin File:");
    for (size_t row = 0; row < QX_FILE_TRACE_ROWS; ++row) {
        std::array<char, QX_FILE_TRACE_ROW_BYTES * 3 + 1> text{};
        for (size_t i = 0; i < QX_FILE_TRACE_ROW_BYTES; ++i) {
            snprintf(text.data() + 3 * i, 4, " %02x", m.data[row * QX_FILE_TRACE_ROW_BYTES + i]);
        }
        evm_log(0, QX_FILE_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-%s", text.data());
    }
}

void dumpMd5Digest(const uint8_t *digest)
{
    // "Md5 Digest: ", eight groups of four digits and a blank, CR LF.
    std::array<char, 12 + 8 * 5 + 2 + 1> text{};
    int pos = snprintf(text.data(), text.size(), "Md5 Digest: ");
    for (size_t i = 0; i < QX_FILE_MD5_SIZE; i += 2) {
        pos += snprintf(text.data() + pos, text.size() - static_cast<size_t>(pos), "%02X%02X ", digest[i],
                        digest[i + 1]);
    }
    snprintf(text.data() + pos, text.size() - static_cast<size_t>(pos), "\r\n");
    printf("%s", text.data());
}

void qxFileReset()
{
    qxFilePrivateMembers.data.fill(0);
    qxFilePrivateMembers.md5Digest.fill(0);
    qxFilePrivateMembers.dataLen = 0;
    qxFilePrivateMembers.path.fill(0);
    fileLoaded = 0;
}

const char *qxFileGetPath() { return qxFilePrivateMembers.path.data(); }
