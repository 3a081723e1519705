// The simulated modem: serves WDS over a UNIX-domain socket in a service directory, as a modem
// does, for any number of vex clients at once. Embedded in a test or a tool, or run as vex-modemd.
//
// Per subscription it keeps a 3GPP and a 3GPP2 profile table of fixed capacity; indexes are
// assigned lowest-free from 1. Persistent profiles survive stop()/start() (and, with a state
// file, a new process); non-persistent ones do not.
//
// Threads: every public method may be called from any thread. The modem serves its clients on
// its own threads.
#ifndef VEXSIM_SIM_MODEM_H
#define VEXSIM_SIM_MODEM_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vex/wireless_data_service_v01.h"

namespace vexsim {

struct Config {
    // Where the service socket is created; empty means the clients' default ($VEX_SERVICE_DIR,
    // else $XDG_RUNTIME_DIR/vex-services, else /tmp/vex-services-UID). Created 0700 when missing;
    // an existing one must be a real directory of the modem's user that nobody else may write.
    std::string serviceDir;
    // Initial profiles, as a carrier-provisioned modem ships with them (see the seed format
    // below). Read on the first start, when no state file holds profiles yet.
    std::string seedFile;
    std::string seedText;  // used when seedFile is empty
    // Persistent profiles are saved here on every change and loaded on start; empty: they
    // survive stop()/start() in memory only. Written with mode 0600 through a fresh temporary
    // file; a symbolic link or anything but a regular file at this path keeps the modem down.
    std::string stateFile;
    int subscriptions = 2;
    int capacity3gpp = 24;
    int capacity3gpp2 = 8;
    // Send a profiles-ready indication to a client once its registration is complete (bound,
    // indications registered, event list configured).
    bool profilesReadyOnRegister = true;
};

// One profile as the modem holds it.
struct Profile {
    int subscription = 0;
    wds_profile_type_enum_v01 type = WDS_PROFILE_TYPE_3GPP_V01;
    uint8_t index = 0;
    bool persistent = false;
    // Only the fields of the profile's family are valid.
    wds_profile_settings_v01 settings{};
};

// A connected client as the modem sees it.
struct ClientInfo {
    int id = 0;
    bool notifierOnly = false;  // a notifier connection, not a WDS client
    bool bound = false;
    int subscription = 0;
    bool indicationsRegistered = false;  // asked for profile-changed indications
    bool eventListConfigured = false;    // configured which profile events it hears
    bool profilesReadySent = false;
    uint64_t requestsServed = 0;
    uint64_t indicationsSent = 0;
    unsigned int lastMessageId = 0;
};

class SimModem {
  public:
    explicit SimModem(Config config);
    ~SimModem();  // stops the modem
    SimModem(const SimModem&) = delete;
    SimModem& operator=(const SimModem&) = delete;

    // Comes up: loads the state (or the seed), listens. False with a reason in *error.
    bool start(std::string* error = nullptr);
    // Goes down: the socket is removed, then every connection closed (a client reconnecting at
    // once finds no service); non-persistent profiles are lost.
    void stop();
    bool isUp() const;
    std::string serviceDir() const;

    // --- Faults ---
    // The next count requests (only those with msgId, when given) are answered with a failed
    // result and the given error.
    void failNext(int count, std::optional<unsigned int> msgId = std::nullopt,
                  int error = VEX_ERR_INTERNAL_V01);
    // Every response (only to msgId, when given) is held back this long; zero turns it off.
    void setResponseDelay(std::chrono::milliseconds delay,
                          std::optional<unsigned int> msgId = std::nullopt);
    // The next count profile-changed notices (about a profile or not) reach no client, as if
    // lost on the way.
    void loseNextIndications(int count);
    // Closes a client's connection as a crashing modem link would.
    bool dropClient(int clientId);
    // Toggles Config::profilesReadyOnRegister at run time.
    void setProfilesReadyOnRegister(bool enabled);
    // Every profile list claims count entries whatever it holds, as a broken modem might, even
    // more than its record can hold; entries past the real ones are zero. Zero turns it off.
    void overstateProfileLists(uint32_t count);

    // --- Changes made as another client would make them; registered clients are told ---
    // Returns the assigned index, or nothing when the table is full or the input is invalid.
    std::optional<uint8_t> createProfile(int subscription, wds_profile_type_enum_v01 type,
                                         const wds_profile_settings_v01& settings, bool persistent);
    // Applies the valid fields of changes.
    bool modifyProfile(int subscription, wds_profile_type_enum_v01 type, uint8_t index,
                       const wds_profile_settings_v01& changes);
    bool deleteProfile(int subscription, wds_profile_type_enum_v01 type, uint8_t index);
    void announceSubscriptionChange(int subscription);
    void announceProfilesReady(int subscription);
    // Indications that test a client's robustness.
    void sendUnknownIndication(int subscription, unsigned int msgId);
    void sendMalformedIndication(int subscription);
    // A profile-changed indication without a byte of content, which a client rejects on arrival.
    void sendEmptyIndication(int subscription);
    // count profile-changed indications (modify events of existing profiles) back to back.
    void sendIndicationBurst(int subscription, int count);

    // --- Observation ---
    std::vector<Profile> profiles(int subscription) const;
    std::optional<Profile> profile(int subscription, wds_profile_type_enum_v01 type,
                                   uint8_t index) const;
    std::vector<ClientInfo> clients() const;
    // Waits until predicate() holds, re-evaluating it whenever the modem's state changes (a
    // request served, a client connected or gone, an indication sent). False on timeout.
    bool waitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

// Seed and state files: one profile per line, '#' starts a comment.
//   profile 3gpp|3gpp2 [sub=N] [index=N] [persistent=yes|no] key=value ...
// 3GPP keys: name, apn, pdp (ipv4|ipv6|ipv4v6|ppp), common_pdp, lte_roam, umts_roam
// (ipv4|ipv6|ipv4v6), user, password, auth (none|pap|chap|pap_chap), class (number),
// emergency (yes|no), apn_disabled (yes|no), max_pdn_conn_per_block, max_pdn_conn_timer,
// pdn_req_wait_interval (numbers), types, clat (yes|no).
// 3GPP2 keys: apn, pdn (ipv4|ipv6|ipv4v6|unspec), user, password, auth, class, types, clat.
// types: modem APN-type names joined by ',' (default, ims, mms, dun, supl, hipri, fota, cbs,
// ia, emergency, xcap, mcx) or a number such as 0x41. Values with blanks go in double quotes.
// index defaults to the lowest free one, persistent to yes.

// Parses "profile ..." lines; false with "line N: reason" in *error.
bool parseProfiles(const std::string& text, std::vector<Profile>* out, std::string* error);
// One "profile ..." line (without newline) that parseProfiles reads back to the same profile.
std::string formatProfile(const Profile& profile);

}  // namespace vexsim

#endif  // VEXSIM_SIM_MODEM_H
