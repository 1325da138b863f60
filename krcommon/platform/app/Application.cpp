#include <krcommon/platform/app/Application.h>

#include <krcommon/platform/app/SystemLog.h>

namespace krcommon::platform {

Application& Application::shared() {
    static Application application;
    return application;
}

bool Application::openURL(const std::shared_ptr<URL>& url) {
    std::shared_ptr<const OpenURLHandler> handler;
    {
        std::lock_guard lock(mutex_);
        handler = handler_;
    }
    if (!handler || !url) {
        SystemLog::log("Application: cannot open URL %@: %s", url, url ? "no handler installed" : "no URL");
        return false;
    }
    // Called outside the lock: the handler may install another one.
    return (*handler)(*url);
}

void Application::setOpenURLHandler(OpenURLHandler handler) {
    std::lock_guard lock(mutex_);
    handler_ = handler ? std::make_shared<const OpenURLHandler>(std::move(handler)) : nullptr;
}

}  // namespace krcommon::platform
