#include <krcommon/platform/io/PosixIO.h>

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace krcommon::platform::posix {

namespace {

// Blocks until `fd` can take bytes again; 0 or the errno that ends the write.
int waitUntilWritable(int fd) noexcept {
    for (;;) {
        pollfd p{fd, POLLOUT, 0};
        const int n = ::poll(&p, 1, -1);
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        if (p.revents & POLLNVAL) return EBADF;
        // POLLERR and POLLHUP let the next write report what is wrong.
        return 0;
    }
}

}  // namespace

int writeFully(int fd, std::string_view bytes) noexcept {
    const char* p = bytes.data();
    std::size_t left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                if (const int code = waitUntilWritable(fd)) return code;
                continue;
            }
            return errno;
        }
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    return 0;
}

}  // namespace krcommon::platform::posix
