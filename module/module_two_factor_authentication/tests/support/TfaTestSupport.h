#pragma once
// Support shared by the module's suites.
#include <poll.h>
#include <sys/un.h>

#include <Poco/SHA2Engine.h>
#include <gmock/gmock.h>

#include "Framework/ConfigManager.h"
#include "SDK/HttpUtils.h"
#include "TestSupport/CapturingChannel.h"
#include "TestSupport/HttpsTestServer.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/TestCertificates.h"
#include "TwoFactorAuthenticationLog.h"
#include "TwoFactorAuthenticationTask.h"

namespace TfaTest {

using Records = std::vector<std::string>;
using TestSupport::ReadWholeFile;
using ::testing::Contains;
namespace fs = std::filesystem;

inline void Configure(const std::string& key, const std::string& value)
{
    Framework::ConfigManager::GetInstance()->Set(key, value);
}

/// Writes `text` to `path`, creating missing parent directories.
inline void WriteText(const std::string& path, const std::string& text)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::trunc | std::ios::binary) << text;
}

/// Keeps everything the module logs, debug included, from its construction on.
class LogCapture {
public:
    /// `root`: a directory that reads "ROOT" in Records(), so that expected texts stay fixed.
    explicit LogCapture(std::string hidden = "") : root(std::move(hidden))
    {
        logger.setChannel(channel);
        logger.setLevel(Poco::Message::PRIO_TRACE);
    }
    /// Every record as "<priority letter> <text>" ("E", "W", "I", "D"), with " (no source)"
    /// when it lacks the base name of its source file and a line.
    TfaTest::Records Records() const
    {
        TfaTest::Records records;
        for (const Poco::Message& message : channel->Messages()) {
            std::string text = message.getText(), file = message.getSourceFile() ? message.getSourceFile() : "/";
            for (size_t at = 0; !root.empty() && (at = text.find(root, at)) != std::string::npos;) {
                text.replace(at, root.size(), "ROOT");
            }
            const bool located = file.find('/') == std::string::npos && message.getSourceLine() > 0;
            records.push_back("?FCEWNIDT"[message.getPriority()] + (" " + text) + (located ? "" : " (no source)"));
        }
        return records;
    }
    void Clear() { channel->Clear(); }

private:
    std::string root;
    Poco::Logger& logger = *Engine::TwoFactorAuthentication::GetLoggerPtr();
    TestSupport::CapturingChannel::Ptr channel{new TestSupport::CapturingChannel};
};

/// The agent's installation path while it lives (never the default one, whose
/// script would restart this machine's sshd): a PAM module file and a restart
/// script that counts its runs and fails, which the task ignores.
struct StandInInstallation {
    /// `module`: the file installed as module/pam_brackmoor.so; a line of text when empty.
    explicit StandInInstallation(const std::string& module = "")
    {
        WriteText(dir.File("module/pam_brackmoor.so"), module.empty() ? "stand-in\n" : ReadWholeFile(module));
        WriteText(dir.File("sudobin/sshrestart.sh"), "#!/bin/sh\necho >> " + dir.File("restarts") + "\nexit 3\n");
        fs::permissions(dir.File("sudobin/sshrestart.sh"), fs::perms::owner_exec, fs::perm_options::add);
        Configure("agent.installation_path", dir.Path() + "/");
    }
    ~StandInInstallation() { Configure("agent.installation_path", ""); }
    long Restarts() const
    {
        const std::string runs = ReadWholeFile(dir.File("restarts"));
        return std::count(runs.begin(), runs.end(), '\n');
    }
    TestSupport::TempDir dir;
};

/// A task on files in a fresh temporary directory, ROOT/sshd_config and
/// ROOT/pam.d/{sshd,brackmoor-auth} (the layout of distributions/ and the
/// corpus), a stand-in installation, and the module log.
class TaskInTempDir : public ::testing::Test {
protected:
    TaskInTempDir() { NewTask(); }
    void NewTask()
    {
        task = std::make_unique<Engine::TwoFactorAuthenticationTask>();
        task->pamDir = root.File("pam.d/");
        task->sshdConfigPath = root.File("sshd_config");
        task->pamSshdPath = root.File("pam.d/sshd");
        task->pamIncludePath = root.File("pam.d/brackmoor-auth");
    }

    TestSupport::TempDir root;
    StandInInstallation installation;
    std::unique_ptr<Engine::TwoFactorAuthenticationTask> task;
    LogCapture log{root.Path()};
};

/// The verification service, a real HTTPS server on loopback with its own CA,
/// and the agent's configuration pointed at it (token file read per request).
struct VerificationService {
    VerificationService()
    {
        dir.Write("token", "token-1\n", 0600);
        Configure("agent.id", "agent-7f3a");
        Configure("service.address", server.Address());
        Configure("service.ca_file", certificates.CaFile());
        Configure("service.auth_token_file", dir.File("token"));
        SDK::HttpUtils::GetInstance()->Reset();  // its client context may trust an earlier object's CA
    }
    /// Queues the answer to the next request to `path` ("/tfa_phone_num" or "/tfa_code").
    void Answer(const std::string& path, int code, const std::string& text) { server.Queue(path, {code, text}); }

    TestSupport::TempDir dir;
    TestSupport::TestCertificates certificates{dir.Path()};
    TestSupport::HttpsTestServer server{certificates.ServerCertFile(), certificates.ServerKeyFile()};
    std::string error = certificates.Error();  ///< empty, or why the service could not start
    const bool started = error.empty() && server.Start(error);
};

/// Lower-case hex SHA-256, made apart from the code under test: the form in
/// which the service publishes contacts.
inline std::string Sha256Hex(const std::string& text)
{
    Poco::SHA2Engine engine(Poco::SHA2Engine::SHA_256);
    engine.update(text);
    return Poco::DigestEngine::digestToHex(engine.digest());
}

/// {"comm_list":[...entries...]} plus `more` (further members as JSON text).
inline std::string ListJson(const std::vector<std::string>& entries, const std::string& more = "")
{
    std::string json;
    for (const std::string& entry : entries) {
        json += (json.empty() ? "\"" : ",\"") + entry + "\"";
    }
    return "{\"comm_list\":[" + json + "]" + (more.empty() ? "" : "," + more) + "}";
}

/// A client of the task's datagram server, as the PAM module is one, bound to
/// an abstract name the kernel picks. The server's address is spelt out apart
/// from the server: a NUL, 24 characters and a NUL, 28 bytes with the family.
struct IpcClient {
    static constexpr socklen_t kServerLength = 28;
    static constexpr struct sockaddr_un kServer = {AF_UNIX, "\0PAM_BRACKMOOR_IPC_SERVER"};

    IpcClient() { bind(fd, reinterpret_cast<const struct sockaddr*>(&kServer), sizeof(sa_family_t)); }
    ~IpcClient() { close(fd); }
    /// Sends `datagram` byte for byte; 0 or errno. A shorter `length` names another server.
    int Send(const std::string& datagram, socklen_t length = kServerLength) const
    {
        const auto* to = reinterpret_cast<const struct sockaddr*>(&kServer);
        return sendto(fd, datagram.data(), datagram.size(), 0, to, length) < 0 ? errno : 0;
    }
    /// The next reply with all its bytes, or "<none>" after five seconds.
    std::string Receive() const
    {
        struct pollfd ready = {fd, POLLIN, 0};
        char reply[64];
        const ssize_t n = poll(&ready, 1, 5000) == 1 ? recv(fd, reply, sizeof(reply), 0) : -1;
        return n < 0 ? "<none>" : std::string(reply, static_cast<size_t>(n));
    }
    std::string Ask(const std::string& datagram) const { return Send(datagram) == 0 ? Receive() : "<not sent>"; }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

} // namespace TfaTest
