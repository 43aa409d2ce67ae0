#include "Harness.h"
#include "MutexDequeAdapter.h"
#include "Peer.h"

namespace queue_bench {

Peer MutexDequePeer()
{
    return Peer{"mutex_deque", &RunMode<MutexDequeAdapter, MutexDequeAdapter>};
}

} // namespace queue_bench
