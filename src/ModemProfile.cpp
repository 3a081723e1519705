#include "ModemProfile.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

#include "DumpText.h"
#include "LocalLogBuffer.h"

namespace kel {

namespace {

constexpr unsigned int criterion(FilterMatchType type) {
    return static_cast<unsigned int>(type);
}

// A text field of a modem record, at most maxLength characters. The modem may fill a field to
// its end without a terminator, so the field's size bounds the read as well.
template <std::size_t N>
std::string readText(const char (&field)[N], std::size_t maxLength = N) {
    return std::string(field, strnlen(field, std::min(N, maxLength)));
}

// Copies value into a cleared record field, cut to leave room for the terminator.
template <std::size_t N>
void writeText(char (&field)[N], const std::string& value) {
    const std::size_t length = std::min(value.size(), N - 1);
    std::memcpy(field, value.data(), length);
    field[length] = '\0';
}

// IP types compared as bit sets (V4V6 = V4 | V6): equal types always match; subset accepts a
// requested type with no bit outside the profile's, superset a profile type with no bit outside
// the requested one.
bool ipTypeMatches(IPType profileType, IPType requested, bool subset, bool superset) {
    const auto have = static_cast<unsigned int>(profileType);
    const auto want = static_cast<unsigned int>(requested);
    if (have == want) {
        return true;
    }
    if (subset && (want & have) == want) {
        return true;
    }
    return superset && (have & ~want) == 0;
}

// A present filter value must be present in the profile and equal.
template <typename T>
bool optionalMatches(bool filterHas, const T& wanted, const std::optional<T>& have) {
    return !filterHas || (have.has_value() && *have == wanted);
}

// A present requested value that the profile lacks or holds differently.
template <typename T>
bool optionalChanges(bool requestedHas, const T& wanted, const std::optional<T>& have) {
    return requestedHas && (!have.has_value() || *have != wanted);
}

template <typename T>
void takeIfPresent(std::optional<T>& into, const std::optional<T>& from) {
    if (from.has_value()) {
        into = from;
    }
}

}  // namespace

ModemProfile::ModemProfile(const ProfileParams& params) {
    if (params.hasApnName()) {
        apnName = normalizeApnName(params.getApnName());
    }
    if (params.hasUserName()) {
        userName = params.getUserName();
    }
    if (params.hasPassword()) {
        password = params.getPassword();
    }
    if (params.hasAuthType()) {
        authType = params.getAuthType();
    }
    if (params.hasApnClass()) {
        apnClass = params.getApnClass();
    }
    if (params.hasApnTypesMask()) {
        apnTypesMask = convertToVexApnTypeMask(params.getApnTypesMask());
    }
    if (params.hasIsClatEnabled()) {
        isClatEnabled = params.getIsClatEnabled();
    }
}

ModemProfile::ModemProfile(TechType profileTechType, int modemProfileId,
                           const wds_get_profile_settings_resp_msg_v01& resp)
    : techType(profileTechType), profileId(modemProfileId) {
    const wds_profile_settings_v01& settings = resp.settings;
    if (settings.common_pdp_type_valid) {
        overrideHomeIPType = convertPdpType(settings.common_pdp_type);
    }
    if (settings.apn_type_mask_valid) {
        apnTypesMask = settings.apn_type_mask;
    }
    if (settings.clat_enabled_valid) {
        isClatEnabled = settings.clat_enabled != 0;
    }
    if (settings.persistent_valid) {
        isPersistent = settings.persistent != 0;
    }
}

ModemProfile::~ModemProfile() {
    KEL_LOG(Debug, "~ModemProfile()");
    for (const ExpirationListener& listener : listeners) {
        if (expired(listener) || !listener.first) {
            continue;
        }
        KEL_LOG(Debug, "invoke callback");
        // A listener is the client's code running in a destructor: what it throws would end the
        // process, and the listeners after it would not run.
        try {
            listener.first();
        } catch (const std::exception& e) {
            KEL_LOG(Error, "ModemProfile: expiration listener threw: %s", e.what());
        } catch (...) {
            KEL_LOG(Error, "ModemProfile: expiration listener threw");
        }
    }
}

bool ModemProfile::match(const FilterProfileParams& filter) const {
    const unsigned int criteria = filter.getFilterMatchCriteria();
    if (filter.hasFilterByTechType() && filter.getFilterByTechType() != techType) {
        return false;
    }
    if (filter.hasApnName()) {
        if (!apnName.has_value()) {
            return false;
        }
        const std::string wanted = normalizeApnName(filter.getApnName());
        const bool found = (criteria & criterion(FilterMatchType::ApnNameSubset)) != 0
                               ? apnName->find(wanted) != std::string::npos
                               : *apnName == wanted;
        if (!found) {
            return false;
        }
    }
    if (filter.hasHomeIPType()) {
        const std::optional<IPType> home = effectiveHomeIPType();
        if (!home.has_value() ||
            !ipTypeMatches(*home, filter.getHomeIPType(),
                           (criteria & criterion(FilterMatchType::HomeIPSubset)) != 0,
                           (criteria & criterion(FilterMatchType::HomeIPSuperset)) != 0)) {
            return false;
        }
    }
    if (!optionalMatches(filter.hasUserName(), filter.getUserName(), userName) ||
        !optionalMatches(filter.hasPassword(), filter.getPassword(), password) ||
        !optionalMatches(filter.hasAuthType(), filter.getAuthType(), authType)) {
        return false;
    }
    if (filter.hasApnTypesMask()) {
        if (!apnTypesMask.has_value()) {
            return false;
        }
        const bool typesMatch = (criteria & criterion(FilterMatchType::ApnTypeBitmaskSubset)) != 0
                                    ? matchSubsetApnTypesMask(filter.getApnTypesMask())
                                    : matchExactApnTypesMask(filter.getApnTypesMask());
        if (!typesMatch) {
            return false;
        }
    }
    if (!optionalMatches(filter.hasApnClass(), filter.getApnClass(), apnClass) ||
        !optionalMatches(filter.hasIsClatEnabled(), filter.getIsClatEnabled(), isClatEnabled)) {
        return false;
    }
    return !filter.hasFilterByProfileId() || filter.getFilterByProfileId() == profileId;
}

void ModemProfile::apply(std::shared_ptr<ModemProfile> other) {
    if (!other) {
        return;
    }
    if (other->apnName.has_value()) {
        apnName = normalizeApnName(*other->apnName);
    }
    takeIfPresent(userName, other->userName);
    takeIfPresent(password, other->password);
    takeIfPresent(authType, other->authType);
    takeIfPresent(commonIPType, other->commonIPType);
    takeIfPresent(apnTypesMask, other->apnTypesMask);
    takeIfPresent(apnClass, other->apnClass);
    takeIfPresent(isClatEnabled, other->isClatEnabled);
    takeIfPresent(overrideHomeIPType, other->overrideHomeIPType);
}

std::string ModemProfile::dump() const {
    std::string text = "TechType=";
    appendText(text, techType);
    text += ",ProfileId=";
    appendText(text, profileId);
    text += ',';
    appendField(text, "ApnName=", apnName);
    appendField(text, "UserName=", userName);
    // The password is shown in clear on purpose: the dump is the library's diagnostic view.
    appendField(text, "Password=", password);
    appendField(text, "AuthType=", authType);
    appendField(text, "CommonIPType=", commonIPType);
    appendField(text, "ApnTypesMask=", apnTypesMask);
    appendField(text, "ApnClass=", apnClass);
    appendField(text, "IsClatEnabled=", isClatEnabled);
    return text;
}

void ModemProfile::incRefCount() {
    ++refCount;
}

void ModemProfile::decRefCount() {
    --refCount;
}

void ModemProfile::registerExpirationListener(std::function<void()> callback,
                                              std::weak_ptr<IProfileKey> key) {
    listeners.emplace_back(std::move(callback), std::move(key));
}

void ModemProfile::clearExpiredListeners() {
    listeners.remove_if(expired);
}

void ModemProfile::updateAddParameters(wds_create_profile_req_msg_v01& req) const {
    std::memset(&req, 0, sizeof(req));
    req.settings.persistent_valid = 1;
    req.settings.persistent = isPersistent ? 1 : 0;
    if (apnTypesMask.has_value()) {
        req.settings.apn_type_mask_valid = 1;
        req.settings.apn_type_mask = *apnTypesMask;
    }
    if (isClatEnabled.has_value()) {
        req.settings.clat_enabled_valid = 1;
        req.settings.clat_enabled = *isClatEnabled ? 1 : 0;
    }
}

void ModemProfile::updateModifyParameters(wds_modify_profile_settings_req_msg_v01& req) const {
    std::memset(&req, 0, sizeof(req));
    req.profile = constructProfileIdentifier();
    if (apnTypesMask.has_value()) {
        req.settings.apn_type_mask_valid = 1;
        req.settings.apn_type_mask = *apnTypesMask;
    }
    if (isClatEnabled.has_value()) {
        req.settings.clat_enabled_valid = 1;
        req.settings.clat_enabled = *isClatEnabled ? 1 : 0;
    }
}

wds_profile_identifier_type_v01 ModemProfile::constructProfileIdentifier() const {
    return convertToProfileIdentifier(techType, profileId);
}

void ModemProfile::updateDiffParameters(ModifyProfileParams requested, ProfileParams& diff,
                                        bool& changed) const {
    if (requested.hasApnName() &&
        !(apnName.has_value() && *apnName == normalizeApnName(requested.getApnName()))) {
        // Compared in the stored 150-character form, but sent on in full (lower-cased).
        diff.setApnName(convertToLower(requested.getApnName()));
        changed = true;
    }
    if (optionalChanges(requested.hasUserName(), requested.getUserName(), userName)) {
        diff.setUserName(requested.getUserName());
        changed = true;
    }
    if (optionalChanges(requested.hasPassword(), requested.getPassword(), password)) {
        diff.setPassword(requested.getPassword());
        changed = true;
    }
    if (optionalChanges(requested.hasAuthType(), requested.getAuthType(), authType)) {
        diff.setAuthType(requested.getAuthType());
        changed = true;
    }
    if (requested.hasApnTypesMask() &&
        !(apnTypesMask.has_value() &&
          convertToCommonApnTypeMask(*apnTypesMask) == requested.getApnTypesMask())) {
        diff.setApnTypesMask(requested.getApnTypesMask());
        changed = true;
    }
    if (optionalChanges(requested.hasApnClass(), requested.getApnClass(), apnClass)) {
        diff.setApnClass(requested.getApnClass());
        changed = true;
    }
    if (optionalChanges(requested.hasIsClatEnabled(), requested.getIsClatEnabled(),
                        isClatEnabled)) {
        diff.setIsClatEnabled(requested.getIsClatEnabled());
        changed = true;
    }
}

void ModemProfile::updateGetParameters(FilterProfileParams& out) const {
    if (apnName.has_value()) {
        out.setApnName(*apnName);
    }
    if (userName.has_value()) {
        out.setUserName(*userName);
    }
    if (password.has_value()) {
        out.setPassword(*password);
    }
    if (authType.has_value()) {
        out.setAuthType(*authType);
    }
    if (apnTypesMask.has_value()) {
        out.setApnTypesMask(convertToCommonApnTypeMask(*apnTypesMask));
    }
    if (apnClass.has_value()) {
        out.setApnClass(*apnClass);
    }
    if (isClatEnabled.has_value()) {
        out.setIsClatEnabled(*isClatEnabled);
    }
}

bool ModemProfile::matchSubsetApnTypesMask(unsigned int mask) const {
    const std::uint64_t wanted = convertToVexApnTypeMask(mask);
    return (getApnTypesMask() & wanted) == wanted;
}

bool ModemProfile::matchExactApnTypesMask(unsigned int mask) const {
    return apnTypesMask.has_value() && *apnTypesMask == convertToVexApnTypeMask(mask);
}

std::optional<IPType> ModemProfile::effectiveHomeIPType() const {
    if (overrideHomeIPType.has_value() && *overrideHomeIPType != IPType::UNKNOWN) {
        return overrideHomeIPType;
    }
    return commonIPType;
}

// --- 3GPP ---------------------------------------------------------------------------------

namespace {

// The modem's roaming PDP types use the common numbering, with 0xFF for "no setting".
std::optional<IPType> readRoamIPType(wds_common_pdp_type_enum_v01 value) {
    if (value == WDS_COMMON_PDP_TYPE_PDP_UNUSED_V01) {
        return std::nullopt;
    }
    return convertPdpType(value);
}

// The roaming type a 3GPP profile answers with: LTE and UMTS must agree; with neither set the
// profile's own PDP type stands in.
std::optional<IPType> effectiveRoamIPType(const std::optional<IPType>& lte,
                                          const std::optional<IPType>& umts,
                                          const std::optional<IPType>& common) {
    if (lte.has_value()) {
        return umts == lte ? lte : std::nullopt;
    }
    return umts.has_value() ? std::nullopt : common;
}

}  // namespace

Modem3gppProfile::Modem3gppProfile(const ProfileParams& params) : ModemProfile(params) {
    techType = TechType::TYPE_3GPP;
    if (params.hasMaxPdnsConnPerBlock()) {
        maxPdnsConnPerBlock = params.getMaxPdnsConnPerBlock();
    }
    if (params.hasMaxPdnConnTimer()) {
        maxPdnConnTimer = params.getMaxPdnConnTimer();
    }
    if (params.hasPdnReqWaitInterval()) {
        pdnReqWaitInterval = params.getPdnReqWaitInterval();
    }
    if (params.hasIsApnDisabled()) {
        isApnDisabled = params.getIsApnDisabled();
    }
    if (params.hasIsEmergencySupported()) {
        isEmergencySupported = params.getIsEmergencySupported();
    }
    std::optional<IPType> home;
    std::optional<IPType> roam;
    std::optional<IPType> overrideHome;
    getNewIPTypes(params, home, roam, overrideHome);
    commonIPType = home;
    lteRoamIPType = roam;
    umtsRoamIPType = roam;
    overrideHomeIPType = overrideHome;
}

Modem3gppProfile::Modem3gppProfile(int modemProfileId,
                                   const wds_get_profile_settings_resp_msg_v01& resp)
    : ModemProfile(TechType::TYPE_3GPP, modemProfileId, resp) {
    const wds_profile_settings_v01& settings = resp.settings;
    if (settings.profile_name_valid) {
        profileName = readText(settings.profile_name);
    }
    if (settings.pdp_type_valid) {
        commonIPType = convertPdpType(settings.pdp_type);
    }
    if (settings.lte_roaming_pdp_type_valid) {
        lteRoamIPType = readRoamIPType(settings.lte_roaming_pdp_type);
    }
    if (settings.umts_roaming_pdp_type_valid) {
        umtsRoamIPType = readRoamIPType(settings.umts_roaming_pdp_type);
    }
    if (settings.apn_name_valid) {
        // A name filling its whole field is read up to the field's end, then stored as every APN
        // name is (150 characters), so the profile still matches its own settings.
        apnName = normalizeApnName(readText(settings.apn_name));
    }
    if (settings.apn_class_valid) {
        apnClass = static_cast<ApnClass>(settings.apn_class);
    }
    if (settings.support_emergency_calls_valid) {
        isEmergencySupported = settings.support_emergency_calls != 0;
    }
    if (settings.authentication_preference_valid) {
        authType =
            convertToAuthType(static_cast<unsigned char>(settings.authentication_preference));
    }
    if (settings.max_pdn_conn_per_block_valid) {
        maxPdnsConnPerBlock = settings.max_pdn_conn_per_block;
    }
    if (settings.max_pdn_conn_timer_valid) {
        maxPdnConnTimer = settings.max_pdn_conn_timer;
    }
    if (settings.pdn_req_wait_interval_valid) {
        pdnReqWaitInterval = settings.pdn_req_wait_interval;
    }
    if (settings.apn_disabled_flag_valid) {
        isApnDisabled = settings.apn_disabled_flag != 0;
    }
    if (settings.username_valid) {
        // Credentials are at most 127 characters, even from a field filled to its end.
        userName = readText(settings.username, WDS_USER_NAME_MAX_V01);
    }
    if (settings.password_valid) {
        password = readText(settings.password, WDS_PASSWORD_MAX_V01);
    }
}

void Modem3gppProfile::getNewIPTypes(const ProfileParams& params, std::optional<IPType>& home,
                                     std::optional<IPType>& roam,
                                     std::optional<IPType>& override) const {
    home = params.hasHomeIPType() ? std::optional<IPType>(params.getHomeIPType())
                                  : effectiveHomeIPType();
    roam.reset();
    if (params.hasRoamIPType()) {
        roam = params.getRoamIPType();
    } else if (lteRoamIPType.has_value() && umtsRoamIPType == lteRoamIPType) {
        roam = lteRoamIPType;
    }
    override.reset();
    if (home.has_value() && roam.has_value()) {
        if (*home != *roam) {
            // The modem's PDP type must carry both families; the home one goes in the override.
            override = home;
            home = IPType::V4V6;
        } else if (overrideHomeIPType.has_value()) {
            // Clears an override left from when home and roaming differed.
            override = IPType::UNKNOWN;
        }
    }
}

bool Modem3gppProfile::isIAProfile() const {
    return profileName.has_value() && *profileName == kKelIAProfileName;
}

bool Modem3gppProfile::isKelProfile() const {
    return isIAProfile() || (profileName.has_value() && *profileName == kKelProfileName);
}

bool Modem3gppProfile::match(const FilterProfileParams& filter) const {
    if (!ModemProfile::match(filter)) {
        return false;
    }
    // The initial-attach flag wins when a filter has both.
    if (filter.hasFilterByIsIAProfile()) {
        if (isIAProfile() != filter.getIsIAProfile()) {
            return false;
        }
    } else if (filter.hasFilterByIsKelProfile() && isKelProfile() != filter.getIsKelProfile()) {
        return false;
    }
    if (filter.hasRoamIPType()) {
        const unsigned int criteria = filter.getFilterMatchCriteria();
        const std::optional<IPType> roam =
            effectiveRoamIPType(lteRoamIPType, umtsRoamIPType, commonIPType);
        if (!roam.has_value() ||
            !ipTypeMatches(*roam, filter.getRoamIPType(),
                           (criteria & criterion(FilterMatchType::RoamIPSubset)) != 0,
                           (criteria & criterion(FilterMatchType::RoamIPSuperset)) != 0)) {
            return false;
        }
    }
    return optionalMatches(filter.hasMaxPdnsConnPerBlock(), filter.getMaxPdnsConnPerBlock(),
                           maxPdnsConnPerBlock) &&
           optionalMatches(filter.hasMaxPdnConnTimer(), filter.getMaxPdnConnTimer(),
                           maxPdnConnTimer) &&
           optionalMatches(filter.hasPdnReqWaitInterval(), filter.getPdnReqWaitInterval(),
                           pdnReqWaitInterval) &&
           optionalMatches(filter.hasIsApnDisabled(), filter.getIsApnDisabled(), isApnDisabled) &&
           optionalMatches(filter.hasIsEmergencySupported(), filter.getIsEmergencySupported(),
                           isEmergencySupported);
}

void Modem3gppProfile::apply(std::shared_ptr<ModemProfile> other) {
    ModemProfile::apply(other);
    const auto* other3gpp = dynamic_cast<const Modem3gppProfile*>(other.get());
    if (other3gpp == nullptr) {
        return;
    }
    // The profile name is never applied: it is how the library recognises its own profiles.
    takeIfPresent(lteRoamIPType, other3gpp->lteRoamIPType);
    takeIfPresent(umtsRoamIPType, other3gpp->umtsRoamIPType);
    takeIfPresent(maxPdnsConnPerBlock, other3gpp->maxPdnsConnPerBlock);
    takeIfPresent(maxPdnConnTimer, other3gpp->maxPdnConnTimer);
    takeIfPresent(pdnReqWaitInterval, other3gpp->pdnReqWaitInterval);
    takeIfPresent(isApnDisabled, other3gpp->isApnDisabled);
    takeIfPresent(isEmergencySupported, other3gpp->isEmergencySupported);
}

std::shared_ptr<ModemProfile> Modem3gppProfile::diff(const ModifyProfileParams& requested) const {
    ProfileParams diffParams;
    bool changed = false;
    updateDiffParameters(requested, diffParams, changed);
    if (optionalChanges(requested.hasMaxPdnsConnPerBlock(), requested.getMaxPdnsConnPerBlock(),
                        maxPdnsConnPerBlock)) {
        diffParams.setMaxPdnsConnPerBlock(requested.getMaxPdnsConnPerBlock());
        changed = true;
    }
    if (optionalChanges(requested.hasMaxPdnConnTimer(), requested.getMaxPdnConnTimer(),
                        maxPdnConnTimer)) {
        diffParams.setMaxPdnConnTimer(requested.getMaxPdnConnTimer());
        changed = true;
    }
    if (optionalChanges(requested.hasPdnReqWaitInterval(), requested.getPdnReqWaitInterval(),
                        pdnReqWaitInterval)) {
        diffParams.setPdnReqWaitInterval(requested.getPdnReqWaitInterval());
        changed = true;
    }
    if (optionalChanges(requested.hasIsApnDisabled(), requested.getIsApnDisabled(),
                        isApnDisabled)) {
        diffParams.setIsApnDisabled(requested.getIsApnDisabled());
        changed = true;
    }
    if (optionalChanges(requested.hasIsEmergencySupported(), requested.getIsEmergencySupported(),
                        isEmergencySupported)) {
        diffParams.setIsEmergencySupported(requested.getIsEmergencySupported());
        changed = true;
    }
    // diffParams carries no IP type, so the new profile starts without any; only the IP types
    // that change are set on it below.
    auto diffProfile = std::make_shared<Modem3gppProfile>(diffParams);

    std::optional<IPType> home;
    std::optional<IPType> roam;
    std::optional<IPType> overrideHome;
    getNewIPTypes(requested, home, roam, overrideHome);
    if (home.has_value() && commonIPType != home) {
        diffProfile->commonIPType = home;
        changed = true;
    }
    if (roam.has_value()) {
        if (lteRoamIPType != roam) {
            diffProfile->lteRoamIPType = roam;
            changed = true;
        }
        if (umtsRoamIPType != roam) {
            diffProfile->umtsRoamIPType = roam;
            changed = true;
        }
    }
    if (overrideHome.has_value() && overrideHomeIPType != overrideHome) {
        diffProfile->overrideHomeIPType = overrideHome;
        changed = true;
    }
    return changed ? diffProfile : nullptr;
}

ProfileParams Modem3gppProfile::get() const {
    FilterProfileParams out;
    updateGetParameters(out);
    if (profileName.has_value()) {
        out.setFilterByIsIAProfile(isIAProfile());
        out.setFilterByIsKelProfile(isKelProfile());
    } else {
        out.setFilterByIsIAProfile(false);
        out.setFilterByIsKelProfile(false);
    }
    const std::optional<IPType> home = effectiveHomeIPType();
    if (home.has_value()) {
        out.setHomeIPType(*home);
    }
    if (lteRoamIPType.has_value() && umtsRoamIPType == lteRoamIPType) {
        out.setRoamIPType(*lteRoamIPType);
    }
    if (maxPdnsConnPerBlock.has_value()) {
        out.setMaxPdnsConnPerBlock(*maxPdnsConnPerBlock);
    }
    if (maxPdnConnTimer.has_value()) {
        out.setMaxPdnConnTimer(*maxPdnConnTimer);
    }
    if (pdnReqWaitInterval.has_value()) {
        out.setPdnReqWaitInterval(*pdnReqWaitInterval);
    }
    if (isApnDisabled.has_value()) {
        out.setIsApnDisabled(*isApnDisabled);
    }
    if (isEmergencySupported.has_value()) {
        out.setIsEmergencySupported(*isEmergencySupported);
    }
    return ProfileParams(out);
}

void Modem3gppProfile::fillSettings(wds_profile_settings_v01& settings) const {
    if (profileName.has_value()) {
        settings.profile_name_valid = 1;
        writeText(settings.profile_name, *profileName);
    }
    if (apnName.has_value()) {
        settings.apn_name_valid = 1;
        writeText(settings.apn_name, *apnName);
    }
    if (commonIPType.has_value()) {
        settings.pdp_type_valid = 1;
        settings.pdp_type = convertToVexPdpType(*commonIPType);
    }
    if (overrideHomeIPType.has_value()) {
        settings.common_pdp_type_valid = 1;
        settings.common_pdp_type = convertToVexCommonPdpType(*overrideHomeIPType);
    }
    if (isEmergencySupported.has_value()) {
        settings.support_emergency_calls_valid = 1;
        settings.support_emergency_calls = *isEmergencySupported ? 1 : 0;
    }
    if (lteRoamIPType.has_value()) {
        settings.lte_roaming_pdp_type_valid = 1;
        settings.lte_roaming_pdp_type = convertToVexCommonPdpType(*lteRoamIPType);
    }
    if (umtsRoamIPType.has_value()) {
        settings.umts_roaming_pdp_type_valid = 1;
        settings.umts_roaming_pdp_type = convertToVexCommonPdpType(*umtsRoamIPType);
    }
    if (maxPdnsConnPerBlock.has_value()) {
        settings.max_pdn_conn_per_block_valid = 1;
        settings.max_pdn_conn_per_block = static_cast<std::uint16_t>(*maxPdnsConnPerBlock);
    }
    if (maxPdnConnTimer.has_value()) {
        settings.max_pdn_conn_timer_valid = 1;
        settings.max_pdn_conn_timer = static_cast<std::uint16_t>(*maxPdnConnTimer);
    }
    if (pdnReqWaitInterval.has_value()) {
        settings.pdn_req_wait_interval_valid = 1;
        settings.pdn_req_wait_interval = static_cast<std::uint16_t>(*pdnReqWaitInterval);
    }
    if (isApnDisabled.has_value()) {
        settings.apn_disabled_flag_valid = 1;
        settings.apn_disabled_flag = *isApnDisabled ? 1 : 0;
    }
    if (authType.has_value()) {
        settings.authentication_preference_valid = 1;
        settings.authentication_preference = convertToVexAuthPref(*authType);
    }
    if (apnClass.has_value()) {
        settings.apn_class_valid = 1;
        settings.apn_class = static_cast<std::uint8_t>(*apnClass);
    }
    if (userName.has_value()) {
        settings.username_valid = 1;
        writeText(settings.username, *userName);
    }
    if (password.has_value()) {
        settings.password_valid = 1;
        writeText(settings.password, *password);
    }
}

wds_create_profile_req_msg_v01 Modem3gppProfile::constructAddRequest() const {
    wds_create_profile_req_msg_v01 req;
    updateAddParameters(req);
    req.profile_type = WDS_PROFILE_TYPE_3GPP_V01;
    fillSettings(req.settings);
    return req;
}

wds_modify_profile_settings_req_msg_v01 Modem3gppProfile::constructModifyRequest() const {
    wds_modify_profile_settings_req_msg_v01 req;
    updateModifyParameters(req);
    fillSettings(req.settings);
    return req;
}

std::string Modem3gppProfile::dump() const {
    std::string text = ModemProfile::dump();
    appendField(text, "OverrideHomeIPType=", overrideHomeIPType);
    appendField(text, "LteRoamIP=", lteRoamIPType);
    appendField(text, "UmtsRoamIP=", umtsRoamIPType);
    appendField(text, "MaxPdnsConnPerBlock=", maxPdnsConnPerBlock);
    appendField(text, "MaxPdnConnTimer=", maxPdnConnTimer);
    appendField(text, "PdnReqWaitInterval=", pdnReqWaitInterval);
    appendField(text, "IsApnDisabled=", isApnDisabled);
    appendField(text, "IsEmergencySupported=", isEmergencySupported);
    appendField(text, "ProfileName=", profileName);
    return text;
}

// --- 3GPP2 --------------------------------------------------------------------------------

Modem3gpp2Profile::Modem3gpp2Profile(const ProfileParams& params) : ModemProfile(params) {
    techType = TechType::TYPE_3GPP2;
    if (params.hasHomeIPType()) {
        commonIPType = params.getHomeIPType();
    }
}

Modem3gpp2Profile::Modem3gpp2Profile(int modemProfileId,
                                     const wds_get_profile_settings_resp_msg_v01& resp)
    : ModemProfile(TechType::TYPE_3GPP2, modemProfileId, resp) {
    const wds_profile_settings_v01& settings = resp.settings;
    if (settings.pdn_type_valid) {
        commonIPType = convertPdnType(settings.pdn_type);
    }
    if (settings.apn_string_valid) {
        apnName = normalizeApnName(readText(settings.apn_string));
    }
    if (settings.apn_class_3gpp2_valid) {
        apnClass = static_cast<ApnClass>(settings.apn_class_3gpp2);
    }
    if (settings.profile_auth_protocol_valid) {
        authType = convertToAuthType(settings.profile_auth_protocol);
    }
    if (settings.user_id_valid) {
        userName = readText(settings.user_id, WDS_USER_NAME_MAX_V01);
    }
    // The password is deliberately not read back from a 3GPP2 profile; only the user ID is.
}

bool Modem3gpp2Profile::match(const FilterProfileParams& filter) const {
    if (!ModemProfile::match(filter)) {
        return false;
    }
    // These criteria exist for 3GPP only; a 3GPP2 profile never satisfies them, whatever value
    // they ask for.
    return !(filter.hasFilterByIsIAProfile() || filter.hasFilterByIsKelProfile() ||
             filter.hasRoamIPType() || filter.hasMaxPdnsConnPerBlock() ||
             filter.hasMaxPdnConnTimer() || filter.hasPdnReqWaitInterval() ||
             filter.hasIsApnDisabled() || filter.hasIsEmergencySupported());
}

std::shared_ptr<ModemProfile> Modem3gpp2Profile::diff(const ModifyProfileParams& requested) const {
    ProfileParams diffParams;
    bool changed = false;
    updateDiffParameters(requested, diffParams, changed);
    if (optionalChanges(requested.hasHomeIPType(), requested.getHomeIPType(), commonIPType)) {
        diffParams.setHomeIPType(requested.getHomeIPType());
        changed = true;
    }
    if (!changed) {
        return nullptr;
    }
    return std::make_shared<Modem3gpp2Profile>(diffParams);
}

ProfileParams Modem3gpp2Profile::get() const {
    FilterProfileParams out;
    updateGetParameters(out);
    if (commonIPType.has_value()) {
        out.setHomeIPType(*commonIPType);
    }
    return ProfileParams(out);
}

void Modem3gpp2Profile::fillSettings(wds_profile_settings_v01& settings) const {
    if (apnName.has_value()) {
        settings.apn_string_valid = 1;
        writeText(settings.apn_string, *apnName);
    }
    if (commonIPType.has_value()) {
        settings.pdn_type_valid = 1;
        settings.pdn_type = convertToVexProfilePdnType(*commonIPType);
    }
    // Authentication and credentials go both to the profile and to PDN level.
    if (authType.has_value()) {
        settings.profile_auth_protocol_valid = 1;
        settings.profile_auth_protocol = convertToVexAuthProtocol(*authType);
        settings.pdn_level_auth_protocol_valid = 1;
        settings.pdn_level_auth_protocol = convertToVexPdnLevelAuthProtocol(*authType);
    }
    if (apnClass.has_value()) {
        settings.apn_class_3gpp2_valid = 1;
        settings.apn_class_3gpp2 = static_cast<std::uint8_t>(*apnClass);
    }
    if (userName.has_value()) {
        settings.user_id_valid = 1;
        writeText(settings.user_id, *userName);
        settings.pdn_level_user_id_valid = 1;
        writeText(settings.pdn_level_user_id, *userName);
    }
    if (password.has_value()) {
        settings.auth_password_valid = 1;
        writeText(settings.auth_password, *password);
        settings.pdn_level_auth_password_valid = 1;
        writeText(settings.pdn_level_auth_password, *password);
    }
}

wds_create_profile_req_msg_v01 Modem3gpp2Profile::constructAddRequest() const {
    wds_create_profile_req_msg_v01 req;
    updateAddParameters(req);
    req.profile_type = WDS_PROFILE_TYPE_3GPP2_V01;
    fillSettings(req.settings);
    return req;
}

wds_modify_profile_settings_req_msg_v01 Modem3gpp2Profile::constructModifyRequest() const {
    wds_modify_profile_settings_req_msg_v01 req;
    updateModifyParameters(req);
    fillSettings(req.settings);
    return req;
}

}  // namespace kel
