// Whole switch-on / switch-off cycles on the files that distributions ship:
// our own Debian, Rocky and SLES sets (distributions/) and the shared corpus
// of real systems. Expected include and service files for several systems
// are kept under golden/.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>

#include "ConfigTestSupport.h"

using namespace ConfigTest;
namespace fs = std::filesystem;

namespace {

struct System {
    std::string name;
    bool fromCorpus;      // ../shared/corpus, or our distributions/
    bool precondition;    // IsUsePamAndPwdAuth()
    bool authOn;          // SwitchAuth(true)
    bool linked;          // the service file then includes brackmoor-auth
    std::string keyword;  // the keyword SwitchSshdConfig() edits once the service file is switched
    bool golden;          // golden/[corpus-]<name>/{brackmoor-auth,sshd} hold the switched-on files
    // What switching off leaves different from the original, normalised:
    // `cycleFrom` there reads `cycleTo`.
    std::string cycleFrom;
    std::string cycleTo;
};

std::string Source(const System& s)
{
    return s.fromCorpus ? CONFIG_TEST_CORPUS_DIR "/" + s.name : CONFIG_TEST_DIR "/distributions/" + s.name;
}

// `now` is `original` normalised with `key` switched: its key lines are all
// "key <wanted>" or "#key <other>", both kinds present, no other line changed.
void ExpectSshdSwitched(const std::string& original, const std::string& now, const std::string& key, bool on)
{
    const auto split = [&key](const std::string& text, std::set<std::string>& keyLineKinds) {
        const std::regex keyLine("(#?)[ \t]*" + key + "[ \t]+(yes|no)");
        std::string otherLines;
        for (const std::string& line : Lines(Normalise(text))) {
            std::smatch match;
            if (std::regex_match(line, match, keyLine)) {
                keyLineKinds.insert(match.str(1) + match.str(2));
            } else {
                otherLines += line + "\n";
            }
        }
        return otherLines;
    };
    std::set<std::string> originalKinds;
    std::set<std::string> after;
    EXPECT_EQ(now, Normalise(now));
    EXPECT_EQ(split(now, after), split(original, originalKinds));
    EXPECT_EQ(after, (on ? std::set<std::string>{"yes", "#no"} : std::set<std::string>{"no", "#yes"})) << now;
}

class DistributionCycleTest : public TaskInTempDir, public ::testing::WithParamInterface<System> {
protected:
    void SetUp() override
    {
        if (!fs::is_directory(Source(GetParam()))) {
            GTEST_SKIP() << Source(GetParam()) << " is not present";
        }
        ASSERT_NO_FATAL_FAILURE(TaskInTempDir::SetUp());
        fs::copy(Source(GetParam()), root.Path(), fs::copy_options::recursive);
        task->refreshTime = 300;
        task->local = 0;
        task->excludeUserList = {"root", "deploy"};
    }
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

    ASSERT_EQ(task->SwitchAuth(true), s.authOn);
    const std::string serviceOn = ReadText(task->pamSshdPath);
    if (!s.authOn) {
        EXPECT_EQ(serviceOn, service);
        return;
    }
    EXPECT_EQ(serviceOn.find("brackmoor-auth") != std::string::npos, s.linked);
    if (s.golden) {
        const std::string golden = std::string(CONFIG_TEST_DIR "/golden/") + (s.fromCorpus ? "corpus-" : "") + s.name;
        EXPECT_EQ(ReadText(task->pamIncludePath), ReadText(golden + "/brackmoor-auth"));
        EXPECT_EQ(serviceOn, ReadText(golden + "/sshd"));
    }
    ASSERT_TRUE(task->SwitchSshdConfig(true));
    ExpectSshdSwitched(sshd, ReadText(task->sshdConfigPath), s.keyword, true);

    EXPECT_EQ(task->SwitchAuth(false), s.linked);
    std::string serviceRestored = Normalise(service);
    if (!s.cycleFrom.empty()) {
        const size_t at = serviceRestored.find(s.cycleFrom);
        ASSERT_NE(at, std::string::npos);
        serviceRestored.replace(at, s.cycleFrom.size(), s.cycleTo);
    }
    EXPECT_EQ(ReadText(task->pamSshdPath), serviceRestored);
    ASSERT_TRUE(task->SwitchSshdConfig(false));
    ExpectSshdSwitched(sshd, ReadText(task->sshdConfigPath), s.keyword, false);
}

std::string TestName(const ::testing::TestParamInfo<System>& param)
{
    std::string name = (param.param.fromCorpus ? "corpus_" : "own_") + param.param.name;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

const std::string CRA = "ChallengeResponseAuthentication";
const std::string KIA = "KbdInteractiveAuthentication";

INSTANTIATE_TEST_SUITE_P(
    Systems, DistributionCycleTest,
    ::testing::Values(
        System{"debian12", false, true, true, true, KIA, true, "", ""},
        System{"rocky9", false, true, true, true, KIA, true, "", ""},
        System{"sles15", false, true, true, true, CRA, true, "", ""},
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
    TestName);

} // namespace
