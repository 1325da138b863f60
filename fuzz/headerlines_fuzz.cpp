// Arbitrary bytes as the lines of an HTTP header, received and sent. A status
// line gives a three-digit code only when it starts with "HTTP/"; a field line
// gives a non-empty name and a value that are trimmed pieces of the line, the
// name before its first colon; the fields of a header keep one entry per name
// whatever the case; a field judged sendable holds no byte that could end the
// line; and a redirect said to leave HTTPS goes from an https URL to an http one.

#include <krcommon/platform/net/URLRequest.h>
#include <krcommon/platform/net/detail/HeaderLines.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using namespace krcommon::platform;

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool within(std::string_view piece, std::string_view whole) {
    return piece.data() >= whole.data() && piece.data() + piece.size() <= whole.data() + whole.size();
}

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && headerFieldEquals(text.substr(0, prefix.size()), prefix);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    std::vector<std::pair<std::string, std::string>> fields;
    std::size_t fieldLines = 0;
    std::size_t start = 0;
    while (start <= input.size()) {
        const std::size_t end = std::min(input.find('\n', start), input.size());
        const std::string_view line = input.substr(start, end - start + (end < input.size() ? 1 : 0));
        start = end + 1;

        if (const auto status = detail::parseStatusLine(line)) {
            // "HTTP/", a version, one space, then the three digits of the code.
            check(line.starts_with("HTTP/"));
            const std::string_view code = line.substr(std::min(line.find(' '), line.size()) + 1, 3);
            int value = 0;
            for (char c : code) {
                check(c >= '0' && c <= '9');
                value = value * 10 + (c - '0');
            }
            check(code.size() == 3 && value == *status);
        }
        if (const auto field = detail::parseFieldLine(line)) {
            const auto [name, value] = *field;
            check(!name.empty() && within(name, line) && within(value, line));
            check(!isBlank(name.front()) && !isBlank(name.back()) && name.find(':') == std::string_view::npos);
            check(value.empty() || (!isBlank(value.front()) && !isBlank(value.back())));
            check(name.data() + name.size() <= value.data());
            bool known = false;
            for (const auto& [existing, joined] : fields) known = known || headerFieldEquals(existing, name);
            detail::addReceivedField(fields, name, value);
            for (const auto& [existing, joined] : fields) {
                if (headerFieldEquals(existing, name)) check(joined.ends_with(known ? ", " + std::string(value) : std::string(value)));
            }
            ++fieldLines;
        }

        bool breaks = false;
        for (char c : line) breaks = breaks || c == '\r' || c == '\n' || c == '\0';
        check(detail::isSendableFieldValue(line) == !breaks);
        if (detail::isSendableFieldName(line)) {
            for (char c : line) check(!isBlank(c) && c != ':' && c != '\0' && static_cast<unsigned char>(c) > 0x20);
        }
    }
    check(fields.size() <= fieldLines);
    for (std::size_t i = 0; i < fields.size(); ++i) {
        for (std::size_t j = i + 1; j < fields.size(); ++j) check(!headerFieldEquals(fields[i].first, fields[j].first));
    }

    const std::size_t split = input.find('\n');
    if (split != std::string_view::npos) {
        const std::string_view from = input.substr(0, split);
        std::string_view location = input.substr(split + 1);
        if (detail::redirectLeavesHTTPS(from, location)) {
            while (!location.empty() && isBlank(location.front())) location.remove_prefix(1);
            check(startsWithIgnoringCase(from, "https:") && startsWithIgnoringCase(location, "http:"));
        }
    }
    return 0;
}
