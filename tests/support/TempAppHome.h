#pragma once

// Points the app's data home at a fresh temporary folder for the life of the
// object, and back to the default afterwards.

#include "platform/io/TempFolder.h"

#include <krcommon/platform/io/SearchPaths.h>

#include <filesystem>
#include <string>

namespace krcommon::test {

class TempAppHome {
public:
    TempAppHome() { platform::SearchPaths::setApplicationHome(folder_.path()); }
    ~TempAppHome() { platform::SearchPaths::setApplicationHome(""); }
    TempAppHome(const TempAppHome&) = delete;
    TempAppHome& operator=(const TempAppHome&) = delete;

    [[nodiscard]] const std::string& path() const { return folder_.path(); }
    [[nodiscard]] std::string library() const { return folder_.path() + "/Library"; }
    [[nodiscard]] std::string documents() const { return folder_.path() + "/Documents"; }

private:
    TempFolder folder_;
};

}  // namespace krcommon::test
