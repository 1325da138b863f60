// Property lists, XML or binary, into Values and out as XML: a collection that
// parses must write unless it holds something XML cannot carry, and the XML
// must parse to an equal Value (dates to the second, which is all XML keeps);
// an array appended to in two goes must come out as the whole written at once.

#include <krcommon/platform/io/PropertyList.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>

using namespace krcommon::platform;

namespace {

// What the XML writer refuses: strings with NUL, dates outside the years 1 to 9999.
bool writable(const Value& v) {
    if (const auto* s = v.string()) return s->find('\0') == std::string::npos;
    if (const auto* d = v.date())
        return d->timeIntervalSince1970 >= -62135596800.0 && d->timeIntervalSince1970 < 253402300800.0;
    if (const auto* a = v.array()) {
        for (const auto& item : *a)
            if (!writable(item)) return false;
    }
    if (const auto* d = v.dictionary()) {
        for (const auto& [key, item] : *d)
            if (key.find('\0') != std::string::npos || !writable(item)) return false;
    }
    return true;
}

bool sameAfterXML(const Value& a, const Value& b) {
    if (a.kind() == Value::Kind::Date && b.kind() == Value::Kind::Date)
        return std::fabs(a.date()->timeIntervalSince1970 - b.date()->timeIntervalSince1970) < 1.0;
    if (a.kind() == Value::Kind::Real && b.kind() == Value::Kind::Real && std::isnan(*a.realValue()))
        return std::isnan(*b.realValue());
    if (a.kind() == Value::Kind::Array && b.kind() == Value::Kind::Array) {
        const auto &x = *a.array(), &y = *b.array();
        if (x.size() != y.size()) return false;
        for (std::size_t i = 0; i < x.size(); ++i)
            if (!sameAfterXML(x[i], y[i])) return false;
        return true;
    }
    if (a.kind() == Value::Kind::Dictionary && b.kind() == Value::Kind::Dictionary) {
        const auto &x = *a.dictionary(), &y = *b.dictionary();
        if (x.size() != y.size()) return false;
        for (const auto& [key, item] : x) {
            const Value* other = y.find(key);
            if (!other || !sameAfterXML(item, *other)) return false;
        }
        return true;
    }
    return a == b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const auto value = PropertyList::parse(bytes);
    if (!value || (!value->isArray() && !value->isDictionary())) return 0;
    // Whatever a list holds can be described, as the statistics log lines do,
    // and the description is one bracketed collection.
    const std::string text = value->description();
    if (text.empty() || text.front() != (value->isArray() ? '(' : '{') || text.back() != (value->isArray() ? ')' : '}'))
        std::abort();
    const auto xml = PropertyList::writeXML(*value);
    if (!xml) {
        if (writable(*value)) std::abort();
        return 0;
    }
    const auto again = PropertyList::parse(*xml);
    if (!again || !sameAfterXML(*value, *again)) std::abort();

    // An array written in two goes, its first part and then the rest appended,
    // is the very text of the whole.
    if (const Array* items = value->array()) {
        const std::size_t cut = items->size() / 2;
        const auto head = PropertyList::writeXML(Array(items->begin(), items->begin() + static_cast<std::ptrdiff_t>(cut)));
        if (!head) std::abort();
        const auto joined = PropertyList::appendToXMLArray(*head, std::span(*items).subspan(cut));
        if (!joined || *joined != *xml) std::abort();
    }
    return 0;
}
