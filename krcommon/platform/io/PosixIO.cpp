#include <krcommon/platform/io/PosixIO.h>

#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace krcommon::platform::posix {

int writeFully(int fd, std::string_view bytes) noexcept {
    const char* p = bytes.data();
    std::size_t left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    return 0;
}

}  // namespace krcommon::platform::posix
