#include "Harness.h"
#include "TbbAdapter.h"
#include "Peer.h"

namespace queue_bench {

Peer TbbPeer()
{
    return Peer{"tbb_bounded", &RunMode<TbbAdapter, TbbAdapter>};
}

} // namespace queue_bench
