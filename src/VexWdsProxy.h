// The library's only connection to the modem's wireless data service (WDS): waits for the
// service, connects a vex client, binds it to the subscription, registers for profile-changed
// indications, recovers when the modem goes down, and sends the five profile messages.
//
// Threads: the vex callbacks (vexNotifyCb, vexIndCb, vexErrorCb) run on the vex library's thread
// and only signal an eventfd (vexIndCb also queues under indMutex); everything else, the profile
// operations and the registered indication callback included, runs on the worker thread.
#ifndef KEL_VEX_WDS_PROXY_H
#define KEL_VEX_WDS_PROXY_H

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "EventFd.h"
#include "EventManager.h"
#include "ModemProfile.h"
#include "ModemStatusBoard.h"
#include "kel/Options.h"
#include "kel/Outcome.h"
#include "kel/ProfileParams.h"
#include "vex/vex_client.h"
#include "vex/wireless_data_service_v01.h"

namespace kel {

enum class ProfileChangedEvent : std::int32_t {
    Create = 0,
    Delete = 1,
    Modify = 2,
    SubscriptionChange = 3,
    ProfileReady = 4,
};

// A decoded profile-changed indication, as the cache sees it.
struct ProfileChangedInd {
    TechType techType = TechType::TYPE_3GPP;
    int profileId = 0;
    ProfileChangedEvent event = ProfileChangedEvent::Create;

    // "3GPP:5 Modify"; values without a name print as their number.
    std::string dump() const;
    bool operator==(const ProfileChangedInd& other) const {
        return techType == other.techType && profileId == other.profileId && event == other.event;
    }
};

class VexWdsProxy {
  public:
    using ProfileChangedIndCb = std::function<void(ProfileChangedInd)>;

    // One indication as the vex thread queued it, waiting for the worker.
    struct IndInfo_t {
        vex_client_type userHandle = nullptr;
        unsigned int msgId = 0;
        std::vector<std::uint8_t> indBuf;  // a copy, so vex may reuse its buffer at once
        unsigned int indBufLen = 0;
        VexWdsProxy* proxy = nullptr;  // borrowed: the proxy outlives its queue
    };

    // Registers the three eventfds with eventManager (which must outlive the proxy) and arms
    // the service-up notifier.
    VexWdsProxy(EventManager& eventManager, int subscriptionId, const Options& options = Options());
    ~VexWdsProxy();
    VexWdsProxy(const VexWdsProxy&) = delete;
    VexWdsProxy& operator=(const VexWdsProxy&) = delete;

    // Replaces the callback that receives decoded profile-changed indications.
    void registerProfileChangedInd(ProfileChangedIndCb callback);

    // Creates the profile on the modem; on success the profile carries its new profile id.
    bool add(ModemProfile& profile);
    // Sends profile's settings as a modification of (techType, profileId).
    bool modify(ModemProfile& profile, TechType techType, int profileId);
    bool remove(TechType techType, int profileId);
    // The modem's settings of one profile; empty when it cannot be read.
    std::shared_ptr<ModemProfile> get(TechType techType, int profileId);
    // Every profile, 3GPP first, then 3GPP2; an entry is empty where its read failed. Empty at
    // once while there is no client. *listsRead (when given) tells whether both profile lists
    // were read, *unread (when given) which listed profiles could not be read.
    std::list<std::shared_ptr<ModemProfile>> getAllProfiles(
        bool* listsRead = nullptr, std::vector<ModemStatus::ProfileRef>* unread = nullptr);

    // What the latest failed message tells a caller: refused (with the modem's error), no answer
    // in time, or no link. Done when none failed since the last take. Worker thread only.
    Outcome takeFailure();

    // The link's status, published here on the worker thread; read it on any thread.
    ModemStatusBoard& getStatusBoard() { return statusBoard; }

  private:
    static void handleSvcUp(int fd, void* data);
    static void handleError(int fd, void* data);
    static void handleIndication(int fd, void* data);
    static void vexNotifyCb(vex_client_type handle, vex_idl_service_object_type serviceObj,
                            vex_client_notify_event_type event, void* data);
    static void vexIndCb(vex_client_type handle, unsigned int msgId, void* buf, unsigned int len,
                         void* data);
    static void vexErrorCb(vex_client_type handle, vex_client_error_type error, void* data);

    void registerVexSvcUp();
    void onSvcUp();
    void onModemDown();
    void registerVexIndications();
    void drainIndications();
    void handleProfileChangedInd(const wds_profile_changed_ind_type_v01& ind);
    // Sends one request and waits for its response (every response starts with the result
    // words); true only when the send and the modem's result both succeed.
    template <typename Req, typename Resp>
    bool sendSync(unsigned int msgId, Req& req, Resp& resp) {
        const vex_client_error_type rc = vex_client_send_msg_sync(client, msgId, &req, sizeof(req),
                                                                  &resp, sizeof(resp), kTimeoutMs);
        return countOutcome(msgId, rc, resp.resp.result == VEX_RESULT_SUCCESS_V01, resp.resp.error);
    }
    // Whether a message succeeded; a failed one is counted in the status and kept as the latest
    // failure.
    bool countOutcome(unsigned int msgId, vex_client_error_type rc, bool resultSuccess,
                      std::int32_t modemError);

    // Counts a read that got no answer in timeouts (a read that did resets it); true once the
    // refresh is to give up its reads.
    bool tooManyTimeouts(bool read, std::uint32_t& timeouts);

    static constexpr unsigned int kTimeoutMs = 1000;

    EventManager& eventManager;  // the worker's loop; outlives the proxy
    const Options options;
    const int subscriptionId;
    const vex_idl_service_object_type serviceObject;  // null: the proxy never connects
    vex_client_type client = nullptr;                 // worker thread only
    vex_client_type notifierClient = nullptr;         // worker thread (and construction) only
    vex_client_os_params osParams{};
    std::deque<std::unique_ptr<IndInfo_t>> indQueue;  // guarded by indMutex; oldest first
    std::mutex indMutex;                              // guards indQueue
    EventFd svcUpFd;
    EventFd errorFd;
    EventFd indFd;
    ProfileChangedIndCb profileChangedIndCb;
    ModemStatusBoard statusBoard;
    Outcome failure;            // worker thread only; the latest failed message since takeFailure
    bool lastTimedOut = false;  // worker thread only; the latest message got no answer in time
};

}  // namespace kel

#endif  // KEL_VEX_WDS_PROXY_H
