#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "DeliveryChannel.h"

namespace brackmoor::verifyd {

/// Delivers by writing one file per message into a directory: the default
/// channel, for local use, demonstrations and tests.
///
/// File format (README.md "Outbox"):
///
///     To: <contact>
///     Channel: sms|mail
///
///     <text>
///
/// Names are "<UTC time to the microsecond>-<sequence>.msg", for instance
/// "20240501T101500.123456Z-0000000007.msg", so sorting names sorts messages
/// by the time they were written and the last name is the newest message.
/// A file is written under a hidden temporary name, flushed to disk and then
/// renamed, so a reader sees either the whole message or nothing. Files are
/// readable by the service's user only: they hold codes.
class OutboxChannel : public DeliveryChannel {
public:
    /// Uses `directory`, creating it (mode 0700, parents too) when missing;
    /// nullptr and `error` set when it cannot.
    static std::unique_ptr<OutboxChannel> Create(const std::string& directory,
                                                 std::string& error);

    bool Deliver(const Message& message, std::string& error) override;
    const char* Name() const override { return "outbox"; }

private:
    explicit OutboxChannel(std::string folder) : directory(std::move(folder)) {}

    /// A new file name, later than every name this process made before.
    std::string NextName();

    const std::string directory;
    std::atomic<std::uint64_t> sequence{0};
};

} // namespace brackmoor::verifyd
