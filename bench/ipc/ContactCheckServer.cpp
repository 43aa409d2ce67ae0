#include "ContactCheckServer.h"

#include <ctime>
#include <limits>

#include "Framework/EventCallback.h"
#include "Pinning.h"
#include "TwoFactorAuthenticationTask.h"

namespace TfaBench {

/// The task with its event waiter reachable, so that the socket can be
/// registered the way Init registers it.
class ContactCheckServer::BenchTask : public Engine::TwoFactorAuthenticationTask {
public:
    int Register()
    {
        ipcEvent = new Framework::Event(new Framework::EventCallback<Engine::TwoFactorAuthenticationTask>(
                                            this, &Engine::TwoFactorAuthenticationTask::SocketEventAction),
                                        nullptr, socketFd);
        ipcRegistered = true;
        return eventWaiter.AddEvent(*ipcEvent);
    }

    void Unregister()
    {
        if (ipcEvent != nullptr) {
            eventWaiter.RemoveEvent(*ipcEvent);
        }
    }
};

ContactCheckServer::ContactCheckServer(const std::vector<std::string>& hashes) : task(new BenchTask)
{
    task->commList = hashes;
    task->commListUpdateTime = time(nullptr);
    task->refreshTime = std::numeric_limits<int>::max();
}

ContactCheckServer::~ContactCheckServer()
{
    Stop();
    task->Unregister();
    task->CloseSocket();
}

bool ContactCheckServer::Bind()
{
    return task->CreateIPC() && task->Register() == 0;
}

bool ContactCheckServer::Start(int cpu)
{
    // Run serves only a switched-on task; the switching itself is not measured.
    task->authEnabled = true;
    task->reset();
    thread = std::thread([this] { task->run(); });
    return PinThread(thread.native_handle(), cpu);
}

void ContactCheckServer::Stop()
{
    if (thread.joinable()) {
        task->cancel();
        thread.join();
    }
}

} // namespace TfaBench
