#include "AsyncLogChannel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <utility>

namespace SDK {

namespace {

// Records gathered before callers wait for the writer.
const std::size_t kCapacity = 4096;
// How long a record may wait before the writer takes it: short while records
// flow, longer once a pass found none, so an idle agent does not keep waking.
const std::chrono::milliseconds kBusyPeriod(2);
const std::chrono::milliseconds kIdlePeriod(100);

const char* const kPriorityNames[] = {"", "Fatal", "Critical", "Error", "Warning", "Notice",
                                      "Information", "Debug", "Trace"};

void WriteAll(int fd, const std::string& text)
{
    const char* data = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, data, left);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;  // a full disk loses what does not fit; nothing else to tell it to
        }
        data += n;
        left -= static_cast<std::size_t>(n);
    }
}

} // namespace

AsyncLogChannel::AsyncLogChannel(std::string file, bool toConsole, std::uint64_t rotateAt, int kept)
    : path(std::move(file)), console(toConsole), rotateBytes(rotateAt), archivesKept(kept), pending(kCapacity),
      writing(kCapacity)
{
    fd = OpenFile();
    writer = std::thread([this] { Run(); });
}

AsyncLogChannel::~AsyncLogChannel()
{
    close();
}

void AsyncLogChannel::open() {}

void AsyncLogChannel::close()
{
    {
        std::lock_guard<std::mutex> guard(lock);
        stopping = true;
    }
    wake.notify_one();
    if (writer.joinable()) {
        writer.join();
    }
    std::lock_guard<std::mutex> guard(lock);
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

void AsyncLogChannel::log(const Poco::Message& msg)
{
    Append(msg.getTime().epochMicroseconds(), msg.getPriority(), msg.getSource(), msg.getText(), msg.getSourceFile(),
           msg.getSourceLine());
}

void AsyncLogChannel::Append(Poco::Timestamp::TimeVal time, int priority, const std::string& source,
                             const std::string& text, const char* file, int line)
{
    std::unique_lock<std::mutex> guard(lock);
    while (pendingCount == pending.size() && !writerDone) {
        wake.notify_one();
        done.wait(guard);
    }
    if (writerDone) {
        // Logged after close, while the process ends: written at once, under
        // the lock, since no writer runs any more.
        const std::vector<Record> late = {Record{time, priority, line, source, text, file != nullptr ? file : ""}};
        Write(late, 1);
        return;
    }
    Record& record = pending[pendingCount++];
    record.time = time;
    record.priority = priority;
    record.line = line;
    record.source.assign(source);
    record.text.assign(text);
    record.file.assign(file != nullptr ? file : "");
    ++logged;
}

void AsyncLogChannel::flush()
{
    std::unique_lock<std::mutex> guard(lock);
    const std::uint64_t target = logged;
    flushing = true;
    wake.notify_one();
    done.wait(guard, [&] { return written >= target || writerDone; });
}

void AsyncLogChannel::Run()
{
    std::unique_lock<std::mutex> guard(lock);
    bool busy = false;
    for (;;) {
        wake.wait_for(guard, busy ? kBusyPeriod : kIdlePeriod,
                      [this] { return stopping || flushing || pendingCount == pending.size(); });
        busy = pendingCount > 0;
        const bool last = stopping;
        if (pendingCount > 0) {
            std::swap(pending, writing);
            const std::size_t count = pendingCount;
            pendingCount = 0;
            guard.unlock();
            Write(writing, count);
            guard.lock();
            written += count;
        }
        flushing = false;
        if (last && pendingCount == 0) {
            writerDone = true;
        }
        done.notify_all();
        if (writerDone) {
            return;
        }
    }
}

void AsyncLogChannel::Write(const std::vector<Record>& records, std::size_t count)
{
    batch.clear();
    for (std::size_t i = 0; i < count; ++i) {
        const Record& record = records[i];
        AppendLocalTime(record.time, batch);
        batch += kPriorityNames[record.priority >= 1 && record.priority <= 8 ? record.priority : 0];
        batch += ' ';
        batch += record.source;
        batch += ": ";
        batch += record.text;
        if (!record.file.empty()) {
            batch += " (";
            batch += record.file;
            batch += ':';
            batch += std::to_string(record.line);
            batch += ')';
        }
        batch += '\n';
    }
    if (console) {
        WriteAll(STDERR_FILENO, batch);
    }
    if (fd >= 0) {
        WriteAll(fd, batch);
        fileBytes += batch.size();
        RotateIfFull();
    }
}

void AsyncLogChannel::AppendLocalTime(Poco::Timestamp::TimeVal time, std::string& out)
{
    // The calendar and the time zone are looked up once a second, not per record.
    const std::int64_t second = time / 1000000;
    if (second != cachedSecond) {
        const std::time_t t = static_cast<std::time_t>(second);
        struct tm local {};
        localtime_r(&t, &local);
        char text[64];
        std::snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d.", local.tm_year + 1900, local.tm_mon + 1,
                      local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
        cachedPrefix = text;
        cachedSecond = second;
    }
    const int millis = static_cast<int>((time % 1000000) / 1000);
    out += cachedPrefix;
    out += static_cast<char>('0' + millis / 100);
    out += static_cast<char>('0' + millis / 10 % 10);
    out += static_cast<char>('0' + millis % 10);
    out += ' ';
}

int AsyncLogChannel::OpenFile()
{
    if (path.empty()) {
        return -1;
    }
    const int opened = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    struct stat st {};
    fileBytes = (opened >= 0 && ::fstat(opened, &st) == 0) ? static_cast<std::uint64_t>(st.st_size) : 0;
    return opened;
}

void AsyncLogChannel::RotateIfFull()
{
    if (fileBytes < rotateBytes) {
        return;
    }
    ::close(fd);
    // NAME.0 is the newest archive; the oldest beyond the kept ones is
    // overwritten by the one before it.
    for (int i = archivesKept - 1; i > 0; --i) {
        ::rename((path + "." + std::to_string(i - 1)).c_str(), (path + "." + std::to_string(i)).c_str());
    }
    ::rename(path.c_str(), (path + ".0").c_str());
    fd = OpenFile();
}

} // namespace SDK
