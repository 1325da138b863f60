#pragma once

// Errors of the URL error domain as a session hands them to its delegate, and
// the map from the transport's result codes to them.

#include <krcommon/platform/core/Error.h>
#include <krcommon/platform/net/URL.h>

#include <curl/curl.h>

#include <cstdint>
#include <memory>
#include <string_view>

namespace krcommon::platform::detail {

/// A URL-domain error with the platform's user info: the description, the failing URL as text
/// and as object, and the transport's own explanation (`detail`) when there is one.
std::shared_ptr<Error> urlError(std::int64_t code, const std::shared_ptr<URL>& url, std::string_view detail = {});

/// The URL error code for a transfer that ended with `code`. `sawStatusLine` tells whether the
/// server answered with an HTTP status line at all: the transport reports a reply that is not
/// HTTP with the same code as a redirect to a scheme it does not load.
std::int64_t codeForCurl(CURLcode code, bool sawStatusLine) noexcept;

}  // namespace krcommon::platform::detail
