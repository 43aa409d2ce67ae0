#include "WorkerPool.h"

namespace brackmoor::verifyd {

WorkerPool::WorkerPool(int count)
{
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([this] { Work(); });
    }
}

WorkerPool::~WorkerPool()
{
    Stop();
}

void WorkerPool::Submit(std::function<void()> job)
{
    {
        std::lock_guard<std::mutex> guard(lock);
        jobs.push_back(std::move(job));
    }
    wake.notify_one();
}

void WorkerPool::Stop()
{
    {
        std::lock_guard<std::mutex> guard(lock);
        stopping = true;
    }
    wake.notify_all();
    for (std::thread& thread : threads) {
        if (thread.joinable()) {
            thread.join();
        }
    }
}

void WorkerPool::Work()
{
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock<std::mutex> guard(lock);
            wake.wait(guard, [this] { return stopping || !jobs.empty(); });
            if (jobs.empty()) {
                return;
            }
            job = std::move(jobs.front());
            jobs.pop_front();
        }
        job();
    }
}

} // namespace brackmoor::verifyd
