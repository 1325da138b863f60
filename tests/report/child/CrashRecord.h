#pragma once

// The records the crash test's child reports: each carries its own length and
// fill, so a record cut short or mixed with another is recognised.

#include <krcommon/platform/core/Value.h>

namespace krcommon::test {

inline platform::Value crashRecord(std::int64_t seq) {
    const std::string text(static_cast<std::size_t>(40 + seq % 200), static_cast<char>('a' + seq % 26));
    return platform::Value(platform::Dictionary{{"seq", seq}, {"text", text}, {"tail", "end"}});
}

inline bool isWholeCrashRecord(const platform::Value& record) {
    const auto seq = record["seq"].integerValue();
    return seq && *seq >= 0 && record == crashRecord(*seq);
}

}  // namespace krcommon::test
