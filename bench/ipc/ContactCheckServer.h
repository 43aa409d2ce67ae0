#pragma once

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Engine {
class TwoFactorAuthenticationTask;
}

namespace TfaBench {

/// The module's task serving contact checks from a cached list: its own
/// socket (CreateIPC), its own event callback and its own Run loop on a
/// pinned thread, set up as Init leaves them, without touching the system's
/// sshd and PAM files. The list is fresh for the whole run, so no check
/// reaches the verification service.
class ContactCheckServer {
public:
    /// `hashes`: the cached contact list (as the service publishes it).
    explicit ContactCheckServer(const std::vector<std::string>& hashes);
    ~ContactCheckServer();
    ContactCheckServer(const ContactCheckServer&) = delete;
    ContactCheckServer& operator=(const ContactCheckServer&) = delete;

    /// Opens and registers the task's socket; false when the name is taken.
    bool Bind();
    /// Runs the task's loop on a new thread pinned to `cpu`.
    bool Start(int cpu);
    /// Cancels the task and joins its thread.
    void Stop();

private:
    class BenchTask;
    std::unique_ptr<BenchTask> task;
    std::thread thread;
};

} // namespace TfaBench
