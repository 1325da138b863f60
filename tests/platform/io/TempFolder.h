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

/// A checked-in file under tests/data/: from the source tree ctest names, or else the one the
/// test program was built from (<source>/build/<preset>/tests/<program>).
inline std::string dataPath(const std::string& relative) {
    const char* root = std::getenv("KRCOMMON_TEST_SOURCE_DIR");
    const auto source = root ? std::filesystem::path(root) : std::filesystem::canonical("/proc/self/exe").parent_path() / "../../..";
    return (source / "tests/data" / relative).string();
}

}  // namespace krcommon::test
