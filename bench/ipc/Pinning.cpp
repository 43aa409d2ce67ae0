#include "Pinning.h"

#include <sched.h>

namespace TfaBench {

bool PinThread(pthread_t thread, int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return pthread_setaffinity_np(thread, sizeof(set), &set) == 0;
}

} // namespace TfaBench
