// Carrier APN configuration: reads a carrier APN database (<apns><apn .../></apns>), selects one
// network's entries and turns each into the library's profile settings. Nothing here talks to a
// modem, so a file is read and checked completely before anything is sent.
//
// Plain functions and values: the main thread only.
#ifndef KELCTL_CARRIER_H
#define KELCTL_CARRIER_H

#include <chrono>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "kel/ProfileParams.h"

namespace kelctl {

// Which entries to take: the network's own (no mvno type), or a virtual operator's. MCC and MNC
// are digits; they match the database's spelling, or, when no entry spells them so, its value as
// a number ("0" is "00").
struct CarrierSelector {
    std::string mcc;
    std::string mnc;
    std::string mvnoType;   // empty: the network's own entries
    std::string mvnoMatch;  // compared without regard to letter case
    // The run's --timeout: reading stops there, with ranOut set.
    std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
};

struct CarrierEntry {
    int line = 0;
    std::string carrier;
    kel::ProfileParams settings;
    // Attributes and APN types kelctl does not map; reported with --verbose.
    std::vector<std::string> ignoredAttributes;
    std::vector<std::string> ignoredTypes;
    // The type list names ia itself (not only through "*").
    bool namesAttach = false;
    // The bearers and network types the entry is limited to, as written
    // ("network_type_bitmask=\"13\""); empty when it is not. Modem profiles have no such setting.
    std::string bearers;
    // The modem profile index the entry asks for.
    std::optional<int> profileId;
    // Later entries with the same settings, folded into this one.
    std::vector<int> mergedLines;
    std::vector<std::string> mergedCarriers;  // their carrier names, as written
};

// The carrier disabled the entry (carrier_enabled="false"): it takes part in nothing.
bool isDisabled(const CarrierEntry& entry);

struct CarrierSelection {
    std::string file;
    int entriesInFile = 0;
    std::vector<CarrierEntry> entries;  // the selected ones, in file order, duplicates merged
    int selectedInFile = 0;             // the selected ones before merging
    // "FILE:LINE: warning: ..." and "FILE:LINE: note: ...", one line each; file text as read,
    // to be escaped where it is printed.
    std::vector<std::string> warnings;
    bool ranOut = false;  // the deadline passed before the file was read and checked

    // The settings of the entries the carrier has not disabled (carrier_enabled="false").
    std::list<kel::ProfileParams> typeUpdates() const;
    // The entry that sets up initial attach: the first enabled one whose type list names ia.
    // Entries of every type ("*") serve attach only through the APN types they spread.
    const CarrierEntry* attachEntry() const;
};

// Reads and checks path, then selects. False with "FILE:LINE: reason" (or "FILE: reason") for a
// file that cannot be read or is not well-formed, or that has no entry for the selector. A value
// kelctl cannot map costs only that setting, with a warning.
bool loadCarrier(const std::string& path, const CarrierSelector& selector,
                 CarrierSelection* selection, std::string* error);

}  // namespace kelctl

#endif  // KELCTL_CARRIER_H
