#pragma once

// Small POSIX helpers shared by the platform layer's file and log writers.

#include <string_view>

namespace krcommon::platform::posix {

/// Writes all of `bytes` to `fd`, retrying on EINTR and short writes, and
/// waiting with poll(2) until the descriptor takes more when it is
/// non-blocking and full (a pipe whose reader is slow). Answers 0 or the errno
/// of the failure; once the reader is gone (EPIPE) the rest is not written.
int writeFully(int fd, std::string_view bytes) noexcept;

}  // namespace krcommon::platform::posix
