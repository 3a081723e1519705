// Carrier APN configuration: reads a carrier APN database (<apns><apn .../></apns>), selects one
// carrier's entries and turns each into the library's profile settings. Nothing here talks to a
// modem, so a file is read and checked completely before anything is sent.
//
// Plain functions and values: the main thread only.
#ifndef KELCTL_CARRIER_H
#define KELCTL_CARRIER_H

#include <list>
#include <string>
#include <vector>

#include "kel/ProfileParams.h"

namespace kelctl {

// Which entries to take: the network's own (no mvno type), or a virtual operator's.
struct CarrierSelector {
    std::string mcc;
    std::string mnc;
    std::string mvnoType;   // empty: the network's own entries
    std::string mvnoMatch;  // compared without regard to letter case
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
};

struct CarrierPlan {
    std::string file;
    int entriesInFile = 0;
    std::vector<CarrierEntry> entries;  // the selected ones, in file order

    std::list<kel::ProfileParams> typeUpdates() const;
    // The entry that sets up initial attach: the first whose type list names ia. Entries of
    // every type ("*") serve attach only through the APN types they spread.
    const CarrierEntry* attachEntry() const;
};

// Reads and checks path, then selects. False with "FILE:LINE: reason" (or "FILE: reason") for a
// file that cannot be read, is not well-formed, has a value kelctl cannot map, or has no entry
// for the carrier.
bool loadCarrier(const std::string& path, const CarrierSelector& selector, CarrierPlan* plan,
                 std::string* error);

}  // namespace kelctl

#endif  // KELCTL_CARRIER_H
