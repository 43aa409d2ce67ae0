#pragma once

#include <pthread.h>

namespace TfaBench {

/// Pins `thread` to processor `cpu`; true on success. Client and server are
/// pinned so that "same processor" and "different processors" are what the
/// numbers say, not whatever the scheduler chose.
bool PinThread(pthread_t thread, int cpu);

} // namespace TfaBench
