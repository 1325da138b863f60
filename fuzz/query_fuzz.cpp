// Query and percent encoding: arbitrary keys and values must encode without
// crashing, every encoded value must decode back to its bytes and carry no
// reserved or non-ASCII byte, and a GET built from them must end with a URL
// that parses or with none at all.
#include <krcommon/http/KRRequestSerialization.h>
#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/net/URL.h>

#include <cstdlib>
#include <string>
#include <string_view>

namespace {

struct Silent : krcommon::platform::LogSink {
    void write(std::string_view) override {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = (krcommon::platform::SystemLog::setSink(std::make_shared<Silent>()), true);
    (void)quiet;
    const std::string_view input(reinterpret_cast<const char*>(data), size);

    // Pairs separated by NUL, key and value by the first 0x01.
    krcommon::platform::Dictionary params;
    std::size_t start = 0;
    while (start <= input.size()) {
        auto end = input.find('\0', start);
        if (end == std::string_view::npos) end = input.size();
        const auto pair = input.substr(start, end - start);
        const auto split = pair.find('\x01');
        params.set(std::string(pair.substr(0, split)),
                   split == std::string_view::npos ? std::string() : std::string(pair.substr(split + 1)));
        start = end + 1;
    }

    // Walk each value and its encoding in lockstep: a reserved or non-ASCII
    // byte must appear as "%XX" of itself, every other byte as itself.
    static constexpr char hex[] = "0123456789ABCDEF";
    for (const auto& [key, value] : params) {
        const std::string& raw = *value.string();
        const auto encoded = krcommon::KRParamsEncdoe(raw);
        if (!encoded) continue;
        std::size_t j = 0;
        for (unsigned char b : raw) {
            const bool escaped = b >= 0x80 || std::string_view("$&+,/:;=?@ ").find(static_cast<char>(b)) !=
                                                  std::string_view::npos;
            if (escaped) {
                if (j + 3 > encoded->size() || (*encoded)[j] != '%' || (*encoded)[j + 1] != hex[b >> 4] ||
                    (*encoded)[j + 2] != hex[b & 0xF])
                    std::abort();
                j += 3;
            } else {
                if (j >= encoded->size() || static_cast<unsigned char>((*encoded)[j]) != b) std::abort();
                ++j;
            }
        }
        if (j != encoded->size()) std::abort();
    }

    (void)krcommon::KRQueryStringFromParameters(params);
    auto manager = krcommon::KRSDKMemberHttpManager::create();
    const auto request = manager->requestWithMethod("GET", "https://h.test/p?x=1", krcommon::platform::Value(params), false);
    if (request.URL() && !krcommon::platform::URL::URLWithString(request.URL()->absoluteString())) std::abort();
    (void)manager->requestWithMethod("POST", "https://h.test/p", krcommon::platform::Value(params), true);
    return 0;
}
