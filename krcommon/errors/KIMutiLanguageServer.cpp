#include <krcommon/errors/KIMutiLanguageServer.h>

#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/core/Format.h>

#include <utility>

namespace krcommon {

using platform::Value;

namespace {

constexpr const char* lastResort = "sdk unknow error";

// A server field as the lookup chain reads it: a JSON null is an absent value.
const Value& field(const platform::Dictionary& answer, const char* key) {
    static const Value absent;
    const Value& value = answer[key];
    return value.isNull() ? absent : value;
}

// What callers treat as "no message": nothing, or a string of length 0. A
// server value of another kind counts as a message.
bool isEmpty(const Value& message) {
    if (message.isNil()) return true;
    const auto* s = message.string();
    return s && s->empty();
}

Value orNil(std::optional<std::string> text) { return text ? Value(std::move(*text)) : Value(); }

// The table text of the message key `code` maps to.
std::optional<std::string> local(std::int64_t code) { return KIMutiLanguageServer::share().localizeWithKey(Value(), code); }

std::string catchAll() { return local(UNKNOWNERROR).value_or(lastResort); }

// The local text of the answer's "error" key, else its "error_description".
Value serverMessage(const platform::Dictionary& answer) {
    if (auto text = KIMutiLanguageServer::share().localizeWithKey(field(answer, "error"))) return Value(std::move(*text));
    return field(answer, "error_description");
}

}  // namespace

KIMutiLanguageServer& KIMutiLanguageServer::share() {
    static KIMutiLanguageServer* const instance = [] {
        auto* server = new KIMutiLanguageServer;  // lives until the process ends
        server->initialErrorMap();
        return server;
    }();
    return *instance;
}

KIMutiLanguageServer::KIMutiLanguageServer() = default;

void KIMutiLanguageServer::initialErrorMap() {
    ErrorMap map{
        {0, "success"},
        {-10, "data_not_parse"},
        {-11, "network_error"},
        {101, "wx_auth_denied"},
        {102, "wx_user_cancel"},
        {103, "wx_unknow_error"},
        {104, "parser_json_error"},
        {105, "network_error_not_200"},
        {111, "wb_auth_denied"},
        {112, "wb_user_cancel"},
        {113, "wb_unknow_error"},
        {181, "qq_login_usercancel"},
        {182, "qq_login_fail"},
        {183, "qq_login_network_fail"},
        {200, "operation_success"},
        {401, "bind_order_invalid"},
        {403, "bind_order_param_error"},
        {404, "unbind_notfound"},
        {407, "unbind_refuse"},
        {501, "bind_database_param_error"},
        {600, "param_error"},
        {602, "bind_alreadybind"},
        {603, "bind_nobind"},
        {1001, "bind_wx_auth_denied"},
        {1002, "bind_wx_user_cancel"},
        {1003, "bind_wx_unknow_error"},
        {2001, "bind_wb_auth_denied"},
        {2002, "bind_wb_user_cancel"},
        {2003, "bind_wb_unknow_error"},
        {3001, "bind_qq_login_usercancel"},
        {3002, "bind_qq_login_fail"},
        {3003, "bind_qq_login_network_fail"},
        {UNKNOWNERROR, "unknow_error"},
    };
    std::lock_guard lock(mutex_);
    errormap_ = std::move(map);
}

void KIMutiLanguageServer::configi18nWithBundle(std::shared_ptr<platform::Bundle> bundle,
                                                std::optional<std::string> table,
                                                std::optional<std::string> language) {
    {
        std::lock_guard lock(mutex_);
        currentBundle_ = bundle;
        table_ = table;
        language_ = language;
    }
    platform::SystemLog::log("[i18n][currentbundle]=%@ [table]=%@ [language]=%@", bundle, table, language);
}

std::optional<std::string> KIMutiLanguageServer::localizeWithKey(const Value& key) const {
    std::shared_ptr<platform::Bundle> bundle;
    std::optional<std::string> tableName;
    {
        std::lock_guard lock(mutex_);
        bundle = currentBundle_;
        tableName = table_;
    }
    // A null key (JSON null from a server) is no key.
    if (!bundle || !tableName || key.isNil() || key.isNull()) return std::nullopt;
    const std::string fullKey = platform::format("kr_%@", key);
    std::optional<std::string> text = bundle->localizedStringForKey(fullKey, std::nullopt, tableName);
    // The bundle answers the key itself for a missing text.
    if (*text == fullKey) text.reset();
    platform::SystemLog::log("[i18n][localizeValue] = %@ [key] = %@", text, key);
    return text;
}

std::optional<std::string> KIMutiLanguageServer::localizeWithKey(const Value& key, std::int64_t errorCode) const {
    if (auto text = localizeWithKey(key)) return text;
    std::optional<std::string> mapped;
    {
        std::lock_guard lock(mutex_);
        if (auto it = errormap_.find(errorCode); it != errormap_.end()) mapped = it->second;
    }
    if (!mapped) return std::nullopt;
    return localizeWithKey(Value(std::move(*mapped)));
}

std::string KIMutiLanguageServer::errorCode(const Value& responds, std::int64_t code) {
    const auto* answer = responds.dictionary();
    if (!answer) {
        if (auto text = local(code)) return *text;
        return catchAll();
    }
    Value message = serverMessage(*answer);
    if (isEmpty(message)) {
        const Value& errorDesc = field(*answer, "errorDesc");
        message = errorDesc.isNil() ? orNil(local(code)) : errorDesc;
    }
    if (isEmpty(message)) return catchAll();
    return message.description();
}

std::string KIMutiLanguageServer::httpError(const Value& responds, const std::shared_ptr<platform::Error>& error) {
    const auto* answer = responds.dictionary();
    if (answer) {
        Value message = serverMessage(*answer);
        if (!isEmpty(message)) return message.description();
    }
    if (error) return error->localizedDescription();
    return catchAll();
}

std::optional<std::string> KIMutiLanguageServer::language() const {
    std::lock_guard lock(mutex_);
    return language_;
}

void KIMutiLanguageServer::setLanguage(std::optional<std::string> language) {
    std::lock_guard lock(mutex_);
    language_ = std::move(language);
}

std::shared_ptr<platform::Bundle> KIMutiLanguageServer::currentBundle() const {
    std::lock_guard lock(mutex_);
    return currentBundle_;
}

void KIMutiLanguageServer::setCurrentBundle(std::shared_ptr<platform::Bundle> bundle) {
    std::lock_guard lock(mutex_);
    currentBundle_ = std::move(bundle);
}

std::optional<std::string> KIMutiLanguageServer::table() const {
    std::lock_guard lock(mutex_);
    return table_;
}

void KIMutiLanguageServer::setTable(std::optional<std::string> table) {
    std::lock_guard lock(mutex_);
    table_ = std::move(table);
}

KIMutiLanguageServer::ErrorMap KIMutiLanguageServer::errormap() const {
    std::lock_guard lock(mutex_);
    return errormap_;
}

void KIMutiLanguageServer::setErrormap(ErrorMap map) {
    std::lock_guard lock(mutex_);
    errormap_ = std::move(map);
}

}  // namespace krcommon
