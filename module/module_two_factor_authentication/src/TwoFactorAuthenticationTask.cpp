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
    auto* policy = dynamic_cast<TwoFactorAuthenticationPolicy*>(CurrentPolicy());
    if (policy == nullptr) {
        TFA_LOG_ERROR("Two factor authentication policy is empty, task(%s) init failed.",
                      two_factor_authentication_task);
        return false;
    }
    refreshTime = policy->GetRefreshTime();
    echo = policy->GetEcho();
    local = policy->GetLocal();
    excludeUserList = policy->GetExcludeUserList();
    TFA_LOG_INFO("Two factor authentication policy refresh time(%d), echo(%d), local(%d), exclude user list size(%z)",
                 refreshTime, echo, local, excludeUserList.size());
    return true;
}

int TwoFactorAuthenticationTask::Init()
{
    TFA_LOG_INFO("Task(%s) init.", two_factor_authentication_task);
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
        auto* event = new (std::nothrow) Framework::Event(callback, nullptr, socketFd);
        delete ipcEvent;
        ipcEvent = event;
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

// The PAM module addresses the server by this abstract name. The leading "@"
// is replaced by NUL, and the literal's own terminating NUL belongs to the
// name: 26 bytes of sun_path, 28 bytes of address in all.
static const char ipc_server_name[] = "@PAM_BRACKMOOR_IPC_SERVER";
static const socklen_t ipc_server_addr_len = 28;
static_assert(offsetof(struct sockaddr_un, sun_path) + sizeof(ipc_server_name) == ipc_server_addr_len,
              "the abstract name is sun_family plus 26 bytes");

// Longest request read; the last byte of the buffer is always forced to NUL.
static const size_t ipc_request_buffer_size = 256;
// "-2147483648" and its NUL.
static const size_t ipc_reply_buffer_size = 12;
// Bounds the blocking socket calls themselves, not the service calls behind them.
static const time_t ipc_socket_timeout_seconds = 10;

// Request types of the PAM module.
static const int ipc_request_check_contact = 1;
static const int ipc_request_verification_code = 2;
// Reply to every request that cannot be answered.
static const int ipc_reply_failure = 3;

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
    const ssize_t received = recvfrom(socketFd, buffer, sizeof(buffer), 0,
                                      reinterpret_cast<struct sockaddr*>(&client), &clientLen);
    if (received <= 0) {
        const int error = errno;
        TFA_LOG_ERROR("Recv client msg failed, errno(%d).", error);
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

void TwoFactorAuthenticationTask::SendResponse(const struct sockaddr_un& addr, unsigned int addrLen, int result)
{
    // The reply is the decimal text with its NUL: the PAM module reads a C string.
    char reply[ipc_reply_buffer_size] = {0};
    if (sprintf_s(reply, sizeof(reply), "%d", result) <= 0) {
        TFA_LOG_ERROR("An error occurred when formatting the string.");
        return;
    }
    const ssize_t sent = sendto(socketFd, reply, std::strlen(reply) + 1, 0,
                                reinterpret_cast<const struct sockaddr*>(&addr), addrLen);
    if (sent <= 0) {
        const int error = errno;
        TFA_LOG_ERROR("Send response failed, errno(%d).", error);
    }
}

// ---------------------------------------------------------------------------
// sshd_config line editing and switching
// ---------------------------------------------------------------------------

bool TwoFactorAuthenticationTask::IsHasKeyLine(const std::string&, const std::string&, const std::string&) { return false; }
int TwoFactorAuthenticationTask::IsHasTwoKeyLine(const std::string&) { return -2; }
void TwoFactorAuthenticationTask::ModifySshdLine(const std::string&, const std::string&, int, bool, std::string&) {}
bool TwoFactorAuthenticationTask::IsUsePamAndPwdAuth() { return false; }
bool TwoFactorAuthenticationTask::SwitchSshdConfig(bool) { return false; }
bool TwoFactorAuthenticationTask::RestartSsh() { return false; }

// ---------------------------------------------------------------------------
// PAM include file generation
// ---------------------------------------------------------------------------

std::string TwoFactorAuthenticationTask::GenerateParameters() { return std::string(); }
bool TwoFactorAuthenticationTask::GeneratePamBm(const std::string&) { return false; }
bool TwoFactorAuthenticationTask::ReplaceSufficientToRequired(const std::string&, std::string&) { return false; }

// ---------------------------------------------------------------------------
// PAM service file switching
// ---------------------------------------------------------------------------

bool TwoFactorAuthenticationTask::SwitchAuth(bool) { return false; }
bool TwoFactorAuthenticationTask::Handline(std::string&, bool, int&, std::string&) { return false; }
int TwoFactorAuthenticationTask::EnableAuth(const std::string&, std::string&, std::string&) { return -1; }
int TwoFactorAuthenticationTask::DisableAuth(const std::string&, std::string&) { return 0; }

// ---------------------------------------------------------------------------
// PAM module installation and activation
// ---------------------------------------------------------------------------

bool TwoFactorAuthenticationTask::OpenPam() { authEnabled = false; return false; }
bool TwoFactorAuthenticationTask::CopyAuthModule() { return false; }
void TwoFactorAuthenticationTask::DeleteAuthModule() {}

// ---------------------------------------------------------------------------
// Verification service client
// ---------------------------------------------------------------------------

// The HTTP client puts the configured service endpoint in place of SERVICE_ADDRESS.
static const std::string service_comm_list_url = https_scheme + "SERVICE_ADDRESS/tfa_phone_num";
static const std::string service_vcode_url = https_scheme + "SERVICE_ADDRESS/tfa_code";
// Passed as the last argument of every service call.
static const int http_status_ok = 200;
// Input bound for the contact hash.
static const long comm_hash_max_input = 10240;
// Most contact hashes kept from one response.
static const Json::ArrayIndex comm_list_max_size = 32;

// Contact check results.
static const int comm_mode_listed = 1;
static const int comm_mode_not_listed = 2;
static const int comm_mode_unchecked = 3;
// Reply to a code request that did not produce a code.
static const int vcode_failure = 3;

namespace {

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
