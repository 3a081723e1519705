// What kelctl prints: profile tables, JSON, settings lines, and the channel they go through.
#ifndef KELCTL_OUTPUT_H
#define KELCTL_OUTPUT_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "UniqueFd.h"  // the platform's descriptor holder (platform/vex)
#include "kel/ProfileParams.h"

namespace kelctl {

using vexwire::UniqueFd;
// JSON documents keep their keys in the order kelctl writes them.
using Json = nlohmann::ordered_json;

// One modem profile as kelctl shows it.
struct ProfileRow {
    kel::TechType tech = kel::TechType::TYPE_3GPP;
    int id = 0;
    std::string token;  // the cache token of the handle it was read through; may be empty
    std::string name;   // the modem's profile name; empty when unknown
    kel::ProfileParams params;
};

// Passwords are secrets: everything kelctl prints shows them as kHidden unless the run asked for
// them (--show-secrets). Set once by main before anything is printed.
constexpr const char* kHidden = "<hidden>";
void showSecrets(bool shown);
// The value as kelctl prints it for the settings key ("password" is masked).
std::string shownValue(const std::string& key, const std::string& value);
// A line of the library's own text (its dump, its log) with every "Password=" value masked.
std::string maskedLibraryText(const std::string& line);

// The present settings as (key, value) pairs; keys are the option names without dashes
// ("apn", "roam-ip", "max-conns"), values as the options take them, secrets in clear (for
// comparing; print through shownValue).
std::vector<std::pair<std::string, std::string>> settingsFields(const kel::ProfileParams& params);
// "apn=internet ip=v4v6 types=default,supl"; values with blanks or empty ones are quoted, secrets
// masked.
std::string settingsLine(const kel::ProfileParams& params);
// "2.5 s": a duration in milliseconds as kelctl's messages give it.
std::string secondsText(int ms);
// "3gpp:5": how a profile is named on the command line.
std::string profileName(kel::TechType tech, int id);
// The identity and state flags ("kel,ia,emergency"), "-" when none.
std::string flagsText(const kel::ProfileParams& params);

// An aligned table with a header line.
std::string profileTable(const std::vector<ProfileRow>& rows);
// A profile as a JSON object (present fields only) and a list of them as an array.
Json profileJson(const ProfileRow& row);
Json profilesJson(const std::vector<ProfileRow>& rows);
// Settings as a JSON object, with the keys of profileJson.
Json settingsJson(const kel::ProfileParams& params);
// The text of one JSON document, always valid UTF-8 (invalid bytes become U+FFFD), with a final
// newline.
std::string jsonText(const Json& document);

// Stops a run that outlives its --timeout: one line on standard error, exit status 1. Its own
// thread waits for the deadline; everything else is guarded by lock.
class RunDeadline {
  public:
    RunDeadline() = default;
    ~RunDeadline();  // disarms
    RunDeadline(const RunDeadline&) = delete;
    RunDeadline& operator=(const RunDeadline&) = delete;

    // errorFd stays open for the life of the process (the channel's own standard error).
    void arm(std::chrono::milliseconds limit, int errorFd, const std::string& line);
    // What the line says from now on, e.g. what the run is waiting for.
    void setLine(const std::string& line);
    std::string line() const;
    // A directory to remove before exiting (the embedded modem's).
    void setCleanup(const std::string& directory);
    void disarm();
    // Writes text to fd, unless the deadline has passed: its line is the last kelctl prints.
    void write(int fd, const std::string& text) const;

  private:
    void watch(std::chrono::steady_clock::time_point deadline);

    mutable std::mutex lock;          // held from the deadline's line until the process ends
    std::condition_variable changed;  // disarm was called
    bool armed = false;
    int fd = -1;
    std::string message;
    std::string cleanupDir;
    std::thread watcher;
};

// kelctl's own standard output and error. The library prints a console line on standard output when
// its worker stops (at exit); so that it never lands inside a table or a JSON document, kelctl
// keeps the real standard output for itself and points descriptor 1 at standard error (verbose) or
// /dev/null. Main thread only, except for the log filter's own thread, which reads the pipe and
// writes the real standard error.
class Channel {
  public:
    Channel() = default;
    ~Channel();  // restores the descriptors and waits for the log filter to drain
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    // False with a reason when the descriptors cannot be rearranged. With verbose, the library's
    // log passes through a filter thread that escapes what a terminal would act on and, with
    // maskSecrets, masks passwords.
    bool claimStandardOutput(bool verbose, bool maskSecrets, std::string* error);
    void print(const std::string& text) const;
    // Standard error: errors and notes.
    void error(const std::string& text) const;
    // The real standard error, for lines that must get out even as the process stops.
    int errorFd() const { return err ? err.get() : 2; }
    // The real standard output, for a command that writes as events come (monitor).
    int outputFd() const { return out ? out.get() : 1; }
    // What a run printed so far: whether anything went to standard output, and the last text
    // that went to standard error.
    bool printedOutput() const { return printed; }
    const std::string& lastError() const { return errorText; }

    // Every line kelctl prints goes through the deadline, so none follows its last line.
    // Mutable: what the deadline's line says follows the run's step, whoever holds the channel.
    mutable RunDeadline deadline;

  private:
    void filterLog(UniqueFd input) const;

    UniqueFd out;                  // the real standard output once claimed
    UniqueFd err;                  // the real standard error once claimed
    bool maskLog = false;          // set before the filter thread starts, read only by it
    mutable bool printed = false;  // main thread only, like print and error
    mutable std::string errorText;
    std::thread logFilter;
};

}  // namespace kelctl

#endif  // KELCTL_OUTPUT_H
