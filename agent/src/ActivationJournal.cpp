#include "ActivationJournal.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "FileTrust.h"
#include "SDK/FileUtils.h"

namespace Agent {

namespace {

// Policy documents are small; the same bound as for the policy files.
const long kMaxEntryBytes = 1024 * 1024;

/// A feed name as a file name: anything but [A-Za-z0-9._-] as %XX, so that
/// no name can leave the directory or clash with another.
std::string Encode(const std::string& name)
{
    std::string encoded;
    for (unsigned char c : name) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                           c == '-' || (c == '.' && !encoded.empty());
        if (plain) {
            encoded += static_cast<char>(c);
        } else {
            char hex[4];
            std::snprintf(hex, sizeof(hex), "%%%02X", c);
            encoded += hex;
        }
    }
    return encoded;
}

} // namespace

ActivationJournal::ActivationJournal(std::string stateDirectory) : directory(std::move(stateDirectory)) {}

bool ActivationJournal::Open(std::string& error)
{
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
        error = "state directory " + directory + " cannot be made";
        return false;
    }
    const std::string why = FileTrust::WhyUntrusted(directory, true);
    if (!why.empty()) {
        error = "state directory " + directory + ": " + why;
        return false;
    }
    return true;
}

bool ActivationJournal::Record(const std::string& feed, const std::string& content)
{
    const std::string path = PathOf(feed);
    SDK::FileUtils::RemoveStaleTemporaries(path);
    return SDK::FileUtils::ReplaceFile(path, content, 0600) == SDK::FileUtils::REPLACE_OK;
}

void ActivationJournal::Forget(const std::string& feed)
{
    SDK::FileUtils::DeleteFile(PathOf(feed));
}

bool ActivationJournal::Leftover(const std::string& feed, std::string& content) const
{
    return SDK::FileUtils::ReadFile(PathOf(feed), content, kMaxEntryBytes) == 0;
}

std::string ActivationJournal::PathOf(const std::string& feed) const
{
    return directory + "/" + Encode(feed) + ".in-force";
}

} // namespace Agent
