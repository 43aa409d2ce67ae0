#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace TestSupport {

/// A fresh directory under $TMPDIR (or /tmp), removed with its contents when
/// the object goes away.
class TempDir {
public:
    TempDir()
    {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/brackmoor-test-XXXXXX";
        path = ::mkdtemp(&pattern[0]) != nullptr ? pattern : "";
    }
    ~TempDir() { std::error_code ignored; std::filesystem::remove_all(path, ignored); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    /// False when the directory could not be created (Path() is then empty).
    bool Ok() const { return !path.empty(); }
    /// The directory, without a trailing slash.
    const std::string& Path() const { return path; }
    /// Path() + "/" + `name`.
    std::string File(const std::string& name) const { return path + "/" + name; }
    /// Writes `content` to File(`name`) with `mode`; the path, or empty on failure.
    std::string Write(const std::string& name, const std::string& content, unsigned int mode = 0644) const
    {
        const bool written = !!(std::ofstream(File(name), std::ios::binary | std::ios::trunc) << content << std::flush);
        return written && ::chmod(File(name).c_str(), static_cast<mode_t>(mode)) == 0 ? File(name) : "";
    }

private:
    std::string path;
};

/// The whole content of `path`, or empty when it cannot be read.
inline std::string ReadWholeFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

} // namespace TestSupport
