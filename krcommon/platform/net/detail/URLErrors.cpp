#include <krcommon/platform/net/detail/URLErrors.h>

#include <krcommon/platform/net/URLSession.h>

namespace krcommon::platform::detail {

namespace {

const char* descriptionForCode(std::int64_t code) {
    switch (code) {
        case URLErrorCancelled: return "cancelled";
        case URLErrorBadURL: return "bad URL";
        case URLErrorTimedOut: return "The request timed out.";
        case URLErrorUnsupportedURL: return "unsupported URL";
        case URLErrorCannotFindHost: return "A server with the specified hostname could not be found.";
        case URLErrorCannotConnectToHost: return "Could not connect to the server.";
        case URLErrorNetworkConnectionLost: return "The network connection was lost.";
        case URLErrorBadServerResponse: return "bad server response";
        case URLErrorAppTransportSecurityRequiresSecureConnection:
            return "The resource could not be loaded because the App Transport Security policy requires the use "
                   "of a secure connection.";
        case URLErrorSecureConnectionFailed:
            return "An SSL error has occurred and a secure connection to the server cannot be made.";
        case URLErrorServerCertificateUntrusted: return "The certificate for this server is invalid.";
        default: return "unknown error";
    }
}

}  // namespace

std::shared_ptr<Error> urlError(std::int64_t code, const std::shared_ptr<URL>& url, std::string_view detail) {
    Dictionary info;
    info.set(LocalizedDescriptionKey, Value(descriptionForCode(code)));
    if (url) {
        info.set("NSErrorFailingURLStringKey", Value(url->absoluteString()));
        info.set("NSErrorFailingURLKey", Value(url));
    }
    if (!detail.empty()) info.set("NSDebugDescription", Value(detail));
    return Error::make(URLErrorDomain, code, std::move(info));
}

std::int64_t codeForCurl(CURLcode code, bool sawStatusLine) noexcept {
    switch (code) {
        case CURLE_UNSUPPORTED_PROTOCOL: return sawStatusLine ? URLErrorUnsupportedURL : URLErrorBadServerResponse;
        case CURLE_URL_MALFORMAT: return URLErrorBadURL;
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_RESOLVE_HOST: return URLErrorCannotFindHost;
        case CURLE_COULDNT_CONNECT: return URLErrorCannotConnectToHost;
        case CURLE_OPERATION_TIMEDOUT: return URLErrorTimedOut;
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_HTTP2:
        case CURLE_BAD_CONTENT_ENCODING:
        case CURLE_TOO_MANY_REDIRECTS: return URLErrorBadServerResponse;
        case CURLE_GOT_NOTHING:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_PARTIAL_FILE:
        case CURLE_HTTP2_STREAM: return URLErrorNetworkConnectionLost;
        case CURLE_PEER_FAILED_VERIFICATION: return URLErrorServerCertificateUntrusted;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ENGINE_INITFAILED:
        case CURLE_SSL_INVALIDCERTSTATUS: return URLErrorSecureConnectionFailed;
        case CURLE_ABORTED_BY_CALLBACK: return URLErrorCancelled;
        default: return URLErrorUnknown;
    }
}

}  // namespace krcommon::platform::detail
