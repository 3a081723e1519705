// What a client may do at any time without harming the library. Built also under ThreadSanitizer
// and AddressSanitizer, where a race or a freed entry fails the run.
#include <algorithm>
#include <atomic>
#include <list>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "SimModemFixture.h"

namespace e2e {
namespace {

using kel::Outcome;
using kel::PDCRefreshStatus;

// A dump is whole: the cache's lines, the pending echoes, then the log history, each cache line
// a token and a profile.
::testing::AssertionResult wholeDump(const std::vector<std::string>& lines) {
    if (lines.empty() || lines.front() != "Cache:") {
        return ::testing::AssertionFailure() << "no Cache: header";
    }
    size_t i = 1;
    for (; i < lines.size() && lines[i] != "Pending:"; ++i) {
        const std::string& line = lines[i];
        if (line.rfind("  ", 0) != 0 || line.find(": ") == std::string::npos ||
            (line.find("TechType=") == std::string::npos &&
             line.find(": null") == std::string::npos)) {
            return ::testing::AssertionFailure() << "bad cache line: " << line;
        }
    }
    for (; i < lines.size() && lines[i] != "Logs:"; ++i) {
    }
    if (i == lines.size()) {
        return ::testing::AssertionFailure() << "no Logs: line";
    }
    return ::testing::AssertionSuccess();
}

class WorkerSafetySimModemTest : public SimModemFixture {};

TEST_F(WorkerSafetySimModemTest, DumpFromThreadsDuringIndicationBurstsAndRefreshes) {
    std::vector<std::shared_ptr<kel::IProfileKey>> held;
    for (int i = 0; i < 4; ++i) {
        held.push_back(manager.addProfile(addParams("held" + std::to_string(i) + ".test")));
        ASSERT_NE(held.back(), nullptr);
    }
    std::atomic<bool> done{false};
    std::atomic<int> dumps{0};
    std::atomic<int> broken{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 2; ++t) {
        readers.emplace_back([&] {
            do {
                if (!wholeDump(manager.dump())) {
                    ++broken;
                }
                ++dumps;
            } while (!done);
        });
    }
    for (int round = 0; round < 5; ++round) {
        modem->sendIndicationBurst(0, 20);
        modem->announceProfilesReady(0);
        manager.refresh(PDCRefreshStatus::Completed);
        ASSERT_TRUE(settle());
    }
    done = true;
    joinAll(readers);
    EXPECT_EQ(broken, 0);
    EXPECT_GT(dumps, 2);
    // After the last refresh the cache holds exactly the modem's profiles.
    const std::vector<std::string> lines = manager.dump();
    const auto pending = std::find(lines.begin(), lines.end(), "Pending:");
    EXPECT_EQ(static_cast<size_t>(pending - lines.begin() - 1), modem->profiles(0).size());
}

TEST_F(WorkerSafetySimModemTest, ListenersDumpAndReadStatusWhileARefreshExpiresTheirHandles) {
    constexpr int kHandles = 5;
    std::vector<std::shared_ptr<kel::IProfileKey>> held;
    std::mutex mutex;  // guards seen
    std::vector<std::vector<std::string>> seen;
    std::atomic<int> statuses{0};
    Calls calls;
    for (int i = 0; i < kHandles; ++i) {
        held.push_back(manager.addProfile(addParams("listen" + std::to_string(i) + ".test")));
        ASSERT_NE(held.back(), nullptr);
        held.back()->registerExpirationListener([&, done = calls.callback()] {
            std::vector<std::string> lines = manager.dump();
            statuses += manager.getModemStatus().has_value() ? 1 : 0;
            {
                std::lock_guard<std::mutex> lock(mutex);
                seen.push_back(std::move(lines));
            }
            done();
        });
    }
    manager.refresh(PDCRefreshStatus::Completed);
    ASSERT_TRUE(calls.waitFor(kHandles));
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(seen.size(), static_cast<size_t>(kHandles));
    for (const std::vector<std::string>& lines : seen) {
        EXPECT_TRUE(wholeDump(lines));
        // The expired entries are out of the cache before any listener runs.
        ASSERT_GE(lines.size(), 2u);
        EXPECT_EQ(lines[1], "Pending:");
    }
    EXPECT_EQ(statuses, kHandles);
}

TEST_F(WorkerSafetySimModemTest, ThrowingListenerIsLoggedAndTheOthersStillRun) {
    auto added = manager.addProfile(addParams("throws.test"));
    ASSERT_NE(added, nullptr);
    std::list<std::shared_ptr<kel::IProfileKey>> found = manager.filter(byApn("throws.test"));
    ASSERT_EQ(found.size(), 1u);
    Calls before;
    Calls after;
    added->registerExpirationListener([done = before.callback()] {
        done();
        throw std::runtime_error("listener failed");
    });
    found.front()->registerExpirationListener(after.callback());
    ASSERT_TRUE(modem->deleteProfile(0, k3gpp, static_cast<std::uint8_t>(added->getProfileId())));
    ASSERT_TRUE(after.waitFor(1));
    EXPECT_EQ(before.count(), 1);
    sync();
    EXPECT_TRUE(inHistory("ModemProfile: expiration listener threw: listener failed"));
    EXPECT_NE(manager.addProfile(addParams("next.test")), nullptr);
    EXPECT_TRUE(manager.lastOutcome().ok());
}

// A client's own handle class whose dump throws once the worker logs the request.
class ThrowingKey : public kel::IProfileKey {
  public:
    int getProfileId() override { return 1; }
    kel::TechType getTechType() override { return kel::TechType::TYPE_3GPP; }
    void registerExpirationListener(std::function<void()>) override {}
    std::string dump() override {
        if (++dumps > 1) {
            throw std::runtime_error("client key failed");
        }
        return "client key";
    }

  private:
    std::atomic<int> dumps{0};
};

TEST_F(WorkerSafetySimModemTest, ExceptionWhileServingFailsThatRequestAndTheWorkerGoesOn) {
    EXPECT_FALSE(manager.modifyProfile(newApn("never.test"), std::make_shared<ThrowingKey>()));
    EXPECT_EQ(manager.lastOutcome().kind, Outcome::Kind::Failed);
    EXPECT_TRUE(inHistory("kel::ClientRequestManager: serving request failed: client key failed"));
    auto next = manager.addProfile(addParams("after.test"));
    EXPECT_NE(next, nullptr);
    EXPECT_TRUE(manager.lastOutcome().ok());
    EXPECT_TRUE(onModem(k3gpp, next->getProfileId()).has_value());
}

}  // namespace
}  // namespace e2e
