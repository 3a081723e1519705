// The names a person types for the library's values (--tech 3gpp, --ip v4v6, --types ims,xcap)
// and the names kelctl prints for them. One table per value serves both directions, so what
// kelctl prints can always be typed back. Names are matched without regard to letter case.
//
// Plain functions over constant tables: any thread.
#ifndef KELCTL_VALUE_NAMES_H
#define KELCTL_VALUE_NAMES_H

#include <optional>
#include <string>

#include "kel/ProfileParams.h"

namespace kelctl {

std::optional<kel::TechType> techFromName(const std::string& name);
std::optional<kel::IPType> ipFromName(const std::string& name);
std::optional<kel::AuthType> authFromName(const std::string& name);
std::optional<kel::ApnClass> classFromName(const std::string& name);
std::optional<bool> yesNoFromName(const std::string& name);
// A comma-separated list of APN type names ("default,ims"), or "none". On an unknown name,
// nothing, with that name in *bad.
std::optional<unsigned int> typesFromNames(const std::string& list, std::string* bad);
// The same for FilterMatchType bits ("home-subset,roam-superset").
std::optional<unsigned int> criteriaFromNames(const std::string& list, std::string* bad);

// The bit of one APN type name ("ims"), as the library and the carrier database spell them.
std::optional<unsigned int> apnTypeBit(const std::string& name);

// "3gpp", "v4v6", "pap_chap", "inet"; a value without a name prints as its number.
std::string techName(kel::TechType tech);
std::string ipName(kel::IPType ip);
std::string authName(kel::AuthType auth);
std::string className(kel::ApnClass apnClass);
// "default,ims" in bit order, "none" for 0; unknown bits print as one hexadecimal number.
std::string typesNames(unsigned int mask);
std::string yesNo(bool value);

// The accepted names, for error messages and help: "3gpp, 3gpp2".
std::string techNames();
std::string ipNames();
std::string authNames();
std::string classNames();
std::string typeNames();
std::string criteriaNames();

// ASCII lower case, byte by byte; the library compares APN names the same way.
std::string lower(std::string text);

}  // namespace kelctl

#endif  // KELCTL_VALUE_NAMES_H
