// vex-modemd and vex-modemctl as real processes: the daemon from the build tree with the shipped
// seed, driven from the control command while a vex client talks to it.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>

#include "platform/VexProcess.h"
#include "platform/VexTestClient.h"

namespace {

using namespace vextest;

// Runs vex-modemctl through the shell, which splits and unquotes args.
Result modemctl(const std::string& dir, const std::string& args) {
    return runCommand(
        {"/bin/sh", "-c", std::string(VEX_MODEMCTL_PATH) + " --dir '" + dir + "' " + args});
}

class VexModemdTest : public ::testing::Test {
  protected:
    void SetUp() override {
        serviceDir.emplace("VEX_SERVICE_DIR", dir.path().c_str());
        ASSERT_TRUE(daemon.start({"--seed", testsupport::sourceDir() + "/data/modem-seed.conf",
                                  "--state", dir.file("state.conf"), "--dir", dir.path()}));
        std::string banner = daemon.readLine();
        ASSERT_NE(banner.find("vex-modemd: serving WDS in " + dir.path()), std::string::npos)
            << banner;
    }
    Result ctl(const std::string& args) { return modemctl(dir.path(), args); }

    testsupport::TempDir dir;
    std::optional<testsupport::ScopedEnv> serviceDir;
    Daemon daemon;
};

size_t countLines(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

TEST_F(VexModemdTest, ListsChangesAndStopsCleanly) {
    Result profiles = ctl("profiles");
    ASSERT_EQ(profiles.status, 0) << profiles.output;
    EXPECT_EQ(countLines(profiles.output), 8u);
    EXPECT_NE(profiles.output.find("profile 3gpp sub=0 index=1 persistent=yes name=internet "
                                   "apn=internet pdp=ipv4v6"),
              std::string::npos);
    EXPECT_NE(profiles.output.find("name=\"Second Internet\""), std::string::npos);
    EXPECT_EQ(countLines(ctl("profiles 1").output), 2u);

    Result created = ctl("create 3gpp name='Test APN' apn=test.example pdp=ipv4 types=default");
    ASSERT_EQ(created.status, 0) << created.output;
    EXPECT_EQ(created.output, "created 3gpp sub=0 index=6\n");
    EXPECT_EQ(ctl("modify 3gpp index=6 apn=changed.example").output,
              "modified 3gpp sub=0 index=6\n");
    Result listed = ctl("profiles 0");
    EXPECT_NE(listed.output.find("index=6 persistent=yes name=\"Test APN\" apn=changed.example"),
              std::string::npos)
        << listed.output;
    EXPECT_EQ(ctl("delete 3gpp2 index=1").status, 0);

    EXPECT_EQ(daemon.stop(SIGTERM), 0);
    EXPECT_NE(daemon.readLine().find("stopped by SIGTERM"), std::string::npos);
    struct stat info;
    EXPECT_NE(::stat(dir.file("wds").c_str(), &info), 0);
    EXPECT_NE(::stat(dir.file("vex-modemd.ctl").c_str(), &info), 0);
    // The state file holds the changes for the next start.
    const std::string state = testsupport::readFile(dir.file("state.conf"));
    EXPECT_NE(state.find("apn=changed.example"), std::string::npos);
    EXPECT_EQ(state.find("profile 3gpp2"), std::string::npos);
}

TEST_F(VexModemdTest, BadCommandsFailWithOneLineAndChangeNothing) {
    // A command line the daemon does not take exits 2; a command the modem refuses, 1.
    struct Case {
        const char* args;
        const char* message;
        int status;
    } cases[] = {
        {"bogus", "vex-modemctl: unknown command 'bogus'; try 'help'\n", 2},
        {"delete 3gpp index=99", "vex-modemctl: delete: no such profile: 3gpp sub=0 index=99\n", 1},
        {"create 3gpp index=3 apn=x", "vex-modemctl: create: the modem assigns the index\n", 2},
        {"create 3gpp pdp=ipv5", "vex-modemctl: bad value for pdp: 'ipv5'\n", 2},
        {"modify 3gpp apn=x", "vex-modemctl: modify: index=N is required\n", 2},
        {"profiles 7", "vex-modemctl: bad subscription '7' (the modem has 2)\n", 2},
        {"fail-next many", "vex-modemctl: usage: fail-next COUNT [MSGID [ERROR]]\n", 2},
        {"drop 12345", "vex-modemctl: no client 12345\n", 1},
    };
    std::string before = ctl("profiles").output;
    for (const Case& c : cases) {
        Result result = ctl(c.args);
        EXPECT_EQ(result.status, c.status) << c.args;
        EXPECT_EQ(result.output, c.message) << c.args;
    }
    EXPECT_EQ(ctl("profiles").output, before);
}

// Whether pid sleeps in a system call. Started, vex-modemctl --wait sleeps only between two
// attempts to connect, so this tells that it found no daemon and is waiting.
bool asleep(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat, text);
    const size_t end = text.rfind(')');
    return end != std::string::npos && text.compare(end + 1, 3, " S ") == 0;
}

TEST_F(VexModemdTest, ControlWaitsForADaemonThatIsStillStarting) {
    const std::string later = dir.file("later");
    Daemon waiting;
    ASSERT_TRUE(
        waiting.start({"--dir", later, "--wait", "30", "clients"}, false, VEX_MODEMCTL_PATH));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!asleep(waiting.processId()) && std::chrono::steady_clock::now() < deadline) {
        ::poll(nullptr, 0, 1);
    }
    EXPECT_TRUE(asleep(waiting.processId())) << "vex-modemctl never waited for the daemon";
    Daemon second;
    ASSERT_TRUE(second.start({"--dir", later}));
    EXPECT_EQ(waiting.readLine(), "no clients\n");
    EXPECT_EQ(waiting.readLine(), "");  // and nothing more
    EXPECT_EQ(waiting.wait(), 0);

    const Result nobody = modemctl(dir.file("nowhere"), "--wait 1 clients");
    EXPECT_EQ(nobody.status, 1);
    EXPECT_NE(nobody.output.find("no vex-modemd answers"), std::string::npos);
}

TEST_F(VexModemdTest, BreaksAConnectedClientFromTheShell) {
    RecordingClient client;
    ASSERT_EQ(client.connect(), VEX_NO_ERR);
    ASSERT_TRUE(client.registerAll(0));
    ASSERT_TRUE(client.waitForIndications(1));  // profiles ready
    Result clients = ctl("clients");
    ASSERT_EQ(clients.status, 0);
    EXPECT_NE(clients.output.find("bound=yes sub=0 indications=yes events=yes ready=yes "
                                  "requests=3 indications_sent=1 last=0x00a7"),
              std::string::npos)
        << clients.output;

    ASSERT_EQ(ctl("fail-next 1 0x2a 0x51").status, 0);
    wds_get_profile_list_req_msg_v01 req{};
    req.profile_type_valid = 1;
    auto resp = std::make_unique<wds_get_profile_list_resp_msg_v01>();
    ASSERT_EQ(client.send(VEX_WDS_GET_PROFILE_LIST_REQ_V01, req, *resp), VEX_NO_ERR);
    EXPECT_EQ(resp->resp.error, VEX_ERR_EXTENDED_INTERNAL_V01);

    ASSERT_EQ(ctl("create 3gpp apn=from.shell").status, 0);
    ASSERT_EQ(ctl("ind-burst 3").status, 0);
    ASSERT_TRUE(client.waitForIndications(6));
    EXPECT_EQ(client.events().at(1).profile_change_evt, WDS_PROFILE_CREATE_EVT_V01);

    std::string id = clients.output.substr(7, clients.output.find(' ', 7) - 7);
    ASSERT_EQ(ctl("drop " + id).status, 0);
    ASSERT_TRUE(client.waitForErrors(1));

    EXPECT_EQ(ctl("down").output, "down\n");
    EXPECT_EQ(ctl("status").output, "down " + dir.path() + "\n");
    RecordingClient refused;
    EXPECT_EQ(refused.connect(), VEX_ERR_NO_SERVICE);
    EXPECT_EQ(ctl("up").output, "up\n");
    RecordingClient again;
    EXPECT_EQ(again.connect(), VEX_NO_ERR);
    EXPECT_EQ(daemon.stop(SIGINT), 0);
}

}  // namespace
