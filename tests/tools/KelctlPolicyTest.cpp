// kelctl apply-classes and apply-types: the plan, the apply and the read-back.
#include "tools/KelctlHarness.h"

namespace {

using namespace kelctltest;

// An emergency profile that also carries the IMS class, as some modems ship it.
const char* const kSosImsSeed =
    "profile 3gpp sub=0 index=2 name=ims apn=ims pdp=ipv4v6 class=1 types=ims\n"
    "profile 3gpp sub=0 index=4 name=sos apn=sos pdp=ipv4v6 emergency=yes class=1 "
    "types=emergency\n";

struct PolicyCase : Row {
    std::vector<std::string> args;
    std::string plan;  // what --dry-run prints
};

const PolicyCase kPolicyCases[] = {
    {"ClassOverTheEmergencyProfile",
     {"apply-classes", "--class", "ims", "--apn", "ims"},
     "would update 3gpp:4 (the emergency profile): apn: sos -> ims\n"},
    {"ClassWithoutProfile",
     {"apply-classes", "--class", "app", "--apn", "App.example", "--ip", "v4"},
     "would create a persistent 3gpp profile: apn=app.example ip=v4 class=app\n"},
    {"TypesOfTheEmergencyApn",
     {"apply-types", "--apn", "sos", "--types", "emergency,ims"},
     "would update 3gpp:4 (the emergency profile): types: emergency -> ims,emergency\n"},
    {"TypesSpreadOverTwoApns",
     {"apply-types", "--apn", "ims", "--types", "ims,xcap", "--and", "--apn", "nothing.example",
      "--types", "default"},
     "would update 3gpp:2: types: ims -> ims,xcap\n"},
};

class KelctlPolicyTest : public KelctlTest, public ::testing::WithParamInterface<PolicyCase> {
  protected:
    Outcome withState(std::vector<std::string> args) {
        args.insert(args.begin(), {"--seed", sosSeed, "--state", state});
        return kelctl(args);
    }

    const std::string sosSeed = script("sos.conf", kSosImsSeed);
};

TEST_P(KelctlPolicyTest, DryRunShowsThePlanAndTheApplyDoesItAndReadsItBack) {
    const PolicyCase& policy = GetParam();
    const std::string before = withState({"list"}).out;
    const std::vector<std::string> dry = joined(policy.args, {"--dry-run"});
    const Outcome plan = succeeded(withState(dry));
    EXPECT_THAT(plan.out, HasSubstr(policy.plan));
    EXPECT_THAT(plan.out, HasSubstr("dry run: nothing was sent to the modem\n"));
    EXPECT_EQ(withState({"list"}).out, before) << "a dry run changes nothing";

    const Outcome applied = succeeded(withState(joined(policy.args, {"--json"})));
    const nlohmann::json report = parsed(applied.out);
    EXPECT_EQ(report["not_applied"], nlohmann::json::array());
    EXPECT_EQ(report["changes"].size(), 1u);
    EXPECT_EQ(withState(dry).out,
              "no profile would change\ndry run: nothing was sent to the modem\n")
        << "once applied, the same entries change nothing";
}

INSTANTIATE_TEST_SUITE_P(Entries, KelctlPolicyTest, ::testing::ValuesIn(kPolicyCases), RowName());

TEST_F(KelctlTest, ApplyTypesNamesWhatTheModemDidNotTake) {
    RunningModem modem(dir.path(), seed);
    modem.control({"fail-next", "50", "0x28"});
    const Outcome outcome = kelctl(
        {"--modem", dir.path(), "apply-types", "--apn", "ims", "--types", "ims,xcap", "--json"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(parsed(outcome.out)["not_applied"],
              nlohmann::json({"3gpp:2 types: asked for ims,xcap, the modem has ims"}));
    EXPECT_THAT(outcome.err, HasSubstr("1 setting was not applied"));
}

}  // namespace
