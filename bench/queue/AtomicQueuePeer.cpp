#include "Harness.h"
#include "AtomicQueueAdapter.h"
#include "Peer.h"

namespace queue_bench {

Peer AtomicQueuePeer()
{
    return Peer{"atomic_queue", &RunMode<AtomicQueueAdapter<true>, AtomicQueueAdapter<false>>};
}

} // namespace queue_bench
