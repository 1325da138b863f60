#pragma once

// The running application as the module sees it. Opening a URL is the host's
// business: the host installs a handler that opens URLs its own way (a browser,
// its settings screen); without one, the request is logged and refused.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/net/URL.h>

#include <functional>
#include <memory>
#include <mutex>

namespace krcommon::platform {

class KRCOMMON_EXPORT Application {
public:
    /// Opens a URL; answers whether it was opened. Called on the thread that asks.
    using OpenURLHandler = std::function<bool(const URL& url)>;

    /// The URL text that names this application's own page in the system settings.
    static constexpr const char* OpenSettingsURLString = "app-settings:";

    /// The one instance.
    static Application& shared();

    /// Hands `url` to the host's handler and answers what it answers. Without a handler
    /// it writes "Application: cannot open URL <url>: no handler installed" to the system
    /// log, for a null URL "Application: cannot open URL (null): no URL", and answers false.
    bool openURL(const std::shared_ptr<URL>& url);

    /// Installs the handler for every later openURL(); an empty one removes it.
    void setOpenURLHandler(OpenURLHandler handler);

    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

private:
    Application() = default;

    mutable std::mutex mutex_;
    std::shared_ptr<const OpenURLHandler> handler_;
};

}  // namespace krcommon::platform
