#include "FileTrust.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Agent {

std::string FileTrust::WhyUntrusted(const std::string& path, bool directory)
{
    struct stat info = {};
    if (stat(path.c_str(), &info) != 0) {
        return std::string("cannot stat: ") + std::strerror(errno);
    }
    if (directory ? !S_ISDIR(info.st_mode) : !S_ISREG(info.st_mode)) {
        return directory ? "not a directory" : "not a regular file";
    }
    if (info.st_uid != 0 && info.st_uid != geteuid()) {
        return "owned by uid " + std::to_string(info.st_uid) + ", neither root nor the agent's user";
    }
    if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return "writable by group or others";
    }
    return std::string();
}

} // namespace Agent
