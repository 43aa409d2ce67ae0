#include "Harness.h"
#include "MoodycamelAdapter.h"
#include "Peer.h"

namespace queue_bench {

Peer MoodycamelPeer()
{
    return Peer{"moodycamel", &RunMode<MoodycamelAdapter, MoodycamelAdapter>};
}

} // namespace queue_bench
