#include "Harness.h"
#include "LocklessQueueAdapter.h"
#include "Peer.h"

namespace queue_bench {

Peer LocklessQueuePeer()
{
    return Peer{"LocklessQueue", &RunMode<LocklessQueueAdapter<true>, LocklessQueueAdapter<false>>};
}

} // namespace queue_bench
