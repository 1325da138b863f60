#include <krcommon/platform/net/URLRequest.h>

#include <algorithm>

namespace krcommon::platform {

bool headerFieldEquals(std::string_view a, std::string_view b) noexcept {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        char x = a[i];
        char y = b[i];
        if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
        if (x != y) return false;
    }
    return true;
}

URLRequest::HeaderFields::iterator URLRequest::findField(std::string_view field) noexcept {
    return std::find_if(headers_.begin(), headers_.end(),
                        [&](const auto& entry) { return headerFieldEquals(entry.first, field); });
}

URLRequest::HeaderFields::const_iterator URLRequest::findField(std::string_view field) const noexcept {
    return std::find_if(headers_.begin(), headers_.end(),
                        [&](const auto& entry) { return headerFieldEquals(entry.first, field); });
}

std::optional<std::string> URLRequest::valueForHTTPHeaderField(std::string_view field) const {
    const auto it = findField(field);
    if (it == headers_.end()) return std::nullopt;
    return it->second;
}

void URLRequest::setValue(std::optional<std::string> value, std::string_view field) {
    const auto it = findField(field);
    if (!value) {
        if (it != headers_.end()) headers_.erase(it);
    } else if (it != headers_.end()) {
        it->second = std::move(*value);
    } else {
        headers_.emplace_back(std::string(field), std::move(*value));
    }
}

void URLRequest::addValue(std::string_view value, std::string_view field) {
    const auto it = findField(field);
    if (it == headers_.end()) {
        headers_.emplace_back(std::string(field), std::string(value));
    } else {
        it->second.append(", ").append(value);
    }
}

void URLRequest::setAllHTTPHeaderFields(const HeaderFields& fields) {
    headers_.clear();
    for (const auto& [name, value] : fields) setValue(value, name);
}

}  // namespace krcommon::platform
