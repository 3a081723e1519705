// What kelctl prints: profile tables, JSON, settings lines, and the channel they go through.
#ifndef KELCTL_OUTPUT_H
#define KELCTL_OUTPUT_H

#include <string>
#include <utility>
#include <vector>

#include "UniqueFd.h"  // the platform's descriptor holder (platform/vex)
#include "kel/ProfileParams.h"

namespace kelctl {

using vexwire::UniqueFd;

// One modem profile as kelctl shows it.
struct ProfileRow {
    kel::TechType tech = kel::TechType::TYPE_3GPP;
    int id = 0;
    std::string token;  // the cache token of the handle it was read through; may be empty
    std::string name;   // the modem's profile name; empty when unknown
    kel::ProfileParams params;
};

// The present settings as (key, value) pairs; keys are the option names without dashes
// ("apn", "roam-ip", "max-conns"), values as the options take them.
std::vector<std::pair<std::string, std::string>> settingsFields(const kel::ProfileParams& params);
// "apn=internet ip=v4v6 types=default,supl"; values with blanks or empty ones are quoted.
std::string settingsLine(const kel::ProfileParams& params);
// "3gpp:5": how a profile is named on the command line.
std::string profileName(kel::TechType tech, int id);
// The identity and state flags ("kel,ia,emergency"), "-" when none.
std::string flagsText(const kel::ProfileParams& params);

// An aligned table with a header line.
std::string profileTable(const std::vector<ProfileRow>& rows);
// A JSON array of profile objects; present fields only.
std::string profilesJson(const std::vector<ProfileRow>& rows);
std::string profileJson(const ProfileRow& row);

// kelctl's own standard output. The library prints a console line on standard output when its
// worker stops (at exit); so that it never lands inside a table or a JSON document, kelctl keeps
// the real standard output for itself and points descriptor 1 at standard error (verbose) or
// /dev/null. Main thread only.
class Channel {
  public:
    // False with a reason when the descriptors cannot be rearranged.
    bool claimStandardOutput(bool verbose, std::string* error);
    void print(const std::string& text) const;
    // Standard error: errors and notes.
    void error(const std::string& text) const;

  private:
    UniqueFd out;  // the real standard output once claimed
};

}  // namespace kelctl

#endif  // KELCTL_OUTPUT_H
