#include "ConnectionCounter.h"

namespace brackmoor::verifyd {

ConnectionCounter::ConnectionCounter(int perAddressLimit, int totalLimit,
                                     std::set<std::string> exemptAddresses)
    : perAddress(perAddressLimit), total(totalLimit), exempt(std::move(exemptAddresses))
{
}

ConnectionCounter::Verdict ConnectionCounter::Admit(const std::string& address)
{
    if (open >= total) {
        return Verdict::ServiceFull;
    }
    if (exempt.count(address) == 0) {
        int& held = byAddress[address];
        if (held >= perAddress) {
            return Verdict::AddressFull;
        }
        ++held;
    }
    ++open;
    return Verdict::Admitted;
}

void ConnectionCounter::Release(const std::string& address)
{
    --open;
    const auto found = byAddress.find(address);
    if (found != byAddress.end() && --found->second <= 0) {
        byAddress.erase(found);
    }
}

} // namespace brackmoor::verifyd
