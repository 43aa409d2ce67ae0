#pragma once

#include <string>

namespace TestSupport {

/// A fresh directory under $TMPDIR (or /tmp), removed with its contents when
/// the object goes away.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    /// False when the directory could not be created (Path() is then empty).
    bool Ok() const { return !path.empty(); }
    /// The directory, without a trailing slash.
    const std::string& Path() const { return path; }
    /// Path() + "/" + `name`.
    std::string File(const std::string& name) const;
    /// Writes `content` to File(`name`) with `mode`; the path, or empty on failure.
    std::string Write(const std::string& name, const std::string& content, unsigned int mode = 0644) const;

private:
    std::string path;
};

/// The whole content of `path`, or empty when it cannot be read.
std::string ReadWholeFile(const std::string& path);

} // namespace TestSupport
