#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <ctime>
#include <list>
#include <string>
#include <vector>

#include <json/json.h>

#include "Framework/Event.h"
#include "Framework/Task.h"

namespace Engine {

/// The module's one task and the owner of all its run-time state.
///
/// Init reads the policy and switches the second factor on: the PAM module
/// copies, the PAM include file and sshd's PAM service file, keyboard-
/// interactive authentication in sshd_config and an sshd restart. Unless the
/// policy says `local` is 1 it then serves the PAM module over an abstract
/// datagram socket, answering contact checks and code requests from the
/// verification service. UnInit switches everything off again.
///
/// Everything runs on the framework's threads for Init/UnInit and on the
/// task's own thread for Run and the socket events; the task takes no locks.
/// Members are public so that the host's diagnostics and tests can reach the
/// individual steps; only the task itself writes its fields.
class TwoFactorAuthenticationTask : public Framework::Task {
public:
    TwoFactorAuthenticationTask();
    /// Destroys the IPC event; leaves the socket open (see UnInit).
    ~TwoFactorAuthenticationTask() override;

    // Lifecycle, driven by the framework.

    /// Switches the second factor on; the framework's result, or -1.
    int Init() override;
    /// Switches everything off; keeps the socket open and registered so that
    /// a later Init reuses it.
    void UnInit() override;
    /// Serves socket events and framework messages until cancelled; -1 at once
    /// when the second factor is not switched on.
    int Run() override;
    /// Copies the framework's current policy into the task; false when there is none.
    bool GetPolicy();
    /// Removes temporary files that an interrupted replacement of one of the
    /// task's files left behind.
    void RemoveStaleTemporaries();

    // PAM IPC server.

    /// Creates, configures and binds the abstract datagram socket.
    bool CreateIPC();
    /// Closes the socket when it is open (descriptor above 0).
    void CloseSocket();
    /// Receives and answers one request; 0 when dispatched, -1 when invalid or unreadable.
    int SocketEventAction(int fd, unsigned int events, void* data);
    /// Sends `result` as decimal text plus NUL to `addr`, without waiting.
    void SendResponse(const struct sockaddr_un& addr, unsigned int addrLen, int result);
    /// Logs, at most once a second, a request from a sender other than root.
    void RefuseSender(const struct ucred& sender);

    // sshd_config line editing and switching.

    /// Whether `line` is exactly the two fields `key` and `value`.
    bool IsHasKeyLine(const std::string& line, const std::string& key, const std::string& value);
    /// -2 file unreadable, -1 neither "key yes" nor "key no", 0 one kind, 1 both.
    int IsHasTwoKeyLine(const std::string& key);
    /// Appends the replacement of one trimmed line, and "\n", to `output`.
    void ModifySshdLine(const std::string& line, const std::string& key, int keyLineState, bool switchOn,
                        std::string& output);
    /// False when sshd does not use PAM, refuses passwords or permits empty ones.
    bool IsUsePamAndPwdAuth();
    /// Switches challenge-response (or keyboard-interactive) authentication and restarts sshd.
    bool SwitchSshdConfig(bool switchOn);
    /// Runs the installation's sshd restart script.
    bool RestartSsh();

    // PAM include file, service file, module installation and activation.

    /// The arguments that follow pam_brackmoor.so on its include-file line.
    std::string GenerateParameters();
    /// Writes the include file from the system stack `originName`.
    bool GeneratePamBm(const std::string& originName);
    /// Rewrites a pam_unix auth line with control "required"; true when its third field was dropped.
    bool ReplaceSufficientToRequired(const std::string& line, std::string& out);
    /// Points sshd's PAM service file at the include file (on) or back (off).
    bool SwitchAuth(bool on);
    /// Rewrites one line of the service file; false to stop reading.
    bool Handline(std::string& line, bool on, int& switchState, std::string& output);
    /// 0 rewritten, 1 already switched, 2 nothing rewritten, -1 failure.
    int EnableAuth(const std::string& line, std::string& commentedLine, std::string& newLine);
    /// Flags: 1 the added include line, 2 a commented original restored.
    int DisableAuth(const std::string& line, std::string& restoredLine);
    /// The whole activation with its roll-backs.
    bool OpenPam();
    /// Installs the PAM module into every existing system module directory.
    bool CopyAuthModule();
    /// Removes the installed copies.
    void DeleteAuthModule();

    // Verification service client.

    /// 1 listed, 2 not listed, 3 could not check.
    int VerifyCommMode(const std::string& commMode);
    /// Fetches the contact hashes; true when a non-empty list was stored.
    bool RefreshCommList();
    /// Reads a service response; with `wantCode` also its verification code.
    bool ParseResponseBody(const std::string& body, bool wantCode, int* code);
    /// Replaces the cached list from a "comm_list" array.
    bool ParseCommList(const Json::Value& list);
    /// The code the service issued for `randomNum`, or 3.
    int GetVerificationCode(const std::string& randomNum);

    // State (initial values as the constructor sets them).

    int refreshTime = 301;  ///< contact list lifetime in seconds; from the policy
    int echo = 1;           ///< PAM module argument; from the policy
    int local = 1;          ///< 1: no IPC server; from the policy
    std::vector<std::string> excludeUserList;  ///< from the policy
    bool authEnabled = false;    ///< the second factor is switched on
    bool ipcRegistered = false;  ///< ipcEvent is in the event waiter
    std::string pamDir = "/etc/pam.d/";
    std::string sshdConfigPath = "/etc/ssh/sshd_config";
    std::string pamSshdPath = "/etc/pam.d/sshd";
    std::string pamIncludePath = "/etc/pam.d/brackmoor-auth";
    std::list<std::string> installedModulePaths;  ///< PAM module copies made by CopyAuthModule
    int socketFd = -1;                             ///< IPC socket, -1 when closed
    Framework::Event* ipcEvent = nullptr;          ///< owned; watches socketFd
    time_t commListUpdateTime = 0;                 ///< when commList was filled; 0 never
    std::vector<std::string> commList;             ///< permitted contact hashes
    time_t refusedSenderLogTime = 0;               ///< when a foreign sender was last logged
};

} // namespace Engine
