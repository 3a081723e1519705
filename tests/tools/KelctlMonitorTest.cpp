// kelctl status and kelctl monitor against vex-modemd, changed by vex-modemctl as another client.
#include <memory>

#include "KelctlHarness.h"

namespace kelctltest {
namespace {

class KelctlMonitorTest : public KelctlTest {
  protected:
    std::unique_ptr<LiveKelctl> monitor(std::vector<std::string> args) {
        args.insert(args.begin(), {"--modem", dir.path(), "monitor"});
        return std::make_unique<LiveKelctl>(args);
    }

    RunningModem modem{dir.path(), seed};
};

TEST_F(KelctlMonitorTest, FollowsAnotherClientThroughAModemRestart) {
    auto live = monitor({});
    const std::vector<std::string> picture = live->until("status ready");
    EXPECT_THAT(picture.front(), HasSubstr("profile 3gpp:1 name=internet apn=internet"));
    EXPECT_THAT(picture[2], HasSubstr("name=mms apn=mms.test"));
    EXPECT_THAT(picture[2], HasSubstr("password=<hidden>"));

    modem.control({"create", "3gpp", "name=fresh", "apn=fresh.test"});
    const std::string added = live->until("added").back();
    EXPECT_THAT(added, HasSubstr("added 3gpp:5 name=fresh apn=fresh.test"));
    EXPECT_THAT(added, HasSubstr("(another client)"));
    std::string previous = "mms";
    for (int step = 1; step <= 10; ++step) {
        const std::string name = "step" + std::to_string(step);
        modem.control({"modify", "3gpp", "index=3", "name=" + name});
        EXPECT_EQ(live->until("changed").back(),
                  "changed 3gpp:3 name: " + previous + " -> " + name + " (another client)");
        previous = name;
    }
    modem.control({"delete", "3gpp", "index=5"});
    EXPECT_EQ(live->until("deleted").back(), "deleted 3gpp:5 (another client)");

    modem.control({"restart"});
    const std::vector<std::string> restart = live->until("status ready");
    ASSERT_GE(restart.size(), 5u);
    EXPECT_EQ(restart[0], "status down");
    EXPECT_EQ(restart[1], "status up: loading the cache");
    EXPECT_EQ(restart[2], "refresh started");
    EXPECT_EQ(restart[3], "refresh completed: 5 profiles");
    EXPECT_THAT(restart, ::testing::Contains(HasSubstr("profile 3gpp:3 name=step10 apn=mms.test")));

    modem.control({"modify", "3gpp", "index=3", "password=changed"});
    EXPECT_EQ(live->until("changed").back(),
              "changed 3gpp:3 password: <hidden> -> <hidden> (another client)");
    live->signal(SIGINT);
    succeeded(live->finish());
}

TEST_F(KelctlMonitorTest, AThousandChangesFromAnotherProcessArriveEveryOneInOrder) {
    constexpr int kChanges = 1000;
    auto live = monitor({"--json", "--count", std::to_string(kChanges)});
    // The picture ends with the status, printed once the monitor listens.
    live->until("\"event\":\"status\"");
    for (int step = 1; step <= kChanges; ++step) {
        modem.control({"modify", "3gpp", "index=3", "apn=step" + std::to_string(step) + ".test"});
    }
    std::vector<nlohmann::json> events;
    while (auto next = live->line()) {
        events.push_back(parsed(*next));
    }
    succeeded(live->finish());
    ASSERT_EQ(events.size(), static_cast<std::size_t>(kChanges));
    // A quick change may be read at a later step, never at an earlier one.
    int last = 0;
    for (std::size_t i = 0; i < events.size(); ++i) {
        ASSERT_EQ(events[i]["event"], "changed") << events[i];
        ASSERT_EQ(events[i]["profile"], "3gpp:3") << events[i];
        const std::string apn = events[i]["settings"]["apn"];
        const int step = std::stoi(apn.substr(4));
        EXPECT_GE(step, last) << events[i];
        last = step;
    }
    EXPECT_EQ(last, kChanges);
}

TEST_F(KelctlMonitorTest, EndsCleanlyOnSigtermAndOnAClosedOutput) {
    auto terminated = monitor({});
    terminated->until("status ready");
    terminated->signal(SIGTERM);
    Outcome ended = succeeded(terminated->finish());

    auto orphaned = monitor({});
    orphaned->until("status ready");
    orphaned->closeOutput();
    ended = succeeded(orphaned->finish());
    EXPECT_EQ(ended.err, "");

    auto counted = monitor({"--no-initial", "--count", "2", "--timeout", "2"});
    ended = counted->finish();
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.err, HasSubstr("kelctl: monitor: 0 of 2 events within"));
}

TEST_F(KelctlMonitorTest, StatusTellsAReadyLinkAndWhyAnotherIsNot) {
    Outcome ready = succeeded(kelctl({"--modem", dir.path(), "status"}));
    EXPECT_THAT(ready.out, HasSubstr("bound: yes\n"));
    EXPECT_THAT(ready.out, HasSubstr("ready: yes\n"));

    Outcome unbound = kelctl({"--modem", dir.path(), "--sub", "7", "status"});
    EXPECT_EQ(unbound.status, 1);
    EXPECT_THAT(unbound.out, HasSubstr("bound: no: the modem refused subscription 7\n"));
    EXPECT_THAT(unbound.err, HasSubstr("not ready: bound: no: the modem refused subscription 7"));

    Outcome json = kelctl({"--modem", dir.path(), "--sub", "7", "status", "--json"});
    EXPECT_EQ(json.status, 1);
    const nlohmann::json document = parsed(json.out);
    EXPECT_EQ(document["connected"], true);
    EXPECT_EQ(document["bound"], false);
    EXPECT_EQ(document["reason"], "bound: no: the modem refused subscription 7");

    Outcome scripted = kelctl({"--modem", dir.path(), "run", script("s.kel", "monitor\n")});
    EXPECT_EQ(scripted.status, 1);
    EXPECT_THAT(scripted.err, HasSubstr("not in scripts"));
}

}  // namespace
}  // namespace kelctltest
