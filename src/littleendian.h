#pragma once
// Little-endian integers in byte buffers, whatever the host's byte order and
// alignment. Used for every wire format of the module: frame messages and
// debug-stream packets.

#include <cstddef>
#include <cstdint>

namespace le {

/// The `bytes`-byte (1..8) little-endian integer at `at`.
inline uint64_t load(const unsigned char* at, size_t bytes)
{
    uint64_t value = 0;
    for (size_t i = 0; i < bytes; ++i) {
        value |= static_cast<uint64_t>(at[i]) << (8 * i);
    }
    return value;
}

inline uint32_t load32(const unsigned char* at) { return static_cast<uint32_t>(load(at, 4)); }
inline uint64_t load64(const unsigned char* at) { return load(at, 8); }

/// Writes the low `bytes` (1..8) bytes of `value` at `at`, least significant first.
inline void store(unsigned char* at, uint64_t value, size_t bytes)
{
    for (size_t i = 0; i < bytes; ++i) {
        at[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

inline void store32(unsigned char* at, uint32_t value) { store(at, value, 4); }
inline void store64(unsigned char* at, uint64_t value) { store(at, value, 8); }

}  // namespace le
