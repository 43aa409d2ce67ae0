// Whole switch-on / switch-off cycles on the files that distributions ship:
// our own Debian, Rocky and SLES sets (distributions/) and the shared corpus
// of real systems. Expected include and service files for several systems
// are kept under golden/.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "ConfigTestSupport.h"

using namespace ConfigTest;
namespace fs = std::filesystem;

namespace {

const std::string testDir = CONFIG_TEST_DIR;
const std::string corpusDir = CONFIG_TEST_CORPUS_DIR;

struct System {
    std::string name;
    bool fromCorpus;       // corpus layout (sshd_config, pam.d/) or ours (etc/ssh, etc/pam.d)
    bool precondition;     // IsUsePamAndPwdAuth
    bool authOn;           // SwitchAuth(true)
    bool linked;           // the service file then includes brackmoor-auth
    std::string keyword;   // keyword SwitchSshdConfig edits; empty when it fails
    bool golden;           // golden/<name>/{brackmoor-auth,sshd} hold the switched-on files
    // What switching off leaves different from the original, normalised:
    // `cycleFrom` there reads `cycleTo`.
    std::string cycleFrom;
    std::string cycleTo;
};

std::string Source(const System& s)
{
    return s.fromCorpus ? corpusDir + "/" + s.name : testDir + "/distributions/" + s.name;
}

std::string GoldenDir(const System& s)
{
    return testDir + "/golden/" + (s.fromCorpus ? "corpus-" : "") + s.name;
}

// Copies a system into `root`, in the layout TaskIn() expects.
void Install(const System& s, const std::string& root)
{
    if (!s.fromCorpus) {
        fs::copy(Source(s), root, fs::copy_options::recursive);
        return;
    }
    fs::create_directories(root + "/etc/ssh");
    fs::copy(Source(s) + "/pam.d", root + "/etc/pam.d", fs::copy_options::recursive);
    if (fs::exists(Source(s) + "/sshd_config")) {
        fs::copy_file(Source(s) + "/sshd_config", root + "/etc/ssh/sshd_config");
    }
}

// A key line of `key`, active or behind one "#", as sshd_config editing
// understands it; `value` empty for either value.
bool IsKeyLine(std::string line, const std::string& key, bool commented, const std::string& value)
{
    line = Normalise(line + "\n");
    line.pop_back();
    if (commented != (!line.empty() && line[0] == '#')) {
        return false;
    }
    if (commented) {
        line.erase(0, 1);
    }
    std::istringstream fields(line);
    std::string first;
    std::string second;
    std::string rest;
    fields >> first >> second;
    if (fields >> rest) {
        return false;
    }
    return first == key && (value.empty() ? (second == "yes" || second == "no") : second == value);
}

std::string WithoutKeyLines(const std::string& text, const std::string& key)
{
    std::string kept;
    for (const std::string& line : Lines(Normalise(text))) {
        if (!IsKeyLine(line, key, false, "") && !IsKeyLine(line, key, true, "")) {
            kept += line + "\n";
        }
    }
    return kept;
}

int CountKeyLines(const std::string& text, const std::string& key, bool commented, const std::string& value)
{
    int count = 0;
    for (const std::string& line : Lines(text)) {
        count += IsKeyLine(line, key, commented, value) ? 1 : 0;
    }
    return count;
}

// Switched on (active "yes") or off (active "no"), with the other value
// commented out; every other line as the original, normalised.
void ExpectSshdSwitched(const std::string& original, const std::string& now, const std::string& key, bool on)
{
    const std::string active = on ? "yes" : "no";
    const std::string inactive = on ? "no" : "yes";
    EXPECT_EQ(WithoutKeyLines(now, key), WithoutKeyLines(original, key));
    EXPECT_EQ(now, Normalise(now)) << "not normalised";
    EXPECT_GE(CountKeyLines(now, key, false, active), 1) << now;
    EXPECT_EQ(CountKeyLines(now, key, false, inactive), 0) << now;
    EXPECT_GE(CountKeyLines(now, key, true, inactive), 1) << now;
}

void PrintTo(const System& s, std::ostream* out)
{
    *out << s.name;
}

class DistributionCycleTest : public ::testing::TestWithParam<System> {
protected:
    void SetUp() override
    {
        if (GetParam().fromCorpus && !fs::is_directory(Source(GetParam()))) {
            GTEST_SKIP() << "corpus not present at " << corpusDir;
        }
        ASSERT_TRUE(root.Ok());
        Install(GetParam(), root.Path());
        task = TaskIn(root.Path());
        SetPolicy(*task, 300, 1, 0, {"root", "deploy"});
    }

    TestSupport::TempDir root;
    StandInInstallation installation;
    std::unique_ptr<Engine::TwoFactorAuthenticationTask> task;
};

TEST_P(DistributionCycleTest, SwitchOnThenOffRestoresTheSystem)
{
    const System& s = GetParam();
    const std::string service = ReadText(task->pamSshdPath);
    const std::string sshd = ReadText(task->sshdConfigPath);

    ASSERT_EQ(task->IsUsePamAndPwdAuth(), s.precondition);
    if (!s.precondition) {
        return;  // activation stops here, nothing is switched
    }

    // Switch on.
    ASSERT_EQ(task->SwitchAuth(true), s.authOn);
    const std::string serviceOn = ReadText(task->pamSshdPath);
    if (!s.authOn) {
        EXPECT_EQ(serviceOn, service);
        return;
    }
    EXPECT_EQ(serviceOn.find("brackmoor-auth") != std::string::npos, s.linked);
    if (s.golden) {
        EXPECT_EQ(ReadText(task->pamIncludePath), ReadText(GoldenDir(s) + "/brackmoor-auth"));
        EXPECT_EQ(serviceOn, ReadText(GoldenDir(s) + "/sshd"));
    }
    ASSERT_EQ(task->SwitchSshdConfig(true), !s.keyword.empty());
    if (!s.keyword.empty()) {
        ExpectSshdSwitched(sshd, ReadText(task->sshdConfigPath), s.keyword, true);
    }

    // Switch off.
    EXPECT_EQ(task->SwitchAuth(false), s.linked);
    std::string serviceRestored = Normalise(service);
    if (!s.cycleFrom.empty()) {
        const size_t at = serviceRestored.find(s.cycleFrom);
        ASSERT_NE(at, std::string::npos);
        serviceRestored.replace(at, s.cycleFrom.size(), s.cycleTo);
    }
    EXPECT_EQ(ReadText(task->pamSshdPath), serviceRestored);
    if (!s.keyword.empty()) {
        ASSERT_TRUE(task->SwitchSshdConfig(false));
        ExpectSshdSwitched(sshd, ReadText(task->sshdConfigPath), s.keyword, false);
    }
}

const std::string CRA = "ChallengeResponseAuthentication";
const std::string KIA = "KbdInteractiveAuthentication";

INSTANTIATE_TEST_SUITE_P(
    Own, DistributionCycleTest,
    ::testing::Values(System{"debian12", false, true, true, true, KIA, true, "", ""},
                      System{"rocky9", false, true, true, true, KIA, true, "", ""},
                      System{"sles15", false, true, true, true, CRA, true, "", ""}),
    [](const ::testing::TestParamInfo<System>& param) { return param.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Corpus, DistributionCycleTest,
    ::testing::Values(
        System{"alpine", true, true, false, false, "", false, "", ""},  // "auth include base-auth": abnormal
        System{"centos7", true, true, true, true, CRA, true, "", ""},
        System{"debian12", true, true, true, true, KIA, true, "", ""},
        System{"debian13-ldap", true, true, true, true, KIA, true, "", ""},
        System{"fedora-coreos", true, true, true, true, CRA, false, "", ""},
        System{"fedora-pwauth-off", true, false, false, false, "", false, "", ""},
        System{"gentoo-legacy", true, true, true, false, CRA, false, "", ""},  // nothing to link
        System{"opensuse-leap15", true, true, true, true, KIA, true, "", ""},
        System{"opensuse-tumbleweed", true, true, false, false, "", false, "", ""},  // postlogin-auth: abnormal
        System{"rhcos-ocp4", true, true, true, true, CRA, false, "", ""},
        System{"rhcos-ocp4-isms", true, true, true, true, CRA, true, "", ""},
        System{"suse-historical", true, false, false, false, "", false, "", ""},
        System{"ubuntu-stripped-noeol", true, true, true, true, KIA, true, "", ""},
        System{"ubuntu1804", true, true, true, true, CRA, false, "", ""},
        System{"ubuntu2404", true, true, true, true, KIA, false, "", ""},
        // The administrator's commented include comes back active.
        System{"x-admin-commented-include", true, true, true, true, CRA, false,
               "#auth       include      password-auth\n", "auth       include      password-auth\n"},
        System{"x-permit-empty", true, false, false, false, "", false, "", ""},
        System{"x-tumbleweed-vendor-only", true, false, false, false, "", false, "", ""},  // no sshd_config at all
        // Switching off stops looking once the first pair is restored: the
        // second include stays switched.
        System{"x-two-includes", true, true, true, true, CRA, false, "@include common-auth\n",
               "#@include common-auth\n@include\tbrackmoor-auth\n"},
        System{"x-usepam-no", true, false, false, false, "", false, "", ""}),
    [](const ::testing::TestParamInfo<System>& param) {
        std::string name = param.param.name;
        for (char& c : name) {
            c = (c == '-') ? '_' : c;
        }
        return name;
    });

} // namespace
