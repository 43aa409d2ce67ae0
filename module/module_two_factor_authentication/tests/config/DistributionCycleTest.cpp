// Whole switch-on / switch-off cycles on the files that distributions ship:
// every system of our own distributions/ and of the shared corpus ("corpus-"
// names). Each is expected to switch on and back unless golden/<name>/ says
// "refused" (the precondition scan refuses it) or "abnormal" (its service
// file holds a line the task cannot rewrite); golden/<name>/ also holds the
// switched-on include and service files ("brackmoor-auth", "sshd") and the
// service file after switching off ("sshd.off") where that is not the
// normalised original.
#include <regex>

#include "TfaTestSupport.h"

using namespace TfaTest;
using System = std::pair<std::string, std::string>;  // name, folder

namespace {

std::vector<System> Systems()
{
    std::vector<System> systems;
    const System sources[] = {{"", CONFIG_TEST_DIR "/distributions"}, {"corpus-", CONFIG_TEST_CORPUS_DIR}};
    for (const auto& [prefix, dir] : sources) {
        std::error_code absent;
        for (const auto& entry : fs::directory_iterator(dir, absent)) {
            if (entry.is_directory()) {
                systems.emplace_back(prefix + entry.path().filename().string(), entry.path());
            }
        }
    }
    return systems;
}

// How the task writes a file: every line trimmed and ended with "\n".
std::string Normalise(const std::string& text)
{
    const std::string trimmed = std::regex_replace(text, std::regex("(^|\n)[ \t\r\v\f]+|[ \t\r\v\f]+(?=\n|$)"), "$1");
    return trimmed.empty() || trimmed.back() == '\n' ? trimmed : trimmed + "\n";
}

// Only "key yes" (on) or "key no" (off) of the key the task switches is
// active: the older keyword unless only the newer one has key lines.
void ExpectSshdSwitched(const std::string& original, const std::string& now, bool on)
{
    const std::regex olderKeyLine("(^|\n)[ \t]*#?[ \t]*ChallengeResponseAuthentication[ \t]+(yes|no)[ \t\r]*(\n|$)");
    const bool older = std::regex_search(original, olderKeyLine);
    const std::string key = older ? "ChallengeResponseAuthentication" : "KbdInteractiveAuthentication";
    EXPECT_TRUE(std::regex_search(now, std::regex("(^|\n)" + key + "[ \t]+" + (on ? "yes" : "no") + "\n")) &&
                !std::regex_search(now, std::regex("(^|\n)" + key + "[ \t]+" + (on ? "no" : "yes"))))
        << now;
}

class DistributionCycleTest : public TaskInTempDir, public ::testing::WithParamInterface<System> {};

TEST_P(DistributionCycleTest, SwitchOnThenOffRestoresTheSystem)
{
    const std::string golden = CONFIG_TEST_DIR "/golden/" + GetParam().first + "/";
    fs::copy(GetParam().second, root.Path(), fs::copy_options::recursive);
    task->refreshTime = 300;
    task->local = 0;
    task->excludeUserList = {"root", "deploy"};
    const std::string service = ReadWholeFile(task->pamSshdPath), sshd = ReadWholeFile(task->sshdConfigPath);
    ASSERT_EQ(task->IsUsePamAndPwdAuth(), !fs::exists(golden + "refused"));
    if (fs::exists(golden + "refused")) {
        return;  // activation stops here, nothing is switched
    }
    ASSERT_EQ(task->SwitchAuth(true), !fs::exists(golden + "abnormal"));
    if (fs::exists(golden + "abnormal")) {
        EXPECT_EQ(ReadWholeFile(task->pamSshdPath), service);
        return;
    }
    const bool linked = ReadWholeFile(task->pamSshdPath).find("brackmoor-auth") != std::string::npos;
    if (fs::exists(golden + "sshd")) {
        EXPECT_EQ(ReadWholeFile(task->pamIncludePath), ReadWholeFile(golden + "brackmoor-auth"));
        EXPECT_EQ(ReadWholeFile(task->pamSshdPath), ReadWholeFile(golden + "sshd"));
    }
    ASSERT_TRUE(task->SwitchSshdConfig(true));
    ExpectSshdSwitched(sshd, ReadWholeFile(task->sshdConfigPath), true);

    EXPECT_EQ(task->SwitchAuth(false), linked);
    EXPECT_EQ(ReadWholeFile(task->pamSshdPath),
              fs::exists(golden + "sshd.off") ? ReadWholeFile(golden + "sshd.off") : Normalise(service));
    ASSERT_TRUE(task->SwitchSshdConfig(false));
    ExpectSshdSwitched(sshd, ReadWholeFile(task->sshdConfigPath), false);
}

INSTANTIATE_TEST_SUITE_P(Systems, DistributionCycleTest, ::testing::ValuesIn(Systems()),
                         [](const ::testing::TestParamInfo<System>& system) {
                             return std::regex_replace(system.param.first, std::regex("-"), "_");
                         });

} // namespace
