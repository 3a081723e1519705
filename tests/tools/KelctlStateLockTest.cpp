// kelctl --state as concurrent processes: the state file is locked for the whole run, so no
// change a run reports as done is lost, and a run that cannot get the lock names its holder.
#include <fcntl.h>

#include <thread>

#include "tools/KelctlHarness.h"

namespace {

using namespace kelctltest;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

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
