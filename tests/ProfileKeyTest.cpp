// Handles: their release and listener registration, observed through a send function that
// records the requests.
#include "ProfileKey.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DebugLogFixture.h"
#include "support/LogObservation.h"

namespace kel {
namespace {

// Records every request a handle sends, with the thread that sent it and what had been logged
// by then, and answers as the worker answers callbacks. Threads: any; guarded by mutex.
class RequestRecorder {
  public:
    struct Record {
        std::shared_ptr<CallbackRequest> request;
        std::thread::id caller;
        std::vector<std::string> debugLinesAtSend;
    };

    explicit RequestRecorder(const DebugLogFixture& fixture) : log(fixture) {}

    SendRequestFn sendFunction() {
        return [this](std::shared_ptr<ClientRequest> request) {
            std::vector<std::string> logged = log.debugLines();
            std::lock_guard<std::mutex> lock(mutex);
            records.push_back({std::dynamic_pointer_cast<CallbackRequest>(request),
                               std::this_thread::get_id(), std::move(logged)});
            return std::make_shared<CallbackResponse>(Status::Failure);
        };
    }

    std::vector<Record> sent() {
        std::lock_guard<std::mutex> lock(mutex);
        return records;
    }

  private:
    const DebugLogFixture& log;
    std::mutex mutex;  // guards records
    std::vector<Record> records;
};

class ProfileKeyTest : public DebugLogFixture {
  protected:
    std::shared_ptr<ProfileKey> makeKey(TechType techType, int profileId,
                                        unsigned long long token) {
        return std::make_shared<ProfileKey>(techType, profileId, token, recorder.sendFunction());
    }

    RequestRecorder recorder{*this};
};

TEST_F(ProfileKeyTest, DroppingLastReferenceSendsOneReleaseThenLogs) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    std::shared_ptr<IProfileKey> key = makeKey(TechType::TYPE_3GPP, 3, 42);
    std::shared_ptr<IProfileKey> copy = key;
    key.reset();
    EXPECT_TRUE(recorder.sent().empty()) << "a copy still holds the handle";

    copy.reset();
    const std::vector<RequestRecorder::Record> records = recorder.sent();
    ASSERT_EQ(records.size(), 1u);
    const std::shared_ptr<CallbackRequest>& release = records[0].request;
    ASSERT_NE(release, nullptr);
    EXPECT_FALSE(release->hasExpirationInfo());
    EXPECT_EQ(release->dump(), "Callback Release 42");
    EXPECT_EQ(std::count(records[0].debugLinesAtSend.begin(), records[0].debugLinesAtSend.end(),
                         "~ProfileKey"),
              0)
        << "the release is sent before the handle logs its end";
    EXPECT_EQ(debugLines(), std::vector<std::string>{"~ProfileKey"});
}

TEST_F(ProfileKeyTest, HandlesDroppedConcurrentlyEachReleaseTheirOwnTokenFromTheirOwnThread) {
    constexpr int kClients = 4;
    std::vector<std::thread::id> droppers(kClients);
    std::vector<std::thread> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back([key = makeKey(TechType::TYPE_3GPP, i, 100u + i),
                              dropper = &droppers[static_cast<size_t>(i)]]() mutable {
            *dropper = std::this_thread::get_id();
            key.reset();
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    std::vector<unsigned long long> tokens;
    for (const RequestRecorder::Record& record : recorder.sent()) {
        ASSERT_NE(record.request, nullptr);
        const unsigned long long token = record.request->getReleaseToken();
        tokens.push_back(token);
        ASSERT_TRUE(token >= 100 && token < 100 + kClients) << token;
        EXPECT_EQ(record.caller, droppers[token - 100]) << token;
    }
    std::sort(tokens.begin(), tokens.end());
    EXPECT_EQ(tokens, (std::vector<unsigned long long>{100, 101, 102, 103}));
}

TEST_F(ProfileKeyTest, RegistrationCarriesCallbackWeakHandleAndToken) {
    std::shared_ptr<IProfileKey> key = makeKey(TechType::TYPE_3GPP2, 7, 99);
    int calls = 0;
    key->registerExpirationListener([&calls] { ++calls; });

    std::vector<RequestRecorder::Record> records = recorder.sent();
    ASSERT_EQ(records.size(), 1u);
    const std::shared_ptr<CallbackRequest> registration = records[0].request;
    ASSERT_NE(registration, nullptr);
    ASSERT_TRUE(registration->hasExpirationInfo());
    EXPECT_FALSE(registration->hasReleaseToken());
    EXPECT_EQ(registration->getExpirationToken(), 99u);
    EXPECT_EQ(registration->getExpirationKey().lock(), key);
    EXPECT_EQ(registration->dump(), "Callback Register 3GPP2:7 token=9999");
    registration->getExpirationCb()();
    EXPECT_EQ(calls, 1);

    // The registration holds the handle weakly: dropping it still releases it.
    key.reset();
    records = recorder.sent();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_TRUE(records[1].request->hasReleaseToken());
    EXPECT_TRUE(registration->getExpirationKey().expired());
    EXPECT_EQ(registration->dump(), "Callback Register null99");
}

}  // namespace
}  // namespace kel
