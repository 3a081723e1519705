// The base of the end-to-end tests: a simulated modem serving WDS in the test's own directory,
// a Manager connected to it through the real vex client library, its cache filled, and the log
// observed. Everything is waited for through the modem's view of its clients and Manager round
// trips, never by sleeping.
#ifndef KELR_TESTS_E2E_SIM_MODEM_FIXTURE_H
#define KELR_TESTS_E2E_SIM_MODEM_FIXTURE_H

#include <android/log.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "LocalLogBuffer.h"
#include "hostlog/LogCapture.h"
#include "kel/Manager.h"
#include "support/Guarded.h"
#include "support/TestSupport.h"
#include "vexsim/SimModem.h"

namespace e2e {

constexpr wds_profile_type_enum_v01 k3gpp = WDS_PROFILE_TYPE_3GPP_V01;
constexpr wds_profile_type_enum_v01 k3gpp2 = WDS_PROFILE_TYPE_3GPP2_V01;
constexpr std::chrono::seconds kTimeout{10};
// Past the library's 1000 ms message timeout.
constexpr std::chrono::milliseconds kLate{1500};

// Two carrier profiles per technology, all persistent (the seed's default).
constexpr char kDefaultSeed[] = R"(
profile 3gpp index=1 name=Internet apn=internet pdp=ipv4v6 class=3 types=default
profile 3gpp index=2 name=IMS apn=ims pdp=ipv4v6 class=1 types=ims
profile 3gpp2 index=1 apn=internet pdn=ipv4v6 class=3 types=default
profile 3gpp2 index=2 apn=vzwims pdn=ipv4v6 class=1 types=ims
)";

// Requests a client sends to register: bind, indication register, event list configuration.
constexpr std::uint64_t kRegistrationRequests = 3;

// Names each case of a table after its name field.
struct CaseName {
    template <typename Case>
    std::string operator()(const ::testing::TestParamInfo<Case>& test) const {
        return test.param.name;
    }
};

// A profile to add: the APN name, dual stack.
inline kel::AddProfileParams addParams(const std::string& apn, bool persistent = false,
                                       kel::TechType tech = kel::TechType::TYPE_3GPP) {
    kel::AddProfileParams params(persistent, tech, false);
    params.setApnName(apn);
    params.setHomeIPType(kel::IPType::V4V6);
    return params;
}

inline kel::FilterProfileParams byApn(const std::string& apn) {
    kel::FilterProfileParams filter;
    filter.setApnName(apn);
    return filter;
}

inline kel::ModifyProfileParams newApn(const std::string& apn) {
    kel::ModifyProfileParams params;
    params.setApnName(apn);
    return params;
}

// Settings as another client of the modem would write them: an APN name and, if given, a name.
inline wds_profile_settings_v01 apnSettings(const std::string& apn, const char* name = nullptr) {
    wds_profile_settings_v01 settings{};
    settings.apn_name_valid = 1;
    std::snprintf(settings.apn_name, sizeof(settings.apn_name), "%s", apn.c_str());
    if (name != nullptr) {
        settings.profile_name_valid = 1;
        std::snprintf(settings.profile_name, sizeof(settings.profile_name), "%s", name);
    }
    return settings;
}

// A change of the 3GPP APN class alone, as another client would make it.
inline wds_profile_settings_v01 apnClassChange(int apnClass) {
    wds_profile_settings_v01 change{};
    change.apn_class_valid = 1;
    change.apn_class = static_cast<std::uint8_t>(apnClass);
    return change;
}

// Counts the calls of an expiration listener (made on the library's worker thread) and lets the
// test wait for them.
class Calls {
  public:
    std::function<void()> callback() {
        return [this] { calls.change([](int& count) { ++count; }); };
    }
    int count() { return calls.get(); }
    bool waitFor(int expected) {
        return calls.waitUntil([expected](int count) { return count >= expected; });
    }

  private:
    testsupport::Guarded<int> calls;
};

// Lets a test wait for the library's log lines: installed as the library's writer, it still
// writes to the Android log (so the capture sees every line) and records each message. Manager::
// init installs its own writer, so install() again after every init.
class LogWatch {
  public:
    void install() {
        kel::LogWrapper::getInstance()->setLogWriter(std::make_unique<Writer>(lines));
    }
    // Messages that start with prefix, so far.
    int count(const std::string& prefix) const { return countIn(lines->get(), prefix); }
    // Waits until at least expected messages start with prefix.
    bool waitFor(const std::string& prefix, int expected = 1) const {
        return lines->waitUntil(
            [&](const Messages& messages) { return countIn(messages, prefix) >= expected; });
    }

  private:
    using Messages = std::vector<std::string>;
    using Lines = testsupport::Guarded<Messages>;
    class Writer : public kel::AdbWriter {
      public:
        explicit Writer(std::shared_ptr<Lines> target) : lines(std::move(target)) {}
        void write(kel::LogLevel level, std::string tag, std::string message) override {
            kel::AdbWriter::write(level, tag, message);
            lines->change([&message](Messages& messages) { messages.push_back(message); });
        }

      private:
        std::shared_ptr<Lines> lines;
    };

    static int countIn(const Messages& messages, const std::string& prefix) {
        return static_cast<int>(std::count_if(
            messages.begin(), messages.end(),
            [&prefix](const std::string& message) { return message.rfind(prefix, 0) == 0; }));
    }

    std::shared_ptr<Lines> lines = std::make_shared<Lines>();
};

// The token a handle carries, read from its dump ("3GPP:3 token=12").
inline unsigned long long tokenOf(const std::shared_ptr<kel::IProfileKey>& key) {
    const std::string text = key->dump();
    return std::stoull(text.substr(text.find("token=") + 6));
}

// Joins every thread under a watchdog, so that a hang fails the test instead of stalling it.
inline void joinAll(std::vector<std::thread>& threads) {
    testsupport::Watchdog watchdog("joining the test's threads", std::chrono::seconds(60));
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// For a death test's child process: a modem with the default seed serving in dir, named to the
// library; the child exits with status 2 when it cannot start.
inline std::unique_ptr<vexsim::SimModem> startChildModem(const std::string& dir) {
    vexsim::Config config;
    config.serviceDir = dir;
    config.seedText = kDefaultSeed;
    auto modem = std::make_unique<vexsim::SimModem>(config);
    if (!modem->start() || setenv("VEX_SERVICE_DIR", dir.c_str(), 1) != 0) {
        std::exit(2);
    }
    return modem;
}

class SimModemFixture : public ::testing::Test {
  public:
    // Whether the history (Manager::dump's "Logs:") holds a line ending in text.
    static bool inHistory(const std::string& text) {
        const std::string tail = "[KEL]" + text;
        for (const std::string& line : kel::LocalLogBuffer::getInstance()->getLogs()) {
            if (line.size() >= tail.size() &&
                line.compare(line.size() - tail.size(), tail.size(), tail) == 0) {
                return true;
            }
        }
        return false;
    }

  protected:
    SimModemFixture() {
        config.seedText = kDefaultSeed;
        config.serviceDir = dir.path();
    }

    // Starts the modem as config says, connects `manager` to subscription 0 and waits until its
    // cache holds the modem's profiles; the log starts empty.
    void SetUp() override {
        startModem();
        connect(manager, 0);
        clearLogs();
    }

    // Starts the modem with config's profiles plus a sentinel 3GPP2 profile on subscription 0
    // that settle() changes.
    void startModem() {
        vexsim::Config withSentinel = config;
        withSentinel.seedText += std::string("\nprofile 3gpp2 apn=") + kSentinelApn + "\n";
        modem = std::make_unique<vexsim::SimModem>(withSentinel);
        std::string error;
        ASSERT_TRUE(modem->start(&error)) << error;
        serviceDir.emplace("VEX_SERVICE_DIR", dir.path().c_str());
        for (const vexsim::Profile& profile : modem->profiles(0)) {
            if (profile.type == k3gpp2 &&
                kSentinelApn == std::string(profile.settings.apn_string)) {
                sentinel = profile.index;
            }
        }
        ASSERT_TRUE(sentinel.has_value());
    }

    // init(), then waits until the library's client has registered and, when the modem
    // announces its profiles on registration, until the cache has read them all.
    void connect(kel::Manager& target, int subscription) {
        const int previous = newestClientId();
        target.init(subscription, true);
        if (config.profilesReadyOnRegister) {
            ASSERT_TRUE(waitUntilFilled(previous, subscription));
        } else {
            ASSERT_TRUE(waitUntilRegistered(previous));
        }
        sync(target);
    }

    // --- The modem's view of the library ---

    // The WDS clients (not notifiers) the modem sees now.
    std::vector<vexsim::ClientInfo> wdsClients() const {
        std::vector<vexsim::ClientInfo> found;
        for (const vexsim::ClientInfo& client : modem->clients()) {
            if (!client.notifierOnly) {
                found.push_back(client);
            }
        }
        return found;
    }
    // The client connected last; the library's current one.
    std::optional<vexsim::ClientInfo> libraryClient() const {
        std::optional<vexsim::ClientInfo> newest;
        for (const vexsim::ClientInfo& client : wdsClients()) {
            if (!newest || client.id > newest->id) {
                newest = client;
            }
        }
        return newest;
    }
    int newestClientId() const {
        std::optional<vexsim::ClientInfo> client = modem ? libraryClient() : std::nullopt;
        return client ? client->id : 0;
    }
    static bool isRegistered(const vexsim::ClientInfo& client) {
        return client.bound && client.indicationsRegistered && client.eventListConfigured;
    }
    // Requests the library's current client has had served.
    std::uint64_t served() const {
        std::optional<vexsim::ClientInfo> client = libraryClient();
        return client ? client->requestsServed : 0;
    }

    // A client newer than afterId has registered.
    bool waitUntilRegistered(int afterId) {
        return modem->waitUntil(
            [&] {
                std::optional<vexsim::ClientInfo> client = libraryClient();
                return client && client->id > afterId && isRegistered(*client);
            },
            kTimeout);
    }
    // A client newer than afterId has registered, been told that the profiles are ready and
    // read them all (two lists and one read per profile).
    bool waitUntilFilled(int afterId, int subscription) {
        const std::uint64_t reads = 2 + modem->profiles(subscription).size();
        return modem->waitUntil(
            [&] {
                std::optional<vexsim::ClientInfo> client = libraryClient();
                return client && client->id > afterId && isRegistered(*client) &&
                       client->profilesReadySent &&
                       client->requestsServed >= kRegistrationRequests + reads;
            },
            kTimeout);
    }
    // The library's client has had at least count requests served.
    bool waitUntilServed(std::uint64_t count) {
        return modem->waitUntil([&] { return served() >= count; }, kTimeout);
    }

    // A round trip through the worker thread that touches nothing: once it returns, whatever
    // the worker was doing (a refresh, an indication) is finished.
    static void sync(kel::Manager& target) { target.getProfile(nullptr); }
    void sync() { sync(manager); }
    // A handle to 3GPP profile 1, the seed's internet profile; empty unless exactly one.
    std::shared_ptr<kel::IProfileKey> profile3gpp1() {
        kel::FilterProfileParams filter;
        filter.setFilterByTechType(kel::TechType::TYPE_3GPP);
        filter.setFilterByProfileId(1);
        auto keys = manager.filter(filter);
        return keys.size() == 1 ? keys.front() : nullptr;
    }
    // The one profile with apn; empty unless exactly one.
    std::shared_ptr<kel::IProfileKey> only(const std::string& apn) {
        auto keys = manager.filter(byApn(apn));
        return keys.size() == 1 ? keys.front() : nullptr;
    }

    // Waits until the library has handled every indication the modem sent so far: the modem
    // changes a profile that no test holds, as another client would, and the library reads it
    // back. Indications are handled in order, so the earlier ones are done.
    bool settle() {
        wds_profile_settings_v01 change{};
        change.apn_class_3gpp2_valid = 1;
        change.apn_class_3gpp2 = static_cast<std::uint8_t>(++sentinelChanges);
        const std::uint64_t before = served();
        if (!sentinel || !modem->modifyProfile(0, k3gpp2, *sentinel, change)) {
            return false;
        }
        const bool read = waitUntilServed(before + 1);
        sync();
        return read;
    }

    kel::ModemStatus status() {
        std::optional<kel::ModemStatus> now = manager.getModemStatus();
        EXPECT_TRUE(now);
        return now.value_or(kel::ModemStatus());
    }

    std::optional<vexsim::Profile> onModem(wds_profile_type_enum_v01 type, int index) const {
        return modem->profile(0, type, static_cast<std::uint8_t>(index));
    }
    // The modem's profile; an empty one, and a failure of the test, when there is none.
    vexsim::Profile modemProfile(wds_profile_type_enum_v01 type, int index) const {
        std::optional<vexsim::Profile> found = onModem(type, index);
        if (!found) {
            ADD_FAILURE() << "no profile " << type << ":" << index << " on the modem";
        }
        return found.value_or(vexsim::Profile{});
    }
    // The modem's profiles of subscription 0 named name (3GPP only).
    std::vector<vexsim::Profile> onModemNamed(const std::string& name) const {
        std::vector<vexsim::Profile> found;
        for (const vexsim::Profile& profile : modem->profiles(0)) {
            if (profile.type == k3gpp && profile.settings.profile_name_valid &&
                name == profile.settings.profile_name) {
                found.push_back(profile);
            }
        }
        return found;
    }

    // --- The log ---

    void clearLogs() {
        kel::LocalLogBuffer::getInstance()->flush();
        capture.clear();
    }
    // Lines written to the Android log at priority that equal text.
    int count(int priority, const std::string& text) const {
        int found = 0;
        for (const hostlog::AndroidLogRecord& record : capture.android()) {
            found += record.priority == priority && record.message == text ? 1 : 0;
        }
        return found;
    }
    // History and Error lines reach both the Android log and the history.
    bool history(const std::string& text) const {
        return count(ANDROID_LOG_INFO, text) > 0 && inHistory(text);
    }
    // Where the Android log cannot be read back, only the history is checked, not the level.
    bool error(const std::string& text) const {
        return inHistory(text) && (count(ANDROID_LOG_ERROR, text) > 0 ||
                                   !hostlog::androidLogUnreadableReason().empty());
    }
    bool info(const std::string& text) const { return count(ANDROID_LOG_INFO, text) > 0; }
    bool debug(const std::string& text) const { return count(ANDROID_LOG_DEBUG, text) > 0; }
    bool verbose(const std::string& text) const { return count(ANDROID_LOG_VERBOSE, text) > 0; }
    // Whether any line at any priority contains text.
    bool logged(const std::string& text) const { return !capture.androidContaining(text).empty(); }

    static constexpr const char* kSentinelApn = "sentinel.test";

    testsupport::TempDir dir;
    std::optional<testsupport::ScopedEnv> serviceDir;  // names dir while the test runs
    hostlog::LogCapture capture;
    vexsim::Config config;
    std::unique_ptr<vexsim::SimModem> modem;
    // Declared after the modem, so the library goes first and never sees the modem vanish.
    kel::Manager manager;

  private:
    std::optional<std::uint8_t> sentinel;  // the sentinel's index
    int sentinelChanges = 0;
};

}  // namespace e2e

#endif  // KELR_TESTS_E2E_SIM_MODEM_FIXTURE_H
