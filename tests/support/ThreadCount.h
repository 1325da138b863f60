#pragma once

#include <filesystem>
#include <iterator>

namespace krcommon::test {

/// The threads this process has now, as the kernel lists them.
inline int threadCount() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<int>(std::distance(begin(tasks), end(tasks)));
}

}  // namespace krcommon::test
