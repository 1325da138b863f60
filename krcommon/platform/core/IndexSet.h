#pragma once

#include <krcommon/platform/core/Export.h>

#include <algorithm>
#include <cstdint>
#include <vector>

namespace krcommon::platform {

/// A set of integers kept as sorted, disjoint, non-adjacent ranges, so that a
/// range such as 200..299 costs one entry.
class KRCOMMON_EXPORT IndexSet {
public:
    IndexSet() = default;
    /// The `length` integers starting at `location`.
    static IndexSet indexSetWithIndexesInRange(std::int64_t location, std::int64_t length) {
        IndexSet set;
        set.addIndexesInRange(location, length);
        return set;
    }

    /// Adds the `length` integers starting at `location`; a length of zero or less adds nothing.
    void addIndexesInRange(std::int64_t location, std::int64_t length) {
        if (length <= 0) return;
        Range added{location, location + length};
        std::vector<Range> merged;
        merged.reserve(ranges_.size() + 1);
        bool placed = false;
        for (const Range& r : ranges_) {
            if (r.end < added.begin) {
                merged.push_back(r);
            } else if (added.end < r.begin) {
                if (!placed) merged.push_back(added), placed = true;
                merged.push_back(r);
            } else {
                added.begin = std::min(added.begin, r.begin);
                added.end = std::max(added.end, r.end);
            }
        }
        if (!placed) merged.push_back(added);
        ranges_ = std::move(merged);
    }
    void addIndex(std::int64_t index) { addIndexesInRange(index, 1); }

    /// Whether `index` is in the set; a binary search over the ranges.
    [[nodiscard]] bool containsIndex(std::int64_t index) const noexcept {
        auto it = std::upper_bound(ranges_.begin(), ranges_.end(), index,
                                   [](std::int64_t i, const Range& r) { return i < r.begin; });
        return it != ranges_.begin() && index < std::prev(it)->end;
    }
    /// How many integers the set holds.
    [[nodiscard]] std::int64_t count() const noexcept {
        std::int64_t n = 0;
        for (const Range& r : ranges_) n += r.end - r.begin;
        return n;
    }

    friend bool operator==(const IndexSet&, const IndexSet&) = default;

private:
    struct Range {
        std::int64_t begin;  // first index
        std::int64_t end;    // one past the last
        friend bool operator==(const Range&, const Range&) = default;
    };
    std::vector<Range> ranges_;
};

}  // namespace krcommon::platform
