// The facade's round trips against what they cannot beat, measured in the same run:
// - getProfile, match and filter on a filled cache against a bare hand-off of one request between
//   two threads through an eventfd and a condition variable (the pipeline's own mechanism);
// - addProfile, modifyProfile and deleteProfile, which wait for the modem, against a bare
//   vex_client_send_msg_sync round trip to the simulated modem.
// After the usual table, every benchmark is printed again beside its floor with the ratio.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kel/Manager.h"
#include "vex/vex_client.h"
#include "vex/wireless_data_service_v01.h"
#include "vexsim/SimModem.h"

namespace {

constexpr const char* kHandOffFloor = "BM_HandOffFloor";
constexpr const char* kModemFloor = "BM_VexRoundTripFloor";

// --- Environment: a simulated modem with n 3GPP profiles in a private directory ---

class ServiceDir {
  public:
    ServiceDir() {
        char pattern[] = "/tmp/kel-bench-XXXXXX";
        if (mkdtemp(pattern) != nullptr) {
            path = pattern;
        }
    }
    ~ServiceDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string path;
};

std::string apnOf(int index) {
    return "apn" + std::to_string(index) + ".example";
}

class Modem {
  public:
    explicit Modem(int profiles) {
        vexsim::Config config;
        config.serviceDir = dir.path;
        config.capacity3gpp = profiles + 8;
        config.profilesReadyOnRegister = false;
        for (int i = 1; i <= profiles; ++i) {
            config.seedText += "profile 3gpp index=" + std::to_string(i) + " name=P" +
                               std::to_string(i) + " apn=" + apnOf(i) +
                               " pdp=ipv4v6 types=default\n";
        }
        sim = std::make_unique<vexsim::SimModem>(config);
        std::string error;
        if (!sim->start(&error)) {
            std::fprintf(stderr, "simulated modem: %s\n", error.c_str());
            std::abort();
        }
        setenv("VEX_SERVICE_DIR", dir.path.c_str(), 1);
    }

    bool waitForRegisteredClient() {
        return sim->waitUntil(
            [this] {
                for (const vexsim::ClientInfo& client : sim->clients()) {
                    if (!client.notifierOnly && client.bound && client.indicationsRegistered &&
                        client.eventListConfigured) {
                        return true;
                    }
                }
                return false;
            },
            std::chrono::seconds(10));
    }

    ServiceDir dir;
    std::unique_ptr<vexsim::SimModem> sim;
};

// A Manager connected to a modem of n profiles, its cache filled.
class Library {
  public:
    explicit Library(int profiles) : modem(profiles) {
        manager.init(0, true);
        if (!modem.waitForRegisteredClient()) {
            std::fprintf(stderr, "the library did not connect\n");
            std::abort();
        }
        manager.refresh(kel::PDCRefreshStatus::Completed);
    }

    std::shared_ptr<kel::IProfileKey> keyOf(int index) {
        kel::FilterProfileParams filter;
        filter.setApnName(apnOf(index));
        auto keys = manager.filter(filter);
        return keys.empty() ? nullptr : keys.front();
    }

    Modem modem;
    kel::Manager manager;
};

// One library per profile count, kept for every run of every benchmark with that count: setting
// one up reads the whole modem, and tearing one down prints a line of its own.
std::map<int, std::unique_ptr<Library>>& libraries() {
    static std::map<int, std::unique_ptr<Library>> all;
    return all;
}

Library& libraryOf(int profiles) {
    std::unique_ptr<Library>& library = libraries()[profiles];
    if (!library) {
        library = std::make_unique<Library>(profiles);
    }
    return *library;
}

// --- Floors ---

// One request handed to a second thread and one response handed back: the eventfd wakes the
// server, the condition variable wakes the client, as in the library's pipeline.
void BM_HandOffFloor(benchmark::State& state) {
    int fd = eventfd(0, EFD_CLOEXEC);
    std::mutex mutex;
    std::condition_variable cv;
    int request = 0;   // guarded by mutex; 0 none, -1 stop
    int response = 0;  // guarded by mutex
    std::thread server([&] {
        for (;;) {
            std::uint64_t count = 0;
            if (read(fd, &count, sizeof(count)) != sizeof(count)) {
                continue;
            }
            std::lock_guard<std::mutex> lock(mutex);
            if (request == -1) {
                return;
            }
            response = request;
            request = 0;
            cv.notify_one();
        }
    });
    const std::uint64_t one = 1;
    int next = 1;
    for (auto _ : state) {
        std::unique_lock<std::mutex> lock(mutex);
        if (write(fd, &one, sizeof(one)) != sizeof(one)) {
            state.SkipWithError("eventfd write failed");
            break;
        }
        request = next;
        cv.wait(lock, [&] { return response != 0; });
        benchmark::DoNotOptimize(response);
        response = 0;
        next = next % 1000 + 1;
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        request = -1;
    }
    if (write(fd, &one, sizeof(one)) != sizeof(one)) {
        std::abort();
    }
    server.join();
    close(fd);
}
BENCHMARK(BM_HandOffFloor)->UseRealTime();

// One get-settings request to the simulated modem and its response, without the library.
void BM_VexRoundTripFloor(benchmark::State& state) {
    Modem modem(10);
    vex_idl_service_object_type service = wds_get_service_object_v01();
    vex_service_info info{};
    vex_client_os_params os{};
    vex_client_type client = nullptr;
    if (vex_client_get_any_service(service, &info) != VEX_NO_ERR ||
        vex_client_init(&info, service, nullptr, nullptr, &os, &client) != VEX_NO_ERR) {
        state.SkipWithError("cannot connect to the simulated modem");
        return;
    }
    wds_bind_subscription_req_msg_v01 bind{};
    wds_bind_subscription_resp_msg_v01 bound{};
    vex_client_send_msg_sync(client, VEX_WDS_BIND_SUBSCRIPTION_REQ_V01, &bind, sizeof(bind), &bound,
                             sizeof(bound), 1000);
    wds_get_profile_settings_req_msg_v01 req{};
    req.profile.profile_type = WDS_PROFILE_TYPE_3GPP_V01;
    req.profile.profile_index = 1;
    auto resp = std::make_unique<wds_get_profile_settings_resp_msg_v01>();
    for (auto _ : state) {
        if (vex_client_send_msg_sync(client, VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01, &req,
                                     sizeof(req), resp.get(), sizeof(*resp), 1000) != VEX_NO_ERR) {
            state.SkipWithError("request failed");
            break;
        }
        benchmark::DoNotOptimize(resp->resp.result);
    }
    vex_client_release(client);
}
BENCHMARK(BM_VexRoundTripFloor)->UseRealTime();

// --- The facade on a filled cache (argument: number of profiles) ---

void BM_GetProfile(benchmark::State& state) {
    Library& library = libraryOf(static_cast<int>(state.range(0)));
    std::shared_ptr<kel::IProfileKey> key = library.keyOf(1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(library.manager.getProfile(key));
    }
}
BENCHMARK(BM_GetProfile)->Arg(10)->Arg(100)->Arg(200)->UseRealTime();

void BM_Match(benchmark::State& state) {
    Library& library = libraryOf(static_cast<int>(state.range(0)));
    std::shared_ptr<kel::IProfileKey> key = library.keyOf(1);
    kel::FilterProfileParams filter;
    filter.setApnName(apnOf(1));
    filter.setHomeIPType(kel::IPType::V4);
    filter.addFilterMatchCriteria(static_cast<unsigned int>(kel::FilterMatchType::HomeIPSubset));
    for (auto _ : state) {
        benchmark::DoNotOptimize(library.manager.match(filter, key));
    }
}
BENCHMARK(BM_Match)->Arg(10)->Arg(100)->Arg(200)->UseRealTime();

// A filter that selects one profile out of all, and the release of the handle it returns (a
// second round trip: what a client pays for a look-up it does not keep).
void BM_Filter(benchmark::State& state) {
    Library& library = libraryOf(static_cast<int>(state.range(0)));
    kel::FilterProfileParams filter;
    filter.setApnName(apnOf(1));
    for (auto _ : state) {
        benchmark::DoNotOptimize(library.manager.filter(filter));
    }
}
BENCHMARK(BM_Filter)->Arg(10)->Arg(100)->Arg(200)->UseRealTime();

// --- Operations that wait for the modem ---

kel::AddProfileParams addParams() {
    kel::AddProfileParams params(false, kel::TechType::TYPE_3GPP, false);
    params.setApnName("bench.example");
    params.setHomeIPType(kel::IPType::V4V6);
    return params;
}

// The create message and its bookkeeping. Deleting the profile again is not timed.
void BM_AddProfile(benchmark::State& state) {
    Library& library = libraryOf(10);
    const kel::AddProfileParams params = addParams();
    for (auto _ : state) {
        std::shared_ptr<kel::IProfileKey> key = library.manager.addProfile(params);
        state.PauseTiming();
        if (!key) {
            state.SkipWithError("add failed");
            break;
        }
        key.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_AddProfile)->UseRealTime();

// Alternates a profile between two APN names, so every call sends a modify message.
void BM_ModifyProfile(benchmark::State& state) {
    Library& library = libraryOf(10);
    std::shared_ptr<kel::IProfileKey> key = library.manager.addProfile(addParams());
    kel::ModifyProfileParams first;
    first.setApnName("first.example");
    kel::ModifyProfileParams second;
    second.setApnName("second.example");
    bool flip = false;
    for (auto _ : state) {
        flip = !flip;
        if (!library.manager.modifyProfile(flip ? first : second, key)) {
            state.SkipWithError("modify failed");
            break;
        }
    }
}
BENCHMARK(BM_ModifyProfile)->UseRealTime();

// The delete message and its bookkeeping. Adding the profile first is not timed.
void BM_DeleteProfile(benchmark::State& state) {
    Library& library = libraryOf(10);
    const kel::AddProfileParams params = addParams();
    for (auto _ : state) {
        state.PauseTiming();
        std::shared_ptr<kel::IProfileKey> key = library.manager.addProfile(params);
        state.ResumeTiming();
        if (!library.manager.deleteProfile(key)) {
            state.SkipWithError("delete failed");
            break;
        }
        state.PauseTiming();
        key.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_DeleteProfile)->UseRealTime();

// --- Report: the usual table, then each benchmark beside its floor ---

// Prints each benchmark's median (over its repetitions) beside the median of its floor.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) {
                continue;
            }
            const std::string name = run.run_name.str();
            if (std::find(order.begin(), order.end(), name) == order.end()) {
                order.push_back(name);
            }
            if (run.run_type == Run::RT_Aggregate) {
                if (run.aggregate_name == "median") {
                    medians[name] = run.GetAdjustedRealTime();
                }
            } else {
                samples[name].push_back(run.GetAdjustedRealTime());
            }
        }
    }

    void printRatios() const {
        std::printf("\n%-32s %12s  %-22s %12s %8s\n", "benchmark (median)", "time (us)", "floor",
                    "floor (us)", "ratio");
        for (const std::string& name : order) {
            const char* floor = floorOf(name);
            std::optional<double> self = medianOf(name);
            std::optional<double> base = medianOf(floor);
            if (isFloor(name) || !self || !base) {
                continue;
            }
            std::printf("%-32s %12.2f  %-22s %12.2f %7.1fx\n", name.c_str(), micros(*self), floor,
                        micros(*base), *self / *base);
        }
    }

  private:
    static bool isFloor(const std::string& name) {
        return name.rfind(kHandOffFloor, 0) == 0 || name.rfind(kModemFloor, 0) == 0;
    }
    static const char* floorOf(const std::string& name) {
        for (const char* modemBound : {"BM_AddProfile", "BM_ModifyProfile", "BM_DeleteProfile"}) {
            if (name.rfind(modemBound, 0) == 0) {
                return kModemFloor;
            }
        }
        return kHandOffFloor;
    }
    // The median of the benchmark whose name starts with prefix (names carry suffixes such as
    // "/real_time").
    std::optional<double> medianOf(const std::string& prefix) const {
        for (const std::string& name : order) {
            if (name.rfind(prefix, 0) != 0) {
                continue;
            }
            if (auto it = medians.find(name); it != medians.end()) {
                return it->second;
            }
            if (auto it = samples.find(name); it != samples.end() && !it->second.empty()) {
                std::vector<double> sorted = it->second;
                std::sort(sorted.begin(), sorted.end());
                return sorted[sorted.size() / 2];
            }
        }
        return std::nullopt;
    }
    // Benchmarks here report in the default unit, nanoseconds.
    static double micros(double nanos) { return nanos / 1000.0; }

    std::vector<std::string> order;
    std::map<std::string, double> medians;
    std::map<std::string, std::vector<double>> samples;
};

}  // namespace

int main(int argc, char** argv) {
    // The library logs every call; keep its echo off the terminal unless asked for.
    setenv("KELR_LOG_QUIET", "1", 0);
    // Two threads handing work back and forth are at the scheduler's mercy: five repetitions
    // by default, compared by their medians.
    std::vector<char*> args(argv, argv + argc);
    std::string repetitions = "--benchmark_repetitions=5";
    if (std::none_of(args.begin(), args.end(), [](const char* arg) {
            return std::string(arg).rfind("--benchmark_repetitions", 0) == 0;
        })) {
        args.push_back(repetitions.data());
    }
    argc = static_cast<int>(args.size());
    args.push_back(nullptr);
    argv = args.data();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    libraries().clear();
    reporter.printRatios();
    benchmark::Shutdown();
    return 0;
}
