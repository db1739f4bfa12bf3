// Little-endian fields of reports, ioctl blocks and stored records. Every
// module and the simulated appliance read and write such fields through
// these, so a field's byte order is written down once.
#pragma once

#include <cstddef>
#include <cstdint>

template <size_t N> constexpr uint64_t __leGetN(const uint8_t *p)
{
    uint64_t v = 0;
    for (size_t i = 0; i < N; ++i) {
        v |= static_cast<uint64_t>(p[i]) << (8 * i);
    }
    return v;
}

template <size_t N> constexpr void __lePutN(uint8_t *p, uint64_t v)
{
    for (size_t i = 0; i < N; ++i) {
        p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

constexpr uint16_t leGet16(const uint8_t *p) { return static_cast<uint16_t>(__leGetN<2>(p)); }
constexpr uint32_t leGet24(const uint8_t *p) { return static_cast<uint32_t>(__leGetN<3>(p)); }
constexpr uint32_t leGet32(const uint8_t *p) { return static_cast<uint32_t>(__leGetN<4>(p)); }
constexpr uint64_t leGet64(const uint8_t *p) { return __leGetN<8>(p); }

constexpr void lePut16(uint8_t *p, uint16_t v) { __lePutN<2>(p, v); }
constexpr void lePut24(uint8_t *p, uint32_t v) { __lePutN<3>(p, v); }
constexpr void lePut32(uint8_t *p, uint32_t v) { __lePutN<4>(p, v); }
constexpr void lePut64(uint8_t *p, uint64_t v) { __lePutN<8>(p, v); }

static_assert([] {
    uint8_t b[8] = {};
    lePut64(b, 0x0807060504030201ull);
    return b[0] == 1 && b[7] == 8 && leGet24(b) == 0x030201 && leGet16(b + 6) == 0x0807;
}());
