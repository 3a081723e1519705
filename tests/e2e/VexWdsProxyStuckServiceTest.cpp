// The library against a service that listens but never accepts. Connecting to it must not hold
// the library's worker, nor any facade call waiting behind it, past the client library's connect
// bound.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <string>
#include <thread>

#include "SimModemFixture.h"
#include "VexWire.h"
#include "kel/Manager.h"
#include "support/TestSupport.h"

namespace e2e {
namespace {

using Clock = std::chrono::steady_clock;

TEST(VexWdsProxyStuckServiceTest, FullAcceptQueueHoldsNoFacadeCallPastTheConnectBound) {
    testsupport::TempDir dir;
    testsupport::ScopedEnv serviceDir("VEX_SERVICE_DIR", dir.path().c_str());
    // Room for one queued connection: the notifier's watch connection takes it, so the service
    // looks up, and the worker's own connect then finds the queue full.
    std::string why;
    vexwire::UniqueFd stuck = vexwire::listenUnix(dir.file("wds"), &why);
    ASSERT_TRUE(stuck) << why;
    ASSERT_EQ(::listen(stuck.get(), 0), 0);

    kel::Manager manager;
    manager.init(0, true);
    // A generous watchdog: the connect gives up after one second.
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    // The history keeps Error lines whichever log the library writes to.
    while (!SimModemFixture::inHistory("error get service.") && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(SimModemFixture::inHistory("error get service."));
    const auto before = Clock::now();
    EXPECT_TRUE(manager.filter(kel::FilterProfileParams()).empty());
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(3));
}

}  // namespace
}  // namespace e2e
