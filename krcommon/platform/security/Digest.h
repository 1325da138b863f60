#pragma once

// One-shot message digests (MD5, SHA-1), shaped like the platform's digest
// calls: (bytes, length, out) with a fixed-size output buffer.

#include <krcommon/platform/core/Export.h>

#include <cstddef>
#include <cstdint>

namespace krcommon::platform {

class KRCOMMON_EXPORT Digest {
public:
    static constexpr std::size_t kMD5Length = 16;
    static constexpr std::size_t kSHA1Length = 20;

    /// Writes the 16-byte MD5 of `length` bytes at `data` to `digest`. `data`
    /// may be null when `length` is 0. Throws platform::Exception when the
    /// crypto library does not offer the algorithm (a FIPS-only configuration).
    static void md5(const void* data, std::size_t length, std::uint8_t* digest);

    /// Writes the 20-byte SHA-1 of `length` bytes at `data` to `digest`. `data`
    /// may be null when `length` is 0. Throws as `md5` does.
    static void sha1(const void* data, std::size_t length, std::uint8_t* digest);

    Digest() = delete;
};

}  // namespace krcommon::platform
