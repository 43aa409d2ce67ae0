#include "OutboxChannel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <Poco/Exception.h>
#include <Poco/File.h>

#include "brackmoor/UniqueFd.h"

namespace brackmoor::verifyd {
namespace {

std::string Errno(const char* what)
{
    return std::string(what) + ": " + std::strerror(errno);
}

bool WriteAll(int fd, const std::string& data)
{
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

} // namespace

std::unique_ptr<OutboxChannel> OutboxChannel::Create(const std::string& directory,
                                                     std::string& error)
{
    try {
        Poco::File folder(directory);
        if (!folder.exists()) {
            folder.createDirectories();
            ::chmod(directory.c_str(), 0700);
        }
    } catch (const Poco::Exception& e) {
        error = directory + ": cannot create the outbox directory: " + e.displayText();
        return nullptr;
    }
    if (::access(directory.c_str(), W_OK | X_OK) != 0) {
        error = directory + ": " + Errno("the outbox directory is not writable");
        return nullptr;
    }
    return std::unique_ptr<OutboxChannel>(new OutboxChannel(directory));
}

std::string OutboxChannel::NextName()
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    ::gmtime_r(&now.tv_sec, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%S", &utc);
    char name[80];
    std::snprintf(name, sizeof name, "%s.%06ldZ-%010llu.msg", stamp, now.tv_nsec / 1000,
                  static_cast<unsigned long long>(++sequence));
    return name;
}

bool OutboxChannel::Deliver(const Message& message, std::string& error)
{
    const std::string name = NextName();
    const std::string temporary = directory + "/." + name + ".tmp";
    const std::string final = directory + "/" + name;
    const std::string content = "To: " + message.to + "\nChannel: " + KindName(message.kind) +
                                "\n\n" + message.text + "\n";

    UniqueFd file(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file.Valid()) {
        error = temporary + ": " + Errno("cannot create");
        return false;
    }
    if (!WriteAll(file.Get(), content) || ::fsync(file.Get()) != 0) {
        error = temporary + ": " + Errno("cannot write");
        ::unlink(temporary.c_str());
        return false;
    }
    file.Reset();
    if (::rename(temporary.c_str(), final.c_str()) != 0) {
        error = final + ": " + Errno("cannot rename into place");
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

} // namespace brackmoor::verifyd
