#pragma once

// The records the crash test's child reports: each one carries its own length
// and fill, so a record cut short or mixed with another is recognised.

#include <krcommon/platform/core/Value.h>

#include <cstdint>
#include <string>

namespace krcommon::test {

inline platform::Value crashRecord(std::int64_t seq) {
    const std::int64_t length = 40 + seq % 200;
    return platform::Value(platform::Dictionary{{"seq", seq},
                                                {"text", std::string(std::size_t(length), char('a' + seq % 26))},
                                                {"length", length},
                                                {"tail", "end"}});
}

inline bool isWholeCrashRecord(const platform::Value& record) {
    const auto seq = record["seq"].integerValue();
    return seq && *seq >= 0 && record.dictionary() && record.dictionary()->size() == 4 && record == crashRecord(*seq);
}

}  // namespace krcommon::test
