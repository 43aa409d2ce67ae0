#include "SystemFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "Framework/ConfigManager.h"

namespace TfaTest {

namespace {

const char* const kSshdHead =
    "# This is the sshd server system-wide configuration file.  See\n"
    "# sshd_config(5) for more information.\n"
    "\n"
    "Include /etc/ssh/sshd_config.d/*.conf\n"
    "\n"
    "#Port 22\n"
    "#PermitRootLogin prohibit-password\n"
    "#PasswordAuthentication yes\n"
    "#PermitEmptyPasswords no\n"
    "\n"
    "# Change to yes to enable challenge-response passwords (beware issues with\n"
    "# some PAM modules and threads)\n"
    "KbdInteractiveAuthentication no\n";

const char* const kSshdTail =
    "\n"
    "UsePAM yes\n"
    "\n"
    "X11Forwarding yes\n"
    "PrintMotd no\n"
    "\n"
    "AcceptEnv LANG LC_*\n"
    "\n"
    "Subsystem\tsftp\t/usr/lib/openssh/sftp-server\n";

const char* const kPamSshdText =
    "# PAM configuration for the Secure Shell service\n"
    "\n"
    "# Standard Un*x authentication.\n"
    "@include common-auth\n"
    "\n"
    "# Disallow non-root logins when /etc/nologin exists.\n"
    "account    required     pam_nologin.so\n"
    "\n"
    "# Standard Un*x authorization.\n"
    "@include common-account\n"
    "\n"
    "session [success=ok ignore=ignore module_unknown=ignore default=bad]        pam_selinux.so close\n"
    "session    required     pam_loginuid.so\n"
    "session    optional     pam_keyinit.so force revoke\n"
    "\n"
    "@include common-session\n"
    "\n"
    "session    optional     pam_motd.so  motd=/run/motd.dynamic\n"
    "session    optional     pam_motd.so noupdate\n"
    "session    optional     pam_mail.so standard noenv # [1]\n"
    "session    required     pam_limits.so\n"
    "session    required     pam_env.so # [1]\n"
    "session    required     pam_env.so envfile=/etc/default/locale\n"
    "session [success=ok ignore=ignore module_unknown=ignore default=bad]        pam_selinux.so open\n"
    "\n"
    "# Standard Un*x password updating.\n"
    "@include common-password\n";

const char* const kCommonAuthText =
    "#\n"
    "# /etc/pam.d/common-auth - authentication settings common to all services\n"
    "#\n"
    "# here are the per-package modules (the \"Primary\" block)\n"
    "auth\t[success=1 default=ignore]\tpam_unix.so nullok\n"
    "# here's the fallback if no module succeeds\n"
    "auth\trequisite\t\t\tpam_deny.so\n"
    "auth\trequired\t\t\tpam_permit.so\n"
    "# end of pam-auth-update config\n";

bool WriteFile(const std::string& path, const std::string& content, mode_t mode)
{
    std::ofstream file(path, std::ios::out | std::ios::trunc | std::ios::binary);
    file << content;
    file.close();
    return file.good() && chmod(path.c_str(), mode) == 0;
}

} // namespace

SystemFiles::SystemFiles()
{
    mkdir("/etc/ssh", 0755);
    mkdir("/lib/x86_64-linux-gnu/security", 0755);
    unlink(kInclude);
    unlink(kModuleCopy);
    if (!WriteFile(kSshdConfig, SshdConfigOriginal(), 0644) || !WriteFile(kPamSshd, PamSshdOriginal(), 0644) ||
        !WriteFile(kCommonAuth, kCommonAuthText, 0644)) {
        error = "cannot write the system files";
        return;
    }
    const std::string root = installation.Path() + "/";
    mkdir((root + "module").c_str(), 0755);
    mkdir((root + "sudobin").c_str(), 0755);
    if (!WriteFile(root + "module/pam_brackmoor.so", "stand-in PAM module\n", 0644) ||
        !WriteFile(root + "sudobin/sshrestart.sh", "#!/bin/sh\necho restart >> '" + root + "restarts'\n", 0755)) {
        error = "cannot write the installation";
        return;
    }
    Framework::ConfigManager::GetInstance()->Set("agent.installation_path", root);
}

std::string SystemFiles::SshdConfigOriginal()
{
    return std::string(kSshdHead) + kSshdTail;
}

std::string SystemFiles::SshdConfigAfterCycle()
{
    return std::string(kSshdHead) + "#KbdInteractiveAuthentication yes\n" + kSshdTail;
}

std::string SystemFiles::PamSshdOriginal()
{
    return kPamSshdText;
}

int SystemFiles::Restarts() const
{
    std::ifstream log(installation.File("restarts"));
    int count = 0;
    std::string line;
    while (std::getline(log, line)) {
        ++count;
    }
    return count;
}

std::string PolicyDocument(int local)
{
    return "{\"content\":{\"refresh_time\":300,\"echo\":1,\"local\":" + std::to_string(local) +
           ",\"exclude_user_list\":[\"root\",\"backup\"]}}";
}

bool FileExists(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

} // namespace TfaTest
