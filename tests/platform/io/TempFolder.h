#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace krcommon::test {

// A fresh folder under the system's temporary directory, removed with its contents on destruction.
class TempFolder {
public:
    TempFolder() : path_((std::filesystem::temp_directory_path() / "krcommon-io-XXXXXX").string()) {
        if (!::mkdtemp(path_.data())) std::abort();
    }
    ~TempFolder() { std::error_code ignored; std::filesystem::remove_all(path_, ignored); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

}  // namespace krcommon::test
