// brackmoor-totp: enrols users for the local (authenticator app) mode of
// pam_brackmoor.so.
//
//   brackmoor-totp enrol USER [--issuer NAME] [--invert] [--dir DIR]
//   brackmoor-totp show USER [--issuer NAME] [--dir DIR]
//   brackmoor-totp remove USER [--dir DIR]
//
// Exit status: 0 done, 1 failed, 2 usage error.

#include "KernelRandom.h"
#include "OtpAuthUri.h"
#include "SecretString.h"
#include "TerminalQr.h"
#include "TotpStore.h"

#include <cstdio>
#include <cstring>
#include <liboath/oath.h>
#include <pwd.h>
#include <stdlib.h>
#include <string>
#include <unistd.h>

namespace {

using namespace brackmoor::pam;

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;
/// 160 bits, the HMAC-SHA1 block-friendly size authenticator apps expect.
constexpr std::size_t kSecretBytes = 20;

struct Command {
    std::string verb;
    std::string user;
    std::string issuer = "Brackmoor";
    std::string directory = kTotpDirectory;
    bool invert = false;
};

int Usage()
{
    std::fputs("usage: brackmoor-totp enrol USER [--issuer NAME] [--invert] [--dir DIR]\n"
               "       brackmoor-totp show USER [--issuer NAME] [--dir DIR]\n"
               "       brackmoor-totp remove USER [--dir DIR]\n",
               stderr);
    return kUsage;
}

bool ParseCommand(int argc, char** argv, Command* command)
{
    if (argc < 3) {
        return false;
    }
    command->verb = argv[1];
    command->user = argv[2];
    for (int i = 3; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--invert") {
            command->invert = true;
        } else if ((option == "--issuer" || option == "--dir") && i + 1 < argc) {
            (option == "--issuer" ? command->issuer : command->directory) = argv[++i];
        } else {
            return false;
        }
    }
    return !command->issuer.empty() && !command->directory.empty();
}

int Complain(const Command& command, StoreStatus status, int error)
{
    const char* dir = command.directory.c_str();
    switch (status) {
    case StoreStatus::NotEnrolled:
        std::fprintf(stderr, "brackmoor-totp: %s is not enrolled\n", command.user.c_str());
        break;
    case StoreStatus::Insecure:
        std::fprintf(stderr,
                     "brackmoor-totp: %s or its file for %s is not root-only "
                     "(directory: owner root, mode 0700; file: owner root, mode 0600)\n",
                     dir, command.user.c_str());
        break;
    case StoreStatus::Corrupt:
        std::fprintf(stderr, "brackmoor-totp: the file for %s in %s is damaged; enrol again\n",
                     command.user.c_str(), dir);
        break;
    case StoreStatus::BadUser:
        std::fprintf(stderr, "brackmoor-totp: %s is not a usable user name\n", command.user.c_str());
        break;
    case StoreStatus::IoError:
    case StoreStatus::Ok:
        std::fprintf(stderr, "brackmoor-totp: %s: %s\n", dir, std::strerror(error));
        break;
    }
    return kFailed;
}

std::string AccountName(const std::string& user)
{
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0') {
        return user;
    }
    return user + "@" + host;
}

bool NewSecret(SecretString* base32)
{
    unsigned char bytes[kSecretBytes];
    char* encoded = nullptr;
    std::size_t length = 0;
    const bool made = FillRandom(bytes, sizeof bytes) && oath_init() == OATH_OK &&
                      oath_base32_encode(reinterpret_cast<const char*>(bytes), sizeof bytes, &encoded,
                                         &length) == OATH_OK;
    WipeBytes(bytes, sizeof bytes);
    if (made) {
        base32->Assign(encoded, length);
    }
    WipeBytes(encoded, length);
    free(encoded);
    return made;
}

int Enrol(const Command& command, TotpStore& store)
{
    TotpRecord previous;
    const bool replacing = store.Load(command.user, &previous) == StoreStatus::Ok;
    TotpRecord record;
    if (!NewSecret(&record.secretBase32)) {
        std::fputs("brackmoor-totp: could not make a secret from the kernel's random source\n", stderr);
        return kFailed;
    }
    const StoreStatus saved = store.Save(command.user, record);
    if (saved != StoreStatus::Ok) {
        return Complain(command, saved, store.LastError());
    }
    const std::string uri =
        MakeOtpAuthUri(command.issuer, AccountName(command.user), record.secretBase32.Text());
    std::printf("%s %s. Scan this code with an authenticator app, or enter the URI by hand:\n\n%s\n%s\n",
                replacing ? "Replaced the secret of" : "Enrolled", command.user.c_str(),
                RenderQr(uri, command.invert).c_str(), uri.c_str());
    return kDone;
}

int Show(const Command& command, TotpStore& store)
{
    TotpRecord record;
    const StoreStatus loaded = store.Load(command.user, &record);
    if (loaded != StoreStatus::Ok) {
        return Complain(command, loaded, store.LastError());
    }
    std::printf("%s\n",
                MakeOtpAuthUri(command.issuer, AccountName(command.user), record.secretBase32.Text()).c_str());
    return kDone;
}

int Remove(const Command& command, TotpStore& store)
{
    const StoreStatus removed = store.Remove(command.user);
    if (removed != StoreStatus::Ok) {
        return Complain(command, removed, store.LastError());
    }
    std::printf("Removed the secret of %s.\n", command.user.c_str());
    return kDone;
}

int Run(const Command& command)
{
    if (!IsStorableUserName(command.user)) {
        return Complain(command, StoreStatus::BadUser, 0);
    }
    TotpStore store(command.directory);
    if (command.verb == "enrol") {
        // Only accounts that exist; checked before anything is created.
        if (getpwnam(command.user.c_str()) == nullptr) {
            std::fprintf(stderr, "brackmoor-totp: no such user: %s\n", command.user.c_str());
            return kFailed;
        }
        const StoreStatus created = store.CreateDirectory();
        if (created != StoreStatus::Ok) {
            return Complain(command, created, store.LastError());
        }
    }
    const StoreStatus opened = store.Open();
    if (opened != StoreStatus::Ok) {
        return Complain(command, opened, store.LastError());
    }
    if (command.verb == "enrol") {
        return Enrol(command, store);
    }
    return command.verb == "show" ? Show(command, store) : Remove(command, store);
}

} // namespace

int main(int argc, char** argv)
{
    Command command;
    if (!ParseCommand(argc, argv, &command) ||
        (command.verb != "enrol" && command.verb != "show" && command.verb != "remove")) {
        return Usage();
    }
    if (geteuid() != 0) {
        std::fputs("brackmoor-totp: must be run as root\n", stderr);
        return kFailed;
    }
    return Run(command);
}
