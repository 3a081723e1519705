// kelctl's truth under a busy modem: each changing command crossed with the modem's faults, as
// text and as JSON, checked against the modem's tables read afterwards.
#include <thread>

#include "KelctlHarness.h"
#include "support/Regex.h"

namespace kelctltest {
namespace {

// Two profiles, so that a modem answering every read late still costs little.
constexpr char kSeed[] =
    "profile 3gpp sub=0 index=1 name=internet apn=internet pdp=ipv4v6 types=default\n"
    "profile 3gpp sub=0 index=2 name=mms apn=mms.test pdp=ipv4 types=mms\n";

enum class Fault { Refused, Late, NotInRun, OneReadFailed, EveryReadLate, Restart };

struct TruthCase : Row {
    std::vector<std::string> command;
    Fault fault;
    unsigned int msgId;  // the message the fault hits (Refused, Late, NotInRun, Restart)
    int status;
    // In standard output on success, in standard error on failure.
    std::string words;
    // The member the JSON document has ("error" on failure).
    std::string member;
    bool late;  // a note that the answer came late, and "late" in the document
    // The modem's tables afterwards: this many profile lines match the pattern.
    std::string onModem;
    int times;
};

std::vector<std::string> faultCommand(const TruthCase& c) {
    char id[16];
    std::snprintf(id, sizeof id, "0x%x", c.msgId);
    switch (c.fault) {
        case Fault::Refused:
            return {"fail-next", "1", id};
        case Fault::Late:
        case Fault::Restart:
            return {"delay", "1500", id};
        case Fault::NotInRun:
            return {"delay", "30000", id};
        case Fault::OneReadFailed:
            return {"fail-next", "1", "0x2b"};
        case Fault::EveryReadLate:
            return {"delay", "1500", "0x2b"};
    }
    return {};
}

// How many lines of the modem's tables match pattern, a regular expression; each line is given a
// trailing blank, so that "types=default " ends at the value.
int profileLines(const std::string& tables, const std::string& pattern) {
    const std::regex wanted(pattern);
    std::istringstream in(tables);
    int count = 0;
    for (std::string text; std::getline(in, text);) {
        count += std::regex_search(text + " ", wanted) ? 1 : 0;
    }
    return count;
}

class KelctlTruthMatrixTest : public KelctlTest, public ::testing::WithParamInterface<TruthCase> {
  protected:
    // Runs the case's command against a fresh modem with the case's fault.
    Outcome runCase(bool json) {
        const TruthCase& c = GetParam();
        testsupport::TempDir modemDir;
        RunningModem modem(modemDir.path(), script("seed.conf", kSeed));
        modem.control(faultCommand(c));
        std::vector<std::string> args = {"--modem", modemDir.path(), "--timeout", "8"};
        if (json) {
            args.push_back("--json");
        }
        args.insert(args.end(), c.command.begin(), c.command.end());
        Outcome outcome;
        std::thread command([&] { outcome = kelctl(args); });
        if (c.fault == Fault::Restart) {
            restartWhenAsked(modem, c.msgId);
        }
        command.join();
        modem.control({"delay", "0"});
        const std::string tables = modem.control({"profiles", "0"});
        EXPECT_EQ(outcome.status, c.status) << outcome.err;
        EXPECT_EQ(profileLines(tables, c.onModem), c.times) << tables;
        return outcome;
    }

    // The modem goes down and comes back once it has taken the request (and holds back its
    // answer).
    static void restartWhenAsked(const RunningModem& modem, unsigned int msgId) {
        char last[32];
        std::snprintf(last, sizeof last, "last=0x%04x", msgId);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (modem.control({"clients"}).find(last) == std::string::npos) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the request never came";
        }
        modem.control({"restart"});
    }
};

TEST_P(KelctlTruthMatrixTest, TextAgreesWithTheModem) {
    const TruthCase& c = GetParam();
    const Outcome outcome = runCase(false);
    EXPECT_THAT(c.status == 0 ? outcome.out : outcome.err, testing::HasSubstr(c.words))
        << outcome.out << outcome.err;
    EXPECT_EQ(countOf(outcome.err, "note: no answer within 1 s; ") +
                  countOf(outcome.err, "note: the modem link dropped; "),
              c.late ? 1 : 0)
        << outcome.err;
}

TEST_P(KelctlTruthMatrixTest, JsonAgreesWithTheModem) {
    const TruthCase& c = GetParam();
    const Outcome outcome = runCase(true);
    const nlohmann::json document = parsed(outcome.out);
    EXPECT_TRUE(document.contains(c.member)) << document.dump();
    EXPECT_EQ(document.contains("error"), c.status != 0) << document.dump();
    EXPECT_EQ(document.contains("late"), c.late) << document.dump();
}

const std::string kCarrier = testsupport::sourceDir() + "/data/carrier/apns-conf.xml";
using F = Fault;
const std::vector<std::string> kAdd = {"add", "--apn", "new.test", "--persistent"};
const std::vector<std::string> kModify = {"modify", "1", "--types", "default,mms"};
const std::vector<std::string> kDelete = {"delete", "2"};
const std::vector<std::string> kCarrierRun = {"carrier", kCarrier, "--mcc", "001", "--mnc", "01"};
const std::vector<std::string> kApplyTypes = {"apply-types", "--apn", "internet", "--types",
                                              "default,supl"};
const char* const kRefusedWords = "the modem refused it (error 0x";
const char* const kInternetAsSeeded = "index=1 .*types=default ";
const char* const kInternetWithMms = "index=1 .*types=default,mms ";

// clang-format off
// name, command, fault, message, exit, words, JSON member, late, modem line pattern, how many
const TruthCase kCases[] = {
    {"AddRefused", kAdd, F::Refused, 0x27, 1, kRefusedWords, "error", false, "apn=new.test ", 0},
    {"AddLate", kAdd, F::Late, 0x27, 0, "added 3gpp:3 name=kel_profile apn=new.test", "added", true,
     "apn=new.test ", 1},
    {"AddNotInRun", kAdd, F::NotInRun, 0x27, 0, "added 3gpp:3", "added", true,
     "index=3 .*apn=new.test ", 1},
    {"AddOneReadFailed", kAdd, F::OneReadFailed, 0, 0, "added 3gpp:3", "added", false,
     "apn=new.test ", 1},
    {"AddRestart", kAdd, F::Restart, 0x27, 0, "added 3gpp:3", "added", true,
     "persistent=yes .*apn=new.test ", 1},

    {"ModifyRefused", kModify, F::Refused, 0x28, 1,
     "the modem did not take the change to 3gpp:1: the modem refused it", "error", false,
     kInternetAsSeeded, 1},
    {"ModifyLate", kModify, F::Late, 0x28, 0, "modified 3gpp:1: types: default -> default,mms",
     "modified", true, kInternetWithMms, 1},
    {"ModifyNotInRun", kModify, F::NotInRun, 0x28, 0, "modified 3gpp:1", "modified", true,
     kInternetWithMms, 1},
    {"ModifyOneReadFailed", kModify, F::OneReadFailed, 0, 1, "the library could not read 3gpp:1",
     "error", false, kInternetAsSeeded, 1},
    {"ModifyEveryReadLate", kModify, F::EveryReadLate, 0, 1, "the library could not read 3gpp:1",
     "error", false, kInternetAsSeeded, 1},
    {"ModifyRestart", kModify, F::Restart, 0x28, 0, "modified 3gpp:1", "modified", true,
     kInternetWithMms, 1},

    {"DeleteRefused", kDelete, F::Refused, 0x29, 1,
     "the modem did not delete 3gpp:2: the modem refused it", "error", false, "index=2 ", 1},
    {"DeleteLate", kDelete, F::Late, 0x29, 0, "deleted 3gpp:2", "deleted", true, "index=2 ", 0},
    {"DeleteEveryReadLate", kDelete, F::EveryReadLate, 0, 1, "the library could not read 3gpp:2",
     "error", false, "index=2 ", 1},
    {"DeleteRestart", kDelete, F::Restart, 0x29, 0, "deleted 3gpp:2", "deleted", true, "index=2 ",
     0},

    {"DataCallRefused", {"data-call", "--apn", "new.test"}, F::Refused, 0x27, 1,
     "the modem did not add one: the modem refused it", "error", false, "apn=new.test ", 0},
    // Nobody holds the profile the modem made late, so the library reclaims it (safe mode).
    {"DataCallLate", {"data-call", "--apn", "new.test"}, F::Late, 0x27, 1,
     "no answer within 1 s; the modem may still add one", "error", false, "apn=new.test ", 0},
    {"DataCallOneReadFailed", {"data-call", "--apn", "internet"}, F::OneReadFailed, 0, 0,
     "found 3gpp:1", "outcome", false, "apn=internet ", 1},
    {"DataCallEveryReadLate", {"data-call", "--apn", "internet"}, F::EveryReadLate, 0, 1,
     "could not read 3gpp:1, 3gpp:2 (read twice); nothing was changed", "incomplete", false,
     "apn=internet ", 1},
    {"AttachOneReadFailed", {"attach", "--apn", "internet"}, F::OneReadFailed, 0, 0,
     "found 3gpp:1", "outcome", false, "apn=internet ", 1},
    {"EmergencyOneReadFailed", {"emergency", "--apn", "sos"}, F::OneReadFailed, 0, 0,
     "created 3gpp:3", "outcome", false, "index=3 .*apn=sos ", 1},

    {"CarrierOneReadFailed", kCarrierRun, F::OneReadFailed, 0, 0, "updated 3gpp:1", "updates",
     false, "apn=internet ", 1},
    {"CarrierEveryReadLate", kCarrierRun, F::EveryReadLate, 0, 1, "nothing was changed",
     "incomplete", false, kInternetAsSeeded, 1},
    {"ApplyClassesOneReadFailed", {"apply-classes", "--class", "inet", "--apn", "internet"},
     F::OneReadFailed, 0, 0, "created 3gpp:3 name=kel_profile", "changes", false,
     "apn=internet class=3", 1},
    {"ApplyTypesOneReadFailed", kApplyTypes, F::OneReadFailed, 0, 0,
     "updated 3gpp:1: types: default -> default,supl", "changes", false,
     "index=1 .*types=default,supl ", 1},
    {"ApplyTypesEveryReadLate", kApplyTypes, F::EveryReadLate, 0, 1, "nothing was changed",
     "incomplete", false, kInternetAsSeeded, 1},

    // The commands that show the modem name what they could not read.
    {"ListOneReadFailed", {"list"}, F::OneReadFailed, 0, 1,
     "incomplete: the library could not read 3gpp:1", "incomplete", false, "profile ", 2},
    {"ListEveryReadLate", {"list"}, F::EveryReadLate, 0, 1,
     "incomplete: the library could not read 3gpp:1, 3gpp:2", "incomplete", false, "profile ", 2},
    {"GetOneReadFailed", {"get", "1"}, F::OneReadFailed, 0, 1,
     "get: the library could not read 3gpp:1\n", "incomplete", false, "index=1 ", 1},
    {"FilterOneReadFailed", {"filter", "--apn", "internet"}, F::OneReadFailed, 0, 1,
     "incomplete: the library could not read 3gpp:1", "incomplete", false, "index=1 ", 1},
    {"RefreshEveryReadLate", {"refresh"}, F::EveryReadLate, 0, 1,
     "refresh: the library could not read 3gpp:1, 3gpp:2", "incomplete", false, "profile ", 2},
    {"DumpOneReadFailed", {"dump"}, F::OneReadFailed, 0, 1,
     "incomplete: the library could not read 3gpp:1", "lines", false, "index=1 ", 1},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Commands, KelctlTruthMatrixTest, ::testing::ValuesIn(kCases), RowName());

}  // namespace
}  // namespace kelctltest
