#include "Harness.h"
#include "RteRingAdapter.h"
#include "Peer.h"

namespace queue_bench {

Peer RteRingPeer()
{
    return Peer{"rte_ring", &RunMode<RteRingAdapter<true>, RteRingAdapter<false>>};
}

} // namespace queue_bench
