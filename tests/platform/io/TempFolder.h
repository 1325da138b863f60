#pragma once

// A fresh folder under the system's temporary directory, removed with all its
// contents when the object goes away.

#include <cstdlib>
#include <filesystem>
#include <string>

namespace krcommon::test {

class TempFolder {
public:
    TempFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "krcommon-io-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) std::abort();
        path_ = pattern;
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

}  // namespace krcommon::test
