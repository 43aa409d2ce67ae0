// libFuzzer target: one datagram to the IPC server, sent as root like the PAM
// module. Every datagram gets exactly one reply, the decimal text and its NUL
// within the PAM module's 12-byte buffer. With a fresh contact list and no
// service, the reply is 1 only for the listed contact, else 2 or 3.

#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "FuzzTask.h"
#include "SDK/CryptoCodeUtils.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const char listed[] = "+15551234567";
    static int ends[2] = {-1, -1};
    Engine::TwoFactorAuthenticationTask& task = Fuzz::Task();
    if (ends[0] < 0) {
        const int on = 1;
        task.commList.resize(1);
        if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) != 0 ||
            setsockopt(ends[0], SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0 ||
            SDK::CryptoCodeUtils::GetStrSha256(listed, task.commList[0], 64) != 0) {
            std::abort();
        }
        task.socketFd = ends[0];
        task.refreshTime = INT_MAX;
    }
    task.commListUpdateTime = time(nullptr);
    if (send(ends[1], data, std::min<std::size_t>(size, 65536), 0) < 0) {
        return 0;
    }
    task.SocketEventAction(ends[0], 0, nullptr);
    char reply[64] = {0};
    const ssize_t length = recv(ends[1], reply, sizeof(reply), MSG_DONTWAIT);
    if (length < 2 || length > 12 || std::strspn(reply, "0123456789") != static_cast<std::size_t>(length - 1) ||
        reply[length - 1] != '\0' || recv(ends[1], reply, sizeof(reply), MSG_DONTWAIT) >= 0) {
        __builtin_trap();
    }
    const int answer = std::atoi(reply);
    const std::string request(reinterpret_cast<const char*>(data), size);
    if (answer < 1 || answer > 3 || (answer == 1 && request.find(listed) == std::string::npos)) {
        __builtin_trap();
    }
    return 0;
}
