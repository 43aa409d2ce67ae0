#pragma once

#include <chrono>
#include <string>

#include "DeliveryChannel.h"

namespace brackmoor::verifyd {

/// Delivers text messages through an operator's program: the bridge to
/// whatever SMS gateway a site uses.
///
/// The program is run as `COMMAND NUMBER TEXT` (see RunCommand: no shell,
/// bounded time, no inherited descriptors). Exit code 0 means the gateway took
/// the message; anything else, a signal or running out of time is a delivery
/// failure. What the program prints is logged with its digits masked, since
/// a program may well echo the code.
class SmsHookChannel : public DeliveryChannel {
public:
    SmsHookChannel(std::string program, std::chrono::seconds limit)
        : command(std::move(program)), timeout(limit)
    {
    }

    bool Deliver(const Message& message, std::string& error) override;
    const char* Name() const override { return "sms-hook"; }

private:
    const std::string command;
    const std::chrono::seconds timeout;
};

} // namespace brackmoor::verifyd
