// End to end: what a ModemObserver registered with kel::Manager hears against the embedded
// simulated modem.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "SimModemFixture.h"
#include "kel/ModemObserver.h"
#include "support/ObserverRecorder.h"

namespace e2e {
namespace {

using kel::ModemEvent;
using Kind = kel::ModemEvent::Kind;
using Origin = kel::ModemEvent::Origin;
using testsupport::ObserverRecorder;

// The profile read message: failing it leaves a profile unread.
constexpr unsigned int kReadProfileMsg = 0x2b;

std::vector<Kind> kindsOf(const std::vector<ModemEvent>& events) {
    std::vector<Kind> kinds;
    for (const ModemEvent& event : events) {
        kinds.push_back(event.kind);
    }
    return kinds;
}

// Those about one profile.
std::vector<ModemEvent> about(const std::vector<ModemEvent>& events, kel::TechType tech, int id) {
    std::vector<ModemEvent> found;
    for (const ModemEvent& event : events) {
        if (event.kind <= Kind::ProfileDeleted && event.techType == tech && event.profileId == id) {
            found.push_back(event);
        }
    }
    return found;
}

class ModemObserverSimModemTest : public SimModemFixture {
  protected:
    void SetUp() override {
        SimModemFixture::SetUp();
        ASSERT_TRUE(manager.addObserver(recorder));
    }
    void TearDown() override { manager.removeObserver(recorder); }

    // The settle() marker: the sentinel's change, told after everything the modem sent before.
    // Returns every event so far.
    std::vector<ModemEvent> settled() {
        EXPECT_TRUE(settle());
        const int marker = ++settles;
        return recorder->until([marker](const ModemEvent& event) {
            return event.kind == Kind::ProfileChanged && event.after &&
                   event.after->settings.getApnName() == kSentinelApn &&
                   static_cast<int>(event.after->settings.getApnClass()) == marker;
        });
    }

    int settles = 0;  // settle() sets the sentinel's class to the count of its calls

    std::shared_ptr<ObserverRecorder> recorder = std::make_shared<ObserverRecorder>();
};

TEST_F(ModemObserverSimModemTest, OwnChangesAreToldOnceAsThisProcessWithWhatChanged) {
    auto key = manager.addProfile(addParams("mine.example"));
    ASSERT_TRUE(key);
    const int id = key->getProfileId();
    kel::ModifyProfileParams change;
    change.setUserName("alice");
    change.setPassword("secret");
    ASSERT_TRUE(manager.modifyProfile(change, key));
    ASSERT_TRUE(manager.deleteProfile(key));

    // Every echo of the modem has been handled by the time the marker arrives.
    const std::vector<ModemEvent> mine = about(settled(), kel::TechType::TYPE_3GPP, id);
    ASSERT_EQ(kindsOf(mine),
              (std::vector<Kind>{Kind::ProfileAdded, Kind::ProfileChanged, Kind::ProfileDeleted}));
    for (const ModemEvent& event : mine) {
        EXPECT_EQ(event.origin, Origin::ThisProcess);
    }
    ASSERT_TRUE(mine[0].after);
    EXPECT_EQ(mine[0].after->settings.getApnName(), "mine.example");
    EXPECT_EQ(mine[0].after->name, "kel_profile");
    EXPECT_EQ(mine[1].changes,
              (std::vector<kel::SettingChange>{{"UserName", std::nullopt, std::string("alice")},
                                               {"Password", std::nullopt, std::string("secret")}}));
    ASSERT_TRUE(mine[2].before);
    EXPECT_EQ(mine[2].before->settings.getUserName(), "alice");
}

TEST_F(ModemObserverSimModemTest, AnotherClientsChangesReachTheCacheAndAreToldAsElsewhere) {
    // Each step waits for the library's reads of the one before, which would otherwise see it.
    const auto index = modem->createProfile(0, k3gpp, apnSettings("theirs.example", "other"), true);
    ASSERT_TRUE(index);
    settled();
    std::shared_ptr<kel::IProfileKey> key = only("theirs.example");
    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), *index);
    ASSERT_TRUE(modem->modifyProfile(0, k3gpp, *index, apnSettings("moved.example", "other")));
    settled();
    std::optional<kel::ProfileParams> moved = manager.getProfile(key);
    ASSERT_TRUE(moved) << "the handle stays valid across the change";
    EXPECT_EQ(moved->getApnName(), "moved.example");
    ASSERT_TRUE(modem->deleteProfile(0, k3gpp, *index));

    const std::vector<ModemEvent> theirs = about(settled(), kel::TechType::TYPE_3GPP, *index);
    ASSERT_EQ(kindsOf(theirs),
              (std::vector<Kind>{Kind::ProfileAdded, Kind::ProfileChanged, Kind::ProfileDeleted}));
    for (const ModemEvent& event : theirs) {
        EXPECT_EQ(event.origin, Origin::Elsewhere);
    }
    EXPECT_EQ(theirs[1].changes,
              (std::vector<kel::SettingChange>{
                  {"ApnName", std::string("theirs.example"), std::string("moved.example")}}));
    ASSERT_TRUE(theirs[2].before);
    EXPECT_EQ(theirs[2].before->name, "other");
    EXPECT_FALSE(manager.getProfile(key));
    EXPECT_TRUE(manager.filter(byApn("moved.example")).empty());
}

TEST_F(ModemObserverSimModemTest, ARefreshIsToldWithEveryProfileRead) {
    manager.refresh(kel::PDCRefreshStatus::Started);
    manager.refresh(kel::PDCRefreshStatus::Completed);

    const std::vector<ModemEvent> events = recorder->untilKind(Kind::RefreshCompleted);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.front().kind, Kind::RefreshStarted);
    const ModemEvent& completed = events.back();
    EXPECT_EQ(completed.count, 5u);
    ASSERT_EQ(completed.profiles.size(), 5u);
    EXPECT_EQ(completed.profiles[0].techType, kel::TechType::TYPE_3GPP);
    EXPECT_EQ(completed.profiles[0].name, "Internet");
    EXPECT_EQ(completed.profiles[4].techType, kel::TechType::TYPE_3GPP2);
}

TEST_F(ModemObserverSimModemTest, AnUnreadProfileMakesThePictureIncompleteUntilItIsGone) {
    modem->failNext(1, kReadProfileMsg);
    const auto index = modem->createProfile(0, k3gpp, apnSettings("flaky.example", "other"), true);
    ASSERT_TRUE(index);
    std::vector<ModemEvent> events = recorder->untilKind(Kind::PictureIncomplete);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back().unread,
              (std::vector<kel::ModemStatus::ProfileRef>{{kel::TechType::TYPE_3GPP, *index}}));
    const std::vector<ModemEvent> added = about(events, kel::TechType::TYPE_3GPP, *index);
    ASSERT_EQ(kindsOf(added), std::vector<Kind>{Kind::ProfileAdded});
    EXPECT_FALSE(added[0].after);
    const kel::ModemStatus holed = status();
    EXPECT_NE(holed.dump().find("Unread=3GPP:" + std::to_string(*index) + ";,"), std::string::npos)
        << holed.dump();

    // A profile that is gone is no hole.
    ASSERT_TRUE(modem->deleteProfile(0, k3gpp, *index));
    events = recorder->untilKind(Kind::PictureWhole);
    ASSERT_FALSE(events.empty());
    EXPECT_TRUE(events.back().unread.empty());
    const std::vector<Kind> kinds = kindsOf(events);
    EXPECT_EQ(std::count(kinds.begin(), kinds.end(), Kind::PictureIncomplete), 1);
    EXPECT_TRUE(status().isComplete());
}

// A restarted modem keeps only the persistent profiles.
TEST_F(ModemObserverSimModemTest, TheLinkGoingDownAndComingBackIsToldAndShownInTheStatus) {
    std::shared_ptr<kel::IProfileKey> kept = manager.addProfile(addParams("kept.example", true));
    std::shared_ptr<kel::IProfileKey> lost = manager.addProfile(addParams("lost.example", false));
    ASSERT_TRUE(kept && lost);
    const int before = newestClientId();
    modem->stop();
    std::vector<ModemEvent> events = recorder->untilKind(Kind::StatusChanged);
    ASSERT_FALSE(events.empty());
    EXPECT_TRUE(events.back().oldStatus.isReady());
    EXPECT_FALSE(events.back().newStatus.connected);
    const kel::ModemStatus down = status();
    EXPECT_FALSE(down.connected || down.bound || down.registered || down.cacheLoaded);
    EXPECT_EQ(down.connections, 1u);
    EXPECT_FALSE(manager.waitForModem(std::chrono::milliseconds(50))) << "it waits out its time";
    recorder->clear();

    std::string error;
    ASSERT_TRUE(modem->start(&error)) << error;
    ASSERT_TRUE(waitUntilFilled(before, 0));
    events = recorder->until([](const ModemEvent& event) {
        return event.kind == Kind::StatusChanged && event.newStatus.isReady();
    });
    ASSERT_EQ(events.size(), 4u);
    // Up (not loaded), the re-read, then loaded.
    EXPECT_EQ(kindsOf(events), (std::vector<Kind>{Kind::StatusChanged, Kind::RefreshStarted,
                                                  Kind::RefreshCompleted, Kind::StatusChanged}));
    EXPECT_TRUE(events[0].newStatus.connected);
    EXPECT_EQ(events[0].newStatus.connections, events[0].oldStatus.connections + 1);
    EXPECT_EQ(events[2].count, 6u);
    EXPECT_TRUE(manager.waitForModem(kTimeout));
    const kel::ModemStatus back = status();
    EXPECT_TRUE(back.isReady());
    EXPECT_EQ(back.connections, 2u);
    EXPECT_EQ(back.failedMessages, 0u);
    EXPECT_EQ(manager.filter(byApn("kept.example")).size(), 1u);
    EXPECT_TRUE(manager.filter(byApn("lost.example")).empty());
}

TEST_F(ModemObserverSimModemTest, OneProfilesChangesArriveInTheModemsOrder) {
    auto profiles = modem->profiles(0);
    const std::uint8_t index = profiles.front().index;
    constexpr int kChanges = 50;
    for (int step = 1; step <= kChanges; ++step) {
        ASSERT_TRUE(modem->modifyProfile(0, k3gpp, index, apnClassChange(step)));
    }

    const std::vector<ModemEvent> mine = about(settled(), kel::TechType::TYPE_3GPP, index);
    // One event per announcement; a read may already see a later step, never an earlier one.
    ASSERT_EQ(mine.size(), static_cast<std::size_t>(kChanges));
    int last = 0;
    for (const ModemEvent& event : mine) {
        ASSERT_EQ(event.kind, Kind::ProfileChanged);
        ASSERT_TRUE(event.after);
        const int step = static_cast<int>(event.after->settings.getApnClass());
        EXPECT_GE(step, last);
        last = step;
    }
    EXPECT_EQ(last, kChanges);
}

TEST_F(ModemObserverSimModemTest, AStuckObserverLosesEventsButNeverStallsTheLibrary) {
    auto key = manager.addProfile(addParams("busy.example"));
    ASSERT_TRUE(key);
    ASSERT_TRUE(recorder->untilKind(Kind::ProfileAdded).size() == 1);
    testsupport::Gate gate;
    recorder->setOnEvent([&gate](const ModemEvent&) { gate.wait(); });
    // Beyond the queue's bound; each of this process's changes is exactly one event.
    constexpr int kChanges = 5000;
    for (int i = 0; i < kChanges; ++i) {
        kel::ModifyProfileParams change;
        change.setUserName(i % 2 == 0 ? "even" : "odd");
        ASSERT_TRUE(manager.modifyProfile(change, key));
        ASSERT_TRUE(manager.lastOutcome().ok());
    }
    gate.open();
    // Told once the queue has drained; a marker made after it is told in full.
    recorder->untilKind(Kind::EventsLost);
    ASSERT_TRUE(manager.deleteProfile(key));

    const std::vector<ModemEvent> events = recorder->untilKind(Kind::ProfileDeleted);
    std::uint64_t lost = 0;
    int lostEvents = 0;
    for (const ModemEvent& event : events) {
        if (event.kind == Kind::EventsLost) {
            lost += event.count;
            ++lostEvents;
        }
    }
    EXPECT_EQ(lostEvents, 1);
    EXPECT_GT(lost, 0u);
    // The add, every change and the delete: each either told or counted as lost, exactly once.
    EXPECT_EQ(lost + events.size() - lostEvents, static_cast<std::uint64_t>(kChanges + 2));
}

TEST_F(ModemObserverSimModemTest, AnObserverMayCallTheLibraryAndRemoveItself) {
    auto caller = std::make_shared<ObserverRecorder>();
    std::optional<std::size_t> found;
    caller->setOnEvent([&](const ModemEvent& event) {
        if (event.kind == Kind::ProfileAdded && event.after) {
            found = manager.filter(byApn(event.after->settings.getApnName())).size();
            EXPECT_TRUE(manager.removeObserver(caller));
        }
    });
    ASSERT_TRUE(manager.addObserver(caller));
    const auto index = modem->createProfile(0, k3gpp, apnSettings("called.example", "other"), true);
    ASSERT_TRUE(index);
    settled();
    // Told to the others only: the caller removed itself.
    ASSERT_TRUE(modem->createProfile(0, k3gpp, apnSettings("later.example", "other"), true));
    settled();

    EXPECT_EQ(kindsOf(caller->all()), std::vector<Kind>{Kind::ProfileAdded});
    EXPECT_EQ(found, std::optional<std::size_t>(1));
    EXPECT_FALSE(manager.removeObserver(caller));
}

}  // namespace
}  // namespace e2e
