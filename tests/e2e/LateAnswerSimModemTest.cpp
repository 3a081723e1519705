// End to end: a change the modem makes but answers too late is still taken into the library's
// cache through the modem's echo, and echoes are never taken as the confirmation of a change the
// modem will not echo. Against the embedded simulated modem, which applies a change at once and
// holds back only its answer.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "SimModemFixture.h"

namespace e2e {
namespace {

using kel::Manager;

class LateAnswerSimModemTest : public SimModemFixture {};

// How a late create lands in the cache is checked with the other failed calls; here, that its
// echo is not taken for the answer to the next create.
TEST_F(LateAnswerSimModemTest, ALateCreateIsNotTakenForTheNextAnswer) {
    modem->setResponseDelay(kLate, VEX_WDS_CREATE_PROFILE_REQ_V01);
    EXPECT_FALSE(manager.addProfile(addParams("slow.example", true)));
    modem->setResponseDelay(std::chrono::milliseconds(0));
    ASSERT_TRUE(settle());
    std::shared_ptr<kel::IProfileKey> next = manager.addProfile(addParams("next.example", true));
    ASSERT_TRUE(next);
    ASSERT_TRUE(onModem(k3gpp, next->getProfileId()));
    EXPECT_STREQ(onModem(k3gpp, next->getProfileId())->settings.apn_name, "next.example");
    EXPECT_EQ(onModemNamed("kel_profile").size(), 2u) << "the modem made both";
}

// A link that could not register hears no echoes, so with echoes expiring the changes made on it
// expect none that a later link would then take for theirs.
TEST_F(LateAnswerSimModemTest, WithEchoExpiryALostLinksChangesDoNotSwallowALaterOnesEchoes) {
    const int previous = newestClientId();
    modem->failNext(1, VEX_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01);
    kel::Options options;
    options.echoExpiryMs = 60000;  // far beyond the test: only the lost link may forget them
    manager.init(0, true, options);
    ASSERT_TRUE(modem->waitUntil(
        [&] { return libraryClient() && libraryClient()->id > previous && served() >= 3; },
        kTimeout));
    sync();
    manager.refresh(kel::PDCRefreshStatus::Completed);
    std::shared_ptr<kel::IProfileKey> key = profile3gpp1();
    ASSERT_TRUE(key);
    kel::ModifyProfileParams change;
    change.setApnTypesMask(0x5);
    ASSERT_TRUE(manager.modifyProfile(change, key));
    ASSERT_TRUE(Manager::lastOutcome().ok());

    const int broken = newestClientId();
    ASSERT_TRUE(modem->dropClient(broken));
    ASSERT_TRUE(waitUntilFilled(broken, 0));
    sync();
    ASSERT_TRUE(modem->modifyProfile(0, k3gpp, key->getProfileId(), apnClassChange(7)));
    ASSERT_TRUE(settle());

    key = profile3gpp1();
    ASSERT_TRUE(key);
    EXPECT_EQ(manager.getProfile(key)->getApnClass(), static_cast<kel::ApnClass>(7))
        << "another client's change reached the cache";
}

}  // namespace
}  // namespace e2e
