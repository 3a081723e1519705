#include "ModemProfile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "DebugLogFixture.h"
#include "ProfileKey.h"
#include "support/LogObservation.h"

namespace kel {
namespace {

using Opt = std::optional<IPType>;

// A 3GPP profile with every setting, as a client would add it.
ProfileParams fullParams() {
    ProfileParams p;
    p.setApnName("IMS.Example.COM");
    p.setUserName("bob");
    p.setPassword("pw");
    p.setAuthType(AuthType::CHAP);
    p.setHomeIPType(IPType::V4V6);
    p.setRoamIPType(IPType::V4V6);
    p.setApnTypesMask(0x41);  // DEFAULT|IMS
    p.setApnClass(ApnClass::IMS);
    p.setIsClatEnabled(true);
    p.setMaxPdnsConnPerBlock(20);
    p.setMaxPdnConnTimer(300);
    p.setPdnReqWaitInterval(10);
    p.setIsApnDisabled(false);
    p.setIsEmergencySupported(true);
    return p;
}

std::shared_ptr<Modem3gppProfile> fullProfile() {
    auto profile = std::make_shared<Modem3gppProfile>(fullParams());
    profile->setProfileId(5);
    profile->setProfileName("kel_profile");
    return profile;
}

std::shared_ptr<IProfileKey> makeKey(unsigned long long token) {
    return std::make_shared<ProfileKey>(TechType::TYPE_3GPP, 1, token,
                                        [](std::shared_ptr<ClientRequest>) { return nullptr; });
}

wds_get_profile_settings_resp_msg_v01 emptyResponse() {
    wds_get_profile_settings_resp_msg_v01 resp;
    std::memset(&resp, 0, sizeof(resp));
    return resp;
}

struct FilterCase {
    std::string name;
    std::function<void(FilterProfileParams&)> setup;
    bool expected;
};

// A filter setup that also loosens the match with criteria.
template <typename Setter>
std::function<void(FilterProfileParams&)> loosened(Setter setter, unsigned int criteria) {
    return [=](FilterProfileParams& f) {
        setter(f);
        f.addFilterMatchCriteria(criteria);
    };
}

void expectMatches(const ModemProfile& profile, const std::vector<FilterCase>& cases) {
    for (const FilterCase& c : cases) {
        FilterProfileParams filter;
        c.setup(filter);
        EXPECT_EQ(profile.match(filter), c.expected) << c.name;
    }
}

// --- Construction from parameters ----------------------------------------------------------

TEST(ModemProfileConstructionTest, ParametersAreStoredInModemForm) {
    ProfileParams params = fullParams();
    params.setApnName(std::string(200, 'X'));
    params.setHomeIPType(IPType::V4);
    params.setRoamIPType(IPType::V6);
    Modem3gppProfile profile(params);
    EXPECT_EQ(profile.getTechType(), TechType::TYPE_3GPP);
    EXPECT_EQ(profile.getProfileId(), -1);
    EXPECT_FALSE(profile.getIsPersistent());
    EXPECT_FALSE(profile.getIsKelCreated());
    EXPECT_EQ(profile.getRefCount(), 0);
    EXPECT_EQ(profile.getApnName(), std::string(150, 'x'));
    EXPECT_EQ(profile.getApnTypesMask(), 0x003u);
    // Home and roaming differ: the PDP type covers both, the home type goes in the override.
    EXPECT_EQ(profile.getCommonIPType(), IPType::V4V6);
    EXPECT_EQ(profile.getOverrideHomeIPType(), IPType::V4);
    EXPECT_EQ(profile.getLteRoamIPType(), IPType::V6);
    EXPECT_EQ(profile.getUmtsRoamIPType(), IPType::V6);
    EXPECT_FALSE(profile.hasProfileName());

    Modem3gppProfile same(fullParams());
    EXPECT_EQ(same.getCommonIPType(), IPType::V4V6);
    EXPECT_FALSE(same.hasOverrideHomeIPType());
}

TEST(ModemProfileConstructionTest, CdmaProfileKeepsHomeTypeAndIgnores3gppSettings) {
    Modem3gpp2Profile profile(fullParams());
    EXPECT_EQ(profile.getTechType(), TechType::TYPE_3GPP2);
    EXPECT_EQ(profile.dump(),
              "TechType=3GPP2,ProfileId=-1,ApnName=ims.example.com,UserName=bob,Password=pw,"
              "AuthType=CHAP,CommonIPType=V4V6,ApnTypesMask=3,ApnClass=IMS,IsClatEnabled=true,");
}

// --- match ---------------------------------------------------------------------------------

TEST(ModemProfileMatchTest, EachCriterionOnAFullProfile) {
    expectMatches(
        *fullProfile(),
        {
            {"empty filter", [](FilterProfileParams&) {}, true},
            {"tech", [](auto& f) { f.setFilterByTechType(TechType::TYPE_3GPP); }, true},
            {"other tech", [](auto& f) { f.setFilterByTechType(TechType::TYPE_3GPP2); }, false},
            {"apn any case", [](auto& f) { f.setApnName("ims.EXAMPLE.com"); }, true},
            {"apn part", [](auto& f) { f.setApnName("example"); }, false},
            {"apn part subset", loosened([](auto& f) { f.setApnName("EXAMPLE"); }, 0x04), true},
            {"apn empty subset", loosened([](auto& f) { f.setApnName(""); }, 0x04), true},
            {"apn other subset", loosened([](auto& f) { f.setApnName("internet"); }, 0x04), false},
            {"user", [](auto& f) { f.setUserName("bob"); }, true},
            {"user case", [](auto& f) { f.setUserName("Bob"); }, false},
            {"password", [](auto& f) { f.setPassword("pw"); }, true},
            {"password differs", [](auto& f) { f.setPassword("pw2"); }, false},
            {"auth", [](auto& f) { f.setAuthType(AuthType::CHAP); }, true},
            {"auth differs", [](auto& f) { f.setAuthType(AuthType::PAP); }, false},
            {"types exact", [](auto& f) { f.setApnTypesMask(0x41); }, true},
            {"types exact unknown bit ignored", [](auto& f) { f.setApnTypesMask(0x1041); }, true},
            {"types fewer", [](auto& f) { f.setApnTypesMask(0x01); }, false},
            {"types fewer subset", loosened([](auto& f) { f.setApnTypesMask(0x01); }, 0x08), true},
            {"types more subset", loosened([](auto& f) { f.setApnTypesMask(0x43); }, 0x08), false},
            {"types none subset", loosened([](auto& f) { f.setApnTypesMask(0); }, 0x08), true},
            {"types none exact", [](auto& f) { f.setApnTypesMask(0); }, false},
            {"class", [](auto& f) { f.setApnClass(ApnClass::IMS); }, true},
            {"class differs", [](auto& f) { f.setApnClass(ApnClass::INET); }, false},
            {"clat", [](auto& f) { f.setIsClatEnabled(true); }, true},
            {"clat differs", [](auto& f) { f.setIsClatEnabled(false); }, false},
            {"id", [](auto& f) { f.setFilterByProfileId(5); }, true},
            {"id differs", [](auto& f) { f.setFilterByProfileId(6); }, false},
            {"timers",
             [](auto& f) {
                 f.setMaxPdnsConnPerBlock(20);
                 f.setMaxPdnConnTimer(300);
                 f.setPdnReqWaitInterval(10);
             },
             true},
            {"timer differs", [](auto& f) { f.setPdnReqWaitInterval(11); }, false},
            {"flags",
             [](auto& f) {
                 f.setIsApnDisabled(false);
                 f.setIsEmergencySupported(true);
             },
             true},
            {"emergency differs", [](auto& f) { f.setIsEmergencySupported(false); }, false},
            {"all together",
             [](auto& f) {
                 f = FilterProfileParams(fullParams());
                 f.setFilterByTechType(TechType::TYPE_3GPP);
                 f.setFilterByProfileId(5);
                 f.setFilterByIsKelProfile(true);
             },
             true},
            {"all but one",
             [](auto& f) {
                 f = FilterProfileParams(fullParams());
                 f.setFilterByProfileId(4);
             },
             false},
        });
}

TEST(ModemProfileMatchTest, LongApnNameMatchesItsStoredPrefix) {
    ProfileParams params;
    params.setApnName(std::string(200, 'N'));
    Modem3gpp2Profile profile(params);
    FilterProfileParams filter;
    filter.setApnName(std::string(200, 'n'));
    EXPECT_TRUE(profile.match(filter));
    filter.setApnName(std::string(149, 'n'));
    EXPECT_FALSE(profile.match(filter));
}

TEST(ModemProfileMatchTest, HomeIPTypeSubsetAndSuperset) {
    struct Case {
        IPType profile;
        IPType requested;
        unsigned int criteria;
        bool expected;
    };
    const std::vector<Case> cases = {
        {IPType::V6, IPType::V6, 0, true},       {IPType::V4V6, IPType::V4, 0, false},
        {IPType::V4V6, IPType::V4, 0x01, true},  {IPType::V4V6, IPType::V4, 0x10, false},
        {IPType::V4, IPType::V4V6, 0x10, true},  {IPType::V4, IPType::V4V6, 0x01, false},
        {IPType::V4, IPType::V4V6, 0x11, true},  {IPType::V4V6, IPType::V6, 0x11, true},
        {IPType::V4, IPType::V6, 0x11, false},   {IPType::V4V6, IPType::V4, 0x02, false},
        {IPType::V4, IPType::V4V6, 0x20, false},
    };
    for (const Case& c : cases) {
        ProfileParams params;
        params.setHomeIPType(c.profile);
        Modem3gpp2Profile profile(params);
        FilterProfileParams filter;
        filter.setHomeIPType(c.requested);
        filter.addFilterMatchCriteria(c.criteria);
        EXPECT_EQ(profile.match(filter), c.expected)
            << static_cast<int>(c.profile) << " vs " << static_cast<int>(c.requested) << " with "
            << c.criteria;
    }
}

TEST(ModemProfileMatchTest, OverrideDecidesTheHomeTypeUnlessUnknown) {
    struct Case {
        Opt override;
        Opt common;
        IPType requested;
        bool expected;
    };
    const std::vector<Case> cases = {
        {IPType::UNKNOWN, IPType::V6, IPType::V6, true},
        {IPType::V4, IPType::V6, IPType::V4, true},
        {IPType::V4, IPType::V6, IPType::V6, false},
        {std::nullopt, std::nullopt, IPType::UNKNOWN, false},
        {IPType::UNKNOWN, std::nullopt, IPType::UNKNOWN, false},
    };
    for (const Case& c : cases) {
        Modem3gpp2Profile profile{ProfileParams()};
        if (c.override) {
            profile.setOverrideHomeIPType(*c.override);
        }
        if (c.common) {
            profile.setCommonIPType(*c.common);
        }
        FilterProfileParams filter;
        filter.setHomeIPType(c.requested);
        filter.addFilterMatchCriteria(0x11);
        EXPECT_EQ(profile.match(filter), c.expected) << static_cast<int>(c.requested);
    }
}

TEST(ModemProfileMatchTest, RoamingTypeNeedsLteAndUmtsToAgree) {
    struct Case {
        Opt lte;
        Opt umts;
        Opt common;
        IPType requested;
        unsigned int criteria;
        bool expected;
    };
    const std::vector<Case> cases = {
        {IPType::V4, IPType::V4, IPType::V6, IPType::V4, 0, true},
        {IPType::V4, IPType::V6, IPType::V4, IPType::V4, 0x22, false},
        {IPType::V4, std::nullopt, IPType::V4, IPType::V4, 0, false},
        {std::nullopt, IPType::V4, IPType::V4, IPType::V4, 0, false},
        {std::nullopt, std::nullopt, IPType::V6, IPType::V6, 0, true},
        {std::nullopt, std::nullopt, std::nullopt, IPType::V6, 0x22, false},
        {IPType::V4V6, IPType::V4V6, std::nullopt, IPType::V4, 0, false},
        {IPType::V4V6, IPType::V4V6, std::nullopt, IPType::V4, 0x02, true},
        {IPType::V4V6, IPType::V4V6, std::nullopt, IPType::V4, 0x20, false},
        {IPType::V4V6, IPType::V4V6, std::nullopt, IPType::V4, 0x01, false},
        {IPType::V4, IPType::V4, std::nullopt, IPType::V4V6, 0x20, true},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        const Case& c = cases[i];
        Modem3gppProfile profile{ProfileParams()};
        if (c.lte) {
            profile.setLteRoamIPType(*c.lte);
        }
        if (c.umts) {
            profile.setUmtsRoamIPType(*c.umts);
        }
        if (c.common) {
            profile.setCommonIPType(*c.common);
        }
        FilterProfileParams filter;
        filter.setRoamIPType(c.requested);
        filter.addFilterMatchCriteria(c.criteria);
        EXPECT_EQ(profile.match(filter), c.expected) << "case " << i;
    }
}

TEST(ModemProfileMatchTest, IdentityComesFromTheExactProfileName) {
    struct Case {
        std::optional<std::string> name;
        std::optional<bool> iaFilter;
        std::optional<bool> kelFilter;
        bool expected;
    };
    const std::vector<Case> cases = {
        {"kel_profile", std::nullopt, true, true},
        {"kel_profile", false, std::nullopt, true},
        {"kel_profile", true, std::nullopt, false},
        {"kel_profile_ia", true, std::nullopt, true},
        {"kel_profile_ia", std::nullopt, true, true},
        {"KEL_PROFILE", std::nullopt, true, false},
        {"kel_profile_ia2", true, std::nullopt, false},
        {std::nullopt, std::nullopt, false, true},
        {std::nullopt, std::nullopt, true, false},
        // The initial-attach flag wins when both are given.
        {"kel_profile", false, false, true},
        {"other", true, true, false},
    };
    for (const Case& c : cases) {
        Modem3gppProfile profile{ProfileParams()};
        if (c.name) {
            profile.setProfileName(*c.name);
        }
        FilterProfileParams filter;
        if (c.iaFilter) {
            filter.setFilterByIsIAProfile(*c.iaFilter);
        }
        if (c.kelFilter) {
            filter.setFilterByIsKelProfile(*c.kelFilter);
        }
        EXPECT_EQ(profile.match(filter), c.expected) << c.name.value_or("(none)");
    }
}

TEST(ModemProfileMatchTest, CdmaProfileNeverSatisfies3gppOnlyCriteria) {
    Modem3gpp2Profile profile(fullParams());
    expectMatches(profile,
                  {
                      {"plain", [](FilterProfileParams&) {}, true},
                      {"ia false", [](auto& f) { f.setFilterByIsIAProfile(false); }, false},
                      {"kel false", [](auto& f) { f.setFilterByIsKelProfile(false); }, false},
                      {"roam", [](auto& f) { f.setRoamIPType(IPType::V4V6); }, false},
                      {"per block", [](auto& f) { f.setMaxPdnsConnPerBlock(20); }, false},
                      {"timer", [](auto& f) { f.setMaxPdnConnTimer(300); }, false},
                      {"wait", [](auto& f) { f.setPdnReqWaitInterval(10); }, false},
                      {"disabled", [](auto& f) { f.setIsApnDisabled(false); }, false},
                      {"emergency", [](auto& f) { f.setIsEmergencySupported(true); }, false},
                  });
}

// --- IP types, diff, apply, get ------------------------------------------------------------

TEST(Modem3gppProfileTest, NewIPTypesFoldHomeAndRoaming) {
    struct Case {
        std::string name;
        Opt common, override, lte, umts;  // the profile
        Opt home, roam;                   // requested
        Opt newHome, newRoam, newOverride;
    };
    const Opt none;
    const std::vector<Case> cases = {
        {"differ", none, none, none, none, IPType::V4, IPType::V6, IPType::V4V6, IPType::V6,
         IPType::V4},
        {"equal", none, none, none, none, IPType::V4V6, IPType::V4V6, IPType::V4V6, IPType::V4V6,
         none},
        {"home only", none, none, none, none, IPType::V6, none, IPType::V6, none, none},
        {"kept", IPType::V4V6, IPType::V4, IPType::V6, IPType::V6, none, none, IPType::V4V6,
         IPType::V6, IPType::V4},
        {"stale override", IPType::V4V6, IPType::V4, IPType::V6, IPType::V6, IPType::V6, none,
         IPType::V6, IPType::V6, IPType::UNKNOWN},
        {"unknown override", IPType::V6, IPType::UNKNOWN, none, none, none, none, IPType::V6, none,
         none},
        {"roams disagree", IPType::V4, none, IPType::V4, IPType::V6, IPType::V6, none, IPType::V6,
         none, none},
        {"roam only", IPType::V6, none, none, none, none, IPType::V4, IPType::V4V6, IPType::V4,
         IPType::V6},
    };
    for (const Case& c : cases) {
        Modem3gppProfile profile{ProfileParams()};
        if (c.common)
            profile.setCommonIPType(*c.common);
        if (c.override)
            profile.setOverrideHomeIPType(*c.override);
        if (c.lte)
            profile.setLteRoamIPType(*c.lte);
        if (c.umts)
            profile.setUmtsRoamIPType(*c.umts);
        ProfileParams requested;
        if (c.home)
            requested.setHomeIPType(*c.home);
        if (c.roam)
            requested.setRoamIPType(*c.roam);
        Opt home = IPType::V4, roam = IPType::V4, override = IPType::V4;  // must be reset
        profile.getNewIPTypes(requested, home, roam, override);
        EXPECT_EQ(home, c.newHome) << c.name;
        EXPECT_EQ(roam, c.newRoam) << c.name;
        EXPECT_EQ(override, c.newOverride) << c.name;
    }
}

TEST(Modem3gppProfileTest, DiffHoldsExactlyTheChangedSettings) {
    struct Case {
        std::string name;
        std::function<void(ModifyProfileParams&)> setup;
        std::string expected;  // the diff's dump; empty when nothing changes
    };
    const std::string head = "TechType=3GPP,ProfileId=-1,";
    const std::vector<Case> cases = {
        {"everything repeated", [](auto& m) { m = ModifyProfileParams(fullParams()); }, ""},
        {"apn in other case", [](auto& m) { m.setApnName("ims.example.COM"); }, ""},
        {"apn", [](auto& m) { m.setApnName("New.APN"); }, head + "ApnName=new.apn,"},
        {"user", [](auto& m) { m.setUserName("alice"); }, head + "UserName=alice,"},
        {"auth", [](auto& m) { m.setAuthType(AuthType::PAP); }, head + "AuthType=PAP,"},
        {"same types", [](auto& m) { m.setApnTypesMask(0x41); }, ""},
        {"types", [](auto& m) { m.setApnTypesMask(0x40); }, head + "ApnTypesMask=2,"},
        {"class", [](auto& m) { m.setApnClass(ApnClass::INET); }, head + "ApnClass=INET,"},
        {"timer", [](auto& m) { m.setMaxPdnConnTimer(301); }, head + "MaxPdnConnTimer=301,"},
        {"disabled", [](auto& m) { m.setIsApnDisabled(true); }, head + "IsApnDisabled=true,"},
        {"home", [](auto& m) { m.setHomeIPType(IPType::V4); }, head + "OverrideHomeIPType=V4,"},
        {"roam", [](auto& m) { m.setRoamIPType(IPType::V6); },
         head + "OverrideHomeIPType=V4V6,LteRoamIP=V6,UmtsRoamIP=V6,"},
        {"two",
         [](auto& m) {
             m.setPassword("new");
             m.setIsEmergencySupported(false);
         },
         head + "Password=new,IsEmergencySupported=false,"},
    };
    auto profile = fullProfile();
    for (const Case& c : cases) {
        ModifyProfileParams requested;
        c.setup(requested);
        std::shared_ptr<ModemProfile> diff = profile->diff(requested);
        EXPECT_EQ(diff ? diff->dump() : "", c.expected) << c.name;
    }
}

TEST(Modem3gpp2ProfileTest, DiffComparesTheSingleIPTypeAndIgnoresRoaming) {
    Modem3gpp2Profile profile(fullParams());
    ModifyProfileParams requested(fullParams());
    requested.setRoamIPType(IPType::V4);
    requested.setMaxPdnConnTimer(1);
    EXPECT_EQ(profile.diff(requested), nullptr);
    requested.setHomeIPType(IPType::V6);
    std::shared_ptr<ModemProfile> diff = profile.diff(requested);
    ASSERT_NE(diff, nullptr);
    EXPECT_EQ(diff->dump(), "TechType=3GPP2,ProfileId=-1,CommonIPType=V6,");
}

TEST(Modem3gppProfileTest, SharedDiffSendsTheWholeLowerCasedApnAndNeverClearsChanged) {
    auto profile = fullProfile();
    ModifyProfileParams requested;
    requested.setApnName(std::string(200, 'Q'));
    ProfileParams diff;
    bool changed = false;
    profile->updateDiffParameters(requested, diff, changed);
    EXPECT_TRUE(changed);
    EXPECT_EQ(diff.getApnName(), std::string(200, 'q'));

    ProfileParams unchanged;
    changed = true;
    profile->updateDiffParameters(ModifyProfileParams(fullParams()), unchanged, changed);
    EXPECT_TRUE(changed);
    EXPECT_EQ(unchanged.dump(), "");
}

TEST(Modem3gppProfileTest, ApplyTakesPresentSettingsButNeverIdentity) {
    auto profile = fullProfile();
    profile->incRefCount();
    const std::string before = profile->dump();
    profile->apply(nullptr);
    EXPECT_EQ(profile->dump(), before);

    ProfileParams changes;
    changes.setApnName("NEW");
    changes.setUserName("alice");
    changes.setHomeIPType(IPType::V4);
    changes.setRoamIPType(IPType::V6);
    changes.setMaxPdnConnTimer(1);
    auto other = std::make_shared<Modem3gppProfile>(changes);
    other->setProfileName("other");
    other->setProfileId(9);
    profile->apply(other);
    EXPECT_EQ(profile->dump(),
              "TechType=3GPP,ProfileId=5,ApnName=new,UserName=alice,Password=pw,AuthType=CHAP,"
              "CommonIPType=V4V6,ApnTypesMask=3,ApnClass=IMS,IsClatEnabled=true,"
              "OverrideHomeIPType=V4,LteRoamIP=V6,UmtsRoamIP=V6,MaxPdnsConnPerBlock=20,"
              "MaxPdnConnTimer=1,PdnReqWaitInterval=10,IsApnDisabled=false,"
              "IsEmergencySupported=true,ProfileName=kel_profile,");
    EXPECT_EQ(profile->getRefCount(), 1);

    ProfileParams cdma;
    cdma.setHomeIPType(IPType::V6);
    cdma.setPassword("x");
    profile->apply(std::make_shared<Modem3gpp2Profile>(cdma));
    EXPECT_EQ(profile->getCommonIPType(), IPType::V6);
    EXPECT_EQ(profile->getPassword(), "x");
    EXPECT_EQ(profile->getLteRoamIPType(), IPType::V6);
}

TEST(Modem3gppProfileTest, GetReportsIdentityHomeAndAgreedRoaming) {
    struct Case {
        std::optional<std::string> name;
        bool ia;
        bool kel;
    };
    const std::vector<Case> cases = {{std::nullopt, false, false},
                                     {"kel_profile", false, true},
                                     {"kel_profile_ia", true, true},
                                     {"Kel_profile", false, false}};
    for (const Case& c : cases) {
        ProfileParams params = fullParams();
        params.setHomeIPType(IPType::V4);
        params.setRoamIPType(IPType::V6);
        Modem3gppProfile profile(params);
        if (c.name) {
            profile.setProfileName(*c.name);
        }
        FilterProfileParams got(profile.get());
        EXPECT_TRUE(got.hasFilterByIsIAProfile());
        EXPECT_TRUE(got.hasFilterByIsKelProfile());
        EXPECT_EQ(got.getIsIAProfile(), c.ia) << c.name.value_or("(none)");
        EXPECT_EQ(got.getIsKelProfile(), c.kel) << c.name.value_or("(none)");
        EXPECT_EQ(got.getHomeIPType(), IPType::V4);
        EXPECT_EQ(got.getRoamIPType(), IPType::V6);
        EXPECT_EQ(got.getApnTypesMask(), 0x41u);
        EXPECT_EQ(got.getPdnReqWaitInterval(), 10);
    }
    Modem3gppProfile disagreeing{ProfileParams()};
    disagreeing.setLteRoamIPType(IPType::V4);
    disagreeing.setUmtsRoamIPType(IPType::V6);
    EXPECT_FALSE(disagreeing.get().hasRoamIPType());
    EXPECT_FALSE(disagreeing.get().hasHomeIPType());
}

TEST(Modem3gpp2ProfileTest, GetReportsHomeTypeWithoutIdentity) {
    FilterProfileParams got(Modem3gpp2Profile(fullParams()).get());
    EXPECT_FALSE(got.hasFilterByIsKelProfile());
    EXPECT_FALSE(got.hasFilterByIsIAProfile());
    EXPECT_FALSE(got.hasRoamIPType());
    EXPECT_EQ(got.dump(),
              "None: ApnName=ims.example.com,UserName=bob,Password=pw,AuthType=CHAP,"
              "HomeIPType=V4V6,ApnTypesMask=DEFAULT|IMS|,ApnClass=IMS,IsClatEnabled=true,");
}

// --- Listeners and reference count ---------------------------------------------------------

class ModemProfileListenerTest : public DebugLogFixture {};

TEST_F(ModemProfileListenerTest, DestructionCallsLiveListenersInOrder) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    auto first = makeKey(1), second = makeKey(2), third = makeKey(3);
    std::vector<int> calls;
    auto profile = fullProfile();
    profile->registerExpirationListener([&calls] { calls.push_back(1); }, first);
    profile->registerExpirationListener([&calls] { calls.push_back(2); }, second);
    profile->registerExpirationListener([&calls] { calls.push_back(3); }, third);
    second.reset();
    capture.clear();
    profile.reset();
    EXPECT_EQ(calls, (std::vector<int>{1, 3}));
    EXPECT_EQ(debugLines(),
              (std::vector<std::string>{"~ModemProfile()", "invoke callback", "invoke callback"}));
}

TEST_F(ModemProfileListenerTest, ClearingDropsOnlyListenersOfGoneHandles) {
    auto kept = makeKey(1), gone = makeKey(2);
    auto keptState = std::make_shared<int>(0), goneState = std::make_shared<int>(0);
    auto profile = fullProfile();
    profile->registerExpirationListener([keptState] { ++*keptState; }, kept);
    profile->registerExpirationListener([goneState] { ++*goneState; }, gone);
    gone.reset();
    EXPECT_EQ(goneState.use_count(), 2);
    profile->clearExpiredListeners();
    EXPECT_EQ(goneState.use_count(), 1) << "the gone handle's listener is released";
    EXPECT_EQ(keptState.use_count(), 2);
    profile.reset();
    EXPECT_EQ(*keptState, 1);
    EXPECT_EQ(*goneState, 0);
}

// --- Create and modify records -------------------------------------------------------------

TEST(Modem3gppProfileRequestTest, AddRequestCarriesEverySetting) {
    ProfileParams params = fullParams();
    params.setHomeIPType(IPType::V4);
    params.setRoamIPType(IPType::V6);
    params.setAuthType(AuthType::PAP_CHAP);
    params.setIsApnDisabled(true);
    params.setIsEmergencySupported(false);
    Modem3gppProfile profile(params);
    profile.setProfileName(std::string(60, 'n'));
    profile.setApnName(std::string(200, 'a'));
    profile.setUserName(std::string(200, 'u'));
    profile.setPassword(std::string(200, 'p'));
    profile.setIsPersistent(true);

    const wds_create_profile_req_msg_v01 req = profile.constructAddRequest();
    const wds_profile_settings_v01& s = req.settings;
    EXPECT_EQ(req.profile_type, WDS_PROFILE_TYPE_3GPP_V01);
    EXPECT_TRUE(s.persistent_valid && s.persistent);
    EXPECT_TRUE(s.apn_type_mask_valid);
    EXPECT_EQ(s.apn_type_mask, 0x3u);
    EXPECT_TRUE(s.clat_enabled_valid && s.clat_enabled);
    EXPECT_TRUE(s.profile_name_valid);
    EXPECT_EQ(std::string(s.profile_name), std::string(50, 'n'));
    EXPECT_EQ(std::string(s.apn_name), std::string(150, 'a'));
    EXPECT_EQ(std::string(s.username), std::string(127, 'u'));
    EXPECT_EQ(std::string(s.password), std::string(127, 'p'));
    EXPECT_TRUE(s.pdp_type_valid && s.common_pdp_type_valid);
    EXPECT_EQ(s.pdp_type, WDS_PDP_TYPE_PDP_IPV4V6_V01);
    EXPECT_EQ(s.common_pdp_type, WDS_COMMON_PDP_TYPE_PDP_IPV4_V01);
    EXPECT_TRUE(s.lte_roaming_pdp_type_valid && s.umts_roaming_pdp_type_valid);
    EXPECT_EQ(s.lte_roaming_pdp_type, WDS_COMMON_PDP_TYPE_PDP_IPV6_V01);
    EXPECT_EQ(s.umts_roaming_pdp_type, WDS_COMMON_PDP_TYPE_PDP_IPV6_V01);
    EXPECT_TRUE(s.max_pdn_conn_per_block_valid && s.max_pdn_conn_timer_valid &&
                s.pdn_req_wait_interval_valid);
    EXPECT_EQ(s.max_pdn_conn_per_block, 20);
    EXPECT_EQ(s.max_pdn_conn_timer, 300);
    EXPECT_EQ(s.pdn_req_wait_interval, 10);
    EXPECT_TRUE(s.apn_disabled_flag_valid && s.apn_disabled_flag);
    EXPECT_TRUE(s.support_emergency_calls_valid);
    EXPECT_EQ(s.support_emergency_calls, 0);
    EXPECT_TRUE(s.authentication_preference_valid);
    EXPECT_EQ(s.authentication_preference, 3);
    EXPECT_TRUE(s.apn_class_valid);
    EXPECT_EQ(s.apn_class, 1);
    EXPECT_FALSE(s.user_id_valid || s.apn_string_valid || s.pdn_type_valid ||
                 s.profile_auth_protocol_valid || s.apn_class_3gpp2_valid);
}

TEST(ModemProfileRequestTest, EmptyProfilesSendOnlyTheirIdentityAndPersistence) {
    for (TechType tech : {TechType::TYPE_3GPP, TechType::TYPE_3GPP2}) {
        std::unique_ptr<ModemProfile> profile;
        if (tech == TechType::TYPE_3GPP) {
            profile = std::make_unique<Modem3gppProfile>(ProfileParams());
        } else {
            profile = std::make_unique<Modem3gpp2Profile>(ProfileParams());
        }
        profile->setProfileId(258);
        wds_create_profile_req_msg_v01 add;
        std::memset(&add, 0, sizeof(add));
        add.profile_type =
            tech == TechType::TYPE_3GPP ? WDS_PROFILE_TYPE_3GPP_V01 : WDS_PROFILE_TYPE_3GPP2_V01;
        add.settings.persistent_valid = 1;
        const wds_create_profile_req_msg_v01 builtAdd = profile->constructAddRequest();
        EXPECT_EQ(std::memcmp(&builtAdd, &add, sizeof(add)), 0) << static_cast<int>(tech);

        wds_modify_profile_settings_req_msg_v01 modify;
        std::memset(&modify, 0, sizeof(modify));
        modify.profile.profile_type = add.profile_type;
        modify.profile.profile_index = 2;
        const wds_modify_profile_settings_req_msg_v01 builtModify =
            profile->constructModifyRequest();
        EXPECT_EQ(std::memcmp(&builtModify, &modify, sizeof(modify)), 0) << static_cast<int>(tech);
    }
}

TEST(Modem3gppProfileRequestTest, ModifyRequestNamesTheProfileAndOmitsPersistence) {
    auto profile = fullProfile();
    profile->setIsPersistent(true);
    const wds_modify_profile_settings_req_msg_v01 req = profile->constructModifyRequest();
    EXPECT_EQ(req.profile.profile_type, WDS_PROFILE_TYPE_3GPP_V01);
    EXPECT_EQ(req.profile.profile_index, 5);
    EXPECT_FALSE(req.settings.persistent_valid);
    EXPECT_EQ(std::string(req.settings.apn_name), "ims.example.com");
    EXPECT_EQ(std::string(req.settings.profile_name), "kel_profile");
    EXPECT_EQ(req.settings.pdp_type, WDS_PDP_TYPE_PDP_IPV4V6_V01);
    EXPECT_FALSE(req.settings.common_pdp_type_valid);
    EXPECT_EQ(req.settings.authentication_preference, 2);
}

TEST(Modem3gpp2ProfileRequestTest, CredentialsAndAuthGoToProfileAndPdnLevel) {
    struct Case {
        AuthType auth;
        int expected;
    };
    for (const Case& c : std::vector<Case>{{AuthType::PAP_CHAP, 3}, {AuthType::NONE, 0}}) {
        ProfileParams params = fullParams();
        params.setAuthType(c.auth);
        params.setHomeIPType(IPType::V4);
        params.setUserName(std::string(200, 'u'));
        params.setPassword(std::string(200, 'p'));
        Modem3gpp2Profile profile(params);
        profile.setProfileId(7);
        const wds_create_profile_req_msg_v01 add = profile.constructAddRequest();
        const wds_modify_profile_settings_req_msg_v01 modify = profile.constructModifyRequest();
        EXPECT_EQ(add.profile_type, WDS_PROFILE_TYPE_3GPP2_V01);
        EXPECT_EQ(modify.profile.profile_type, WDS_PROFILE_TYPE_3GPP2_V01);
        EXPECT_EQ(modify.profile.profile_index, 7);
        EXPECT_FALSE(modify.settings.persistent_valid);
        for (const wds_profile_settings_v01* s : {&add.settings, &modify.settings}) {
            EXPECT_TRUE(s->profile_auth_protocol_valid && s->pdn_level_auth_protocol_valid);
            EXPECT_EQ(s->profile_auth_protocol, c.expected);
            EXPECT_EQ(s->pdn_level_auth_protocol, c.expected);
            EXPECT_EQ(std::string(s->user_id), std::string(127, 'u'));
            EXPECT_EQ(std::string(s->pdn_level_user_id), std::string(127, 'u'));
            EXPECT_EQ(std::string(s->auth_password), std::string(127, 'p'));
            EXPECT_EQ(std::string(s->pdn_level_auth_password), std::string(127, 'p'));
            EXPECT_EQ(std::string(s->apn_string), "ims.example.com");
            EXPECT_TRUE(s->pdn_type_valid);
            EXPECT_EQ(s->pdn_type, WDS_PROFILE_PDN_TYPE_IPV4_V01);
            EXPECT_EQ(s->apn_class_3gpp2, 1);
            EXPECT_EQ(s->apn_type_mask, 0x3u);
            EXPECT_FALSE(s->apn_name_valid || s->username_valid || s->pdp_type_valid ||
                         s->max_pdn_conn_timer_valid || s->lte_roaming_pdp_type_valid);
        }
    }
}

// --- Reading get-settings responses --------------------------------------------------------

class ModemProfileResponseTest : public DebugLogFixture {};

TEST_F(ModemProfileResponseTest, Reads3gppSettings) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    wds_get_profile_settings_resp_msg_v01 resp = emptyResponse();
    wds_profile_settings_v01& s = resp.settings;
    s.profile_name_valid = 1;
    std::strcpy(s.profile_name, "kel_profile_ia");
    s.pdp_type_valid = 1;
    s.pdp_type = WDS_PDP_TYPE_PDP_IPV4V6_V01;
    s.lte_roaming_pdp_type_valid = 1;
    s.lte_roaming_pdp_type = WDS_COMMON_PDP_TYPE_PDP_IPV6_V01;
    s.umts_roaming_pdp_type_valid = 1;
    s.umts_roaming_pdp_type = WDS_COMMON_PDP_TYPE_PDP_IPV6_V01;
    s.common_pdp_type_valid = 1;
    s.common_pdp_type = WDS_COMMON_PDP_TYPE_PDP_IPV4_V01;
    s.apn_name_valid = 1;
    std::strcpy(s.apn_name, "IMS");
    s.apn_class_valid = 1;
    s.apn_class = 3;
    s.support_emergency_calls_valid = 1;
    s.support_emergency_calls = 2;
    s.authentication_preference_valid = 1;
    s.authentication_preference = 0x05;
    s.max_pdn_conn_per_block_valid = s.max_pdn_conn_timer_valid = 1;
    s.pdn_req_wait_interval_valid = 1;
    s.max_pdn_conn_per_block = 20;
    s.max_pdn_conn_timer = 65535;
    s.pdn_req_wait_interval = 10;
    s.apn_disabled_flag_valid = 1;
    s.apn_disabled_flag = 1;
    s.username_valid = s.password_valid = 1;
    std::strcpy(s.username, "bob");
    std::strcpy(s.password, "pw");
    s.apn_type_mask_valid = 1;
    s.apn_type_mask = (1ull << 40) | 0x2;
    s.clat_enabled_valid = s.persistent_valid = 1;
    s.persistent = 1;
    s.user_id_valid = 1;  // 3GPP2 fields are not read for 3GPP
    std::strcpy(s.user_id, "cdma");

    Modem3gppProfile profile(4, resp);
    EXPECT_TRUE(profile.getIsPersistent());
    EXPECT_FALSE(profile.getIsKelCreated());
    EXPECT_EQ(profile.dump(),
              "TechType=3GPP,ProfileId=4,ApnName=ims,UserName=bob,Password=pw,AuthType=PAP,"
              "CommonIPType=V4V6,ApnTypesMask=1099511627778,ApnClass=INET,IsClatEnabled=false,"
              "OverrideHomeIPType=V4,LteRoamIP=V6,UmtsRoamIP=V6,MaxPdnsConnPerBlock=20,"
              "MaxPdnConnTimer=65535,PdnReqWaitInterval=10,IsApnDisabled=true,"
              "IsEmergencySupported=true,ProfileName=kel_profile_ia,");
    EXPECT_TRUE(debugLines().empty());
}

TEST_F(ModemProfileResponseTest, RoamingTypesOf255AreAbsentAndPppIsUnknown) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    wds_get_profile_settings_resp_msg_v01 resp = emptyResponse();
    resp.settings.pdp_type_valid = 1;
    resp.settings.pdp_type = WDS_PDP_TYPE_PDP_PPP_V01;
    resp.settings.lte_roaming_pdp_type_valid = 1;
    resp.settings.lte_roaming_pdp_type = WDS_COMMON_PDP_TYPE_PDP_UNUSED_V01;
    resp.settings.umts_roaming_pdp_type_valid = 1;
    resp.settings.umts_roaming_pdp_type = static_cast<wds_common_pdp_type_enum_v01>(7);
    // Fields not marked valid are ignored whatever they hold.
    std::strcpy(resp.settings.apn_name, "ignored");
    resp.settings.apn_class = 3;

    Modem3gppProfile profile(1, resp);
    EXPECT_EQ(profile.getCommonIPType(), IPType::UNKNOWN);
    EXPECT_FALSE(profile.hasLteRoamIPType());
    EXPECT_EQ(profile.getUmtsRoamIPType(), IPType::UNKNOWN);
    EXPECT_FALSE(profile.hasApnName());
    EXPECT_FALSE(profile.hasApnClass());
    EXPECT_EQ(debugLines(),
              (std::vector<std::string>{"Unknown pdp_type_enum 1", "Unknown pdp_type_enum 7"}));

    // With LTE absent, a present UMTS type still blocks falling back to the PDP type.
    FilterProfileParams filter;
    filter.setRoamIPType(IPType::UNKNOWN);
    EXPECT_FALSE(profile.match(filter));
}

TEST_F(ModemProfileResponseTest, UnterminatedTextsStayWithinTheirFieldsAndCredentialLimits) {
    wds_get_profile_settings_resp_msg_v01 resp = emptyResponse();
    wds_profile_settings_v01& s = resp.settings;
    s.profile_name_valid = s.apn_name_valid = s.username_valid = s.password_valid = 1;
    std::memset(s.profile_name, 'N', sizeof(s.profile_name));
    std::memset(s.apn_name, 'A', sizeof(s.apn_name));
    std::memset(s.username, 'U', sizeof(s.username));
    std::memset(s.password, 'P', sizeof(s.password));
    // The bytes after each text are nonzero, so reading on would show up as extra characters.
    s.pdp_type_valid = 'X';
    s.authentication_preference_valid = 'X';
    Modem3gppProfile profile(1, resp);
    EXPECT_EQ(profile.getProfileName(), std::string(51, 'N'));
    // An APN name is read to its field's end, then stored at 150 characters as every APN name is.
    EXPECT_EQ(profile.getApnName(), std::string(150, 'a'));
    // Credentials are at most 127 characters, even when the modem fills all 128 bytes.
    EXPECT_EQ(profile.getUserName(), std::string(127, 'U'));
    EXPECT_EQ(profile.getPassword(), std::string(127, 'P'));

    s.user_id_valid = s.apn_string_valid = 1;
    std::memset(s.user_id, 'I', sizeof(s.user_id));
    std::memset(s.apn_string, 'S', sizeof(s.apn_string));
    Modem3gpp2Profile cdma(1, resp);
    EXPECT_EQ(cdma.getUserName(), std::string(127, 'I'));
    EXPECT_EQ(cdma.getApnName(), std::string(150, 's'));
}

TEST_F(ModemProfileResponseTest, Reads3gpp2SettingsButNotThePassword) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    wds_get_profile_settings_resp_msg_v01 resp = emptyResponse();
    wds_profile_settings_v01& s = resp.settings;
    s.pdn_type_valid = 1;
    s.pdn_type = WDS_PROFILE_PDN_TYPE_IPV6_V01;
    s.apn_string_valid = 1;
    std::strcpy(s.apn_string, "CDMA.Apn");
    s.apn_class_3gpp2_valid = 1;
    s.apn_class_3gpp2 = 2;
    s.profile_auth_protocol_valid = 1;
    s.profile_auth_protocol = static_cast<wds_profile_auth_protocol_enum_v01>(5);
    s.user_id_valid = s.auth_password_valid = 1;
    std::strcpy(s.user_id, "bob");
    std::strcpy(s.auth_password, "secret");
    s.clat_enabled_valid = s.clat_enabled = 1;
    s.common_pdp_type_valid = 1;
    s.common_pdp_type = WDS_COMMON_PDP_TYPE_PDP_IPV4V6_V01;

    Modem3gpp2Profile profile(3, resp);
    EXPECT_EQ(profile.dump(),
              "TechType=3GPP2,ProfileId=3,ApnName=cdma.apn,UserName=bob,AuthType=NONE,"
              "CommonIPType=V6,ApnClass=ADMN,IsClatEnabled=true,");
    EXPECT_EQ(profile.getOverrideHomeIPType(), IPType::V4V6);

    struct Case {
        int pdnType;
        IPType expected;
        std::vector<std::string> log;
    };
    const std::vector<Case> cases = {{3, IPType::UNKNOWN, {}},
                                     {7, IPType::UNKNOWN, {"Unknown profile_pdn_type_enum 7"}}};
    for (const Case& c : cases) {
        capture.clear();
        s.pdn_type = static_cast<wds_profile_pdn_type_enum_v01>(c.pdnType);
        Modem3gpp2Profile read(3, resp);
        EXPECT_EQ(read.getCommonIPType(), c.expected);
        EXPECT_EQ(debugLines(), c.log) << c.pdnType;
    }
}

}  // namespace
}  // namespace kel
