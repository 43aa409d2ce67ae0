#include "TwoFactorAuthenticationTask.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
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

bool TwoFactorAuthenticationTask::CreateIPC() { return false; }
void TwoFactorAuthenticationTask::CloseSocket() {}
int TwoFactorAuthenticationTask::SocketEventAction(int, unsigned int, void*) { return -1; }
void TwoFactorAuthenticationTask::SendResponse(const struct sockaddr_un&, unsigned int, int) {}

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

int TwoFactorAuthenticationTask::VerifyCommMode(const std::string&) { return 3; }
bool TwoFactorAuthenticationTask::RefreshCommList() { return false; }
bool TwoFactorAuthenticationTask::ParseResponseBody(const std::string&, bool, int*) { return false; }
bool TwoFactorAuthenticationTask::ParseCommList(const Json::Value&) { return false; }
int TwoFactorAuthenticationTask::GetVerificationCode(const std::string&) { return 3; }

} // namespace Engine
