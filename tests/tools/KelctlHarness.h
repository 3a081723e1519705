// The harness of the kelctl tests: kelctl, vex-modemd and vex-modemctl run as real processes,
// their standard output, standard error and exit status read back.
#ifndef KELR_TESTS_TOOLS_KELCTL_HARNESS_H
#define KELR_TESTS_TOOLS_KELCTL_HARNESS_H

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/ChildProcess.h"
#include "support/TestSupport.h"

namespace kelctltest {

// Child processes: spawn, collect, run and their options.
using namespace testsupport;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// A row of a table test: its name names the row's test and stands for the row in messages.
struct Row {
    const char* name;
};

inline std::ostream& operator<<(std::ostream& os, const Row& row) {
    return os << row.name;
}

struct RowName {
    template <typename Param>
    std::string operator()(const ::testing::TestParamInfo<Param>& info) const {
        return info.param.name;
    }
};

inline std::vector<std::string> joined(std::vector<std::string> head,
                                       const std::vector<std::string>& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

// The outcome of a run that must succeed; a failure shows the run's standard error.
inline Outcome succeeded(Outcome outcome) {
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    return outcome;
}

// The document kelctl printed, parsed strictly; a parse failure fails the test.
inline nlohmann::json parsed(const std::string& text) {
    const nlohmann::json document = nlohmann::json::parse(text, nullptr, false);
    EXPECT_FALSE(document.is_discarded()) << "not one JSON document: " << text;
    return document;
}

inline bool exists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

inline std::string dataFile(const std::string& name) {
    return testsupport::sourceDir() + "/tests/data/" + name;
}

inline int countOf(const std::string& text, const std::string& part) {
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos;
         at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

// vex-modemd serving in dir, started for one test and stopped with it.
class RunningModem {
  public:
    RunningModem(const std::string& dir, const std::string& seed,
                 const std::vector<std::string>& extra = {})
        : serviceDir(dir) {
        std::vector<std::string> args = {VEX_MODEMD_PATH, "--dir", dir, "--seed", seed};
        args.insert(args.end(), extra.begin(), extra.end());
        // Its standard output stays open so that the daemon can still print when it stops.
        daemon = spawn(std::move(args), {}, kInheritedInput, Stderr::Inherited);
        std::string seen;
        // The daemon announces that it serves once its socket is up.
        const bool serving = daemon.pid > 0 && readUntil(daemon.out.get(), seen, "serving WDS",
                                                         std::chrono::steady_clock::now() +
                                                             kChildLimit) == Read::Found;
        EXPECT_TRUE(serving) << "vex-modemd never said that it serves: " << seen;
    }

    ~RunningModem() {
        if (daemon.pid > 0) {
            ::kill(daemon.pid, SIGTERM);
            reap(daemon.pid);
        }
    }

    // What vex-modemctl answers, for the modem's own view or to change it as another client.
    std::string control(std::vector<std::string> args) const {
        args.insert(args.begin(), {"--dir", serviceDir});
        const Outcome outcome = run(VEX_MODEMCTL_PATH, args);
        EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
        return outcome.out;
    }

  private:
    const std::string serviceDir;
    Child daemon;
};

// Every kelctl run must keep standard output free of the library's console line and be free of
// sanitizer reports.
inline Outcome checked(Outcome outcome) {
    EXPECT_THAT(outcome.out, Not(HasSubstr("wake()")));
    EXPECT_THAT(outcome.err, Not(HasSubstr("Sanitizer")));
    EXPECT_THAT(outcome.err, Not(HasSubstr("runtime error")));
    return outcome;
}

// A kelctl run that goes on while the test talks to it: standard input written line by line,
// standard output read as it comes. Every wait is bounded by kChildLimit.
class LiveKelctl {
  public:
    explicit LiveKelctl(std::vector<std::string> args) {
        args.insert(args.begin(), KELCTL_PATH);
        RunOptions options;
        // A modem a developer runs must not stand in for the one a test chose.
        options.env.emplace("VEX_SERVICE_DIR", std::nullopt);
        child = spawn(std::move(args), options, kPipedInput);
    }
    ~LiveKelctl() {
        if (child.pid > 0) {
            ::kill(child.pid, SIGKILL);
            ::waitpid(child.pid, nullptr, 0);
        }
    }

    void send(const std::string& line) {
        const std::string text = line + "\n";
        EXPECT_EQ(::write(child.in.get(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }
    // The output up to and including text, after what earlier waits took; empty when it did
    // not come.
    std::string waitFor(const std::string& text) {
        const Read read = readUntil(child.out.get(), pending, text, deadline());
        if (read != Read::Found) {
            ADD_FAILURE() << "kelctl never printed \"" << text << "\" after: " << pending;
            return "";
        }
        return take(pending.find(text) + text.size());
    }
    // The next line, without its end; none once the output ended.
    std::optional<std::string> line() {
        const Read read = readUntil(child.out.get(), pending, "\n", deadline());
        if (read == Read::TimedOut) {
            ADD_FAILURE() << "no line from kelctl in time; so far: " << pending;
        }
        if (read != Read::Found) {
            return std::nullopt;
        }
        std::string text = take(pending.find('\n') + 1);
        text.pop_back();
        return text;
    }
    // The lines up to and including the first that contains text, without their time stamps.
    std::vector<std::string> until(const std::string& text) {
        std::vector<std::string> lines;
        while (auto next = line()) {
            lines.push_back(next->substr(next->find(' ') + 1));
            if (next->find(text) != std::string::npos) {
                return lines;
            }
        }
        ADD_FAILURE() << "kelctl never printed " << text;
        return lines;
    }
    void signal(int number) const {
        if (child.pid > 0) {
            ::kill(child.pid, number);
        }
    }
    void closeOutput() { child.out.reset(); }
    // Ends the input, reads the rest and the exit status.
    Outcome finish() {
        child.in.reset();
        Outcome outcome = collect(child.pid, child.out.get(), child.err.get());
        child.pid = -1;
        return checked(std::move(outcome));
    }

  private:
    static std::chrono::steady_clock::time_point deadline() {
        return std::chrono::steady_clock::now() + kChildLimit;
    }
    std::string take(std::size_t length) {
        std::string taken = pending.substr(0, length);
        pending.erase(0, length);
        return taken;
    }

    Child child;
    std::string pending;  // read, not yet taken
};

class KelctlTest : public ::testing::Test {
  protected:
    // kelctl with the test seed's embedded modem, unless args choose otherwise.
    Outcome kelctl(std::vector<std::string> args, RunOptions options = {}) {
        // A modem a developer runs must not stand in for the one a test chose.
        options.env.emplace("VEX_SERVICE_DIR", std::nullopt);
        return checked(run(KELCTL_PATH, std::move(args), options));
    }

    Outcome seeded(std::vector<std::string> args, RunOptions options = {}) {
        args.insert(args.begin(), {"--seed", seed});
        return kelctl(std::move(args), std::move(options));
    }

    std::string script(const std::string& name, const std::string& text) {
        const std::string path = dir.file(name);
        std::ofstream(path) << text;
        return path;
    }

    testsupport::TempDir dir;
    const std::string seed = dataFile("kelctl-seed.conf");
    const std::string state = dir.file("modem.state");
};

}  // namespace kelctltest

#endif  // KELR_TESTS_TOOLS_KELCTL_HARNESS_H
