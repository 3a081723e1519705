// Requests and responses: the one-line texts the facade logs for every call, and what the
// objects carry.
#include "kel/ClientRequest.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ModemProfileTestSupport.h"
#include "kel/ClientResponse.h"

namespace kel {
namespace {

using modemprofiletest::makeKey;

template <typename T>
std::string printed(T value) {
    std::ostringstream os;
    os << value;
    return os.str();
}

// The dumps below show every name; streaming goes through the same texts.
TEST(ReqRespTypeTest, StreamsNamesAndNumbersOutsideTheRange) {
    EXPECT_EQ(printed(ReqRespType::Refresh), "Refresh");
    EXPECT_EQ(printed(static_cast<ReqRespType>(8)), "8");
    EXPECT_EQ(printed(static_cast<ReqRespType>(-1)), "-1");
    EXPECT_EQ(printed(Status::Failure), "Failure");
    EXPECT_EQ(printed(static_cast<Status>(2)), "2");
}

struct DumpCase {
    std::string name;
    std::function<std::string()> dump;
    std::string expected;
};

void expectDumps(const std::vector<DumpCase>& cases) {
    for (const DumpCase& c : cases) {
        EXPECT_EQ(c.dump(), c.expected) << c.name;
    }
}

TEST(ClientRequestTest, DumpsWithAndWithoutHandles) {
    auto key = makeKey(TechType::TYPE_3GPP, 3, 12);
    AddProfileParams add(true, TechType::TYPE_3GPP, false);
    add.setApnName("ims");
    ModifyProfileParams modify;
    modify.setUserName("bob");
    FilterProfileParams filter;
    filter.addFilterMatchCriteria(0x11);
    filter.setFilterByTechType(TechType::TYPE_3GPP2);
    filter.setApnName("ims");
    const std::string filterText = "HomeIPSubset|HomeIPSuperset|: tech=3GPP2,ApnName=ims,";

    expectDumps({
        {"add", [&] { return AddRequest(add).dump(); },
         "Add 3GPP persist=true: ApnName=ims,IsIAProfile=false,"},
        {"modify", [&] { return ModifyRequest(modify, key).dump(); },
         "Modify 3GPP:3 token=12 UserName=bob,"},
        {"modify without handle", [&] { return ModifyRequest(modify, nullptr).dump(); },
         "Modify  UserName=bob,"},
        {"delete", [&] { return DeleteRequest(key).dump(); }, "Delete 3GPP:3 token=12"},
        {"delete without handle", [&] { return DeleteRequest(nullptr).dump(); }, "Delete "},
        {"unnamed tech, largest token",
         [] { return DeleteRequest(makeKey(static_cast<TechType>(4), -1, ~0ull)).dump(); },
         "Delete 4:-1 token=18446744073709551615"},
        {"filter", [&] { return FilterRequest(filter).dump(); }, "Filter params: " + filterText},
        {"match", [&] { return MatchRequest(filter, key).dump(); },
         "Match 3GPP:3 token=12 " + filterText},
        {"match without handle", [&] { return MatchRequest(filter, nullptr).dump(); },
         "Match  " + filterText},
        {"get", [&] { return GetRequest(key).dump(); }, "Get 3GPP:3 token=12"},
        {"get without handle", [&] { return GetRequest(nullptr).dump(); }, "Get "},
        {"refresh", [] { return RefreshRequest(PDCRefreshStatus::Completed).dump(); }, "Refresh "},
    });
}

TEST(CallbackRequestTest, DumpsReleaseRegisterOrNothing) {
    auto key = makeKey(TechType::TYPE_3GPP2, 7, 5);
    auto release = std::make_shared<CallbackRequest>();
    release->setReleaseToken(42);
    auto registration = std::make_shared<CallbackRequest>();
    registration->setExpirationInfo([] {}, key, 5);
    auto both = std::make_shared<CallbackRequest>();
    both->setExpirationInfo([] {}, key, 5);
    both->setReleaseToken(18446744073709551615ull);

    expectDumps({
        {"empty", [] { return CallbackRequest().dump(); }, "Callback "},
        {"release", [&] { return release->dump(); }, "Callback Release 42"},
        {"register", [&] { return registration->dump(); }, "Callback Register 3GPP2:7 token=55"},
        {"both", [&] { return both->dump(); }, "Callback Release 18446744073709551615"},
    });
    key.reset();
    EXPECT_EQ(registration->dump(), "Callback Register null5");
}

TEST(CallbackRequestTest, ExpirationInfoIsCompleteOnlyOnceSet) {
    CallbackRequest request;
    EXPECT_FALSE(request.hasReleaseToken());
    EXPECT_FALSE(request.hasExpirationInfo());
    request.setReleaseToken(0);
    EXPECT_TRUE(request.hasReleaseToken());
    EXPECT_EQ(request.getReleaseToken(), 0u);
    EXPECT_FALSE(request.hasExpirationInfo()) << "a release token is not expiration info";

    auto key = makeKey(TechType::TYPE_3GPP, 1, 9);
    int calls = 0;
    request.setExpirationInfo([&calls] { ++calls; }, key, 9);
    request.setExpirationInfo([&calls] { calls += 10; }, key, 11);
    ASSERT_TRUE(request.hasExpirationInfo());
    EXPECT_EQ(request.getExpirationToken(), 11u);
    request.getExpirationCb()();
    EXPECT_EQ(calls, 10) << "the later registration replaces the earlier one";
}

TEST(ClientResponseTest, DumpsEveryResponseForm) {
    auto key3gpp = makeKey(TechType::TYPE_3GPP, 1, 0);
    auto key3gpp2 = makeKey(TechType::TYPE_3GPP2, 7, 9);
    ProfileParams params;
    params.setApnName("ims");

    expectDumps({
        {"add", [&] { return AddResponse(Status::Success, key3gpp2).dump(); },
         "Add Success 3GPP2:7 token=9"},
        {"add without handle", [] { return AddResponse(Status::Failure, nullptr).dump(); },
         "Add Failure "},
        {"modify", [] { return ModifyResponse(Status::Success).dump(); }, "Modify Success"},
        {"unnamed status", [] { return DeleteResponse(static_cast<Status>(2)).dump(); },
         "Delete 2"},
        {"empty filter", [] { return FilterResponse(Status::Success, {}).dump(); },
         "Filter Success "},
        {"filter",
         [&] {
             return FilterResponse(Status::Success, {key3gpp, nullptr, key3gpp2}).dump();
         },
         "Filter Success 3GPP:1 token=0,null,3GPP2:7 token=9,"},
        {"match", [] { return MatchResponse(Status::Failure, false).dump(); },
         "Match Failure false"},
        {"match true", [] { return MatchResponse(Status::Success, true).dump(); },
         "Match Success true"},
        {"get", [&] { return GetResponse(Status::Success, params).dump(); },
         "Get Success ApnName=ims,"},
        {"get without parameters", [] { return GetResponse(Status::Failure, std::nullopt).dump(); },
         "Get Failure "},
        {"callback", [] { return CallbackResponse(Status::Failure).dump(); }, "Callback Failure"},
        {"refresh", [] { return RefreshResponse(Status::Success).dump(); }, "Refresh Success"},
    });
}

}  // namespace
}  // namespace kel
