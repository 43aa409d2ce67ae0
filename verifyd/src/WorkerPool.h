#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace brackmoor::verifyd {

/// The request threads: a fixed number of threads that run the jobs handed to
/// them in the order they came. They only ever get complete requests, so none
/// of them waits for a client.
class WorkerPool {
public:
    explicit WorkerPool(int threads);
    ~WorkerPool();

    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// Queues `job` for the next free thread.
    void Submit(std::function<void()> job);

    /// Lets the threads finish the queued jobs, then ends them.
    void Stop();

private:
    void Work();

    std::mutex lock;
    std::condition_variable wake;
    std::deque<std::function<void()>> jobs;
    bool stopping = false;
    std::vector<std::thread> threads;
};

} // namespace brackmoor::verifyd
