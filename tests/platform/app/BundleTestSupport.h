#pragma once

// Writes bundles and strings tables to disk in the forms app bundles ship
// them, with encoders independent of the library's reader: iconv for UTF-16,
// libplist for binary property lists.

#include <krcommon/platform/core/Value.h>
#include <krcommon/platform/io/PropertyList.h>

#include <plist/plist.h>

#include <iconv.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace krcommon::test {

enum class TableForm { UTF8Text, UTF8TextWithBOM, UTF16LEText, UTF16BEText, UTF16LETextNoBOM, XMLPlist, BinaryPlist };

inline const char* tableFormName(TableForm form) {
    static constexpr const char* names[] = {"UTF8Text",         "UTF8TextWithBOM", "UTF16LEText", "UTF16BEText",
                                            "UTF16LETextNoBOM", "XMLPlist",        "BinaryPlist"};
    return names[static_cast<int>(form)];
}
inline void PrintTo(TableForm form, std::ostream* os) { *os << tableFormName(form); }  // gtest's name for a row

using Entries = std::vector<std::pair<std::string, std::string>>;

inline std::string convertWithIconv(const std::string& utf8, const char* to) {
    iconv_t cd = ::iconv_open(to, "UTF-8");
    if (cd == reinterpret_cast<iconv_t>(-1)) throw std::runtime_error("iconv_open");
    std::string out(utf8.size() * 4 + 8, '\0');
    char* in = const_cast<char*>(utf8.data());
    std::size_t inLeft = utf8.size();
    char* outPtr = out.data();
    std::size_t outLeft = out.size();
    const std::size_t rc = ::iconv(cd, &in, &inLeft, &outPtr, &outLeft);
    ::iconv_close(cd);
    if (rc == static_cast<std::size_t>(-1)) throw std::runtime_error("iconv");
    out.resize(out.size() - outLeft);
    return out;
}

/// The text form of `entries`, quoting and escaping as a translator's tool writes it.
inline std::string stringsText(const Entries& entries) {
    const auto quote = [](const std::string& s) {
        std::string q = "\"";
        for (char c : s) q += c == '\n' ? std::string("\\n") : c == '"' || c == '\\' ? std::string{'\\', c} : std::string(1, c);
        return q + "\"";
    };
    std::string text = "/* Generated for a test */\n";
    for (const auto& [key, value] : entries) text += quote(key) + " = " + quote(value) + ";\n";
    return text;
}

inline std::string encodeTable(TableForm form, const Entries& entries) {
    switch (form) {
        case TableForm::UTF8Text: return stringsText(entries);
        case TableForm::UTF8TextWithBOM: return "\xEF\xBB\xBF" + stringsText(entries);
        case TableForm::UTF16LEText: return "\xFF\xFE" + convertWithIconv(stringsText(entries), "UTF-16LE");
        case TableForm::UTF16BEText: return "\xFE\xFF" + convertWithIconv(stringsText(entries), "UTF-16BE");
        case TableForm::UTF16LETextNoBOM: return convertWithIconv(stringsText(entries), "UTF-16LE");
        case TableForm::XMLPlist: {
            platform::Dictionary d;
            for (const auto& [key, value] : entries) d.set(key, value);
            return *platform::PropertyList::writeXML(platform::Value(std::move(d)));
        }
        case TableForm::BinaryPlist: {
            plist_t dict = plist_new_dict();
            for (const auto& [key, value] : entries) plist_dict_set_item(dict, key.c_str(), plist_new_string(value.c_str()));
            char* bytes = nullptr;
            std::uint32_t length = 0;
            plist_to_bin(dict, &bytes, &length);
            std::string out(bytes, length);
            plist_to_bin_free(bytes);
            plist_free(dict);
            return out;
        }
    }
    return {};
}

inline void writeBytes(const std::string& path, const std::string& bytes) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path);
}

/// Writes `<bundle>/<folder>/<table>.strings` ("" as folder for the top level,
/// otherwise a localisation name without ".lproj").
inline void writeTable(const std::string& bundle, const std::string& localization, const std::string& table,
                       const Entries& entries, TableForm form = TableForm::UTF8Text) {
    std::string path = bundle;
    if (!localization.empty()) path += "/" + localization + ".lproj";
    writeBytes(path + "/" + table + ".strings", encodeTable(form, entries));
}

/// Sets an environment variable (nullptr: unsets it) for the lifetime of the object, then restores it.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = std::string(old);
        if (value) ::setenv(name, value, 1);
        else ::unsetenv(name);
    }
    ~ScopedEnv() {
        if (old_) ::setenv(name_.c_str(), old_->c_str(), 1);
        else ::unsetenv(name_.c_str());
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

}  // namespace krcommon::test
