#include "ClockSkew.h"

#include <algorithm>
#include <cstdlib>

namespace brackmoor::pam {

bool NoteClockSkew(OtpRecord* record, int skew)
{
    std::vector<int>& pending = record->pendingSkew;
    if (skew == 0 || (!pending.empty() && (skew > 0) != (pending.front() > 0))) {
        pending.clear();
    }
    if (skew == 0) {
        return false;
    }
    pending.push_back(skew);
    if (pending.size() < kSkewLogins) {
        return false;
    }
    const int smallest = *std::min_element(pending.begin(), pending.end(),
                                           [](int a, int b) { return std::abs(a) < std::abs(b); });
    pending.clear();
    const int before = record->offset;
    record->offset = std::clamp(before + smallest, -kMaxOffsetSteps, kMaxOffsetSteps);
    return record->offset != before;
}

} // namespace brackmoor::pam
