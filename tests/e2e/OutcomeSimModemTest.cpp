// End to end: how a call ended (Manager::lastOutcome) and whether the library's picture of the
// modem is whole (ModemStatus::isComplete), against the embedded simulated modem.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "SimModemFixture.h"

namespace e2e {
namespace {

using kel::Manager;
using kel::ModemStatus;
using kel::Outcome;
using Kind = kel::Outcome::Kind;

class OutcomeSimModemTest : public SimModemFixture {};

// One profile operation, its facade result in words ("empty", "true", "false").
enum class Op { Add, Modify, Delete };

struct FailedCall {
    std::string name;
    Op op;
    unsigned int msgId;
    bool late;  // no answer in time rather than refused
    const char* result;
    std::vector<std::string> errors;
};

// Each call fails once refused and once unanswered, with the same log lines either way.
std::vector<FailedCall> failedCalls() {
    std::vector<FailedCall> calls;
    const auto both = [&](const char* name, Op op, unsigned int msgId, const char* msgName,
                          const char* result, const char* cacheError) {
        std::vector<std::string> errors{std::string("Unable send ") + msgName + " message"};
        if (cacheError != nullptr) {
            errors.emplace_back(cacheError);
        }
        for (const bool late : {false, true}) {
            calls.push_back(
                {std::string(name) + (late ? "Late" : "Refused"), op, msgId, late, result, errors});
        }
    };
    both("Add", Op::Add, VEX_WDS_CREATE_PROFILE_REQ_V01, "VEX_WDS_CREATE_PROFILE_REQ_V01", "empty",
         nullptr);
    // A refused modify still answers true: only the outcome says it was refused.
    both("Modify", Op::Modify, VEX_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01,
         "VEX_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01", "true",
         "ProfileCache: failed to modify modem profile");
    both("Delete", Op::Delete, VEX_WDS_DELETE_PROFILE_REQ_V01, "VEX_WDS_DELETE_PROFILE_REQ_V01",
         "false", "ProfileCache: Failed to remove profile");
    return calls;
}

class FailedCallTest : public OutcomeSimModemTest,
                       public ::testing::WithParamInterface<FailedCall> {};

TEST_P(FailedCallTest, TellsHowTheModemMessageEndedAndTheCacheFollowsTheModem) {
    const FailedCall& call = GetParam();
    std::shared_ptr<kel::IProfileKey> target;
    int id = 0;
    std::uint64_t maskBefore = 0;
    if (call.op != Op::Add) {
        target = manager.addProfile(addParams("target.example", true));
        ASSERT_TRUE(target);
        ASSERT_TRUE(Manager::lastOutcome().ok());
        id = target->getProfileId();
        maskBefore = modemProfile(k3gpp, id).settings.apn_type_mask;
    }
    constexpr int kError = VEX_ERR_INVALID_ARG_V01;
    if (call.late) {
        modem->setResponseDelay(kLate, call.msgId);
    } else {
        modem->failNext(1, call.msgId, kError);
    }

    std::string result;
    switch (call.op) {
        case Op::Add:
            result = manager.addProfile(addParams("new.example")) ? "key" : "empty";
            break;
        case Op::Modify: {
            kel::ModifyProfileParams change;
            change.setApnTypesMask(0x4);
            result = manager.modifyProfile(change, target) ? "true" : "false";
            break;
        }
        case Op::Delete:
            result = manager.deleteProfile(target) ? "true" : "false";
            break;
    }
    const Outcome outcome = Manager::lastOutcome();
    modem->setResponseDelay(std::chrono::milliseconds(0));

    EXPECT_EQ(result, call.result) << "the facade's own result does not move";
    EXPECT_EQ(outcome.kind, call.late ? Kind::NoAnswer : Kind::Refused) << outcome.dump();
    EXPECT_EQ(outcome.messageId, call.msgId);
    EXPECT_EQ(outcome.modemError, call.late ? 0u : static_cast<unsigned>(kError));
    EXPECT_EQ(outcome.unknown(), call.late);
    EXPECT_FALSE(outcome.ok());
    const ModemStatus counted = status();
    EXPECT_EQ(counted.failedMessages, 1u);
    EXPECT_EQ(counted.timedOutMessages, call.late ? 1u : 0u);
    EXPECT_TRUE(counted.isReady()) << "failed messages do not make the link unusable";
    for (const std::string& text : call.errors) {
        EXPECT_TRUE(error(text)) << text;
    }

    // The modem applies a change it answers late, and the cache takes it from the echo; one it
    // refuses it never applies, and the cache keeps what it had.
    ASSERT_TRUE(settle());
    switch (call.op) {
        case Op::Add:
            EXPECT_EQ(manager.filter(byApn("new.example")).size(), call.late ? 1u : 0u);
            break;
        case Op::Modify: {
            EXPECT_EQ(modemProfile(k3gpp, id).settings.apn_type_mask != maskBefore, call.late);
            const std::optional<kel::ProfileParams> cached = manager.getProfile(target);
            ASSERT_TRUE(cached) << "the handle stays valid";
            EXPECT_EQ(cached->getApnTypesMask() == 0x4u, call.late);
            break;
        }
        case Op::Delete:
            EXPECT_EQ(onModem(k3gpp, id).has_value(), !call.late);
            EXPECT_EQ(manager.getProfile(target).has_value(), !call.late);
            break;
    }
}

INSTANTIATE_TEST_SUITE_P(Calls, FailedCallTest, ::testing::ValuesIn(failedCalls()), CaseName());

TEST_F(OutcomeSimModemTest, BadHandlesFailAsInvalidArgumentsAndAnExpiredOneDeletesNothing) {
    std::shared_ptr<kel::IProfileKey> old = manager.addProfile(addParams("stale.example"));
    ASSERT_TRUE(old);
    const int id = old->getProfileId();
    manager.refresh(kel::PDCRefreshStatus::Completed);  // every handle expires
    kel::ModifyProfileParams change;
    change.setApnTypesMask(0x4);

    struct Case {
        const char* name;
        std::function<bool()> fails;
    };
    const std::vector<Case> cases = {
        {"getProfile(empty)", [&] { return !manager.getProfile(nullptr); }},
        {"deleteProfile(empty)", [&] { return !manager.deleteProfile(nullptr); }},
        {"match(empty)", [&] { return !manager.match(kel::FilterProfileParams(), nullptr); }},
        {"modifyProfile(expired)", [&] { return !manager.modifyProfile(change, old); }},
        {"deleteProfile(expired)", [&] { return !manager.deleteProfile(old); }},
        {"getProfile(expired)", [&] { return !manager.getProfile(old); }},
        {"match(expired)", [&] { return !manager.match(byApn("stale.example"), old); }},
    };
    for (const Case& c : cases) {
        manager.filter(kel::FilterProfileParams());
        ASSERT_TRUE(Manager::lastOutcome().ok());
        EXPECT_TRUE(c.fails()) << c.name;
        EXPECT_EQ(Manager::lastOutcome().kind, Kind::InvalidArguments) << c.name;
    }
    old.reset();
    EXPECT_TRUE(inHistory("ProfileCache: token is not present or expired"));
    EXPECT_TRUE(onModem(k3gpp, id)) << "nothing reached the modem, the release included";
}

TEST_F(OutcomeSimModemTest, AStoppedModemIsNoLink) {
    std::shared_ptr<kel::IProfileKey> key = profile3gpp1();
    ASSERT_TRUE(key);
    modem->stop();

    EXPECT_FALSE(manager.addProfile(addParams("nowhere.example")));
    EXPECT_EQ(Manager::lastOutcome().kind, Kind::NoLink) << Manager::lastOutcome().dump();
    EXPECT_FALSE(manager.deleteProfile(key));
    EXPECT_EQ(Manager::lastOutcome().kind, Kind::NoLink);
    EXPECT_EQ(Manager::lastOutcome().messageId, 0u);
}

TEST_F(OutcomeSimModemTest, EachThreadReadsItsOwnOutcome) {
    modem->failNext(1, VEX_WDS_CREATE_PROFILE_REQ_V01);
    EXPECT_FALSE(manager.addProfile(addParams("refused.example")));
    Outcome other;
    std::thread([&] {
        other = Manager::lastOutcome();
        manager.filter(kel::FilterProfileParams());
    }).join();

    EXPECT_TRUE(other.ok()) << "a thread that made no call has nothing to tell";
    EXPECT_EQ(Manager::lastOutcome().kind, Kind::Refused) << "another thread's call moves nothing";
    manager.getModemStatus();
    manager.dump();
    EXPECT_EQ(Manager::lastOutcome().kind, Kind::Refused) << "status and dump are no calls";
}

// --- The picture ---

TEST_F(OutcomeSimModemTest, AReadThatFailsDuringARefreshLeavesAHoleUntilARefreshReadsIt) {
    ASSERT_TRUE(status().isComplete());
    modem->failNext(1, VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01);
    manager.refresh(kel::PDCRefreshStatus::Completed);
    EXPECT_EQ(Manager::lastOutcome().kind, Kind::Refused);
    EXPECT_EQ(Manager::lastOutcome().messageId,
              static_cast<unsigned>(VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01));

    ModemStatus holed = status();
    EXPECT_TRUE(holed.isReady()) << "ready keeps its meaning";
    EXPECT_FALSE(holed.isComplete());
    EXPECT_FALSE(holed.profileListFailed);
    // The first profile read is the first one the modem lists: 3GPP index 1.
    ASSERT_EQ(holed.unreadProfiles.size(), 1u);
    EXPECT_EQ(holed.unreadProfiles[0], (ModemStatus::ProfileRef{kel::TechType::TYPE_3GPP, 1}));
    EXPECT_EQ(manager.filter(kel::FilterProfileParams()).size(), modem->profiles(0).size() - 1);
    EXPECT_TRUE(error("Unable send VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01 message"));
    EXPECT_TRUE(error("ProfileCache: null profile"));
    const std::vector<std::string> lines = manager.dump();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) {
                                return line.size() > 6 && line.substr(line.size() - 6) == ": null";
                            }),
              1)
        << "the unread profile's entry";

    // A change announced for the unread profile reads nothing: the hole stays.
    ASSERT_TRUE(modem->modifyProfile(0, k3gpp, 1, apnClassChange(9)));
    ASSERT_TRUE(settle());
    EXPECT_FALSE(status().isComplete());
    EXPECT_EQ(status().unreadProfiles.size(), 1u);

    manager.refresh(kel::PDCRefreshStatus::Completed);
    EXPECT_TRUE(Manager::lastOutcome().ok());
    EXPECT_TRUE(status().isComplete());
    EXPECT_TRUE(status().unreadProfiles.empty());
    EXPECT_EQ(manager.filter(kel::FilterProfileParams()).size(), modem->profiles(0).size());
}

}  // namespace
}  // namespace e2e
