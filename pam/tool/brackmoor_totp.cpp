// brackmoor-totp: enrols users for the local (authenticator app) mode of
// pam_brackmoor.so.
//
//   brackmoor-totp enrol USER [--hotp] [--algorithm SHA1|SHA256|SHA512] [--digits 6|8]
//                              [--period 30|60] [--window 1-4] [--issuer NAME] [--invert] [--dir DIR]
//   brackmoor-totp show USER [--dir DIR]
//   brackmoor-totp codes USER [--dir DIR]
//   brackmoor-totp remove USER [--dir DIR]
//
// Exit status: 0 done, 1 failed, 2 usage error.

#include "KernelRandom.h"
#include "OtpAuthUri.h"
#include "RecoveryCodes.h"
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
    OtpParameters parameters;
    std::string issuer = "Brackmoor";
    std::string directory = kTotpDirectory;
    bool invert = false;
    bool hotp = false;
};

int Usage()
{
    std::fputs("usage: brackmoor-totp enrol USER [--hotp] [--algorithm SHA1|SHA256|SHA512] [--digits 6|8]\n"
               "                            [--period 30|60] [--window 1-4] [--issuer NAME] [--invert] [--dir DIR]\n"
               "       brackmoor-totp show USER [--dir DIR]\n"
               "       brackmoor-totp codes USER [--dir DIR]\n"
               "       brackmoor-totp remove USER [--dir DIR]\n",
               stderr);
    return kUsage;
}

/// One of `allowed` ("30|60"), as a number.
bool ParseChoice(const std::string& value, const std::string& allowed, unsigned* number)
{
    if (value.empty() || value.find('|') != std::string::npos ||
        ("|" + allowed + "|").find("|" + value + "|") == std::string::npos) {
        return false;
    }
    *number = static_cast<unsigned>(std::stoul(value));
    return true;
}

/// An option that takes a value; false when the value is not allowed.
bool ParseValue(const std::string& option, const std::string& value, Command* command)
{
    OtpParameters& p = command->parameters;
    if (option == "--algorithm") {
        return command->verb == "enrol" && ParseAlgorithmName(value, &p.algorithm);
    }
    if (option == "--digits" || option == "--period" || option == "--window") {
        unsigned& field = option == "--digits" ? p.digits : option == "--period" ? p.period : p.window;
        const char* allowed = option == "--digits" ? "6|8" : option == "--period" ? "30|60" : "1|2|3|4";
        return command->verb == "enrol" && ParseChoice(value, allowed, &field);
    }
    if (option == "--issuer") {
        command->issuer = value;
        return command->verb == "enrol" && IsValidIssuer(value);
    }
    command->directory = value;
    return option == "--dir" && !value.empty();
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
        if (option == "--invert" || option == "--hotp") {
            (option == "--invert" ? command->invert : command->hotp) = true;
        } else if (i + 1 >= argc || !ParseValue(option, argv[++i], command)) {
            return false;
        }
    }
    command->parameters.kind = command->hotp ? OtpKind::Hotp : OtpKind::Totp;
    return command->verb == "enrol" || (!command->invert && !command->hotp);
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

/// Makes a new set of recovery codes into `record`.
bool NewRecoveryCodes(OtpRecord* record, std::vector<std::string>* codes)
{
    if (!MakeRecoveryCodes(codes, &record->recoveryHashes)) {
        std::fputs("brackmoor-totp: could not make recovery codes\n", stderr);
        return false;
    }
    return true;
}

/// Saves the record, then shows `intro` and the new recovery codes, which
/// exist only once saved.
int SaveWithCodes(const Command& command, TotpStore& store, const OtpRecord& record,
                  const std::vector<std::string>& codes, const std::string& intro)
{
    const StoreStatus saved = store.Save(command.user, record);
    if (saved != StoreStatus::Ok) {
        return Complain(command, saved, store.LastError());
    }
    std::fputs(intro.c_str(), stdout);
    std::puts("Recovery codes, each good for one login in place of a code; keep them somewhere safe:");
    for (const std::string& code : codes) {
        std::printf("  %s\n", code.c_str());
    }
    return kDone;
}

/// Loads an enrolled user's record; the exit status on failure.
int LoadEnrolled(const Command& command, TotpStore& store, OtpRecord* record)
{
    StoreStatus loaded = store.Load(command.user, record);
    loaded = loaded == StoreStatus::Ok && !record->Enrolled() ? StoreStatus::NotEnrolled : loaded;
    return loaded == StoreStatus::Ok ? kDone : Complain(command, loaded, store.LastError());
}

int Enrol(const Command& command, TotpStore& store)
{
    OtpRecord previous;
    const bool replacing = store.Load(command.user, &previous) == StoreStatus::Ok && previous.Enrolled();
    OtpRecord record;
    record.parameters = command.parameters;
    record.issuer = command.issuer;
    std::vector<std::string> codes;
    if (!NewSecret(&record.secretBase32)) {
        std::fputs("brackmoor-totp: could not make a secret from the kernel's random source\n", stderr);
        return kFailed;
    }
    if (!NewRecoveryCodes(&record, &codes)) {
        return kFailed;
    }
    const std::string uri = MakeOtpAuthUri(record, AccountName(command.user));
    return SaveWithCodes(command, store, record, codes,
                         std::string(replacing ? "Replaced the secret of " : "Enrolled ") + command.user +
                             ". Scan this code with an authenticator app, or enter the URI by hand:\n\n" +
                             RenderQr(uri, command.invert) + "\n" + uri + "\n\n");
}

int Show(const Command& command, TotpStore& store)
{
    OtpRecord record;
    const int loaded = LoadEnrolled(command, store, &record);
    if (loaded == kDone) {
        std::printf("%s\n", MakeOtpAuthUri(record, AccountName(command.user)).c_str());
    }
    return loaded;
}

int Codes(const Command& command, TotpStore& store)
{
    OtpRecord record;
    std::vector<std::string> codes;
    const int loaded = LoadEnrolled(command, store, &record);
    if (loaded != kDone) {
        return loaded;
    }
    return NewRecoveryCodes(&record, &codes) ? SaveWithCodes(command, store, record, codes, "") : kFailed;
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
    if (command.verb == "codes") {
        return Codes(command, store);
    }
    return command.verb == "show" ? Show(command, store) : Remove(command, store);
}

} // namespace

int main(int argc, char** argv)
{
    Command command;
    if (!ParseCommand(argc, argv, &command) ||
        (command.verb != "enrol" && command.verb != "show" && command.verb != "codes" && command.verb != "remove")) {
        return Usage();
    }
    if (geteuid() != 0) {
        std::fputs("brackmoor-totp: must be run as root\n", stderr);
        return kFailed;
    }
    return Run(command);
}
