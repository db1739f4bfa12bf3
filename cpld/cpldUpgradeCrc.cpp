// The byte-code file's header and its CRC-16/X-25. Kept apart from the
// upgrade sequence so that a client can check a file exactly as the service
// will, without linking the service.
#include "cpldUpgrade.h"

namespace {

// Byte-code header: format word at 0, CRC offset at 32 + 8 * version flag.
constexpr int64_t CPLD_HEADER_MIN = 53;
constexpr size_t CPLD_CRC_OFFSET_FIELD = 32;
constexpr size_t CPLD_CRC_OFFSET_STEP = 8;
constexpr uint16_t CPLD_CRC_INIT = 0xFFFF;
constexpr uint16_t CPLD_CRC_POLY_REFLECTED = 0x8408;
constexpr uint16_t CPLD_CRC_XOR_OUT = 0xFFFF;

uint32_t __cpldGetBe32(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8
        | static_cast<uint32_t>(p[3]);
}

} // namespace

// One bit at a time: the file is at most 51,199 bytes and is checked once per
// attempt, so no table is kept for it.
uint16_t cpldUpgradeCrc(const uint8_t *bytes, size_t len)
{
    uint16_t reg = CPLD_CRC_INIT;
    for (size_t i = 0; i < len; ++i) {
        uint8_t byte = bytes[i];
        for (int bit = 0; bit < 8; ++bit) {
            const bool feedback = ((byte ^ reg) & 1u) != 0;
            reg = static_cast<uint16_t>(reg >> 1);
            if (feedback) {
                reg ^= CPLD_CRC_POLY_REFLECTED;
            }
            byte = static_cast<uint8_t>(byte >> 1);
        }
    }
    return static_cast<uint16_t>(reg ^ CPLD_CRC_XOR_OUT);
}

int32_t cpldUpgradeCheckCrc(const uint8_t *image, int64_t size, uint16_t *expected, uint16_t *actual)
{
    if (size < CPLD_HEADER_MIN) {
        return -1;
    }
    const uint32_t format = __cpldGetBe32(image);
    if (format != CPLD_JBC_FORMAT_V1 && format != CPLD_JBC_FORMAT_V2) {
        return -1;
    }
    const size_t version = format & 1u;
    const uint32_t crcOffset = __cpldGetBe32(&image[CPLD_CRC_OFFSET_FIELD + CPLD_CRC_OFFSET_STEP * version]);
    const auto usize = static_cast<uint64_t>(size);
    if (crcOffset >= usize) {
        return -1;
    }
    // A stored CRC at the image's last byte has its second byte behind the
    // file: that is the 0xFF fill of the buffer when the file is shorter than
    // the buffer, and nothing at all when it fills the buffer. The second
    // case has no stored CRC to compare, so its header is rejected.
    uint8_t low = CPLD_FILE_FILL;
    if (crcOffset + 1u < usize) {
        low = image[crcOffset + 1u];
    } else if (usize >= CPLD_DATA_SIZE) {
        return -1;
    }
    const auto stored = static_cast<uint16_t>(image[crcOffset] << 8 | low);
    if (expected != nullptr) {
        *expected = stored;
    }
    const uint16_t computed = cpldUpgradeCrc(image, crcOffset); // 0 for an offset of 0
    if (actual != nullptr) {
        *actual = computed;
    }
    return stored == computed ? 0 : -1;
}
