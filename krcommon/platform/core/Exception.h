#pragma once

#include <krcommon/platform/core/Export.h>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace krcommon::platform {

/// A raised failure: a name and a reason. Nothing in the library catches these.
class KRCOMMON_EXPORT Exception : public std::exception {
public:
    /// A failure named `name` (the platform's exception name, such as
    /// "NSInvalidArgumentException") with the human-readable `reason`.
    Exception(std::string name, std::string reason);
    ~Exception() override;

    [[nodiscard]] const std::string& name() const noexcept { return name_; }
    [[nodiscard]] const std::string& reason() const noexcept { return reason_; }
    /// The reason, as the standard library expects.
    [[nodiscard]] const char* what() const noexcept override { return reason_.c_str(); }

private:
    std::string name_;
    std::string reason_;
};

/// A broken precondition: a programming error of the caller. Its name is
/// "NSInternalInconsistencyException"; it records the function, source file
/// and line of the check together with the description.
class KRCOMMON_EXPORT InternalInconsistencyException : public Exception {
public:
    /// `description` is also the reason (and what()); `function`, `file` and `line` say where
    /// the check failed.
    InternalInconsistencyException(std::string description, std::string function, std::string file,
                                   std::uint64_t line);
    ~InternalInconsistencyException() override;

    /// The text of the failed condition, e.g. "Invalid parameter not satisfying: url".
    [[nodiscard]] const std::string& description() const noexcept { return description_; }
    /// Where the check failed, as the thrower named it: the function, the source file (some
    /// throwers give their class name instead of a path) and the line.
    [[nodiscard]] const std::string& function() const noexcept { return function_; }
    [[nodiscard]] const std::string& file() const noexcept { return file_; }
    [[nodiscard]] std::uint64_t line() const noexcept { return line_; }

private:
    std::string description_;
    std::string function_;
    std::string file_;
    std::uint64_t line_;
};

}  // namespace krcommon::platform
