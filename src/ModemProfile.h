// The library's copy of one packet-data profile as the modem holds it: the settings both
// technologies share, the match, diff and apply rules, the mapping to and from the modem's WDS
// records, the count of client handles and the handles' expiration listeners.
//
// Threads: worker thread only (created, changed and destroyed there, so listeners run there).
#ifndef KEL_MODEM_PROFILE_H
#define KEL_MODEM_PROFILE_H

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "ModemConversions.h"
#include "kel/IProfileKey.h"
#include "kel/ProfileParams.h"
#include "vex/wireless_data_service_v01.h"

namespace kel {

// Names of the profiles this library creates for itself on the modem (3GPP only).
inline constexpr const char* kKelProfileName = "kel_profile";
inline constexpr const char* kKelIAProfileName = "kel_profile_ia";

// Worker thread only.
class ModemProfile {
  public:
    // From client parameters: the APN name is stored normalised, the APN-type mask in modem
    // form. IP types and technology-specific settings are the subclass's.
    explicit ModemProfile(const ProfileParams& params);
    // From a get-settings response: the settings both technologies share.
    ModemProfile(TechType techType, int profileId,
                 const wds_get_profile_settings_resp_msg_v01& resp);
    // Calls the listeners whose handles are still alive, in registration order.
    virtual ~ModemProfile();

    ModemProfile(const ModemProfile&) = delete;
    ModemProfile& operator=(const ModemProfile&) = delete;

    // Whether every condition the filter sets holds.
    virtual bool match(const FilterProfileParams& filter) const;
    // Takes over every setting present in other; identity, flags, count and listeners stay.
    virtual void apply(std::shared_ptr<ModemProfile> other);
    // A profile holding only what requested would change; empty when nothing would.
    virtual std::shared_ptr<ModemProfile> diff(const ModifyProfileParams& requested) const = 0;
    virtual ProfileParams get() const = 0;
    virtual wds_create_profile_req_msg_v01 constructAddRequest() const = 0;
    virtual wds_modify_profile_settings_req_msg_v01 constructModifyRequest() const = 0;
    virtual std::string dump() const;

    TechType getTechType() const { return techType; }
    int getProfileId() const { return profileId; }
    void setProfileId(int value) { profileId = value; }
    bool getIsPersistent() const { return isPersistent; }
    void setIsPersistent(bool value) { isPersistent = value; }
    bool getIsKelCreated() const { return isKelCreated; }
    void setIsKelCreated(bool value) { isKelCreated = value; }

    void incRefCount();
    void decRefCount();
    int getRefCount() const { return refCount; }

    void registerExpirationListener(std::function<void()> callback, std::weak_ptr<IProfileKey> key);
    // Drops the listeners whose handle is gone, keeping the order of the rest.
    void clearExpiredListeners();

    // Getters do not test presence; setters store as given (setApnName does not normalise).
    bool hasApnName() const { return apnName.has_value(); }
    std::string getApnName() const { return apnName.value_or(std::string()); }
    void setApnName(std::string value) { apnName = std::move(value); }
    bool hasUserName() const { return userName.has_value(); }
    std::string getUserName() const { return userName.value_or(std::string()); }
    void setUserName(std::string value) { userName = std::move(value); }
    bool hasPassword() const { return password.has_value(); }
    std::string getPassword() const { return password.value_or(std::string()); }
    void setPassword(std::string value) { password = std::move(value); }
    bool hasAuthType() const { return authType.has_value(); }
    AuthType getAuthType() const { return authType.value_or(AuthType::NONE); }
    void setAuthType(AuthType value) { authType = value; }
    // In the modem's bit order.
    bool hasApnTypesMask() const { return apnTypesMask.has_value(); }
    unsigned long long getApnTypesMask() const { return apnTypesMask.value_or(0); }
    void setApnTypesMask(unsigned long long value) { apnTypesMask = value; }
    bool hasApnClass() const { return apnClass.has_value(); }
    ApnClass getApnClass() const { return apnClass.value_or(static_cast<ApnClass>(0)); }
    void setApnClass(ApnClass value) { apnClass = value; }
    bool hasIsClatEnabled() const { return isClatEnabled.has_value(); }
    bool getIsClatEnabled() const { return isClatEnabled.value_or(false); }
    void setIsClatEnabled(bool value) { isClatEnabled = value; }
    bool hasCommonIPType() const { return commonIPType.has_value(); }
    IPType getCommonIPType() const { return commonIPType.value_or(IPType::UNKNOWN); }
    void setCommonIPType(IPType value) { commonIPType = value; }
    bool hasOverrideHomeIPType() const { return overrideHomeIPType.has_value(); }
    IPType getOverrideHomeIPType() const { return overrideHomeIPType.value_or(IPType::UNKNOWN); }
    void setOverrideHomeIPType(IPType value) { overrideHomeIPType = value; }

    // Clears req, then fills persistence, APN-type mask and CLAT.
    void updateAddParameters(wds_create_profile_req_msg_v01& req) const;
    // Clears req, then fills the profile identifier, APN-type mask and CLAT.
    void updateModifyParameters(wds_modify_profile_settings_req_msg_v01& req) const;
    wds_profile_identifier_type_v01 constructProfileIdentifier() const;
    // Puts into diff every setting of requested (shared by both technologies) that would change
    // this profile; sets changed when it puts anything, never clears it.
    void updateDiffParameters(ModifyProfileParams requested, ProfileParams& diff,
                              bool& changed) const;
    // Copies the shared settings this profile has into out, the mask in library form.
    void updateGetParameters(FilterProfileParams& out) const;
    // Every library bit of mask (up to 0x800) has its modem bit set in this profile's mask.
    bool matchSubsetApnTypesMask(unsigned int mask) const;
    // The converted mask equals this profile's whole 64-bit mask.
    bool matchExactApnTypesMask(unsigned int mask) const;

  protected:
    // The effective home IP type: the override unless absent or UNKNOWN, else commonIPType.
    std::optional<IPType> effectiveHomeIPType() const;

    TechType techType = TechType::TYPE_3GPP;  // set by the subclass
    int profileId = -1;                       // -1 until the modem has assigned one
    bool isPersistent = false;
    bool isKelCreated = false;
    int refCount = 0;
    // The modem's common PDP type; when present and not UNKNOWN it is the home IP type.
    std::optional<IPType> overrideHomeIPType;
    std::list<ExpirationListener> listeners;
    std::optional<std::string> apnName;  // normalised
    std::optional<unsigned long long> apnTypesMask;
    std::optional<IPType> commonIPType;
    std::optional<std::string> userName;
    std::optional<std::string> password;
    std::optional<AuthType> authType;
    std::optional<ApnClass> apnClass;
    std::optional<bool> isClatEnabled;
};

// A 3GPP profile: adds roaming IP types, the 3GPP-only settings and the modem's profile name.
// The home IP type lives in commonIPType and, when home and roaming differ, in
// overrideHomeIPType (see getNewIPTypes). Worker thread only.
class Modem3gppProfile : public ModemProfile {
  public:
    explicit Modem3gppProfile(const ProfileParams& params);
    Modem3gppProfile(int profileId, const wds_get_profile_settings_resp_msg_v01& resp);
    ~Modem3gppProfile() override = default;

    bool match(const FilterProfileParams& filter) const override;
    void apply(std::shared_ptr<ModemProfile> other) override;
    std::shared_ptr<ModemProfile> diff(const ModifyProfileParams& requested) const override;
    ProfileParams get() const override;
    wds_create_profile_req_msg_v01 constructAddRequest() const override;
    wds_modify_profile_settings_req_msg_v01 constructModifyRequest() const override;
    std::string dump() const override;

    // What this profile's home, roaming and override IP types become under params; the
    // outputs are reset first.
    void getNewIPTypes(const ProfileParams& params, std::optional<IPType>& home,
                       std::optional<IPType>& roam, std::optional<IPType>& override) const;

    bool hasLteRoamIPType() const { return lteRoamIPType.has_value(); }
    IPType getLteRoamIPType() const { return lteRoamIPType.value_or(IPType::UNKNOWN); }
    void setLteRoamIPType(IPType value) { lteRoamIPType = value; }
    bool hasUmtsRoamIPType() const { return umtsRoamIPType.has_value(); }
    IPType getUmtsRoamIPType() const { return umtsRoamIPType.value_or(IPType::UNKNOWN); }
    void setUmtsRoamIPType(IPType value) { umtsRoamIPType = value; }
    bool hasMaxPdnsConnPerBlock() const { return maxPdnsConnPerBlock.has_value(); }
    int getMaxPdnsConnPerBlock() const { return maxPdnsConnPerBlock.value_or(0); }
    void setMaxPdnsConnPerBlock(int value) { maxPdnsConnPerBlock = value; }
    bool hasMaxPdnConnTimer() const { return maxPdnConnTimer.has_value(); }
    int getMaxPdnConnTimer() const { return maxPdnConnTimer.value_or(0); }
    void setMaxPdnConnTimer(int value) { maxPdnConnTimer = value; }
    bool hasPdnReqWaitInterval() const { return pdnReqWaitInterval.has_value(); }
    int getPdnReqWaitInterval() const { return pdnReqWaitInterval.value_or(0); }
    void setPdnReqWaitInterval(int value) { pdnReqWaitInterval = value; }
    bool hasIsApnDisabled() const { return isApnDisabled.has_value(); }
    bool getIsApnDisabled() const { return isApnDisabled.value_or(false); }
    void setIsApnDisabled(bool value) { isApnDisabled = value; }
    bool hasIsEmergencySupported() const { return isEmergencySupported.has_value(); }
    bool getIsEmergencySupported() const { return isEmergencySupported.value_or(false); }
    void setIsEmergencySupported(bool value) { isEmergencySupported = value; }
    bool hasProfileName() const { return profileName.has_value(); }
    std::string getProfileName() const { return profileName.value_or(std::string()); }
    void setProfileName(std::string value) { profileName = std::move(value); }

  private:
    // The settings shared by the create and modify requests (everything but identity and
    // persistence).
    void fillSettings(wds_profile_settings_v01& settings) const;
    bool isIAProfile() const;
    bool isKelProfile() const;

    std::optional<IPType> lteRoamIPType;
    std::optional<IPType> umtsRoamIPType;
    std::optional<int> maxPdnsConnPerBlock;
    std::optional<int> maxPdnConnTimer;
    std::optional<int> pdnReqWaitInterval;
    std::optional<bool> isApnDisabled;
    std::optional<std::string> profileName;
    std::optional<bool> isEmergencySupported;
};

// A 3GPP2 profile: a single IP type (the PDN type, in commonIPType), no roaming types, no
// 3GPP-only settings and no profile name, so it is never recognised as the library's own.
// Worker thread only.
class Modem3gpp2Profile : public ModemProfile {
  public:
    explicit Modem3gpp2Profile(const ProfileParams& params);
    Modem3gpp2Profile(int profileId, const wds_get_profile_settings_resp_msg_v01& resp);
    ~Modem3gpp2Profile() override = default;

    bool match(const FilterProfileParams& filter) const override;
    std::shared_ptr<ModemProfile> diff(const ModifyProfileParams& requested) const override;
    ProfileParams get() const override;
    wds_create_profile_req_msg_v01 constructAddRequest() const override;
    wds_modify_profile_settings_req_msg_v01 constructModifyRequest() const override;

  private:
    void fillSettings(wds_profile_settings_v01& settings) const;
};

}  // namespace kel

#endif  // KEL_MODEM_PROFILE_H
