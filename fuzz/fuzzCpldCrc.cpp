// Feeds arbitrary bytes to the CPLD header and CRC check, with the input's
// own length and with a shorter claimed size, and holds what the check
// promises: nothing read outside the bytes given, values written only once
// the header is accepted, and 0 only for equal CRCs.
#include "cpldUpgrade.h"

#include <cstdint>
#include <cstdlib>

namespace {

void __fuzzCpldCrcOnce(const uint8_t *data, int64_t size)
{
    uint16_t expected = 0x5A5A;
    uint16_t actual = 0xA5A5;
    const int32_t rc = cpldUpgradeCheckCrc(data, size, &expected, &actual);
    const bool written = expected != 0x5A5A || actual != 0xA5A5;
    const bool broken = (size <= 52 && written) || (rc == 0 && expected != actual)
        || cpldUpgradeCheckCrc(data, size, nullptr, nullptr) != rc;
    if (broken) {
        abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    __fuzzCpldCrcOnce(data, static_cast<int64_t>(size));
    if (size > 0) {
        // The first byte claims a size up to 255 bytes shorter.
        const size_t shorter = data[0] < size ? size - data[0] : 0;
        __fuzzCpldCrcOnce(data, static_cast<int64_t>(shorter));
    }
    return 0;
}
