#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <Poco/Channel.h>
#include <Poco/Message.h>

namespace SDK {

/// The agent's log file (and, for a foreground agent, standard error) written
/// off the caller's thread: log() only copies the record into a buffer; a
/// writer thread formats what has gathered every few milliseconds while
/// records flow (every tenth of a second when idle) and appends it with one
/// write to the file, so a record reaches the file well within a second and
/// survives a crash of the agent. Nothing is ever
/// dropped: a full buffer makes the callers wait for the writer, and
/// close() and flush() write everything that was logged before they
/// return. Records are formatted as
///   "2024-05-01 12:00:00.123 Error two_factor_authentication_module: Text. (File.cpp:42)"
/// in local time, the "(file:line)" part only when the record names its
/// source. The file is rotated at `rotateBytes`: "NAME.0" is the newest
/// archive, up to `archivesKept` are kept.
class AsyncLogChannel : public Poco::Channel {
public:
    using Ptr = Poco::AutoPtr<AsyncLogChannel>;

    /// `path`: the log file ("" for none); `console`: copy every record to
    /// standard error.
    AsyncLogChannel(std::string path, bool console, std::uint64_t rotateBytes = 10 * 1024 * 1024,
                    int archivesKept = 5);

    void open() override;
    /// Writes everything logged so far and stops the writer.
    void close() override;
    void log(const Poco::Message& msg) override;
    /// log() without a Poco::Message: the fields of one record.
    void Append(Poco::Timestamp::TimeVal time, int priority, const std::string& source, const std::string& text,
                const char* file, int line);

    /// Returns once everything logged before the call is written.
    void flush();

protected:
    ~AsyncLogChannel() override;

private:
    /// One record as the caller gave it; the strings keep their capacity
    /// from one use to the next, so copying in does not allocate.
    struct Record {
        Poco::Timestamp::TimeVal time = 0;
        int priority = 0;
        int line = 0;
        std::string source;
        std::string text;
        std::string file;
    };

    void Run();
    /// Formats `records[0..count)` and writes them; called by the writer only.
    void Write(const std::vector<Record>& records, std::size_t count);
    void AppendLocalTime(Poco::Timestamp::TimeVal time, std::string& out);
    int OpenFile();
    void RotateIfFull();

    const std::string path;
    const bool console;
    const std::uint64_t rotateBytes;
    const int archivesKept;

    std::mutex lock;
    std::condition_variable wake;    ///< the writer: stop, flush, or a full buffer
    std::condition_variable done;    ///< callers: a batch was written
    std::vector<Record> pending;     ///< filled by callers up to `pendingCount`
    std::size_t pendingCount = 0;
    std::uint64_t logged = 0;        ///< records taken so far
    std::uint64_t written = 0;       ///< records written so far
    bool stopping = false;
    bool flushing = false;
    bool writerDone = false;         ///< the writer has returned: callers write themselves
    std::thread writer;

    // The writer's own state (the callers', under the lock, once it is done).
    std::vector<Record> writing;
    std::string batch;
    int fd = -1;
    std::uint64_t fileBytes = 0;
    std::int64_t cachedSecond = -1;  ///< the second `cachedPrefix` was made for
    std::string cachedPrefix;        ///< "YYYY-MM-DD HH:MM:SS." of that second, local time
};

} // namespace SDK
