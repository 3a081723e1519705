// The fixture of the Util tests: a carrier-provisioned simulated modem and the process-wide
// Manager that Util works through.
#ifndef KELR_TESTS_E2E_UTIL_SIM_MODEM_FIXTURE_H
#define KELR_TESTS_E2E_UTIL_SIM_MODEM_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>
#include "e2e/SimModemFixture.h"
#include "kel/Util.h"
#include "support/LogObservation.h"

namespace kel {
namespace utiltest {

using ::testing::HasSubstr;
using ::testing::Not;

using e2e::CaseName;
using e2e::k3gpp;
using e2e::k3gpp2;

// What a carrier-provisioned modem ships with. 3GPP index 7 is left free so that 3GPP2 profile 7
// has no 3GPP namesake.
constexpr char kCarrierSeed[] = R"(
profile 3gpp index=1 name=Internet apn=internet pdp=ipv4v6 class=3 types=default
profile 3gpp index=2 name=IMS apn=ims pdp=ipv4 class=1 types=ims
profile 3gpp index=3 name=IMS apn=ims pdp=ipv6 class=1 types=ims
profile 3gpp index=4 name=IMS apn=ims pdp=ipv4v6 class=1 types=ims
profile 3gpp index=5 name=MMS apn=mms pdp=ipv4 class=4 types=mms
profile 3gpp index=6 name=SOS apn=sos pdp=ipv4v6 emergency=yes types=emergency
profile 3gpp index=8 name=XCAP apn=xcap pdp=ipv4 types=xcap
profile 3gpp index=9 name=XCAP apn=xcap pdp=ipv6 types=xcap
profile 3gpp2 index=1 apn=internet pdn=ipv4v6 user=cdmauser class=3 types=default
profile 3gpp2 index=2 apn=internet pdn=ipv4v6 user=roamuser class=3 types=default
profile 3gpp2 index=7 apn=ims pdn=ipv4v6 class=1 types=ims
)";

// A carrier without an emergency-capable profile.
constexpr char kNoEmergencySeed[] = R"(
profile 3gpp index=1 name=Internet apn=internet pdp=ipv4v6 class=3 types=default
profile 3gpp index=2 name=IMS apn=ims pdp=ipv4v6 class=1 types=ims
)";

// The library's initial-attach profile, kept by the modem from an earlier boot, next to a
// single-stack carrier profile.
constexpr char kSavedAttachSeed[] = R"(
profile 3gpp index=1 name=IMS apn=ims pdp=ipv4 class=1 types=ims
profile 3gpp index=2 name=kel_profile_ia apn=ia.example pdp=ipv6 types=default,ia
)";

constexpr unsigned int lib(ApnTypes type) {
    return static_cast<unsigned int>(type);
}

inline ProfileParams apnParams(const std::string& apn, std::optional<IPType> home = std::nullopt) {
    ProfileParams params;
    params.setApnName(apn);
    if (home) {
        params.setHomeIPType(*home);
    }
    return params;
}

inline ProfileParams apnTypeEntry(const std::string& apn, IPType home, unsigned int mask) {
    ProfileParams entry = apnParams(apn, home);
    entry.setApnTypesMask(mask);
    return entry;
}

// The shared end-to-end fixture, with Util's Manager (the process-wide one) connected.
class UtilSimModemTest : public e2e::SimModemFixture {
  protected:
    UtilSimModemTest() { config.seedText = kCarrierSeed; }

    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(startModem());
        ASSERT_NO_FATAL_FAILURE(connect(Manager::getInstance(), 0));
        clearLogs();
    }

    // The process-wide Manager outlives the test: park it on a directory where no modem ever
    // runs, while this modem is still up, so that it neither sees this modem go nor finds the
    // next test's modem.
    void TearDown() override {
        ASSERT_EQ(setenv("VEX_SERVICE_DIR", idleDir.path().c_str(), 1), 0);
        Manager::getInstance().init(0, true);
    }

    // The filters that reached the library since the logs were cleared, as it dumped them.
    std::vector<std::string> filtersSent() const {
        std::vector<std::string> filters;
        for (const hostlog::AndroidLogRecord& record :
             capture.androidContaining("Manager::filter > ")) {
            filters.push_back(record.message.substr(std::strlen("Manager::filter > ")));
        }
        return filters;
    }

    // Every profile of the modem, one line each, to show that nothing changed.
    std::vector<std::string> modemSnapshot() const {
        std::vector<std::string> lines;
        for (const vexsim::Profile& profile : modem->profiles(0)) {
            lines.push_back(vexsim::formatProfile(profile));
        }
        return lines;
    }

    testsupport::TempDir idleDir;
    Util util;
};

}  // namespace utiltest
}  // namespace kel

#endif  // KELR_TESTS_E2E_UTIL_SIM_MODEM_FIXTURE_H
