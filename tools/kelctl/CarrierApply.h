// Applying one carrier's entries to the modem: first a plan, worked out against the live modem
// with read-only library calls and the same rules the library's Util follows; then (unless it is
// a dry run) the library's Util applies the entries, and every profile the plan touches is read
// back and compared with it.
//
// Main thread only, during one command.
#ifndef KELCTL_CARRIER_APPLY_H
#define KELCTL_CARRIER_APPLY_H

#include <optional>
#include <string>
#include <vector>

#include "Commands.h"

namespace kelctl {

// One modem profile and what happens (or would happen) to its settings.
struct ProfileUpdate {
    std::string profile;  // "3gpp:2"
    std::string name;     // the modem's profile name, when known
    std::vector<SettingChange> changes;
};

// How the attach search ends, in the library's order.
enum class AttachStep { Exact, Loose, IaByName, AnyIa, Create };

struct AttachReport {
    int line = 0;         // the entry that sets up attach
    std::string carrier;  // its carrier name, as written
    AttachStep step = AttachStep::Create;
    std::string profile;  // "3gpp:5"; empty for a profile yet to be created
    // "found", "updated" or "created" once applied; "use", "update" or "create" in a plan.
    std::string action;
    std::vector<SettingChange> changes;
    // Settings an earlier import left on the library's attach profile that this entry does not
    // set: "max-conns=8".
    std::vector<std::string> kept;
    // The entry has no APN name: only a profile without one, or the library's attach profile,
    // may serve it.
    bool noApn = false;
    // The chosen profile as it is after the apply; in a plan, the settings of the profile to
    // create.
    std::string summary;
};

// A setting the modem did not take.
struct NotApplied {
    std::string profile;
    std::string setting;
    std::string wanted;
    std::string got;  // "-" when the profile lacks it, or the profile is missing
};

// What became of one entry of the file.
enum class EntryFate { Applied, Merged, NotApplied };

struct EntryAccount {
    int line = 0;
    std::string carrier;  // as written
    EntryFate fate = EntryFate::NotApplied;
    // Applied: the profiles its settings land on ("3gpp:2"; "new" for a profile yet to be
    // created), the attach profile first when the entry sets up attach.
    std::vector<std::string> profiles;
    bool attach = false;  // it is the entry that sets up attach
    int mergedInto = 0;   // Merged: the line it was folded into
    std::string reason;   // NotApplied: why
};

// A setting of the attach profile that differs from what the attach entry gives, left so because
// the library's search took the profile as it is.
struct AttachDifference {
    std::string setting;
    std::string entry;    // what the entry gives
    std::string profile;  // what the profile has
};

// A profile --create adds for an APN that no profile carries.
struct CreatedProfile {
    int line = 0;         // the entry whose settings it takes
    std::string carrier;  // its carrier name, as written
    std::string profile;  // "3gpp:7" once created; empty in a plan or when the modem refused
    std::string summary;  // its settings (in a plan) or the profile as read back
};

struct CarrierReport {
    std::string network;  // "mcc 001 mnc 01", with the virtual operator when chosen
    std::string file;
    int selected = 0;
    int inFile = 0;
    bool dryRun = false;
    bool allowUpdate = false;
    bool create = false;
    std::vector<std::string> warnings;  // "FILE:LINE: warning: ..." / "FILE:LINE: note: ..."
    // --verbose: per entry, its settings, then the attributes and types it ignores; names from
    // the file escaped.
    std::vector<std::string> details;
    std::vector<ProfileUpdate> updates;
    std::optional<AttachReport> attach;
    std::vector<NotApplied> notApplied;
    // Every entry of the network, merged ones included, in file order.
    std::vector<EntryAccount> entries;
    std::vector<AttachDifference> attachDiffers;
    std::vector<CreatedProfile> createdProfiles;  // --create
    int created = 0;  // profiles created (or that would be), the attach profile included
};

// Plans the invocation's carrier entries against the modem and, unless it is a dry run, applies
// them and checks the result. False when a setting was not applied (the report lists it).
bool runCarrier(Session& session, const Invocation& invocation, CarrierReport* report);

// The report as kelctl prints it on standard output.
std::string carrierText(const CarrierReport& report);
// The same as a JSON object (the document of carrier --json), secrets masked like the text.
Json carrierJson(const CarrierReport& report);

}  // namespace kelctl

#endif  // KELCTL_CARRIER_APPLY_H
