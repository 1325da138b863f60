#include <krcommon/platform/core/Error.h>

namespace krcommon::platform {

Error::Error(std::string domain, std::int64_t code, Dictionary userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

std::shared_ptr<Error> Error::make(std::string domain, std::int64_t code, Dictionary userInfo) {
    return std::make_shared<Error>(std::move(domain), code, std::move(userInfo));
}

std::string Error::localizedDescription() const {
    if (const auto* text = userInfo_[LocalizedDescriptionKey].string()) return *text;
    return "The operation couldn\xE2\x80\x99t be completed. (" + domain_ + " error " + std::to_string(code_) + ".)";
}

std::string Error::description() const {
    std::string out = "Error Domain=" + domain_ + " Code=" + std::to_string(code_) + " \"" + localizedDescription() + "\"";
    if (!userInfo_.empty()) {
        out += " UserInfo={";
        bool first = true;
        for (const auto& [key, value] : userInfo_) {
            if (!first) out += ", ";
            first = false;
            out += key;
            out += '=';
            out += value.description();
        }
        out += '}';
    }
    return out;
}

}  // namespace krcommon::platform
