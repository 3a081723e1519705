// What a client pays for a call through kel::Manager, held against the floor of the mechanism the
// call needs, both measured in the same run:
// - each iteration times a batch of calls and then a batch of the floor, so that load from other
//   processes, which varies over seconds, falls on both alike; every repetition reports its own
//   ratio, and the aggregates give its median and spread;
// - the floor of a call on the cache is the bare hand-off: an eventfd wakes a thread waiting in
//   epoll, which stores a response under a mutex and signals the caller's condition variable
//   after releasing it;
// - the floor of a call that sends modem messages is that hand-off with the same messages sent
//   by the woken thread on a bare client of an identical simulated modem.
// The refresh, the indication burst and the client-thread scaling have benchmarks of their own.
// scripts/bench.sh runs them pinned to one core and rewrites the table of docs/benchmarks.md.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/epoll.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "EventFd.h"
#include "LocalLogBuffer.h"
#include "UniqueFd.h"
#include "kel/ClientRequest.h"
#include "kel/ClientResponse.h"
#include "kel/Manager.h"
#include "kel/ModemObserver.h"
#include "vex/vex_client.h"
#include "vex/wireless_data_service_v01.h"
#include "vexsim/SimModem.h"

namespace {

using Clock = std::chrono::steady_clock;

double nanosSince(Clock::time_point start) {
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// --- Environment: a simulated modem with n 3GPP and m 3GPP2 profiles in a private directory ---

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
    ServiceDir(const ServiceDir&) = delete;
    ServiceDir& operator=(const ServiceDir&) = delete;

    std::string path;
};

std::string apnOf(int index) {
    return "apn" + std::to_string(index) + ".example";
}

// Profile indexes are one byte, so a table holds at most 255.
int capacityFor(int profiles) {
    return std::min(255, profiles + 8);
}

struct Shape {
    int profiles3gpp = 10;
    int profiles3gpp2 = 0;
};

class Modem {
  public:
    explicit Modem(Shape shape) {
        vexsim::Config config;
        config.serviceDir = dir.path;
        config.capacity3gpp = capacityFor(shape.profiles3gpp);
        config.capacity3gpp2 = capacityFor(shape.profiles3gpp2);
        config.profilesReadyOnRegister = false;
        for (int i = 1; i <= shape.profiles3gpp; ++i) {
            config.seedText += "profile 3gpp index=" + std::to_string(i) + " name=P" +
                               std::to_string(i) + " apn=" + apnOf(i) +
                               " pdp=ipv4v6 types=default\n";
        }
        for (int i = 1; i <= shape.profiles3gpp2; ++i) {
            config.seedText += "profile 3gpp2 index=" + std::to_string(i) + " apn=cdma" + apnOf(i) +
                               " pdn=ipv4v6 types=default\n";
        }
        sim = std::make_unique<vexsim::SimModem>(config);
        std::string error;
        if (!sim->start(&error)) {
            std::fprintf(stderr, "simulated modem: %s\n", error.c_str());
            std::abort();
        }
    }

    // Clients find the modem through the environment; each connects right after this.
    void select() const { setenv("VEX_SERVICE_DIR", dir.path.c_str(), 1); }

    // The registered (library) client's count of requests served.
    std::uint64_t servedForRegisteredClient() const {
        for (const vexsim::ClientInfo& client : sim->clients()) {
            if (!client.notifierOnly && client.indicationsRegistered) {
                return client.requestsServed;
            }
        }
        return 0;
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

// A Manager connected to its own modem, its cache filled.
class Library {
  public:
    explicit Library(Shape shape) : modem(shape) {
        modem.select();
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

// A bare WDS client, bound to subscription 0 and registered for nothing, on its own modem.
class BareClient {
  public:
    explicit BareClient(Shape shape) : modem(shape) {
        modem.select();
        vex_idl_service_object_type service = wds_get_service_object_v01();
        vex_service_info info{};
        vex_client_os_params os{};
        if (vex_client_get_any_service(service, &info) != VEX_NO_ERR ||
            vex_client_init(&info, service, nullptr, nullptr, &os, &client) != VEX_NO_ERR) {
            std::fprintf(stderr, "cannot connect to the simulated modem\n");
            std::abort();
        }
        wds_bind_subscription_req_msg_v01 bind{};
        wds_bind_subscription_resp_msg_v01 bound{};
        send(VEX_WDS_BIND_SUBSCRIPTION_REQ_V01, bind, bound);
    }
    ~BareClient() { vex_client_release(client); }
    BareClient(const BareClient&) = delete;
    BareClient& operator=(const BareClient&) = delete;

    template <typename Req, typename Resp>
    void send(unsigned int msgId, Req& req, Resp& resp) {
        if (vex_client_send_msg_sync(client, msgId, &req, sizeof(req), &resp, sizeof(resp), 1000) !=
                VEX_NO_ERR ||
            resp.resp.result != 0) {
            std::fprintf(stderr, "bare message 0x%x failed\n", msgId);
            std::abort();
        }
    }

    void getSettings(wds_profile_type_enum_v01 type, int index) {
        getReq.profile.profile_type = type;
        getReq.profile.profile_index = static_cast<uint8_t>(index);
        send(VEX_WDS_GET_PROFILE_SETTINGS_REQ_V01, getReq, *getResp);
    }

    // What a refresh sends: both profile lists and the settings of every listed profile.
    void readAll() {
        for (wds_profile_type_enum_v01 type :
             {WDS_PROFILE_TYPE_3GPP_V01, WDS_PROFILE_TYPE_3GPP2_V01}) {
            listReq->profile_type_valid = 1;
            listReq->profile_type = type;
            send(VEX_WDS_GET_PROFILE_LIST_REQ_V01, *listReq, *listResp);
            const std::uint32_t count = listResp->profile_list_len;
            for (std::uint32_t i = 0; i < count && i < WDS_PROFILE_LIST_MAX_V01; ++i) {
                getSettings(type, listResp->profile_list[i].profile_index);
            }
        }
    }

    // A 3GPP profile with an APN and an IP type, as addProfile creates it; returns its index.
    int create() {
        createReq->profile_type = WDS_PROFILE_TYPE_3GPP_V01;
        wds_profile_settings_v01& settings = createReq->settings;
        settings.profile_name_valid = 1;
        std::snprintf(settings.profile_name, sizeof(settings.profile_name), "kel_profile");
        settings.apn_name_valid = 1;
        std::snprintf(settings.apn_name, sizeof(settings.apn_name), "bench.example");
        settings.pdp_type_valid = 1;
        settings.pdp_type = WDS_PDP_TYPE_PDP_IPV4V6_V01;
        send(VEX_WDS_CREATE_PROFILE_REQ_V01, *createReq, createResp);
        return createResp.profile.profile_index;
    }

    void remove(int index) {
        deleteReq.profile.profile_type = WDS_PROFILE_TYPE_3GPP_V01;
        deleteReq.profile.profile_index = static_cast<uint8_t>(index);
        send(VEX_WDS_DELETE_PROFILE_REQ_V01, deleteReq, deleteResp);
    }

    void modifyApn(int index, const char* apn) {
        modifyReq->profile.profile_type = WDS_PROFILE_TYPE_3GPP_V01;
        modifyReq->profile.profile_index = static_cast<uint8_t>(index);
        modifyReq->settings.apn_name_valid = 1;
        std::snprintf(modifyReq->settings.apn_name, sizeof(modifyReq->settings.apn_name), "%s",
                      apn);
        send(VEX_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01, *modifyReq, modifyResp);
    }

    Modem modem;

  private:
    vex_client_type client = nullptr;
    // The records are large; they live here rather than on the stack.
    wds_get_profile_settings_req_msg_v01 getReq{};
    std::unique_ptr<wds_get_profile_settings_resp_msg_v01> getResp =
        std::make_unique<wds_get_profile_settings_resp_msg_v01>();
    std::unique_ptr<wds_get_profile_list_req_msg_v01> listReq =
        std::make_unique<wds_get_profile_list_req_msg_v01>();
    std::unique_ptr<wds_get_profile_list_resp_msg_v01> listResp =
        std::make_unique<wds_get_profile_list_resp_msg_v01>();
    std::unique_ptr<wds_create_profile_req_msg_v01> createReq =
        std::make_unique<wds_create_profile_req_msg_v01>();
    wds_create_profile_resp_msg_v01 createResp{};
    wds_delete_profile_req_msg_v01 deleteReq{};
    wds_delete_profile_resp_msg_v01 deleteResp{};
    std::unique_ptr<wds_modify_profile_settings_req_msg_v01> modifyReq =
        std::make_unique<wds_modify_profile_settings_req_msg_v01>();
    wds_modify_profile_settings_resp_msg_v01 modifyResp{};
};

// --- The floor: the bare hand-off, optionally with modem messages on the woken side ---

// A thread waiting in epoll on an eventfd, as the library's worker does. A call stores its work
// under the mutex and writes the eventfd; the thread runs the work, stores the answer and signals
// the caller after releasing the mutex.
//
// Threads: call() on one client thread at a time; the server thread is its own.
class HandOff {
  public:
    HandOff() : epollFd(epoll_create1(EPOLL_CLOEXEC)) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = wake.get();
        if (!epollFd || epoll_ctl(epollFd.get(), EPOLL_CTL_ADD, wake.get(), &event) != 0) {
            std::abort();
        }
        server = std::thread([this] { serve(); });
    }
    ~HandOff() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        if (wake.signal() != sizeof(std::uint64_t)) {
            std::abort();
        }
        server.join();
    }
    HandOff(const HandOff&) = delete;
    HandOff& operator=(const HandOff&) = delete;

    // Runs work on the server thread and waits for it, as a call through the pipeline does.
    void call(const std::function<void()>* work) {
        std::unique_lock<std::mutex> lock(mutex);
        if (wake.signal() != sizeof(std::uint64_t)) {
            std::abort();
        }
        request = work;
        done.wait(lock, [this] { return answered; });
        answered = false;
    }

  private:
    void serve() {
        for (;;) {
            epoll_event event{};
            if (epoll_wait(epollFd.get(), &event, 1, -1) != 1) {
                continue;
            }
            std::uint64_t count = 0;
            if (read(wake.get(), &count, sizeof(count)) != sizeof(count)) {
                continue;
            }
            std::unique_lock<std::mutex> lock(mutex);
            if (stopping) {
                return;
            }
            if (request == nullptr) {
                continue;
            }
            if (*request) {
                (*request)();
            }
            request = nullptr;
            answered = true;
            lock.unlock();
            done.notify_one();
        }
    }

    kel::EventFd wake;
    vexwire::UniqueFd epollFd;
    std::mutex mutex;                                // guards request, answered and stopping
    std::condition_variable done;                    // answered became true
    const std::function<void()>* request = nullptr;  // borrowed from the caller for one call
    bool answered = false;
    bool stopping = false;
    std::thread server;
};

// --- The harness ---

// Every iteration times a batch of the operation and then a batch of its floor.
template <typename Op, typename Floor>
void interleave(benchmark::State& state, int batch, Op op, Floor floor) {
    double opNanos = 0;
    double floorNanos = 0;
    std::int64_t calls = 0;
    for (auto _ : state) {
        const Clock::time_point opStart = Clock::now();
        for (int i = 0; i < batch; ++i) {
            op();
        }
        const double opBatch = nanosSince(opStart);
        const Clock::time_point floorStart = Clock::now();
        for (int i = 0; i < batch; ++i) {
            floor();
        }
        floorNanos += nanosSince(floorStart);
        opNanos += opBatch;
        calls += batch;
        state.SetIterationTime(opBatch / 1e9 / batch);
    }
    state.counters["us"] = opNanos / 1000.0 / static_cast<double>(calls);
    state.counters["floor_us"] = floorNanos / 1000.0 / static_cast<double>(calls);
    state.counters["ratio"] = floorNanos > 0 ? opNanos / floorNanos : 0;
}

// One of each environment, kept for every benchmark that uses it (setting one up reads a whole
// modem) and torn down by main while the library's logging still exists.
std::map<std::string, std::shared_ptr<void>>& environments() {
    static std::map<std::string, std::shared_ptr<void>> all;
    return all;
}

template <typename T>
T& kept(const std::string& name, const std::function<std::shared_ptr<T>()>& make) {
    std::shared_ptr<void>& slot = environments()[name];
    if (!slot) {
        slot = make();
    }
    return *static_cast<T*>(slot.get());
}

Library& libraryOf(Shape shape) {
    return kept<Library>(
        "library " + std::to_string(shape.profiles3gpp) + "+" + std::to_string(shape.profiles3gpp2),
        [shape] { return std::make_shared<Library>(shape); });
}

HandOff& handOff() {
    return kept<HandOff>("hand-off", [] { return std::make_shared<HandOff>(); });
}

BareClient& bareClientOf(Shape shape) {
    return kept<BareClient>(
        "bare " + std::to_string(shape.profiles3gpp) + "+" + std::to_string(shape.profiles3gpp2),
        [shape] { return std::make_shared<BareClient>(shape); });
}

const std::function<void()> kNoWork;

void bareHandOff() {
    handOff().call(&kNoWork);
}

// Repetitions and aggregates shared by every benchmark: the spread is the lowest and highest
// repetition besides the median.
void common(benchmark::internal::Benchmark* b, int repetitions) {
    b->UseManualTime()
        ->Repetitions(repetitions)
        ->ComputeStatistics(
            "min",
            [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); })
        ->ComputeStatistics("max", [](const std::vector<double>& v) {
            return *std::max_element(v.begin(), v.end());
        });
}

void fiveRepetitions(benchmark::internal::Benchmark* b) {
    common(b, 5);
}

void threeRepetitions(benchmark::internal::Benchmark* b) {
    common(b, 3);
}

// --- Calls on the cache, against the bare hand-off (argument: number of profiles) ---

// Batches small enough that a stall from other work on the core falls on the call and on its
// floor alike, large enough that each runs mostly warm, as a client's calls do. Calls that reach
// the modem use 20 as well: the modem's echo of a batch's last change may fall into the floor's.
constexpr int kCacheBatch = 20;
constexpr int kCacheIterations = 150;

void BM_GetProfile(benchmark::State& state) {
    Library& library = libraryOf({static_cast<int>(state.range(0)), 0});
    std::shared_ptr<kel::IProfileKey> key = library.keyOf(1);
    interleave(
        state, kCacheBatch, [&] { benchmark::DoNotOptimize(library.manager.getProfile(key)); },
        bareHandOff);
}
BENCHMARK(BM_GetProfile)->Arg(10)->Arg(200)->Iterations(kCacheIterations)->Apply(fiveRepetitions);

void BM_Match(benchmark::State& state) {
    Library& library = libraryOf({static_cast<int>(state.range(0)), 0});
    std::shared_ptr<kel::IProfileKey> key = library.keyOf(1);
    kel::FilterProfileParams filter;
    filter.setApnName(apnOf(1));
    filter.setHomeIPType(kel::IPType::V4);
    filter.addFilterMatchCriteria(static_cast<unsigned int>(kel::FilterMatchType::HomeIPSubset));
    interleave(
        state, kCacheBatch, [&] { benchmark::DoNotOptimize(library.manager.match(filter, key)); },
        bareHandOff);
}
BENCHMARK(BM_Match)->Arg(10)->Arg(200)->Iterations(kCacheIterations)->Apply(fiveRepetitions);

// A filter that selects one profile out of all, and the release of the handle it returns (a
// second round trip: what a client pays for a look-up it does not keep).
void BM_FilterAndRelease(benchmark::State& state) {
    Library& library = libraryOf({static_cast<int>(state.range(0)), 0});
    kel::FilterProfileParams filter;
    filter.setApnName(apnOf(1));
    interleave(
        state, kCacheBatch, [&] { benchmark::DoNotOptimize(library.manager.filter(filter)); },
        bareHandOff);
}
BENCHMARK(BM_FilterAndRelease)
    ->Arg(10)
    ->Arg(200)
    ->Iterations(kCacheIterations)
    ->Apply(fiveRepetitions);

// What the log lines of one getProfile cost on top of the hand-off: the same seven lines, with
// the same formats and texts, through the library's logging (the facade's two History lines on
// the calling side, the event loop's three Verbose lines, the handler's Debug and Info lines on
// the woken side). Part of what BM_GetProfile is made of, measured the same way.
void BM_HandOffWithLogLines(benchmark::State& state) {
    Library& library = libraryOf({10, 0});
    std::shared_ptr<kel::IProfileKey> key = library.keyOf(1);
    const std::string request = kel::GetRequest(key).dump();
    const std::string response =
        kel::GetResponse(kel::Status::Success, library.manager.getProfile(key)).dump();
    int fd = 0;
    const std::function<void()> workerLines = [&] {
        KEL_LOG(Verbose, "there are %d file descriptor(s) with events pending", 1);
        KEL_LOG(Verbose, "processing event number: %d, handling %d for %d", 0, 1, fd);
        KEL_LOG(Verbose, "file descriptor '%d' is processing events [callback:%p, data:%p]", fd,
                static_cast<const void*>(&fd), static_cast<const void*>(&key));
        KEL_LOG(Debug, ":%d:%s", 77, "handleClientRequest");
        KEL_LOG(Info, "Handling %s", request.c_str());
    };
    interleave(
        state, kCacheBatch,
        [&] {
            KEL_LOG(History, "Manager::%s > %s", "getProfile", request.c_str());
            handOff().call(&workerLines);
            KEL_LOG(History, "Manager::%s < %s", "getProfile", response.c_str());
        },
        bareHandOff);
}
BENCHMARK(BM_HandOffWithLogLines)->Iterations(kCacheIterations)->Apply(fiveRepetitions);

// --- Calls that send modem messages, against the hand-off with the same bare messages ---

kel::AddProfileParams addParams() {
    kel::AddProfileParams params(false, kel::TechType::TYPE_3GPP, false);
    params.setApnName("bench.example");
    params.setHomeIPType(kel::IPType::V4V6);
    return params;
}

// Alternates a profile between two APN names, so every call sends one modify message.
void BM_ModifyProfile(benchmark::State& state) {
    Library& library = libraryOf({10, 0});
    std::shared_ptr<kel::IProfileKey> key = library.manager.addProfile(addParams());
    kel::ModifyProfileParams first;
    first.setApnName("first.example");
    kel::ModifyProfileParams second;
    second.setApnName("second.example");
    BareClient& bare = bareClientOf({10, 0});
    const int index = bare.create();
    bool flip = false;
    bool bareFlip = false;
    const std::function<void()> modify = [&] {
        bareFlip = !bareFlip;
        bare.modifyApn(index, bareFlip ? "first.example" : "second.example");
    };
    interleave(
        state, 20,
        [&] {
            flip = !flip;
            if (!library.manager.modifyProfile(flip ? first : second, key)) {
                std::abort();
            }
        },
        [&] { handOff().call(&modify); });
    bare.remove(index);
}
BENCHMARK(BM_ModifyProfile)->Iterations(40)->Apply(fiveRepetitions);

// A profile added and deleted again through the library, against the same create and delete
// messages behind a hand-off each, plus extraHandOffs bare hand-offs.
template <typename AddAndDelete>
void addAndDelete(benchmark::State& state, int extraHandOffs, AddAndDelete op) {
    BareClient& bare = bareClientOf({10, 0});
    int index = 0;
    const std::function<void()> create = [&] { index = bare.create(); };
    const std::function<void()> remove = [&] { bare.remove(index); };
    interleave(state, 20, op, [&] {
        handOff().call(&create);
        handOff().call(&remove);
        for (int i = 0; i < extraHandOffs; ++i) {
            bareHandOff();
        }
    });
}

// addProfile and the release of its handle, which deletes the profile again.
void BM_AddAndRelease(benchmark::State& state) {
    Library& library = libraryOf({10, 0});
    const kel::AddProfileParams params = addParams();
    addAndDelete(state, 0, [&] {
        if (!library.manager.addProfile(params)) {
            std::abort();
        }
    });
}
BENCHMARK(BM_AddAndRelease)->Iterations(40)->Apply(fiveRepetitions);

// addProfile, deleteProfile and the release of the handle that outlived its profile: three
// round trips.
void BM_AddAndDelete(benchmark::State& state) {
    Library& library = libraryOf({10, 0});
    const kel::AddProfileParams params = addParams();
    addAndDelete(state, 1, [&] {
        std::shared_ptr<kel::IProfileKey> key = library.manager.addProfile(params);
        if (!library.manager.deleteProfile(key)) {
            std::abort();
        }
    });
}
BENCHMARK(BM_AddAndDelete)->Iterations(40)->Apply(fiveRepetitions);

// --- Refresh: both profile lists and the settings of every profile (n + 2 messages) ---

void BM_Refresh(benchmark::State& state) {
    const Shape shape{static_cast<int>(state.range(0)), static_cast<int>(state.range(1))};
    Library& library = libraryOf(shape);
    BareClient& bare = bareClientOf(shape);
    const std::function<void()> readAll = [&] { bare.readAll(); };
    interleave(
        state, 1, [&] { library.manager.refresh(kel::PDCRefreshStatus::Completed); },
        [&] { handOff().call(&readAll); });
    const double messages = shape.profiles3gpp + shape.profiles3gpp2 + 2;
    state.counters["us_per_message"] = state.counters["us"] / messages;
    state.counters["floor_us_per_message"] = state.counters["floor_us"] / messages;
}
BENCHMARK(BM_Refresh)
    ->Args({10, 0})
    ->Args({50, 0})
    ->Args({100, 0})
    ->Args({255, 255})
    ->Iterations(20)
    ->Apply(fiveRepetitions);

// --- A burst of profile-changed indications, each read back from the modem ---

constexpr int kBurst = 10000;

// The modem sends kBurst modify indications back to back; the library reads every indicated
// profile back (one get-settings message each). Timed until the modem has served them all,
// against as many bare get-settings round trips.
void BM_IndicationBurst(benchmark::State& state) {
    Library& library = libraryOf({10, 0});
    BareClient& bare = bareClientOf({10, 0});
    vexsim::SimModem& sim = *library.modem.sim;
    interleave(
        state, 1,
        [&] {
            const std::uint64_t target = library.modem.servedForRegisteredClient() + kBurst;
            sim.sendIndicationBurst(0, kBurst);
            // Polled rather than waited for: a waiter woken on every message would be measured.
            const Clock::time_point deadline = Clock::now() + std::chrono::seconds(60);
            while (library.modem.servedForRegisteredClient() < target) {
                if (Clock::now() > deadline) {
                    std::fprintf(stderr, "indications were lost\n");
                    std::abort();
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        },
        [&] {
            for (int i = 0; i < kBurst; ++i) {
                bare.getSettings(WDS_PROFILE_TYPE_3GPP_V01, 1 + i % 10);
            }
        });
}
BENCHMARK(BM_IndicationBurst)->Iterations(1)->Apply(fiveRepetitions);

// An observer that does nothing: what the events of a burst cost the library when somebody
// listens.
class IdleObserver : public kel::ModemObserver {
  public:
    void onModemEvent(const kel::ModemEvent&) override {}
};

// The same burst with one idle observer registered: every indication then builds an event (the
// profile before and after, what differs) and queues it for the notifier thread.
void BM_IndicationBurstObserved(benchmark::State& state) {
    Library& library = libraryOf({10, 0});
    auto observer = std::make_shared<IdleObserver>();
    library.manager.addObserver(observer);
    BM_IndicationBurst(state);
    library.manager.removeObserver(observer);
}
BENCHMARK(BM_IndicationBurstObserved)->Iterations(1)->Apply(fiveRepetitions);

// --- Client threads sharing the pipeline ---

struct Load {
    double callsPerSecond = 0;
    double meanMicros = 0;
    double p50Micros = 0;
    double p99Micros = 0;
};

// threads client threads call getProfile for duration; every call's latency is kept. The threads
// are started, and their latency records allocated, before the clock starts, so neither is
// counted in the phase.
Load runClients(Library& library, const std::shared_ptr<kel::IProfileKey>& key, int threads,
                std::chrono::milliseconds duration) {
    std::vector<std::vector<double>> latencies(static_cast<size_t>(threads));
    std::vector<std::thread> clients;
    std::mutex gateMutex;
    std::condition_variable gate;
    bool open = false;        // guarded by gateMutex
    int ready = 0;            // guarded by gateMutex
    Clock::time_point start;  // written before open is set
    Clock::time_point end;
    for (int t = 0; t < threads; ++t) {
        clients.emplace_back([&, t] {
            std::vector<double>& mine = latencies[static_cast<size_t>(t)];
            mine.reserve(40000);
            {
                std::unique_lock<std::mutex> lock(gateMutex);
                ++ready;
                gate.notify_all();
                gate.wait(lock, [&] { return open; });
            }
            while (Clock::now() < end) {
                const Clock::time_point callStart = Clock::now();
                benchmark::DoNotOptimize(library.manager.getProfile(key));
                mine.push_back(nanosSince(callStart) / 1000.0);
            }
        });
    }
    {
        std::unique_lock<std::mutex> lock(gateMutex);
        gate.wait(lock, [&] { return ready == threads; });
        start = Clock::now();
        end = start + duration;
        open = true;
    }
    gate.notify_all();
    for (std::thread& client : clients) {
        client.join();
    }
    const double seconds = nanosSince(start) / 1e9;
    std::vector<double> all;
    for (const std::vector<double>& mine : latencies) {
        all.insert(all.end(), mine.begin(), mine.end());
    }
    Load load;
    if (all.empty()) {
        return load;
    }
    double total = 0;
    for (double micros : all) {
        total += micros;
    }
    std::sort(all.begin(), all.end());
    load.callsPerSecond = static_cast<double>(all.size()) / seconds;
    load.meanMicros = total / static_cast<double>(all.size());
    load.p50Micros = all[all.size() / 2];
    load.p99Micros = all[std::min(all.size() - 1, all.size() * 99 / 100)];
    return load;
}

// One thread alone, then n threads at once, in every iteration: throughput against one thread's,
// and the p99 latency in service times (one thread's mean call).
void BM_ClientThreads(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    Library& library = libraryOf({10, 0});
    std::shared_ptr<kel::IProfileKey> key = library.keyOf(1);
    const std::chrono::milliseconds phase(150);
    double single = 0;
    double service = 0;
    Load sum;
    int rounds = 0;
    for (auto _ : state) {
        const Load alone = runClients(library, key, 1, phase);
        const Load many = runClients(library, key, threads, phase);
        single += alone.callsPerSecond;
        service += alone.meanMicros;
        sum.callsPerSecond += many.callsPerSecond;
        sum.p50Micros += many.p50Micros;
        sum.p99Micros += many.p99Micros;
        ++rounds;
        state.SetIterationTime(phase.count() / 1000.0);
    }
    state.counters["calls_per_s"] = sum.callsPerSecond / rounds;
    state.counters["vs_1_thread"] = single > 0 ? sum.callsPerSecond / single : 0;
    state.counters["p50_us"] = sum.p50Micros / rounds;
    state.counters["p99_us"] = sum.p99Micros / rounds;
    state.counters["p99_in_service_times"] = service > 0 ? sum.p99Micros / service : 0;
}
BENCHMARK(BM_ClientThreads)->Arg(1)->Arg(2)->Arg(4)->Arg(8)->Iterations(2)->Apply(threeRepetitions);

}  // namespace

int main(int argc, char** argv) {
    // The library logs every call; keep its echo off the terminal unless asked for.
    setenv("KELR_LOG_QUIET", "1", 0);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    environments().clear();
    benchmark::Shutdown();
    return 0;
}
