// The switches of kel::Options against the simulated modem, each on and off: on, the hazard is
// gone; off, the library keeps the behaviour it always had.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <list>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "SimModemFixture.h"
#include "VexWire.h"
#include "kel/Options.h"
#include "support/Guarded.h"

namespace e2e {
namespace {

using kel::Options;
using kel::Outcome;
using kel::PDCRefreshStatus;

// One switch on or off, the rest off.
struct Switch {
    const char* name;
    bool on;
};

std::string switchName(const ::testing::TestParamInfo<Switch>& info) {
    return std::string(info.param.name) + (info.param.on ? "On" : "Off");
}

auto onAndOff(const char* name) {
    return ::testing::Values(Switch{name, true}, Switch{name, false});
}

class SafeModeSimModemTest : public SimModemFixture, public ::testing::WithParamInterface<Switch> {
  protected:
    void SetUp() override { startModem(); }

    // init with options, then waits until the cache holds the modem's profiles.
    void connectWith(const Options& options) {
        const int previous = newestClientId();
        manager.init(0, true, options);
        ASSERT_TRUE(waitUntilFilled(previous, 0));
        sync();
        watch.install();
        clearLogs();
    }

    // The library's non-persistent profiles on the modem.
    std::size_t libraryProfiles() const { return onModemNamed("kel_profile").size(); }

    LogWatch watch;
};

class ReclaimTest : public SafeModeSimModemTest {
  protected:
    void SetUp() override {
        SafeModeSimModemTest::SetUp();
        Options options;
        options.reclaim = GetParam().on;
        connectWith(options);
    }
};

TEST_P(ReclaimTest, RefreshesWithHeldHandlesLeaveNoOrphan) {
    // Off, five orphans per cycle would fill the table long before fifteen cycles.
    const int cycles = GetParam().on ? 15 : 1;
    std::vector<std::shared_ptr<kel::IProfileKey>> held;
    for (int cycle = 0; cycle < cycles; ++cycle) {
        for (int i = 0; i < 5; ++i) {
            held.push_back(manager.addProfile(addParams("cycle" + std::to_string(i) + ".test")));
            ASSERT_NE(held.back(), nullptr) << "cycle " << cycle;
        }
        manager.refresh(PDCRefreshStatus::Completed);
    }
    held.clear();
    ASSERT_TRUE(settle());
    EXPECT_EQ(libraryProfiles(), GetParam().on ? 0u : 5u);
    // Whatever is left, the cache agrees with the modem.
    EXPECT_EQ(manager.filter(kel::FilterProfileParams()).size(), modem->profiles(0).size());
}

TEST_P(ReclaimTest, AForeignModifyThenTheLastReleaseLeavesNothing) {
    auto key = manager.addProfile(addParams("foreign.test"));
    ASSERT_NE(key, nullptr);
    auto second = manager.filter(byApn("foreign.test"));
    ASSERT_EQ(second.size(), 1u);
    const int id = key->getProfileId();
    ASSERT_TRUE(modem->modifyProfile(0, k3gpp, static_cast<std::uint8_t>(id), apnClassChange(7)));
    ASSERT_TRUE(settle());
    // Every handle still counts after the re-read: the first release leaves it in place.
    key.reset();
    ASSERT_TRUE(settle());
    EXPECT_TRUE(onModem(k3gpp, id).has_value());
    second.clear();
    EXPECT_EQ(onModem(k3gpp, id).has_value(), !GetParam().on);
}

TEST_P(ReclaimTest, AProfileWhoseCreateGotNoAnswerIsDeletedWhenItShowsUp) {
    modem->setResponseDelay(kLate, VEX_WDS_CREATE_PROFILE_REQ_V01);
    EXPECT_EQ(manager.addProfile(addParams("late.test")), nullptr);
    EXPECT_EQ(manager.lastOutcome().kind, Outcome::Kind::NoAnswer);
    modem->setResponseDelay(std::chrono::milliseconds(0));
    if (GetParam().on) {
        EXPECT_TRUE(modem->waitUntil([&] { return libraryProfiles() == 0; }, kTimeout));
        EXPECT_TRUE(watch.waitFor("ProfileCache: reclaimed profile"));
    } else {
        ASSERT_TRUE(settle());
        EXPECT_EQ(libraryProfiles(), 1u);
    }
    ASSERT_TRUE(settle());
    EXPECT_TRUE(manager.filter(byApn("late.test")).empty() == GetParam().on);
}

TEST_P(ReclaimTest, NeverTouchesAnotherClientsProfileNorOneStillHeld) {
    auto held = manager.addProfile(addParams("held.test"));
    ASSERT_NE(held, nullptr);
    // Another client's non-persistent profile, named as the library names its own.
    const auto other =
        modem->createProfile(0, k3gpp, apnSettings("other.test", "kel_profile"), false);
    ASSERT_TRUE(other.has_value());
    ASSERT_TRUE(settle());
    manager.refresh(PDCRefreshStatus::Completed);
    ASSERT_TRUE(settle());
    EXPECT_TRUE(onModem(k3gpp, *other).has_value());
    // The held profile's handle expired with the refresh; only with reclaim is it deleted.
    EXPECT_EQ(onModem(k3gpp, held->getProfileId()).has_value(), !GetParam().on);
}

INSTANTIATE_TEST_SUITE_P(Switch, ReclaimTest, onAndOff("Reclaim"), switchName);

class EchoExpiryTest : public SafeModeSimModemTest {};

TEST_P(EchoExpiryTest, AStaleEchoNoLongerHidesAForeignCreate) {
    Options options;
    options.echoExpiryMs = GetParam().on ? 1 : 0;
    connectWith(options);
    // The echoes of the library's create are lost on the way: they stay expected.
    modem->loseNextIndications(2);
    auto key = manager.addProfile(addParams("lost.test"));
    ASSERT_NE(key, nullptr);
    const int id = key->getProfileId();
    const auto expected = std::chrono::steady_clock::now();
    ASSERT_TRUE(manager.deleteProfile(key));
    // The bound passes before another client creates a profile under the same identity.
    while (std::chrono::steady_clock::now() < expected + std::chrono::milliseconds(5)) {
        std::this_thread::yield();
    }
    ASSERT_EQ(modem->createProfile(0, k3gpp, apnSettings("foreign.test"), true),
              std::optional<std::uint8_t>(id));
    ASSERT_TRUE(settle());
    ASSERT_TRUE(settle());
    EXPECT_EQ(manager.filter(byApn("foreign.test")).size(), GetParam().on ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Switch, EchoExpiryTest, onAndOff("EchoExpiry"), switchName);

class RefreshGiveUpTest : public SafeModeSimModemTest {
  protected:
    // A third 3GPP profile, so that the 3GPP reads given up on outnumber those tried.
    void SetUp() override {
        config.seedText += "profile 3gpp index=3 name=Extra apn=extra pdp=ipv4\n";
        SafeModeSimModemTest::SetUp();
    }
};

TEST_P(RefreshGiveUpTest, AModemAnsweringEveryReadLateHoldsTheRefreshOnlyForTheBound) {
    Options options;
    options.refreshGiveUpAfterTimeouts = GetParam().on ? 2 : 0;
    connectWith(options);
    modem->setResponseDelay(std::chrono::milliseconds(1100), VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01);
    const std::uint64_t before = served();
    manager.refresh(PDCRefreshStatus::Completed);
    const std::uint64_t sent = served() - before;
    modem->setResponseDelay(std::chrono::milliseconds(0));
    // Every profile is missing from the picture either way; only the time it took differs.
    const kel::ModemStatus status = manager.getModemStatus().value();
    EXPECT_FALSE(status.isComplete());
    EXPECT_TRUE(status.cacheLoaded);
    EXPECT_FALSE(status.profileListFailed);
    EXPECT_EQ(status.unreadProfiles.size(), modem->profiles(0).size());
    if (GetParam().on) {
        EXPECT_EQ(sent, 2u + 2u) << "the two lists and two reads";
        EXPECT_TRUE(
            inHistory("VexWdsProxy: 2 reads in a row got no answer, the refresh reads no more"));
    } else {
        EXPECT_EQ(sent, 2u + modem->profiles(0).size());
    }
}

INSTANTIATE_TEST_SUITE_P(Switch, RefreshGiveUpTest, onAndOff("RefreshGiveUp"), switchName);

class MalformedIndicationTest : public SafeModeSimModemTest {};

TEST_P(MalformedIndicationTest, TheChangeBehindAMalformedIndicationLandsInTheSameTurn) {
    Options options;
    options.continueAfterMalformedIndication = GetParam().on;
    connectWith(options);
    // A listener holds the worker inside a request until the malformed indication and a
    // foreign create have queued up behind it, so that one wake-up stands for all of them.
    auto key = manager.addProfile(addParams("holder.test"));
    ASSERT_NE(key, nullptr);
    std::list<std::shared_ptr<kel::IProfileKey>> other = manager.filter(byApn("holder.test"));
    ASSERT_EQ(other.size(), 1u);
    testsupport::Gate entered;
    testsupport::Gate release;
    other.front()->registerExpirationListener([&] {
        entered.open();
        release.wait();
    });
    std::thread remover([&] { EXPECT_TRUE(manager.deleteProfile(key)); });
    EXPECT_TRUE(entered.wait());
    modem->sendMalformedIndication(0);
    const std::optional<std::uint8_t> created =
        modem->createProfile(0, k3gpp, apnSettings("behind.test"), true);
    ASSERT_TRUE(created.has_value());
    // The library rejects an empty indication as it arrives, after those before it are queued
    // and signalled, and without signalling itself.
    modem->sendEmptyIndication(0);
    EXPECT_TRUE(watch.waitFor("The ind_cb_data/ind_buf is null or ind_buf_len is 0"));
    const std::string handled =
        "ProfileCache: onIndication < 3GPP:" + std::to_string(*created) + " Create";
    const int seen = watch.count(handled);
    release.open();
    remover.join();
    if (GetParam().on) {
        // Handled in the turn that met the malformed one, whenever this thread gets to look.
        EXPECT_TRUE(watch.waitFor(handled, seen + 1));
    } else {
        // Stranded until the next indication wakes the worker, however many requests it serves.
        sync();
        sync();
        EXPECT_EQ(watch.count(handled), seen);
        EXPECT_TRUE(manager.filter(byApn("behind.test")).empty());
        ASSERT_TRUE(settle());
        EXPECT_TRUE(watch.waitFor(handled, seen + 1)) << "the next indication's turn takes it";
    }
    EXPECT_TRUE(error("Unable to decode the nr status ind message"));
    EXPECT_EQ(manager.filter(byApn("behind.test")).size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Switch, MalformedIndicationTest, onAndOff("ContinueAfterMalformed"),
                         switchName);

class UnboundTest : public SafeModeSimModemTest {};

TEST_P(UnboundTest, AnUnboundLinkFailsFastInsteadOfReachingTheDefaultSubscription) {
    Options options;
    options.failFastWhileUnbound = GetParam().on;
    // Subscription 2 of a modem that serves two: the bind fails.
    manager.init(2, true, options);
    ASSERT_TRUE(waitUntilServed(kRegistrationRequests));
    sync();
    const std::size_t before = modem->profiles(0).size();
    const std::uint64_t sent = served();

    auto key = manager.addProfile(addParams("unbound.test", true));

    EXPECT_FALSE(manager.getModemStatus()->bound) << "the status shows it either way";
    EXPECT_EQ(manager.lastOutcome().kind, Outcome::Kind::NotBound);
    if (GetParam().on) {
        EXPECT_EQ(key, nullptr);
        EXPECT_EQ(served(), sent) << "nothing reached the modem";
        EXPECT_EQ(modem->profiles(0).size(), before);
    } else {
        EXPECT_NE(key, nullptr);
        EXPECT_EQ(modem->profiles(0).size(), before + 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Switch, UnboundTest, onAndOff("FailFastWhileUnbound"), switchName);

// A service whose accept queue is full once the library's notifier and service probe sit in it:
// the service looks up, but the client cannot be created.
class ClientCreationTest : public SafeModeSimModemTest {
  protected:
    void SetUp() override {}
};

TEST_P(ClientCreationTest, AFailedClientCreationRecoversAtTheNextServiceUp) {
    serviceDir.emplace("VEX_SERVICE_DIR", dir.path().c_str());
    const std::string path = dir.file("wds");
    {
        std::string why;
        vexwire::UniqueFd stuck = vexwire::listenUnix(path, &why);
        ASSERT_TRUE(stuck) << why;
        ASSERT_EQ(::listen(stuck.get(), 1), 0);
        Options options;
        options.retryClientCreation = GetParam().on;
        watch.install();
        manager.init(0, true, options);
        watch.install();
        ASSERT_TRUE(watch.waitFor("vex_client_init error"));
        ASSERT_EQ(::unlink(path.c_str()), 0);
    }
    startModem();
    if (GetParam().on) {
        EXPECT_TRUE(manager.waitForModem(kTimeout));
        EXPECT_EQ(manager.getModemStatus()->connections, 1u);
    } else {
        EXPECT_FALSE(manager.waitForModem(std::chrono::seconds(2)));
        EXPECT_FALSE(manager.getModemStatus()->connected);
    }
}

INSTANTIATE_TEST_SUITE_P(Switch, ClientCreationTest, onAndOff("RetryClientCreation"), switchName);

TEST_F(SafeModeSimModemTest, TheSwitchesInForceShowInDumpAndStatusOnlyWhenOn) {
    connectWith(Options());
    EXPECT_EQ(manager.getModemStatus()->dump().find("Options="), std::string::npos);
    auto optionsLine = [](const std::string& line) { return line.rfind("Options: ", 0) == 0; };
    std::vector<std::string> lines = manager.dump();
    EXPECT_EQ(std::find_if(lines.begin(), lines.end(), optionsLine), lines.end());

    connectWith(Options::safe());
    const kel::ModemStatus status = manager.getModemStatus().value();
    EXPECT_EQ(status.options, Options::safe());
    EXPECT_NE(status.dump().find(",Options=Reclaim=true;EchoExpiryMs=10000;"), std::string::npos);
    lines = manager.dump();
    const auto empty = std::find(lines.begin(), lines.end(), "");
    ASSERT_NE(empty, lines.begin());
    EXPECT_EQ(*(empty - 1), "Options: " + Options::safe().dump());
}

}  // namespace
}  // namespace e2e
