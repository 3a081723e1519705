// End to end: the profile cache through kel::Manager against the embedded simulated modem.
#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <memory>
#include <string>

#include "SimModemFixture.h"
#include "support/LogObservation.h"

namespace e2e {
namespace {

using kel::FilterProfileParams;
using kel::IProfileKey;
using kel::PDCRefreshStatus;
using Keys = std::list<std::shared_ptr<IProfileKey>>;

class ProfileCacheSimModemTest : public SimModemFixture {
  protected:
    Keys all() { return manager.filter(FilterProfileParams()); }
    std::string apnOf(const std::shared_ptr<IProfileKey>& key) {
        std::optional<kel::ProfileParams> params = manager.getProfile(key);
        return params ? params->getApnName() : std::string("(none)");
    }
};

// --- Filling ---

TEST_F(ProfileCacheSimModemTest, HoldsEveryModemProfileOnceTheModemAnnouncesThem) {
    Keys keys = all();
    ASSERT_EQ(keys.size(), modem->profiles(0).size());
    for (const std::shared_ptr<IProfileKey>& key : keys) {
        auto type = key->getTechType() == kel::TechType::TYPE_3GPP ? k3gpp : k3gpp2;
        const vexsim::Profile profile = modemProfile(type, key->getProfileId());
        EXPECT_EQ(apnOf(key),
                  type == k3gpp ? profile.settings.apn_name : profile.settings.apn_string);
    }
}

struct Announcement {
    const char* name;  // the event as logged
    std::function<void(vexsim::SimModem&)> announce;
};

class ProfileCacheAnnouncementTest : public ProfileCacheSimModemTest,
                                     public ::testing::WithParamInterface<Announcement> {};

TEST_P(ProfileCacheAnnouncementTest, RereadsTheModemAndExpiresOldHandles) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::shared_ptr<IProfileKey> old = profile3gpp1();
    const std::uint64_t before = served();
    GetParam().announce(*modem);
    ASSERT_TRUE(waitUntilServed(before + 2 + modem->profiles(0).size()));
    sync();

    EXPECT_TRUE(history(std::string("ProfileCache: onIndication < 3GPP:0 ") + GetParam().name));
    EXPECT_TRUE(history("ProfileCache: updating cache due to indication!"));
    EXPECT_TRUE(history("Refreshed Profiles:"));
    EXPECT_EQ(all().size(), modem->profiles(0).size());
    EXPECT_FALSE(manager.getProfile(old));
    EXPECT_TRUE(error("ProfileCache: token is not present or expired"));
}

INSTANTIATE_TEST_SUITE_P(
    Events, ProfileCacheAnnouncementTest,
    ::testing::Values(Announcement{"ProfileReady",
                                   [](vexsim::SimModem& m) { m.announceProfilesReady(0); }},
                      Announcement{"SubscriptionChange",
                                   [](vexsim::SimModem& m) { m.announceSubscriptionChange(0); }}),
    CaseName());

// --- Adding and the modem's echoes ---

// The library's profiles go with their last handle unless persistent.
struct NamedAdd {
    bool initialAttach;
    bool persistent;
    const char* name;
};

class ProfileCacheAddTest : public ProfileCacheSimModemTest,
                            public ::testing::WithParamInterface<NamedAdd> {};

TEST_P(ProfileCacheAddTest, CreatesAProfileUnderTheLibrarysOwnNameThatItsLastHandleReleases) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    const bool persistent = GetParam().persistent;
    kel::AddProfileParams params(persistent, kel::TechType::TYPE_3GPP, GetParam().initialAttach);
    params.setApnName("Named.Example");
    std::shared_ptr<IProfileKey> key = manager.addProfile(params);
    ASSERT_TRUE(key);
    const int id = key->getProfileId();

    std::vector<vexsim::Profile> created = onModemNamed(GetParam().name);
    ASSERT_EQ(created.size(), 1u);
    EXPECT_EQ(created[0].index, id);
    EXPECT_STREQ(created[0].settings.apn_name, "named.example");
    EXPECT_EQ(created[0].persistent, persistent);
    EXPECT_TRUE(history("VexWdsProxy VEX_WDS_CREATE_PROFILE_REQ_V01 request successful!"));
    EXPECT_TRUE(logged("Added: TechType=3GPP,ProfileId=" + std::to_string(id)));
    std::optional<kel::ProfileParams> read = manager.getProfile(key);
    ASSERT_TRUE(read);
    EXPECT_TRUE(read->getIsKelProfile());
    EXPECT_EQ(read->getIsIAProfile(), GetParam().initialAttach);

    Keys found = manager.filter(byApn("named.example"));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(tokenOf(found.front()), tokenOf(key)) << "two handles of one profile";
    key.reset();
    EXPECT_TRUE(onModem(k3gpp, id)) << "the other handle keeps it";
    found.clear();
    EXPECT_EQ(onModem(k3gpp, id).has_value(), persistent);
    EXPECT_EQ(manager.filter(byApn("named.example")).empty(), !persistent);
    EXPECT_TRUE(history(persistent ? "ProfileCache: ignoring non-persistent or non-kel created"
                                   : "Released profile " + std::to_string(id)));
}

INSTANTIATE_TEST_SUITE_P(Names, ProfileCacheAddTest,
                         ::testing::Values(NamedAdd{false, false, "kel_profile"},
                                           NamedAdd{true, true, "kel_profile_ia"}),
                         CaseName());

TEST_F(ProfileCacheSimModemTest, AddOfAnUnknownTechnologyReachesNoModem) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    const std::uint64_t before = served();
    EXPECT_FALSE(manager.addProfile(addParams("x.example", false, static_cast<kel::TechType>(5))));
    EXPECT_TRUE(error("ProfileCache: failed to create profile"));
    EXPECT_EQ(served(), before);
}

TEST_F(ProfileCacheSimModemTest, TokensOnlyGrowAndAFailedAddStillConsumesOne) {
    std::shared_ptr<IProfileKey> first = manager.addProfile(addParams("a.example"));
    modem->failNext(1, VEX_WDS_CREATE_PROFILE_REQ_V01);
    EXPECT_FALSE(manager.addProfile(addParams("b.example")));
    std::shared_ptr<IProfileKey> third = manager.addProfile(addParams("c.example"));
    ASSERT_TRUE(first && third);
    EXPECT_EQ(tokenOf(third), tokenOf(first) + 2);
}

TEST_F(ProfileCacheSimModemTest, ConsumesItsOwnEchoesWithoutReadingTheModem) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::shared_ptr<IProfileKey> key = manager.addProfile(addParams("echo.example"));
    ASSERT_TRUE(key);
    ASSERT_TRUE(manager.modifyProfile(newApn("echoed.example"), key));
    ASSERT_TRUE(manager.deleteProfile(key));
    ASSERT_TRUE(settle());

    // Create, modify (of the creation), modify, delete: four echoes, each expected.
    EXPECT_EQ(count(ANDROID_LOG_INFO, "ProfileCache: pending transaction confirmed"), 4);
    // The only change the cache did not make itself is settle()'s.
    EXPECT_EQ(count(ANDROID_LOG_INFO, "ProfileCache: updating cache due to indication!"), 1);
    std::vector<std::string> lines = manager.dump();
    auto pending = std::find(lines.begin(), lines.end(), "Pending:");
    ASSERT_NE(pending, lines.end());
    EXPECT_EQ(*std::next(pending), "") << "no echo is still expected";
}

// --- Modify ---

// APN names compare without case: only a real change reaches the modem.
TEST_F(ProfileCacheSimModemTest, ModifyChangesModemAndCacheOnlyWhenSomethingChanges) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::shared_ptr<IProfileKey> key = profile3gpp1();
    const std::uint64_t before = served();
    EXPECT_TRUE(manager.modifyProfile(newApn("INTERNET"), key));
    EXPECT_TRUE(history("ProfileCache: profile is unchanged"));
    EXPECT_EQ(served(), before);

    ASSERT_TRUE(manager.modifyProfile(newApn("Internet.Example"), key));
    EXPECT_STREQ(onModem(k3gpp, key->getProfileId())->settings.apn_name, "internet.example");
    EXPECT_EQ(apnOf(key), "internet.example");
    EXPECT_TRUE(logged("Diff: TechType=3GPP,ProfileId=-1,ApnName=internet.example,"));
}

// --- Expiration listeners ---

struct Expiry {
    const char* name;
    // Makes the profile behind `added` go away (or be replaced) while a listener watches it.
    std::function<void(kel::Manager&, vexsim::SimModem&, std::shared_ptr<IProfileKey>&)> cause;
};

class ProfileCacheExpiryTest : public ProfileCacheSimModemTest,
                               public ::testing::WithParamInterface<Expiry> {};

TEST_P(ProfileCacheExpiryTest, ListenerOfAHeldHandleFiresOnceAndOfADroppedOneNever) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    Calls calls;
    Calls dropped;
    std::shared_ptr<IProfileKey> added = manager.addProfile(addParams("watched.example", true));
    ASSERT_TRUE(added);
    std::shared_ptr<IProfileKey> watcher = manager.filter(byApn("watched.example")).front();
    watcher->registerExpirationListener(calls.callback());
    manager.filter(byApn("watched.example"))
        .front()
        ->registerExpirationListener(dropped.callback());

    GetParam().cause(manager, *modem, added);
    EXPECT_TRUE(calls.waitFor(1));
    ASSERT_TRUE(settle());
    EXPECT_EQ(calls.count(), 1);
    EXPECT_EQ(dropped.count(), 0);
    EXPECT_TRUE(debug("invoke callback"));
}

INSTANTIATE_TEST_SUITE_P(
    Causes, ProfileCacheExpiryTest,
    ::testing::Values(
        Expiry{"AnotherHandleDeletes",
               [](kel::Manager& m, vexsim::SimModem&, std::shared_ptr<IProfileKey>& key) {
                   m.deleteProfile(key);
               }},
        Expiry{"ModemDeletes",
               [](kel::Manager&, vexsim::SimModem& sim, std::shared_ptr<IProfileKey>& key) {
                   sim.deleteProfile(0, k3gpp, static_cast<std::uint8_t>(key->getProfileId()));
               }},
        // The cache replaces the profile object and keeps its token.
        Expiry{"ModemModifies",
               [](kel::Manager&, vexsim::SimModem& sim, std::shared_ptr<IProfileKey>& key) {
                   sim.modifyProfile(0, k3gpp, static_cast<std::uint8_t>(key->getProfileId()),
                                     apnClassChange(4));
               }},
        Expiry{"Refresh",
               [](kel::Manager& m, vexsim::SimModem&, std::shared_ptr<IProfileKey>&) {
                   m.refresh(PDCRefreshStatus::Completed);
               }}),
    CaseName());

// --- Dump ---

TEST_F(ProfileCacheSimModemTest, DumpListsEveryEntryThenTheLogHistory) {
    std::shared_ptr<IProfileKey> key = manager.addProfile(addParams("dump.example"));
    ASSERT_TRUE(settle());
    std::vector<std::string> lines = manager.dump();

    ASSERT_GE(lines.size(), modem->profiles(0).size() + 4);
    EXPECT_EQ(lines[0], "Cache:");
    const std::string entry = "  " + std::to_string(tokenOf(key)) +
                              ": TechType=3GPP,ProfileId=" + std::to_string(key->getProfileId()) +
                              ",ApnName=dump.example,";
    EXPECT_NE(std::find_if(lines.begin(), lines.end(),
                           [&](const std::string& line) { return line.rfind(entry, 0) == 0; }),
              lines.end());
    auto logs = std::find(lines.begin(), lines.end(), "Logs:");
    ASSERT_NE(logs, lines.end());
    EXPECT_EQ(*std::prev(logs), "");
    EXPECT_EQ(std::distance(logs, lines.end()) - 1,
              static_cast<long>(kel::LocalLogBuffer::getInstance()->getLogs().size()));
}

}  // namespace
}  // namespace e2e
