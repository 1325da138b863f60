#pragma once

// Where the app keeps its files. The data home is, in order of precedence, the
// folder a host set with setApplicationHome(), $KRCOMMON_APP_HOME, or
// ${XDG_DATA_HOME:-$HOME/.local/share}/<bundle identifier>. Documents and
// Library are folders inside it, as in an app container on the mobile platform.
// The getters only compute paths; they never create folders.

#include <krcommon/platform/core/Export.h>

#include <string>

namespace krcommon::platform {

class KRCOMMON_EXPORT SearchPaths {
public:
    /// The app's data home as an absolute path without a trailing slash.
    static std::string applicationHome();
    /// applicationHome() + "/Documents".
    static std::string documentsDirectory();
    /// applicationHome() + "/Library".
    static std::string libraryDirectory();

    /// Makes `path` the data home, ahead of the environment. An empty path
    /// removes the override. Thread-safe.
    static void setApplicationHome(std::string path);

    /// The identifier naming the app's folder under the XDG data home. Until
    /// set, the base name of the running executable. Thread-safe.
    static std::string bundleIdentifier();
    /// Replaces the bundle identifier; an empty one restores the default. One
    /// that is not a plain folder name (holding "/" or a NUL character, or
    /// equal to "." or "..") is refused with a line on the system log, and the
    /// default is used.
    static void setBundleIdentifier(std::string identifier);
};

}  // namespace krcommon::platform
