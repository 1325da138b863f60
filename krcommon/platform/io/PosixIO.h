#pragma once

// Small POSIX helpers shared by the platform layer's file and log writers.

#include <string_view>

namespace krcommon::platform::posix {

/// Writes all of `bytes` to `fd`, retrying on EINTR and short writes; answers
/// 0 or the errno of the failure.
int writeFully(int fd, std::string_view bytes) noexcept;

}  // namespace krcommon::platform::posix
