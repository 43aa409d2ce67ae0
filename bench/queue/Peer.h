#pragma once

#include "Shape.h"

namespace queue_bench {

/// One queue implementation of the comparison: its name and how to run a
/// measurement on a fresh instance of it.
struct Peer {
    const char* name;
    Result (*run)(const Shape& shape, Mode mode);
};

// One per implementation; each lives in its own translation unit, built only
// when the implementation's package is installed.
Peer LocklessQueuePeer();
Peer RteRingPeer();
Peer MoodycamelPeer();
Peer AtomicQueuePeer();
Peer BoostLockfreePeer();
Peer TbbPeer();
Peer MutexDequePeer();

} // namespace queue_bench
