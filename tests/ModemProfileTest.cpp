#include "ModemProfile.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ModemProfileTestSupport.h"

namespace kel {
namespace {

using namespace modemprofiletest;

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
}

// --- match ---------------------------------------------------------------------------------

// Each setting that matches alone also matches in "all together"; each one that differs fails.
TEST(ModemProfileMatchTest, EachCriterionOnAFullProfile) {
    expectMatches(
        *fullProfile(),
        {
            {"empty filter", [](FilterProfileParams&) {}, true},
            {"other tech", [](auto& f) { f.setFilterByTechType(TechType::TYPE_3GPP2); }, false},
            {"apn any case", [](auto& f) { f.setApnName("ims.EXAMPLE.com"); }, true},
            {"apn part", [](auto& f) { f.setApnName("example"); }, false},
            {"apn part subset", loosened([](auto& f) { f.setApnName("EXAMPLE"); }, 0x04), true},
            {"apn empty subset", loosened([](auto& f) { f.setApnName(""); }, 0x04), true},
            {"apn other subset", loosened([](auto& f) { f.setApnName("internet"); }, 0x04), false},
            {"user case", [](auto& f) { f.setUserName("Bob"); }, false},
            {"password differs", [](auto& f) { f.setPassword("pw2"); }, false},
            {"auth differs", [](auto& f) { f.setAuthType(AuthType::PAP); }, false},
            {"types exact unknown bit ignored", [](auto& f) { f.setApnTypesMask(0x1041); }, true},
            {"types fewer", [](auto& f) { f.setApnTypesMask(0x01); }, false},
            {"types fewer subset", loosened([](auto& f) { f.setApnTypesMask(0x01); }, 0x08), true},
            {"types more subset", loosened([](auto& f) { f.setApnTypesMask(0x43); }, 0x08), false},
            {"types none subset", loosened([](auto& f) { f.setApnTypesMask(0); }, 0x08), true},
            {"types none exact", [](auto& f) { f.setApnTypesMask(0); }, false},
            {"class differs", [](auto& f) { f.setApnClass(ApnClass::INET); }, false},
            {"clat differs", [](auto& f) { f.setIsClatEnabled(false); }, false},
            {"id differs", [](auto& f) { f.setFilterByProfileId(6); }, false},
            {"timer differs", [](auto& f) { f.setPdnReqWaitInterval(11); }, false},
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

// The override decides the home type unless it is unknown; subset and superset loosen the match.
TEST(ModemProfileMatchTest, HomeIPTypeFromOverrideOrCommonTypeSubsetAndSuperset) {
    struct Case {
        Opt override;
        Opt common;
        IPType requested;
        unsigned int criteria;
        bool expected;
    };
    const Opt none;
    const std::vector<Case> cases = {
        {none, IPType::V6, IPType::V6, 0, true},
        {none, IPType::V4V6, IPType::V4, 0, false},
        {none, IPType::V4V6, IPType::V4, 0x01, true},
        {none, IPType::V4V6, IPType::V4, 0x10, false},
        {none, IPType::V4, IPType::V4V6, 0x10, true},
        {none, IPType::V4, IPType::V4V6, 0x01, false},
        {none, IPType::V4, IPType::V4V6, 0x11, true},
        {none, IPType::V4V6, IPType::V6, 0x11, true},
        {none, IPType::V4, IPType::V6, 0x11, false},
        {none, IPType::V4V6, IPType::V4, 0x02, false},
        {none, IPType::V4, IPType::V4V6, 0x20, false},
        {IPType::UNKNOWN, IPType::V6, IPType::V6, 0x11, true},
        {IPType::V4, IPType::V6, IPType::V4, 0x11, true},
        {IPType::V4, IPType::V6, IPType::V6, 0x11, false},
        {none, none, IPType::UNKNOWN, 0x11, false},
        {IPType::UNKNOWN, none, IPType::UNKNOWN, 0x11, false},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        const Case& c = cases[i];
        Modem3gpp2Profile profile{ProfileParams()};
        if (c.override) {
            profile.setOverrideHomeIPType(*c.override);
        }
        if (c.common) {
            profile.setCommonIPType(*c.common);
        }
        FilterProfileParams filter;
        filter.setHomeIPType(c.requested);
        filter.addFilterMatchCriteria(c.criteria);
        EXPECT_EQ(profile.match(filter), c.expected) << "case " << i;
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

// The dumps show what is absent too: no 3GPP settings, no identity, no roaming type.
TEST(Modem3gpp2ProfileTest, KeepsHomeTypeAndReportsItWithoutIdentity) {
    Modem3gpp2Profile profile(fullParams());
    EXPECT_EQ(profile.dump(),
              "TechType=3GPP2,ProfileId=-1,ApnName=ims.example.com,UserName=bob,Password=pw,"
              "AuthType=CHAP,CommonIPType=V4V6,ApnTypesMask=3,ApnClass=IMS,IsClatEnabled=true,");
    EXPECT_EQ(FilterProfileParams(profile.get()).dump(),
              "None: ApnName=ims.example.com,UserName=bob,Password=pw,AuthType=CHAP,"
              "HomeIPType=V4V6,ApnTypesMask=DEFAULT|IMS|,ApnClass=IMS,IsClatEnabled=true,");
}

}  // namespace
}  // namespace kel
