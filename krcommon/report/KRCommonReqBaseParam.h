#pragma once

// The base of the account SDK's request parameter objects. One object
// describes one request: the caller's parameters, a type string that selects
// the variant in subclasses, and the operations a subclass fills in (the body
// to send, the URL, what to do with the answer). The class also hands out
// request task identifiers that are unique in the process.

#include <krcommon/platform/core/Value.h>

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace krcommon {

class KRCOMMON_EXPORT KRCommonReqBaseParam : public platform::Object {
public:
    using Text = std::optional<std::string>;

    /// A parameter object holding `paramDictionary` and `typeString`, made as
    /// `T` (this class or a subclass). Answers nullptr when the dictionary is
    /// absent, whatever the type: a request without parameters is not made.
    template <class T = KRCommonReqBaseParam>
        requires std::derived_from<T, KRCommonReqBaseParam>
    static std::shared_ptr<T> initWithParamDictionary(std::optional<platform::Dictionary> paramDictionary,
                                                      Text typeString = std::nullopt) {
        if (!paramDictionary) return nullptr;
        auto param = std::make_shared<T>();
        param->setParamDicInfo(std::move(paramDictionary));
        param->setTypeStr(std::move(typeString));
        return param;
    }

    KRCommonReqBaseParam() = default;
    ~KRCommonReqBaseParam() override;

    /// A new identifier on every call, shared by all instances and subclasses:
    /// the process-wide counter is incremented, then printed in decimal, so the
    /// first identifier of a process is "1". The increment takes no lock (an
    /// atomic add, so concurrent callers never see the same value).
    [[nodiscard]] std::string requestTaskId() const;

    /// The dictionary to send. Subclasses override it; the default logs
    /// "get Info should be override .." and answers nil.
    [[nodiscard]] virtual std::optional<platform::Dictionary> paramDictionaryInfo();
    /// The URL to send to. Subclasses override it; the default logs
    /// "get url should be override .." and answers nil.
    [[nodiscard]] virtual Text requestUrl();
    /// Consumes the decoded answer. Subclasses override it; the default logs
    /// "handle data should be override ..".
    virtual void handleRespondData(const platform::Value& response);

    /// The caller's parameters, as stored at creation.
    [[nodiscard]] const std::optional<platform::Dictionary>& paramDicInfo() const noexcept { return paramDicInfo_; }
    void setParamDicInfo(std::optional<platform::Dictionary> value) { paramDicInfo_ = std::move(value); }
    /// The request type.
    [[nodiscard]] const Text& typeStr() const noexcept { return typeStr_; }
    void setTypeStr(Text value) { typeStr_ = std::move(value); }

private:
    std::optional<platform::Dictionary> paramDicInfo_;
    Text typeStr_;
};

}  // namespace krcommon
