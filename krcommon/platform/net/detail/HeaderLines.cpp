#include <krcommon/platform/net/detail/HeaderLines.h>

#include <krcommon/platform/net/URLRequest.h>

#include <algorithm>

namespace krcommon::platform::detail {

namespace {

bool isTokenCharacter(unsigned char c) noexcept {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
    return std::string_view("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) != std::string_view::npos;
}

bool isBlank(char c) noexcept { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string_view trimmed(std::string_view text) noexcept {
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    return text;
}

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// The scheme of a URL or reference as written; "" when it has none (a relative reference).
std::string_view schemeOf(std::string_view reference) noexcept {
    auto isAlpha = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    std::size_t i = 0;
    while (i < reference.size() &&
           (isAlpha(reference[i]) || isDigit(reference[i]) || reference[i] == '+' || reference[i] == '-' ||
            reference[i] == '.')) {
        ++i;
    }
    if (i == 0 || i >= reference.size() || reference[i] != ':' || !isAlpha(reference[0])) return {};
    return reference.substr(0, i);
}

}  // namespace

bool isSendableFieldName(std::string_view name) noexcept {
    return !name.empty() &&
           std::all_of(name.begin(), name.end(), [](char c) { return isTokenCharacter(static_cast<unsigned char>(c)); });
}

bool isSendableFieldValue(std::string_view value) noexcept {
    return std::none_of(value.begin(), value.end(), [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

std::optional<int> parseStatusLine(std::string_view line) noexcept {
    if (!line.starts_with("HTTP/")) return std::nullopt;
    line.remove_prefix(5);
    // The version: "1.1", "1.0", "2", "3".
    std::size_t i = 0;
    while (i < line.size() && (isDigit(line[i]) || line[i] == '.')) ++i;
    if (i == 0 || !isDigit(line[0]) || i >= line.size() || line[i] != ' ') return std::nullopt;
    line.remove_prefix(i + 1);
    if (line.size() < 3 || !isDigit(line[0]) || !isDigit(line[1]) || !isDigit(line[2])) return std::nullopt;
    if (line.size() > 3 && !isBlank(line[3])) return std::nullopt;
    return (line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0');
}

std::optional<std::pair<std::string_view, std::string_view>> parseFieldLine(std::string_view line) noexcept {
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    const std::string_view name = trimmed(line.substr(0, colon));
    if (name.empty()) return std::nullopt;
    return std::pair{name, trimmed(line.substr(colon + 1))};
}

void addReceivedField(std::vector<std::pair<std::string, std::string>>& fields, std::string_view name,
                      std::string_view value) {
    for (auto& [existing, joined] : fields) {
        if (headerFieldEquals(existing, name)) {
            joined.append(", ").append(value);
            return;
        }
    }
    if (fields.empty()) fields.reserve(12);  // room for a usual answer's fields at once
    fields.emplace_back(std::string(name), std::string(value));
}

bool redirectLeavesHTTPS(std::string_view fromURL, std::string_view location) noexcept {
    return headerFieldEquals(schemeOf(fromURL), "https") && headerFieldEquals(schemeOf(trimmed(location)), "http");
}

}  // namespace krcommon::platform::detail
