// Profiles and helpers shared by the modem profile tests.
#ifndef KELR_TESTS_MODEM_PROFILE_TEST_SUPPORT_H
#define KELR_TESTS_MODEM_PROFILE_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ModemProfile.h"
#include "ProfileKey.h"

namespace kel {
namespace modemprofiletest {

using Opt = std::optional<IPType>;

// A 3GPP profile with every setting, as a client would add it.
inline ProfileParams fullParams() {
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

inline std::shared_ptr<Modem3gppProfile> fullProfile() {
    auto profile = std::make_shared<Modem3gppProfile>(fullParams());
    profile->setProfileId(5);
    profile->setProfileName("kel_profile");
    return profile;
}

// A handle whose release goes nowhere.
inline std::shared_ptr<IProfileKey> makeKey(TechType techType, int profileId,
                                            unsigned long long token) {
    return std::make_shared<ProfileKey>(techType, profileId, token,
                                        [](std::shared_ptr<ClientRequest>) { return nullptr; });
}

inline wds_get_profile_settings_resp_msg_v01 emptyResponse() {
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
inline std::function<void(FilterProfileParams&)> loosened(Setter setter, unsigned int criteria) {
    return [=](FilterProfileParams& f) {
        setter(f);
        f.addFilterMatchCriteria(criteria);
    };
}

inline void expectMatches(const ModemProfile& profile, const std::vector<FilterCase>& cases) {
    for (const FilterCase& c : cases) {
        FilterProfileParams filter;
        c.setup(filter);
        EXPECT_EQ(profile.match(filter), c.expected) << c.name;
    }
}

}  // namespace modemprofiletest
}  // namespace kel

#endif  // KELR_TESTS_MODEM_PROFILE_TEST_SUPPORT_H
