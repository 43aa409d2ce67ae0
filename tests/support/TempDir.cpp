#include "TestSupport/TempDir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <vector>

namespace TestSupport {

TempDir::TempDir()
{
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/brackmoor-test-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) != nullptr) {
        path = buffer.data();
    }
}

TempDir::~TempDir()
{
    if (!path.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
}

std::string TempDir::File(const std::string& name) const
{
    return path + "/" + name;
}

std::string TempDir::Write(const std::string& name, const std::string& content, unsigned int mode) const
{
    const std::string file = File(name);
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    if (!out || ::chmod(file.c_str(), static_cast<mode_t>(mode)) != 0) {
        return std::string();
    }
    return file;
}

std::string ReadWholeFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

} // namespace TestSupport
