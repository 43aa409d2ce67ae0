#include "Harness.h"
#include "BoostLockfreeAdapter.h"
#include "Peer.h"

namespace queue_bench {

Peer BoostLockfreePeer()
{
    return Peer{"boost_lockfree", &RunMode<BoostLockfreeAdapter<true>, BoostLockfreeAdapter<false>>};
}

} // namespace queue_bench
