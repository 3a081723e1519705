// Profile parameters: the settings a client gives for an add, a modify or a filter, and that the
// library reports back for a get, with the enumerations the whole library shares.
//
// Value classes: copyable, no locking; a set may be used by one thread at a time. Every setting
// is optional: setX stores a value and marks it present, hasX tells whether it is, and getX
// returns the value without checking presence (test hasX first).
#ifndef KEL_PROFILE_PARAMS_H
#define KEL_PROFILE_PARAMS_H

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#ifndef KEL_EXPORT
#define KEL_EXPORT __attribute__((visibility("default")))
#endif

namespace kel {

// Technology family of a profile. Other values print as their number.
enum class TechType : std::int32_t {
    TYPE_3GPP = 0,   // printed "3GPP"
    TYPE_3GPP2 = 1,  // printed "3GPP2"
};

// IP family of a PDP/PDN context; the values double as bit sets (V4V6 = V4 | V6).
enum class IPType : std::int32_t {
    UNKNOWN = 0,
    V4 = 1,
    V6 = 2,
    V4V6 = 3,
};

enum class AuthType : std::int32_t {
    NONE = 0,
    PAP = 1,
    CHAP = 2,
    PAP_CHAP = 3,
};

// The modem's APN class number; 0 and values above 4 have no name.
enum class ApnClass : std::int32_t {
    IMS = 1,
    ADMN = 2,
    INET = 3,
    APP = 4,
};

// One bit per APN type. A profile's APN types are an unsigned 32-bit mask of these bits.
enum class ApnTypes : std::uint32_t {
    DEFAULT = 0x001,
    MMS = 0x002,
    SUPL = 0x004,
    DUN = 0x008,
    HIPRI = 0x010,
    FOTA = 0x020,
    IMS = 0x040,
    CBS = 0x080,
    IA = 0x100,
    EMERGENCY = 0x200,
    MCX = 0x400,
    XCAP = 0x800,
};

// Bits of FilterProfileParams' match criteria; each loosens one comparison of a match.
enum class FilterMatchType : std::uint32_t {
    HomeIPSubset = 0x01,
    RoamIPSubset = 0x02,
    ApnNameSubset = 0x04,
    ApnTypeBitmaskSubset = 0x08,
    HomeIPSuperset = 0x10,
    RoamIPSuperset = 0x20,
};

// Printed names ("3GPP", "V4V6", "PAP_CHAP", "IMS", ...); a value without a name prints as its
// decimal number.
KEL_EXPORT std::ostream& operator<<(std::ostream& os, TechType value);
KEL_EXPORT std::ostream& operator<<(std::ostream& os, IPType value);
KEL_EXPORT std::ostream& operator<<(std::ostream& os, AuthType value);
KEL_EXPORT std::ostream& operator<<(std::ostream& os, ApnClass value);
// Prints a whole mask: "NONE" for 0, otherwise the names of the set bits in ascending order,
// each with a trailing bar ("DEFAULT|IMS|"); unknown bits are skipped.
KEL_EXPORT std::ostream& operator<<(std::ostream& os, ApnTypes mask);
// Prints a whole criteria mask: "None" for 0, otherwise "HomeIPSubset|..." in bit order.
KEL_EXPORT std::ostream& operator<<(std::ostream& os, FilterMatchType mask);

KEL_EXPORT std::string toString(TechType value);
KEL_EXPORT std::string toString(IPType value);
KEL_EXPORT std::string toString(AuthType value);
KEL_EXPORT std::string toString(ApnClass value);
KEL_EXPORT std::string toString(ApnTypes mask);
KEL_EXPORT std::string toString(FilterMatchType mask);

class KEL_EXPORT ProfileParams {
  public:
    ProfileParams() = default;
    ProfileParams(const ProfileParams&) = default;
    ProfileParams& operator=(const ProfileParams&) = default;
    virtual ~ProfileParams() = default;

    std::string getApnName() const { return apnName.value_or(std::string()); }
    void setApnName(std::string value) { apnName = std::move(value); }
    bool hasApnName() const { return apnName.has_value(); }

    std::string getUserName() const { return userName.value_or(std::string()); }
    void setUserName(std::string value) { userName = std::move(value); }
    bool hasUserName() const { return userName.has_value(); }

    std::string getPassword() const { return password.value_or(std::string()); }
    void setPassword(std::string value) { password = std::move(value); }
    bool hasPassword() const { return password.has_value(); }

    AuthType getAuthType() const { return authType.value_or(AuthType::NONE); }
    void setAuthType(AuthType value) { authType = value; }
    bool hasAuthType() const { return authType.has_value(); }

    IPType getHomeIPType() const { return homeIPType.value_or(IPType::UNKNOWN); }
    void setHomeIPType(IPType value) { homeIPType = value; }
    bool hasHomeIPType() const { return homeIPType.has_value(); }

    IPType getRoamIPType() const { return roamIPType.value_or(IPType::UNKNOWN); }
    void setRoamIPType(IPType value) { roamIPType = value; }
    bool hasRoamIPType() const { return roamIPType.has_value(); }

    unsigned int getApnTypesMask() const { return apnTypesMask.value_or(0u); }
    void setApnTypesMask(unsigned int value) { apnTypesMask = value; }
    bool hasApnTypesMask() const { return apnTypesMask.has_value(); }

    ApnClass getApnClass() const { return apnClass.value_or(static_cast<ApnClass>(0)); }
    void setApnClass(ApnClass value) { apnClass = value; }
    bool hasApnClass() const { return apnClass.has_value(); }

    bool getIsClatEnabled() const { return isClatEnabled.value_or(false); }
    void setIsClatEnabled(bool value) { isClatEnabled = value; }
    bool hasIsClatEnabled() const { return isClatEnabled.has_value(); }

    int getMaxPdnsConnPerBlock() const { return maxPdnsConnPerBlock.value_or(0); }
    void setMaxPdnsConnPerBlock(int value) { maxPdnsConnPerBlock = value; }
    bool hasMaxPdnsConnPerBlock() const { return maxPdnsConnPerBlock.has_value(); }

    int getMaxPdnConnTimer() const { return maxPdnConnTimer.value_or(0); }
    void setMaxPdnConnTimer(int value) { maxPdnConnTimer = value; }
    bool hasMaxPdnConnTimer() const { return maxPdnConnTimer.has_value(); }

    int getPdnReqWaitInterval() const { return pdnReqWaitInterval.value_or(0); }
    void setPdnReqWaitInterval(int value) { pdnReqWaitInterval = value; }
    bool hasPdnReqWaitInterval() const { return pdnReqWaitInterval.has_value(); }

    bool getIsApnDisabled() const { return isApnDisabled.value_or(false); }
    void setIsApnDisabled(bool value) { isApnDisabled = value; }
    bool hasIsApnDisabled() const { return isApnDisabled.has_value(); }

    bool getIsEmergencySupported() const { return isEmergencySupported.value_or(false); }
    void setIsEmergencySupported(bool value) { isEmergencySupported = value; }
    bool hasIsEmergencySupported() const { return isEmergencySupported.has_value(); }

    // True only when present and true: the profile was created by this library ("kel_profile"
    // or "kel_profile_ia"), respectively is its initial-attach profile ("kel_profile_ia").
    // Set through FilterProfileParams::setFilterByIsKelProfile / setFilterByIsIAProfile.
    bool getIsKelProfile() const { return isKelProfile.value_or(false); }
    bool getIsIAProfile() const { return isIAProfile.value_or(false); }

    // One line of the present fields, "Label=value," each, in a fixed order; "" when none. The
    // password is written in clear, here and so in every log line and Manager::dump.
    virtual std::string dump() const;

  protected:
    std::optional<bool> isKelProfile;
    std::optional<bool> isIAProfile;

  private:
    std::optional<std::string> apnName;
    std::optional<std::string> userName;
    std::optional<std::string> password;
    std::optional<AuthType> authType;
    std::optional<IPType> homeIPType;
    std::optional<IPType> roamIPType;
    std::optional<unsigned int> apnTypesMask;
    std::optional<ApnClass> apnClass;
    std::optional<bool> isClatEnabled;
    std::optional<bool> isEmergencySupported;
    std::optional<bool> isApnDisabled;
    std::optional<int> maxPdnsConnPerBlock;
    std::optional<int> maxPdnConnTimer;
    std::optional<int> pdnReqWaitInterval;
};

// How a new profile is to be created.
class KEL_EXPORT AddProfileParams : public ProfileParams {
  public:
    AddProfileParams(bool isPersistent, TechType techType, bool isIAProfile);
    // Copies every setting of params; the last argument always decides the initial-attach flag.
    AddProfileParams(const ProfileParams& params, bool isPersistent, TechType techType,
                     bool isIAProfile);

    bool getIsPersistent() const { return isPersistent; }
    TechType getTechType() const { return techType; }

    // "3GPP persist=false: " followed by the base dump.
    std::string dump() const override;

  private:
    bool isPersistent;
    TechType techType;
};

// Which profiles a filter or match selects, and how loosely (see FilterMatchType).
class KEL_EXPORT FilterProfileParams : public ProfileParams {
  public:
    FilterProfileParams() = default;
    // Copies every setting of params, the identity flags included; criteria start at 0.
    explicit FilterProfileParams(const ProfileParams& params) : ProfileParams(params) {}

    int getFilterByProfileId() const { return filterByProfileId.value_or(0); }
    void setFilterByProfileId(int value) { filterByProfileId = value; }
    bool hasFilterByProfileId() const { return filterByProfileId.has_value(); }

    TechType getFilterByTechType() const { return filterByTechType.value_or(TechType::TYPE_3GPP); }
    void setFilterByTechType(TechType value) { filterByTechType = value; }
    bool hasFilterByTechType() const { return filterByTechType.has_value(); }

    void setFilterByIsKelProfile(bool value) { isKelProfile = value; }
    bool hasFilterByIsKelProfile() const { return isKelProfile.has_value(); }
    void setFilterByIsIAProfile(bool value) { isIAProfile = value; }
    bool hasFilterByIsIAProfile() const { return isIAProfile.has_value(); }

    unsigned int getFilterMatchCriteria() const { return filterMatchCriteria; }
    void addFilterMatchCriteria(unsigned int bits) { filterMatchCriteria |= bits; }
    void removeFilterMatchCriteria(unsigned int bits) { filterMatchCriteria &= ~bits; }

    // Criteria, ": ", "tech=...,", "id=...," when set, then the base dump.
    std::string dump() const override;

  private:
    unsigned int filterMatchCriteria = 0;
    std::optional<int> filterByProfileId;
    std::optional<TechType> filterByTechType;
};

// The settings to change in an existing profile; only the present ones are applied.
class KEL_EXPORT ModifyProfileParams : public ProfileParams {
  public:
    ModifyProfileParams() = default;
    explicit ModifyProfileParams(const ProfileParams& params) : ProfileParams(params) {}
};

}  // namespace kel

#endif  // KEL_PROFILE_PARAMS_H
