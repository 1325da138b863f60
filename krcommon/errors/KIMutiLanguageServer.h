#pragma once

// The error map and localised messages offered to the SDK's sibling modules.
// `KIMutiLanguageServer` turns a server's message key, an SDK error code or a
// failed request's error into one user-facing text. The texts live in a
// strings table of a bundle the host application supplies with
// `configi18nWithBundle`, under "kr_" followed by a message key; this class
// contributes the map from error codes to message keys and the order in which
// the server's words, the local texts and the last-resort text are preferred.
//
// Every lookup that reaches the table writes
// "[i18n][localizeValue] = <text> [key] = <key>" to the system log, and every
// configuration "[i18n][currentbundle]=<bundle> [table]=<table> [language]=<tag>".

#include <krcommon/platform/app/Bundle.h>
#include <krcommon/platform/core/Error.h>
#include <krcommon/platform/core/Value.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace krcommon {

/// The code of the catch-all entry of the error map ("unknow_error").
inline constexpr std::int64_t UNKNOWNERROR = -5000;

class KRCOMMON_EXPORT KIMutiLanguageServer {
public:
    using ErrorMap = std::map<std::int64_t, std::string>;

    /// The process-wide instance, created once with its error map built.
    static KIMutiLanguageServer& share();

    /// A bare instance: no bundle, table, language or error map until set.
    KIMutiLanguageServer();
    KIMutiLanguageServer(const KIMutiLanguageServer&) = delete;
    KIMutiLanguageServer& operator=(const KIMutiLanguageServer&) = delete;

    /// Builds the 33-entry map from error codes to message keys, replacing any
    /// previous map.
    void initialErrorMap();

    /// Stores the bundle, table name and language tag (the tag is kept and
    /// logged only: the bundle's own language choice governs lookups), then
    /// logs the three.
    void configi18nWithBundle(std::shared_ptr<platform::Bundle> bundle, std::optional<std::string> table,
                              std::optional<std::string> language);

    /// The table's text under "kr_" + the key's description, or nullopt when
    /// there is no bundle, table or key (nil or the null object), or the table
    /// has no text for it (a text equal to the full key counts as none).
    [[nodiscard]] std::optional<std::string> localizeWithKey(const platform::Value& key) const;

    /// The text for `key`, else the text for the message key that `errorCode`
    /// maps to; nullopt when neither has one.
    [[nodiscard]] std::optional<std::string> localizeWithKey(const platform::Value& key,
                                                             std::int64_t errorCode) const;

    /// The message for a server answer and an SDK error code, never absent.
    /// From a dictionary answer, in order: the local text of its "error", its
    /// "error_description", its "errorDesc" (when present, even empty), the
    /// local text of `code`; for any other answer the local text of
    /// `code`. Then the local text of UNKNOWNERROR, then "sdk unknow error".
    /// Server values that are not strings are given as their description; a
    /// JSON null in any of the three fields counts as absent.
    [[nodiscard]] static std::string errorCode(const platform::Value& responds, std::int64_t code);

    /// The message for a server answer and a failed request's error, never
    /// absent. From a dictionary answer, in order: the local text of its
    /// "error", its "error_description"; then, for any answer, the error's
    /// localised description when there is an error (even an empty one), else
    /// the local text of UNKNOWNERROR, else "sdk unknow error". A JSON null in
    /// either field counts as absent.
    [[nodiscard]] static std::string httpError(const platform::Value& responds,
                                               const std::shared_ptr<platform::Error>& error);

    // The configuration, each read and written under the instance's lock. Unlike
    // configi18nWithBundle, the setters log nothing.

    /// The language tag last configured; only stored (lookups ignore it). nullopt until set.
    [[nodiscard]] std::optional<std::string> language() const;
    void setLanguage(std::optional<std::string> language);
    /// The bundle whose strings table lookups read; nullptr until set, and every lookup then
    /// answers nullopt.
    [[nodiscard]] std::shared_ptr<platform::Bundle> currentBundle() const;
    void setCurrentBundle(std::shared_ptr<platform::Bundle> bundle);
    /// The name of the strings table (without ".strings") lookups read; nullopt until set, and
    /// every lookup then answers nullopt.
    [[nodiscard]] std::optional<std::string> table() const;
    void setTable(std::optional<std::string> table);
    /// A copy of the map from error codes to message keys; empty on a bare instance until
    /// initialErrorMap() or setErrormap().
    [[nodiscard]] ErrorMap errormap() const;
    void setErrormap(ErrorMap map);

private:
    mutable std::mutex mutex_;
    std::optional<std::string> language_;
    std::shared_ptr<platform::Bundle> currentBundle_;
    std::optional<std::string> table_;
    ErrorMap errormap_;
};

}  // namespace krcommon
