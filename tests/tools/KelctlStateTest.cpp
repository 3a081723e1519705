// What lasts between kelctl runs, and the modem a run finds or misses.
#include <fcntl.h>

#include <set>
#include <thread>

#include "tools/KelctlHarness.h"

namespace {

using namespace kelctltest;
using ::testing::MatchesRegex;

TEST_F(KelctlTest, ChangesLastAcrossRunsWithAStateFile) {
    const Outcome deleted = succeeded(seeded({"--state", state, "delete", "3gpp:3"}));
    EXPECT_THAT(deleted.err, Not(HasSubstr("starts from its seed")));
    succeeded(seeded({"--state", state, "modify", "2", "--types", "ims,xcap"}));

    const Outcome listed = seeded({"--state", state, "list"});
    EXPECT_THAT(listed.out, Not(HasSubstr("mms.test")));
    EXPECT_THAT(listed.out, HasSubstr("ims,xcap"));

    const Outcome fresh = seeded({"delete", "3gpp:3"});
    EXPECT_THAT(fresh.err, HasSubstr("note: the embedded modem starts from its seed on every run"));
}

TEST_F(KelctlTest, NonPersistentProfileGoesWhenKelctlExitsPersistentOneStays) {
    RunningModem modem(dir.path(), seed);

    const Outcome temporary =
        succeeded(kelctl({"--modem", dir.path(), "add", "--apn", "temporary.test"}));
    EXPECT_THAT(temporary.out, HasSubstr("added 3gpp:5"));
    EXPECT_THAT(temporary.err, HasSubstr("is not persistent: the library deletes it when kelctl "
                                         "exits"));
    const Outcome kept =
        succeeded(kelctl({"--modem", dir.path(), "add", "--apn", "kept.test", "--persistent"}));
    EXPECT_EQ(kept.err, "");

    const std::string profiles = modem.control({"profiles", "0"});
    EXPECT_THAT(profiles, Not(HasSubstr("temporary.test")));
    EXPECT_THAT(profiles, HasSubstr("kept.test"));
}

TEST_F(KelctlTest, SaysSoWhenNoModemAnswers) {
    const Outcome outcome = kelctl({"--modem", dir.path(), "--timeout", "0.3", "list"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "kelctl: no modem answered in " + dir.path() +
                               " within 0.3 s (is vex-modemd running there?)\n");
    const Outcome json = kelctl({"--modem", dir.path(), "--timeout", "0.3", "list", "--json"});
    EXPECT_EQ(json.status, 1);
    EXPECT_THAT(parsed(json.out).value("error", ""), HasSubstr("no modem answered"));

    const Outcome missing = kelctl({"--modem", dir.file("nowhere"), "list"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.err, HasSubstr("no such directory"));
}

// A library the modem would not bind or register acts on nothing: after a failed bind it would
// reach the modem's default subscription instead of the chosen one.
TEST_F(KelctlTest, ActsOnNothingWhenTheModemRefusesTheSubscriptionOrTheRegistration) {
    const Outcome embedded = seeded({"--sub", "2", "add", "--apn", "stray.example"});
    EXPECT_EQ(embedded.status, 1);
    EXPECT_EQ(embedded.out, "");
    EXPECT_EQ(embedded.err,
              "kelctl: subscription 2: the modem has no such subscription (it has 2); nothing was "
              "done\n");

    RunningModem modem(dir.path(), seed);
    const Outcome unbound =
        kelctl({"--modem", dir.path(), "--sub", "7", "add", "--apn", "stray.example"});
    EXPECT_EQ(unbound.status, 1);
    EXPECT_THAT(unbound.err, HasSubstr("kelctl: subscription 7: the modem refused to bind"));

    modem.control({"fail-next", "1", "0x3"});
    const Outcome deaf =
        kelctl({"--modem", dir.path(), "--sub", "1", "add", "--apn", "stray.example"});
    EXPECT_EQ(deaf.status, 1);
    EXPECT_EQ(deaf.err,
              "kelctl: subscription 1: the modem refused to register the library for profile "
              "changes; nothing was done\n");

    for (const char* sub : {"0", "1"}) {
        EXPECT_THAT(modem.control({"profiles", sub}), Not(HasSubstr("stray.example")));
    }
}

TEST_F(KelctlTest, WaitsForAModemThatNeverAnnouncesItsProfiles) {
    RunningModem modem(dir.path(), seed, {"--no-ready-on-register"});
    const Outcome outcome = succeeded(kelctl({"--modem", dir.path(), "--timeout", "0.5", "list"}));
    EXPECT_THAT(outcome.out, HasSubstr("mms.test"));
}

TEST_F(KelctlTest, FindsTheRunningModemThroughTheEnvironment) {
    RunningModem modem(dir.path(), seed);
    ASSERT_EQ(modem.control({"delete", "3gpp", "index=3"}), "deleted 3gpp sub=0 index=3\n");

    RunOptions environment;
    environment.env.emplace("VEX_SERVICE_DIR", dir.path());
    const Outcome running = succeeded(kelctl({"list"}, environment));
    EXPECT_THAT(running.out, Not(HasSubstr("mms.test")));

    const Outcome embedded = succeeded(kelctl({"--embedded", "--seed", seed, "list"}, environment));
    EXPECT_THAT(embedded.out, HasSubstr("mms.test"));
}

TEST_F(KelctlTest, TimeoutBoundsTheWholeRunAgainstASlowModem) {
    RunningModem modem(dir.path(), seed);
    // Creates are answered after 20 s, everything else at once: kelctl connects, then each add
    // waits as long as the library lets it; the shell goes on after each failed line.
    modem.control({"delay", "20000", "0x27"});
    RunOptions input;
    for (int i = 0; i < 10; ++i) {
        input.input += "add --apn slow" + std::to_string(i) + ".test\n";
    }
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome = kelctl({"--modem", dir.path(), "--timeout", "2", "shell"}, input);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(outcome.status, 1);
    // The modem makes each profile at once and only answers late: an add whose echo lands
    // within the run is reported as added, and nothing else is printed.
    EXPECT_THAT(
        outcome.out,
        testing::AnyOf(testing::Eq(""), testing::MatchesRegex("added 3gpp:[0-9]+ name=kel_profile "
                                                              "apn=slow0.test flags=kel\n")));
    EXPECT_THAT(outcome.err,
                testing::EndsWith("kelctl: stopped: the run took longer than --timeout "
                                  "2 s (the modem answers too slowly)\n"));
    // Generous: far less than the ten adds would take, so the run did not wait for them.
    EXPECT_LT(took, std::chrono::seconds(8));
}

TEST_F(KelctlTest, ConcurrentRunsOnOneStateFileKeepEveryAddedProfile) {
    constexpr int kRuns = 8;
    std::vector<Outcome> outcomes(kRuns);
    std::vector<std::thread> runs;
    for (int i = 0; i < kRuns; ++i) {
        runs.emplace_back([this, i, &outcomes] {
            outcomes[i] = seeded({"--state", state, "add", "--persistent", "--apn",
                                  "run" + std::to_string(i) + ".example", "--json"});
        });
    }
    for (auto& run : runs) {
        run.join();
    }
    std::set<std::string> ids;
    for (int i = 0; i < kRuns; ++i) {
        ASSERT_EQ(outcomes[i].status, 0) << outcomes[i].err;
        ids.insert(parsed(outcomes[i].out).value("added", ""));
    }
    EXPECT_EQ(ids.size(), static_cast<std::size_t>(kRuns)) << "each run added its own profile";

    const nlohmann::json profiles = parsed(seeded({"--state", state, "list", "--json"}).out);
    for (int i = 0; i < kRuns; ++i) {
        const std::string apn = "run" + std::to_string(i) + ".example";
        const bool kept = std::any_of(profiles.begin(), profiles.end(),
                                      [&apn](const auto& p) { return p.value("apn", "") == apn; });
        EXPECT_TRUE(kept) << apn << " was reported added but is gone";
    }
}

TEST_F(KelctlTest, RunThatCannotLockTheStateFileNamesItsHolder) {
    // This test process holds the lock as another run would.
    const std::string lockPath = state + ".lock";
    UniqueFd lock(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_TRUE(lock.get() >= 0);
    flock region{};
    region.l_type = F_WRLCK;
    region.l_whence = SEEK_SET;
    ASSERT_EQ(::fcntl(lock.get(), F_SETLK, &region), 0);

    const Outcome text = seeded({"--state", state, "--timeout", "0.2", "list"});
    EXPECT_EQ(text.status, 1);
    EXPECT_EQ(text.out, "");
    EXPECT_THAT(text.err, MatchesRegex("kelctl: --state .* is in use by another run \\(process " +
                                       std::to_string(::getpid()) +
                                       " holds .*\\.lock\\); waited 0\\.[0-9]+ s, nothing was "
                                       "sent to the modem\n"));
    const Outcome json = seeded({"--state", state, "--timeout", "0.2", "list", "--json"});
    EXPECT_EQ(json.status, 1);
    EXPECT_THAT(parsed(json.out).value("error", ""), HasSubstr("is in use by another run"));

    region.l_type = F_UNLCK;
    ASSERT_EQ(::fcntl(lock.get(), F_SETLK, &region), 0);
    EXPECT_EQ(seeded({"--state", state, "--timeout", "5", "list"}).status, 0);
}

}  // namespace
