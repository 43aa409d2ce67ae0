#include "AuthThrottle.h"

#include <algorithm>
#include <cmath>

#include <Poco/Logger.h>
#include <Poco/Net/IPAddress.h>

namespace brackmoor::verifyd {
namespace {

constexpr std::chrono::seconds kLogInterval(60);

/// The address an IPv4 client is counted by, or the /64 network of an IPv6 one.
std::string Key(const std::string& client)
{
    Poco::Net::IPAddress address;
    if (!Poco::Net::IPAddress::tryParse(client, address) ||
        address.family() != Poco::Net::IPAddress::IPv6 || address.isIPv4Mapped()) {
        return client;
    }
    const Poco::Net::IPAddress network = address & Poco::Net::IPAddress(64, Poco::Net::IPAddress::IPv6);
    return network.toString() + "/64";
}

} // namespace

AuthThrottle::AuthThrottle(int failuresPerMinute)
    : capacity(std::max(failuresPerMinute, 1)), perSecond(capacity / 60.0)
{
}

double AuthThrottle::Level(const Bucket& bucket, Clock::time_point now) const
{
    const std::chrono::duration<double> passed = now - bucket.updated;
    return std::min(capacity, bucket.attempts + passed.count() * perSecond);
}

AuthThrottle::Bucket& AuthThrottle::Refilled(const std::string& key, Clock::time_point now)
{
    const auto [found, added] = buckets.try_emplace(key);
    Bucket& bucket = found->second;
    bucket.attempts = added ? capacity : Level(bucket, now);
    bucket.updated = now;
    return bucket;
}

bool AuthThrottle::Allows(const std::string& client, Clock::time_point now,
                          std::chrono::seconds& retryAfter)
{
    const std::string key = Key(client);
    std::lock_guard<std::mutex> guard(lock);
    if (buckets.count(key) == 0) {
        return true; // no failure counted, or so long ago that it was forgotten
    }
    Bucket& bucket = Refilled(key, now);
    if (bucket.attempts >= 1) {
        return true;
    }
    retryAfter = std::chrono::seconds(
        std::max<long long>(1, static_cast<long long>(std::ceil((1 - bucket.attempts) / perSecond))));
    ++bucket.refusedSinceLog;
    if (bucket.lastLogged == Clock::time_point() || now - bucket.lastLogged >= kLogInterval) {
        Poco::Logger::get("verifyd.throttle")
            .warning("throttling %s: too many failed authentications; %ld request(s) refused "
                     "since the last report",
                     key, bucket.refusedSinceLog);
        bucket.lastLogged = now;
        bucket.refusedSinceLog = 0;
    }
    return false;
}

void AuthThrottle::Failed(const std::string& client, Clock::time_point now)
{
    std::lock_guard<std::mutex> guard(lock);
    Bucket& bucket = Refilled(Key(client), now);
    bucket.attempts = std::max(0.0, bucket.attempts - 1);
    Sweep(now);
}

void AuthThrottle::Sweep(Clock::time_point now)
{
    if (now - lastSweep < kLogInterval) {
        return;
    }
    lastSweep = now;
    for (auto it = buckets.begin(); it != buckets.end();) {
        it = Level(it->second, now) >= capacity ? buckets.erase(it) : std::next(it);
    }
}

} // namespace brackmoor::verifyd
