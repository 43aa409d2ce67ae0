#include "TwoFactorAuthenticationTask.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <new>

#include "Framework/ConfigManager.h"
#include "SDK/CryptoCodeUtils.h"
#include "SDK/DirUtils.h"
#include "SDK/ExecuteCmdUtils.h"
#include "SDK/FileUtils.h"
#include "SDK/HttpUtils.h"
#include "SDK/JsonUtils.h"
#include "SDK/PathUtils.h"
#include "SDK/SafeString.h"
#include "SDK/StrUtils.h"
#include "TwoFactorAuthenticationLog.h"
#include "TwoFactorAuthenticationNames.h"
#include "TwoFactorAuthenticationPamLine.h"
#include "TwoFactorAuthenticationPolicy.h"

namespace Engine {

// HTTP names shared by the service calls.
static const std::string http_content_type_binary = "binary/octet-stream";
static const std::string http_header_auth_token = "X-Auth-Token";
static const std::string http_header_content_type = "Content-Type";
static const std::string http_header_accept_type = "Accept-Type";
static const std::string http_content_type_json = "application/json; charset=utf-8";
static const std::string http_scheme = "http://";
static const std::string https_scheme = "https://";
static const std::string http_method_get = "GET";
static const std::string http_method_post = "POST";
static const std::string http_method_put = "PUT";
static const std::string http_method_delete = "DELETE";
static const std::string http_param_agent_id = "agent_id";

// ---------------------------------------------------------------------------
// Construction and lifecycle
// ---------------------------------------------------------------------------

TwoFactorAuthenticationTask::TwoFactorAuthenticationTask()
    : Framework::Task(two_factor_authentication_task, two_factor_authentication_feature,
                      Framework::TaskCondition::TASK_TYPE_RESIDENT, 1024)
{
}

TwoFactorAuthenticationTask::~TwoFactorAuthenticationTask()
{
    commList.clear();
    // The event owns its callback; the socket itself stays open on purpose.
    delete ipcEvent;
    ipcEvent = nullptr;
}

bool TwoFactorAuthenticationTask::GetPolicy()
{
    auto* featurePolicy = dynamic_cast<TwoFactorAuthenticationPolicy*>(CurrentPolicy());
    if (featurePolicy == nullptr) {
        TFA_LOG_ERROR("Two factor authentication policy is empty, task(%s) init failed.",
                      two_factor_authentication_task);
        return false;
    }
    refreshTime = featurePolicy->GetRefreshTime();
    echo = featurePolicy->GetEcho();
    local = featurePolicy->GetLocal();
    excludeUserList = featurePolicy->GetExcludeUserList();
    TFA_LOG_INFO("Two factor authentication policy refresh time(%d), echo(%d), local(%d), exclude user list size(%z)",
                 refreshTime, echo, local, excludeUserList.size());
    return true;
}

int TwoFactorAuthenticationTask::Init()
{
    TFA_LOG_INFO("Task(%s) init.", two_factor_authentication_task);
    RemoveStaleTemporaries();
    if (!GetPolicy()) {
        return -1;
    }
    authEnabled = true;
    if (!OpenPam()) {
        return -1;
    }

    if (local != 1 && !ipcRegistered) {
        if (!CreateIPC()) {
            TFA_LOG_ERROR("Create ipc failed, two-factor authentication cannot be used.");
            if (!SwitchAuth(false)) {
                // The service file may still name the include file and the
                // module: leave them where they are.
                TFA_LOG_ERROR("Switch off auth config failed.");
                authEnabled = false;
                return -1;
            }
            SDK::FileUtils::DeleteFile(pamIncludePath);
            DeleteAuthModule();
            if (!SwitchSshdConfig(false)) {
                TFA_LOG_ERROR("Switch off sshd challenge config failed.");
            }
            authEnabled = false;
            return -1;
        }
        auto* callback = new (std::nothrow) Framework::EventCallback<TwoFactorAuthenticationTask>(
            this, &TwoFactorAuthenticationTask::SocketEventAction);
        auto* socketEvent = new (std::nothrow) Framework::Event(callback, nullptr, socketFd);
        delete ipcEvent;
        ipcEvent = socketEvent;
        if (ipcEvent != nullptr) {
            eventWaiter.AddEvent(*ipcEvent);
        }
        ipcRegistered = true;
    }
    return Framework::Task::Init();
}

int TwoFactorAuthenticationTask::Run()
{
    TFA_LOG_INFO("Task(%s) run.", two_factor_authentication_task);
    if (!authEnabled) {
        return -1;
    }
    // All waiting happens in the event waiter; a quiet pass drains messages.
    while (state() != Poco::Task::TASK_CANCELLING) {
        if (eventWaiter.WaitAndHandleEvent(100, 128) == -1) {
            BulkConsumeMsg(128);
        }
    }
    return 0;
}

void TwoFactorAuthenticationTask::UnInit()
{
    if (authEnabled) {
        if (!SwitchAuth(false)) {
            TFA_LOG_ERROR("Switch off auth config failed.");
        } else {
            SDK::FileUtils::DeleteFile(pamIncludePath);
            DeleteAuthModule();
            if (!SwitchSshdConfig(false)) {
                TFA_LOG_ERROR("Switch off sshd challenge config failed.");
            }
        }
        commListUpdateTime = 0;
        commList.clear();
    }
    Framework::Task::UnInit();
    TFA_LOG_INFO("Task(%s) uninit.", two_factor_authentication_task);
}

// ---------------------------------------------------------------------------
// PAM IPC server
// ---------------------------------------------------------------------------

namespace {

// The PAM module addresses the server by this abstract name. The leading "@"
// is replaced by NUL, and the literal's own terminating NUL belongs to the
// name: 26 bytes of sun_path, 28 bytes of address in all.
const char ipc_server_name[] = "@PAM_BRACKMOOR_IPC_SERVER";
const socklen_t ipc_server_addr_len = 28;
static_assert(offsetof(struct sockaddr_un, sun_path) + sizeof(ipc_server_name) == ipc_server_addr_len,
              "the abstract name is sun_family plus 26 bytes");

// Longest request read; the last byte of the buffer is always forced to NUL.
const size_t ipc_request_buffer_size = 256;
// "-2147483648" and its NUL.
const size_t ipc_reply_buffer_size = 12;
// Bounds the blocking socket calls themselves, not the service calls behind them.
const time_t ipc_socket_timeout_seconds = 10;

// Request types of the PAM module.
const int ipc_request_check_contact = 1;
const int ipc_request_verification_code = 2;
// Reply to every request that cannot be answered.
const int ipc_reply_failure = 3;

// recvfrom with the sender's credentials, which SO_PASSCRED makes the kernel
// attach; `sender` keeps its values when none came.
ssize_t ReceiveRequest(int fd, char* buffer, size_t size, struct sockaddr_un& client, socklen_t& clientLen,
                       struct ucred& sender)
{
    struct iovec data = {buffer, size};
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(struct ucred))];
    struct msghdr message;
    std::memset(&message, 0, sizeof(message));
    message.msg_name = &client;
    message.msg_namelen = clientLen;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t received = recvmsg(fd, &message, 0);
    clientLen = message.msg_namelen;
    if (received > 0) {
        for (struct cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
            if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS &&
                c->cmsg_len >= CMSG_LEN(sizeof(struct ucred))) {
                std::memcpy(&sender, CMSG_DATA(c), sizeof(sender));
            }
        }
    }
    return received;
}

} // namespace

bool TwoFactorAuthenticationTask::CreateIPC()
{
    socketFd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (socketFd == -1) {
        const int error = errno;
        TFA_LOG_ERROR("Create socket failed, errno(%d).", error);
        return false;
    }
    // Not fatal: at worst a command the agent starts inherits the socket.
    if (fcntl(socketFd, F_SETFD, FD_CLOEXEC) == -1) {
        const int error = errno;
        TFA_LOG_ERROR("Set socket FD_CLOEXEC failed, errno(%d).", error);
    }
    const int reuse = 1;
    if (setsockopt(socketFd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse)) != 0) {
        const int error = errno;
        TFA_LOG_ERROR("Set SO_REUSEADDR failed, errno(%d).", error);
        CloseSocket();
        return false;
    }
    struct timeval timeout = {ipc_socket_timeout_seconds, 0};
    if (setsockopt(socketFd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout)) != 0) {
        const int error = errno;
        TFA_LOG_ERROR("Set send timeout failed, errno(%d).", error);
        CloseSocket();
        return false;
    }
    if (setsockopt(socketFd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) != 0) {
        const int error = errno;
        TFA_LOG_ERROR("Set recv timeout failed, errno(%d).", error);
        CloseSocket();
        return false;
    }
    // The kernel then attaches the sender's credentials to every request, so
    // that only the PAM module inside sshd (root) is answered.
    if (setsockopt(socketFd, SOL_SOCKET, SO_PASSCRED, &reuse, sizeof(reuse)) != 0) {
        const int error = errno;
        TFA_LOG_ERROR("Set SO_PASSCRED failed, errno(%d).", error);
        CloseSocket();
        return false;
    }

    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    strcpy_s(addr.sun_path, sizeof(addr.sun_path), ipc_server_name);
    addr.sun_path[0] = '\0';
    if (bind(socketFd, reinterpret_cast<const struct sockaddr*>(&addr), ipc_server_addr_len) != 0) {
        const int error = errno;
        TFA_LOG_ERROR("Bind addr failed, errno(%d).", error);
        CloseSocket();
        return false;
    }
    TFA_LOG_INFO("Create IPC success.");
    return true;
}

void TwoFactorAuthenticationTask::CloseSocket()
{
    // Descriptor 0 is never ours to close.
    if (socketFd > 0) {
        if (close(socketFd) == 0) {
            socketFd = -1;
        } else {
            const int error = errno;
            TFA_LOG_ERROR("Close socket(%d) failed, errno(%d).", socketFd, error);
        }
    }
}

int TwoFactorAuthenticationTask::SocketEventAction(int, unsigned int, void*)
{
    TFA_LOG_INFO("Recv client msg.");

    char buffer[ipc_request_buffer_size] = {0};
    // Deliberately not cleared: after a failed receive the reply goes to
    // whatever the kernel left here, and a failed send is merely logged.
    struct sockaddr_un client;
    socklen_t clientLen = sizeof(client);
    struct ucred sender = {0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
    const ssize_t received = ReceiveRequest(socketFd, buffer, sizeof(buffer), client, clientLen, sender);
    if (received <= 0) {
        const int error = errno;
        TFA_LOG_ERROR("Recv client msg failed, errno(%d).", error);
        SendResponse(client, clientLen, ipc_reply_failure);
        return -1;
    }
    // Any local user can reach an abstract socket. Answering others would
    // tell which contacts are registered and let them use up the service's
    // code limit; only sshd's PAM module, which runs as root, is served.
    if (sender.uid != 0) {
        RefuseSender(sender);
        SendResponse(client, clientLen, ipc_reply_failure);
        return -1;
    }
    buffer[sizeof(buffer) - 1] = '\0';
    const std::string message(buffer);
    TFA_LOG_DEBUG("Recv client msg is (%s).", message);

    std::vector<std::string> pieces;
    SDK::StrUtils::Split(message, ":", pieces);
    const int type = pieces.size() == 2 ? atoi(pieces[0].c_str()) : 0;
    int result = ipc_reply_failure;
    if (type == ipc_request_check_contact) {
        result = VerifyCommMode(pieces[1]);
    } else if (type == ipc_request_verification_code) {
        result = GetVerificationCode(pieces[1]);
    } else {
        TFA_LOG_ERROR("Recv client msg(%s) invalid.", message);
        SendResponse(client, clientLen, ipc_reply_failure);
        return -1;
    }
    SendResponse(client, clientLen, result);
    return 0;
}

void TwoFactorAuthenticationTask::RefuseSender(const struct ucred& sender)
{
    // A flood of foreign requests must not flood the log as well.
    const time_t now = time(nullptr);
    if (now == refusedSenderLogTime) {
        return;
    }
    refusedSenderLogTime = now;
    TFA_LOG_WARNING("Refuse client msg from uid(%d), pid(%d): only root is served.", static_cast<int>(sender.uid),
                    static_cast<int>(sender.pid));
}

void TwoFactorAuthenticationTask::SendResponse(const struct sockaddr_un& addr, unsigned int addrLen, int result)
{
    // The reply is the decimal text with its NUL: the PAM module reads a C string.
    char reply[ipc_reply_buffer_size] = {0};
    if (sprintf_s(reply, sizeof(reply), "%d", result) <= 0) {
        TFA_LOG_ERROR("An error occurred when formatting the string.");
        return;
    }
    // Never waits: a client that does not read its replies must not hold up
    // the logins queued behind it. A reply that cannot be queued is dropped.
    const ssize_t sent = sendto(socketFd, reply, std::strlen(reply) + 1, MSG_DONTWAIT,
                                reinterpret_cast<const struct sockaddr*>(&addr), addrLen);
    if (sent <= 0) {
        const int error = errno;
        TFA_LOG_ERROR("Send response failed, errno(%d).", error);
    }
}

// ---------------------------------------------------------------------------
// sshd_config line editing and switching
// ---------------------------------------------------------------------------

namespace {

// Configuration lines are cut into fields at blanks and tabs.
const std::string field_separators = " \t";

const std::string sshd_key_challenge = "ChallengeResponseAuthentication";
const std::string sshd_key_kbd_interactive = "KbdInteractiveAuthentication";
const std::string sshd_restart_script = "sudobin/sshrestart.sh";

bool StartsWith(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

// `path` = the agent's installation directory followed by `relative`. The
// restart and the module installation share the failure message word for
// word (it names the copy even for the restart) so that one search finds both.
bool InstallationFilePath(const std::string& relative, std::string& path)
{
    std::string installation;
    if (SDK::PathUtils::GetInstallationPath(installation) != 0) {
        TFA_LOG_ERROR("Get install path failed, copy auth module failed.");
        return false;
    }
    path = installation + relative;
    return true;
}

// Replaces the file with `text` so that sshd and PAM only ever read the whole
// old or the whole new file (see FileUtils::ReplaceFile), whatever happens to
// the agent meanwhile. A file that cannot be replaced is logged, with errno,
// in the caller's words and counts as the step's failure: the original stays.
bool ReplaceConfigFile(const std::string& path, const std::string& text, const char* openFailure,
                       const char* writeFailure)
{
    const SDK::FileUtils::ReplaceResult result = SDK::FileUtils::ReplaceFile(path, text);
    if (result == SDK::FileUtils::REPLACE_OK) {
        return true;
    }
    const int replaceErrno = errno;
    TFA_LOG_ERROR(result == SDK::FileUtils::REPLACE_OPEN_FAILED ? openFailure : writeFailure, path, replaceErrno);
    return false;
}

} // namespace

bool TwoFactorAuthenticationTask::IsHasKeyLine(const std::string& line, const std::string& key,
                                               const std::string& value)
{
    std::vector<std::string> fields;
    SDK::StrUtils::Split(line, field_separators, fields);
    return fields.size() == 2 && fields[0] == key && fields[1] == value;
}

int TwoFactorAuthenticationTask::IsHasTwoKeyLine(const std::string& key)
{
    std::ifstream file(sshdConfigPath);
    if (!file.is_open()) {
        const int openErrno = errno;
        TFA_LOG_ERROR("Open sshd config file(%s) failed, errno(%d).", sshdConfigPath, openErrno);
        return -2;
    }
    bool hasYes = false;
    bool hasNo = false;
    std::string line;
    while (std::getline(file, line)) {
        if (line.empty()) {
            continue;
        }
        SDK::StrUtils::Trim(line);
        // A commented line counts too: it is the counterpart that a switch
        // turns on by removing its one "#".
        if (StartsWith(line, "#")) {
            line.erase(0, 1);
        }
        if (IsHasKeyLine(line, key, "yes")) {
            hasYes = true;
        }
        if (IsHasKeyLine(line, key, "no")) {
            hasNo = true;
        }
    }
    file.close();
    if (hasYes && hasNo) {
        return 1;
    }
    return (hasYes || hasNo) ? 0 : -1;
}

void TwoFactorAuthenticationTask::ModifySshdLine(const std::string& line, const std::string& key, int keyLineState,
                                                 bool switchOn, std::string& output)
{
    std::string body = line;
    if (StartsWith(body, "#")) {
        body.erase(0, 1);
    }
    // keyLineState 0: only one kind of key line exists, so the first switch
    // adds its counterpart right below it; later switches only move the "#".
    const bool addCounterpart = keyLineState == 0;
    std::string result = line;
    if (IsHasKeyLine(body, key, "yes")) {
        result = switchOn ? body : "#" + body;
        if (addCounterpart) {
            result += (switchOn ? "\n#" : "\n") + key + " no";
        }
    }
    if (IsHasKeyLine(body, key, "no")) {
        result = switchOn ? "#" + body : body;
        if (addCounterpart) {
            result += (switchOn ? "\n" : "\n#") + key + " yes";
        }
    }
    output += result;
    output += "\n";
}

bool TwoFactorAuthenticationTask::IsUsePamAndPwdAuth()
{
    std::ifstream file(sshdConfigPath);
    if (!file.is_open()) {
        const int openErrno = errno;
        TFA_LOG_ERROR("Open sshd config file(%s) failed, errno(%d).", sshdConfigPath, openErrno);
        return false;
    }
    // Only active global-looking lines count; an absent keyword means sshd's
    // default, which is acceptable. Match blocks are not understood: a failing
    // line inside one fails the check as well, which errs on the safe side.
    std::string line;
    std::vector<std::string> fields;
    while (std::getline(file, line)) {
        if (line.empty()) {
            continue;
        }
        SDK::StrUtils::Trim(line);
        if (StartsWith(line, "#")) {
            continue;
        }
        SDK::StrUtils::Split(line, field_separators, fields);
        if (fields.size() != 2) {
            continue;
        }
        if ((fields[0] == "UsePAM" && fields[1] == "no") ||
            (fields[0] == "PasswordAuthentication" && fields[1] == "no") ||
            (fields[0] == "PermitEmptyPasswords" && fields[1] == "yes")) {
            file.close();
            return false;
        }
    }
    file.close();
    return true;
}

bool TwoFactorAuthenticationTask::SwitchSshdConfig(bool switchOn)
{
    // Exactly one keyword is edited: the older name when the file has it in
    // any form, otherwise the newer one. A keyword without any line is never
    // added, so a file with neither fails the switch.
    std::string key = sshd_key_challenge;
    int state = IsHasTwoKeyLine(key);
    if (state == -2) {
        return false;
    }
    if (state == -1) {
        TFA_LOG_INFO("No (%s) config.", key);
        key = sshd_key_kbd_interactive;
        state = IsHasTwoKeyLine(key);
        if (state == -2) {
            return false;
        }
        if (state == -1) {
            TFA_LOG_INFO("No (%s) config.", key);
            return false;
        }
    }

    std::ifstream input(sshdConfigPath);
    if (!input.is_open()) {
        const int openErrno = errno;
        TFA_LOG_ERROR("Open sshd config file(%s) failed, errno(%d).", sshdConfigPath, openErrno);
        return false;
    }
    std::string output;
    std::string line;
    while (std::getline(input, line)) {
        if (line.empty()) {
            output += "\n";
            continue;
        }
        SDK::StrUtils::Trim(line);
        ModifySshdLine(line, key, state, switchOn, output);
    }
    input.close();

    if (!ReplaceConfigFile(sshdConfigPath, output, "Open sshd config file(%s) failed, errno(%d).",
                           "Write sshd config file(%s) failed, errno(%d).")) {
        return false;
    }
    return RestartSsh();
}

bool TwoFactorAuthenticationTask::RestartSsh()
{
    std::string command;
    if (!InstallationFilePath(sshd_restart_script, command)) {
        return false;
    }
    // The script validates the configuration before it touches sshd; its
    // outcome is not ours to judge, so result and output are ignored.
    std::string output;
    SDK::ExecuteCmdUtils::ExecuteCmd(command, output, 4096);
    return true;
}

// ---------------------------------------------------------------------------
// PAM include file generation
// ---------------------------------------------------------------------------

namespace {

const std::string pam_unix_module = "pam_unix.so";

} // namespace

std::string TwoFactorAuthenticationTask::GenerateParameters()
{
    return PamLine::FormatArguments(refreshTime, echo, local, excludeUserList);
}

bool TwoFactorAuthenticationTask::ReplaceSufficientToRequired(const std::string& line, std::string& out)
{
    std::vector<std::string> fields;
    SDK::StrUtils::Split(line, field_separators, fields);
    bool dropped = false;
    for (size_t i = 0; i < fields.size(); ++i) {
        // The blank goes in before the field is looked at, so a dropped third
        // field leaves two blanks behind; the PAM parser does not mind.
        if (!out.empty()) {
            out += " ";
        }
        const size_t number = i + 1;
        if (number == 2) {
            out += "required";
        } else if (number == 3) {
            // A third field that is not the module is the second word of a
            // bracketed control such as "[success=1 default=ignore]".
            if (fields[i].find(pam_unix_module) != std::string::npos) {
                out += fields[i];
            } else {
                dropped = true;
            }
        } else {
            out += fields[i];
        }
    }
    return dropped;
}

bool TwoFactorAuthenticationTask::GeneratePamBm(const std::string& originName)
{
    const std::string originPath = pamDir + originName;
    std::ifstream input(originPath);
    if (!input.is_open()) {
        const int openErrno = errno;
        TFA_LOG_ERROR("Open origin pam config file(%s) failed, errno(%d).", originPath, openErrno);
        return false;
    }
    std::string output;
    bool inserted = false;
    std::string line;
    while (std::getline(input, line)) {
        if (line.empty()) {
            output += "\n";
            continue;
        }
        SDK::StrUtils::Trim(line);
        if (!inserted && StartsWith(line, "auth") && line.find(pam_unix_module, 4) != std::string::npos) {
            // pam_unix becomes "required" so that a right password alone no
            // longer ends the stack; our module follows it. Where pam_unix had
            // a "skip the next line" control, the stack below expects that
            // jump, so our line takes it over.
            std::string out;
            const bool dropped = ReplaceSufficientToRequired(line, out);
            out += "\n";
            out += dropped ? PamLine::skip_form : PamLine::sufficient_form;
            out += GenerateParameters();
            out += "\n";
            output += out;
            inserted = true;
            continue;
        }
        output += line;
        output += "\n";
    }
    input.close();

    // Without a pam_unix auth line there is nowhere to put the module; the
    // caller reports it. An include file of an earlier run stays untouched.
    if (!inserted) {
        return false;
    }
    return ReplaceConfigFile(pamIncludePath, output, "Open pam bm config file(%s) failed, errno(%d).",
                             "Write pam bm config file(%s) failed, errno(%d).");
}

// ---------------------------------------------------------------------------
// PAM service file switching
// ---------------------------------------------------------------------------

namespace {

const std::string pam_origin_password_auth = "password-auth";
const std::string pam_origin_common_auth = "common-auth";
const std::string pam_include_name = "brackmoor-auth";

bool IsOriginName(const std::string& name)
{
    return name == pam_origin_password_auth || name == pam_origin_common_auth;
}

} // namespace

bool TwoFactorAuthenticationTask::SwitchAuth(bool on)
{
    std::ifstream input(pamSshdPath);
    if (!input.is_open()) {
        const int openErrno = errno;
        TFA_LOG_ERROR("Open pam sshd config(%s) failed, errno(%d).", pamSshdPath, openErrno);
        return false;
    }
    int switchState = 0;
    std::string output;
    std::string line;
    while (std::getline(input, line)) {
        if (line.empty()) {
            output += "\n";
            continue;
        }
        if (!Handline(line, on, switchState, output)) {
            break;
        }
    }
    input.close();

    // Written back only when the whole file was recognised: switching on met
    // no abnormal or already switched include line, switching off found both
    // the commented original and the added line.
    if ((on && switchState == 0) || (!on && switchState == 3)) {
        return ReplaceConfigFile(pamSshdPath, output, "Open pam sshd config file(%s) failed, errno(%d).",
                                 "Write pam sshd config file(%s) failed, errno(%d).");
    }
    if (switchState == 1) {
        // Already in the wanted shape as far as can be told: the caller goes
        // on as if this call had made the switch.
        TFA_LOG_WARNING("Pam sshd config file has been modified.");
        return true;
    }
    return false;
}

bool TwoFactorAuthenticationTask::Handline(std::string& line, bool on, int& switchState, std::string& output)
{
    SDK::StrUtils::Trim(line);
    const size_t includePos = line.find("-auth");
    // Include lines name a stack ending in "-auth"; "-auth" at the very start
    // is PAM's "ignore if the module is missing" prefix, not such a name.
    if (includePos == std::string::npos || includePos < 2) {
        output += line + "\n";
        return true;
    }
    if (on) {
        // Only auth lines (substack/include style) and "@include" directives
        // pull in the auth stack; everything else, comments included, stays.
        if (!StartsWith(line, "@") && !StartsWith(line, "auth")) {
            output += line + "\n";
            return true;
        }
        std::string commentedLine;
        std::string newLine;
        switchState = EnableAuth(line, commentedLine, newLine);
        if (switchState == 1 || switchState == -1) {
            return false;
        }
        output += commentedLine + "\n";
        if (!newLine.empty()) {
            output += newLine + "\n";
        }
        return true;
    }
    if (switchState == 3) {
        output += line + "\n";
        return true;
    }
    std::string restoredLine;
    switchState |= DisableAuth(line, restoredLine);
    if ((switchState & 1) == 0) {
        output += (restoredLine.empty() ? line : restoredLine) + "\n";
    }
    // Once the added line is gone, later include lines are dropped until the
    // restore is complete; in the order switching on writes, nothing is.
    return true;
}

int TwoFactorAuthenticationTask::EnableAuth(const std::string& line, std::string& commentedLine, std::string& newLine)
{
    commentedLine = "#" + line;
    newLine.clear();
    std::vector<std::string> fields;
    SDK::StrUtils::Split(line, field_separators, fields);
    if (fields.size() >= 2 && fields.back() == pam_include_name) {
        return 1;
    }
    int result = 2;
    for (size_t i = 0; i < fields.size(); ++i) {
        const std::string& field = fields[i];
        // Split yields no empty fields today; should it ever, they are not
        // copied, while "last" still means the last element of the list.
        if (field.empty()) {
            continue;
        }
        if (!newLine.empty()) {
            newLine += "\t";
        }
        if (i + 1 < fields.size()) {
            newLine += field;
        } else if (IsOriginName(field)) {
            if (!GeneratePamBm(field)) {
                TFA_LOG_ERROR("Generate pam bm config file failed.");
                return -1;
            }
            newLine += pam_include_name;
            result = 0;
        } else {
            // An auth stack the module does not know how to wrap.
            TFA_LOG_ERROR("Pam sshd config abnormal.");
            return -1;
        }
    }
    return result;
}

int TwoFactorAuthenticationTask::DisableAuth(const std::string& line, std::string& restoredLine)
{
    restoredLine = line;
    std::vector<std::string> fields;
    SDK::StrUtils::Split(line, field_separators, fields);
    if (fields.empty() || fields.back().empty()) {
        return 0;
    }
    const std::string& last = fields.back();
    if (IsOriginName(last)) {
        if (StartsWith(line, "#")) {
            restoredLine = line.substr(1);
            return 2;
        }
        return 0;
    }
    if (last == pam_include_name) {
        restoredLine.clear();
        return 1;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// PAM module installation and activation
// ---------------------------------------------------------------------------

namespace {

// System PAM module directories, tried in this order; the module goes into
// every one that exists so that any architecture's sshd finds it.
const char* const pam_module_dirs[] = {
    "/lib/x86_64-linux-gnu/security/",
    "/lib/i386-linux-gnu/security/",
    "/lib64/security/",
    "/lib/security/",
    "/lib/aarch64-linux-gnu/security/",
};
const std::string pam_module_source = "module/pam_brackmoor.so";
const std::string pam_module_file = "pam_brackmoor.so";
const long pam_module_max_size = 10485760;
// Owner rwx, others r-x, group nothing: the installed mode of the module.
const mode_t pam_module_mode = 0705;

} // namespace

bool TwoFactorAuthenticationTask::OpenPam()
{
    if (!IsUsePamAndPwdAuth()) {
        TFA_LOG_ERROR("Not use pam or pwd auth or permit empty pwd, two-factor authentication cannot be used.");
        authEnabled = false;
        return false;
    }
    if (!CopyAuthModule()) {
        TFA_LOG_ERROR("Copy auth module failed, two-factor authentication cannot be used.");
        authEnabled = false;
        return false;
    }
    if (!SwitchAuth(true)) {
        TFA_LOG_ERROR("Switch on auth config failed, two-factor authentication cannot be used.");
        // The service file was not written, so nothing names the copies. The
        // include file may have been generated; it is left for the next run,
        // which writes it anew.
        DeleteAuthModule();
        authEnabled = false;
        return false;
    }
    if (SwitchSshdConfig(true)) {
        return true;
    }
    TFA_LOG_ERROR("Switch on sshd challenge config failed, two-factor authentication cannot be used.");
    if (SwitchAuth(false)) {
        SDK::FileUtils::DeleteFile(pamIncludePath);
        DeleteAuthModule();
    } else {
        // The service file may still include our file, which calls the
        // module: removing either would break every sshd login.
        TFA_LOG_ERROR("Switch off auth config failed.");
    }
    authEnabled = false;
    return false;
}

bool TwoFactorAuthenticationTask::CopyAuthModule()
{
    std::string source;
    if (!InstallationFilePath(pam_module_source, source)) {
        return false;
    }
    installedModulePaths.clear();
    bool anyInstalled = false;
    for (const char* dirText : pam_module_dirs) {
        const std::string dir = dirText;
        if (!SDK::DirUtils::IsDir(dir)) {
            continue;
        }
        const std::string destination = dir + pam_module_file;
        // CopyFile refuses a source above the bound and replaces the target
        // by rename, so an sshd that has the old copy loaded keeps a valid
        // file; the mode it gives is overridden right after.
        const int result = SDK::FileUtils::CopyFile(source, destination, pam_module_max_size);
        if (result != 0) {
            const int copyErrno = errno;
            TFA_LOG_ERROR("Copy pam module to (%s) failed, result(%d), errno(%d).", dir, result, copyErrno);
            continue;
        }
        if (chmod(destination.c_str(), pam_module_mode) == -1) {
            // The copy stays but is not recorded, so it is never removed by us.
            const int chmodErrno = errno;
            TFA_LOG_ERROR("Chmod file(%s) failed, errno(%d).", destination, chmodErrno);
            continue;
        }
        installedModulePaths.push_back(destination);
        TFA_LOG_INFO("Copy pam module to (%s) success.", dir);
        anyInstalled = true;
    }
    return anyInstalled;
}

void TwoFactorAuthenticationTask::RemoveStaleTemporaries()
{
    std::vector<std::string> paths = {sshdConfigPath, pamSshdPath, pamIncludePath};
    for (const char* dir : pam_module_dirs) {
        paths.push_back(dir + pam_module_file);
    }
    for (const std::string& path : paths) {
        const int removed = SDK::FileUtils::RemoveStaleTemporaries(path);
        if (removed > 0) {
            TFA_LOG_WARNING("Remove stale temporary files(%d) of (%s).", removed, path);
        }
    }
}

void TwoFactorAuthenticationTask::DeleteAuthModule()
{
    for (const std::string& path : installedModulePaths) {
        if (SDK::FileUtils::DeleteFile(path) != 0) {
            const int deleteErrno = errno;
            TFA_LOG_ERROR("Delete pam module(%s) failed, errno(%d).", path, deleteErrno);
        }
    }
    installedModulePaths.clear();
}

// ---------------------------------------------------------------------------
// Verification service client
// ---------------------------------------------------------------------------

namespace {

// The HTTP client puts the configured service endpoint in place of SERVICE_ADDRESS.
const std::string service_comm_list_url = https_scheme + "SERVICE_ADDRESS/tfa_phone_num";
const std::string service_vcode_url = https_scheme + "SERVICE_ADDRESS/tfa_code";
// Passed as the last argument of every service call.
const int http_status_ok = 200;
// Input bound for the contact hash.
const long comm_hash_max_input = 10240;
// Most contact hashes kept from one response.
const Json::ArrayIndex comm_list_max_size = 32;

// Contact check results.
const int comm_mode_listed = 1;
const int comm_mode_not_listed = 2;
const int comm_mode_unchecked = 3;
// Reply to a code request that did not produce a code.
const int vcode_failure = 3;

// Both service calls identify the agent the same way; the token is read
// anew for every request so that a rotated one takes effect at once.
std::map<std::string, std::string> ServiceParams()
{
    return {{http_param_agent_id, Framework::ConfigManager::GetInstance()->GetAgentId()}};
}

std::map<std::string, std::string> ServiceHeaders()
{
    return {{http_header_auth_token, Framework::CommAuthManager::GetInstance()->GetAuthToken()}};
}

// Age is measured either way, so a clock set backwards also makes the list old.
bool IsOlderThan(time_t now, time_t stamp, int maxAgeSeconds)
{
    const time_t age = now >= stamp ? now - stamp : stamp - now;
    return age > static_cast<time_t>(maxAgeSeconds);
}

} // namespace

int TwoFactorAuthenticationTask::VerifyCommMode(const std::string& commMode)
{
    // A list that could not be refreshed is never used: it may hold contacts
    // that were withdrawn since.
    if (IsOlderThan(time(nullptr), commListUpdateTime, refreshTime) && !RefreshCommList()) {
        return comm_mode_unchecked;
    }
    std::string hash;
    if (SDK::CryptoCodeUtils::GetStrSha256(commMode, hash, comm_hash_max_input) != 0) {
        TFA_LOG_ERROR("Compute comm hash failed.");
        return comm_mode_unchecked;
    }
    if (std::find(commList.begin(), commList.end(), hash) != commList.end()) {
        TFA_LOG_INFO("Input phone/mail correct");
        return comm_mode_listed;
    }
    TFA_LOG_INFO("Input phone/mail incorrect");
    return comm_mode_not_listed;
}

bool TwoFactorAuthenticationTask::RefreshCommList()
{
    std::map<std::string, std::string> responseHeaders;
    std::string responseBody;
    const int status = SDK::HttpUtils::GetInstance()->Get(service_comm_list_url, ServiceParams(), ServiceHeaders(),
                                                          responseHeaders, responseBody, http_status_ok);
    if (status != http_status_ok) {
        TFA_LOG_ERROR("Get comm list failed, http error code is (%d).", status);
        return false;
    }
    TFA_LOG_DEBUG("Get comm list success, response is (%s).", responseBody);
    return ParseResponseBody(responseBody, false, nullptr);
}

bool TwoFactorAuthenticationTask::ParseResponseBody(const std::string& body, bool wantCode, int* code)
{
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(body.c_str(), body.size(), root) != 0) {
        TFA_LOG_ERROR("Parse response(%s) failed.", body);
        return false;
    }
    Json::Value list;
    if (!SDK::JsonUtils::GetArrayValue(root, "comm_list", list)) {
        TFA_LOG_ERROR("Get comm_list failed, response is (%s).", body);
        return false;
    }
    // Every answer of the service carries the current list, code answers too.
    if (!ParseCommList(list)) {
        return false;
    }
    if (!wantCode) {
        return true;
    }
    std::string text = SDK::JsonUtils::GetStringValue(root, "verification_code", "");
    SDK::StrUtils::Trim(text);
    if (text.empty()) {
        TFA_LOG_ERROR("Response msg(%s) vcode invalid.", body);
        return false;
    }
    // The PAM module compares integers: leading zeros of the code do not survive.
    if (code != nullptr) {
        *code = atoi(text.c_str());
    }
    return true;
}

bool TwoFactorAuthenticationTask::ParseCommList(const Json::Value& list)
{
    Json::ArrayIndex count = list.isArray() ? list.size() : 0;
    if (count == 0) {
        TFA_LOG_WARNING("Comm list response is empty.");
        return false;
    }
    if (count > comm_list_max_size) {
        TFA_LOG_WARNING("Comm list response size(%d) is exceed limit.", static_cast<int>(count));
        count = comm_list_max_size;
    }
    commList.clear();
    for (Json::ArrayIndex i = 0; i < count; ++i) {
        if (!list[i].isString()) {
            continue;
        }
        std::string entry = list[i].asString();
        SDK::StrUtils::Trim(entry);
        commList.push_back(entry);
    }
    // Not stamped: the next contact check asks the service again.
    if (commList.empty()) {
        TFA_LOG_WARNING("Comm list response is empty.");
        return false;
    }
    commListUpdateTime = time(nullptr);
    return true;
}

int TwoFactorAuthenticationTask::GetVerificationCode(const std::string& randomNum)
{
    std::map<std::string, std::string> headers = ServiceHeaders();
    headers[http_header_content_type] = http_content_type_json;
    headers[http_header_accept_type] = http_content_type_json;

    Json::Value request(Json::objectValue);
    request["random_num"] = atoi(randomNum.c_str());
    const std::string requestBody = SDK::JsonUtils::JsonToString(request);

    std::map<std::string, std::string> responseHeaders;
    std::string responseBody;
    const int status = SDK::HttpUtils::GetInstance()->Post(service_vcode_url, ServiceParams(), headers, requestBody,
                                                           responseHeaders, responseBody, http_status_ok);
    if (status != http_status_ok) {
        TFA_LOG_ERROR("Get vcode failed, http error code(%d).", status);
        return vcode_failure;
    }
    TFA_LOG_DEBUG("Get vcode success, response is (%s).", responseBody);

    int code = vcode_failure;
    if (!ParseResponseBody(responseBody, true, &code)) {
        return vcode_failure;
    }
    TFA_LOG_INFO("Get vcode success.");
    return code;
}

} // namespace Engine
