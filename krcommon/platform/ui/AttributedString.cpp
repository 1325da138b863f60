#include <krcommon/platform/ui/AttributedString.h>

#include <krcommon/platform/core/Exception.h>
#include <krcommon/platform/core/Format.h>
#include <krcommon/platform/io/UTF8.h>

#include <algorithm>

namespace krcommon::platform {

AttributedString::AttributedString(std::string_view text, TextAttributes attributes) {
    text_.reserve(text.size());
    while (!text.empty()) {
        const std::size_t n = UTF8::sequenceLength(text);
        const std::size_t at = text_.size();
        if (n == 0) {
            text_ += "\xEF\xBF\xBD";  // U+FFFD for one malformed byte
            text.remove_prefix(1);
        } else {
            text_.append(text.substr(0, n));
            text.remove_prefix(n);
        }
        // Four-byte sequences lie outside the BMP and take two UTF-16 units.
        byteOffsets_.back() = at;
        byteOffsets_.push_back(0);
        if (n == 4) {
            byteOffsets_.back() = at;
            byteOffsets_.push_back(0);
        }
    }
    byteOffsets_.back() = text_.size();
    if (length() > 0) runs_.push_back({{0, length()}, std::move(attributes)});
}

void AttributedString::checkRange(Range range) const {
    if (range.location > length() || range.length > length() - range.location) {
        throw Exception("NSRangeException", format("Range {%zu, %zu} out of bounds; string length %zu",
                                                   range.location, range.length, length()));
    }
}

// Makes a run boundary at `at` (0...length()).
void AttributedString::split(std::size_t at) {
    for (auto it = runs_.begin(); it != runs_.end(); ++it) {
        if (it->range.location == at) return;
        if (at > it->range.location && at < it->range.end()) {
            Run tail{{at, it->range.end() - at}, it->attributes};
            it->range.length = at - it->range.location;
            runs_.insert(it + 1, std::move(tail));
            return;
        }
    }
}

void AttributedString::coalesce() {
    std::vector<Run> merged;
    merged.reserve(runs_.size());
    for (auto& run : runs_) {
        if (!merged.empty() && merged.back().attributes == run.attributes) {
            merged.back().range.length += run.range.length;
        } else {
            merged.push_back(std::move(run));
        }
    }
    runs_ = std::move(merged);
}

template <class Change>
void AttributedString::change(Range range, Change&& change) {
    checkRange(range);
    if (range.length == 0) return;
    split(range.location);
    split(range.end());
    for (auto& run : runs_) {
        if (run.range.location >= range.location && run.range.end() <= range.end()) change(run.attributes);
    }
    coalesce();
}

void AttributedString::addAttribute(AttributeName name, const AttributeValue& value, Range range) {
    const bool fits = name == AttributeName::Font ? std::holds_alternative<Font>(value)
                                                   : std::holds_alternative<Color>(value);
    if (!fits) throw Exception("NSInvalidArgumentException", "Attribute value of the wrong type");
    change(range, [&](TextAttributes& attributes) {
        if (name == AttributeName::Font) {
            attributes.font = std::get<Font>(value);
        } else {
            attributes.foregroundColor = std::get<Color>(value);
        }
    });
}

void AttributedString::removeAttribute(AttributeName name, Range range) {
    change(range, [&](TextAttributes& attributes) {
        if (name == AttributeName::Font) {
            attributes.font.reset();
        } else {
            attributes.foregroundColor.reset();
        }
    });
}

void AttributedString::setAttributes(const TextAttributes& attributes, Range range) {
    change(range, [&](TextAttributes& a) { a = attributes; });
}

void AttributedString::appendAttributedString(const AttributedString& other) {
    const std::size_t units = length();
    const std::size_t bytes = text_.size();
    text_ += other.text_;
    byteOffsets_.pop_back();
    for (std::size_t offset : other.byteOffsets_) byteOffsets_.push_back(bytes + offset);
    for (const auto& run : other.runs_) runs_.push_back({{run.range.location + units, run.range.length}, run.attributes});
    coalesce();
}

TextAttributes AttributedString::attributesAtIndex(std::size_t index, Range* effectiveRange) const {
    for (const auto& run : runs_) {
        if (index >= run.range.location && index < run.range.end()) {
            if (effectiveRange) *effectiveRange = run.range;
            return run.attributes;
        }
    }
    throw Exception("NSRangeException",
                    format("Index %zu out of bounds; string length %zu", index, length()));
}

std::size_t AttributedString::byteOffset(std::size_t index) const {
    return byteOffsets_.at(std::min(index, length()));
}

bool operator==(const AttributedString& a, const AttributedString& b) {
    if (a.text_ != b.text_ || a.runs_.size() != b.runs_.size()) return false;
    for (std::size_t i = 0; i < a.runs_.size(); ++i) {
        if (a.runs_[i].range != b.runs_[i].range || a.runs_[i].attributes != b.runs_[i].attributes) return false;
    }
    return true;
}

}  // namespace krcommon::platform
