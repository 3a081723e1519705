// Requests: what a client call carries to the library's worker thread. Built by Manager (and by
// a profile handle for CallbackRequest), always held as std::shared_ptr and never changed once
// handed over. Their dumps, logged for every call, carry profile passwords in clear.
#ifndef KEL_CLIENT_REQUEST_H
#define KEL_CLIENT_REQUEST_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "kel/IProfileKey.h"
#include "kel/ProfileParams.h"

namespace kel {

// The kind of a request and of its response; values outside 0..7 print as their number.
enum class ReqRespType : std::int32_t {
    Add = 0,
    Modify = 1,
    Delete = 2,
    Filter = 3,
    Match = 4,
    Get = 5,
    Callback = 6,
    Refresh = 7,
};

// Phase of the modem's persistent-configuration refresh; every nonzero value means Completed.
enum class PDCRefreshStatus : std::uint8_t {
    Started = 0,
    Completed = 1,
};

KEL_EXPORT std::ostream& operator<<(std::ostream& os, ReqRespType type);

class KEL_EXPORT ClientRequest {
  public:
    explicit ClientRequest(ReqRespType type) : requestType(type) {}
    virtual ~ClientRequest() = default;
    // The printed type name and a blank.
    virtual std::string dump();
    ReqRespType getRequestType() const { return requestType; }

  private:
    ReqRespType requestType;
};

class KEL_EXPORT AddRequest : public ClientRequest {
  public:
    explicit AddRequest(AddProfileParams params);
    std::string dump() override;
    AddProfileParams getAddProfileParams() const { return params; }

  private:
    AddProfileParams params;
};

class KEL_EXPORT ModifyRequest : public ClientRequest {
  public:
    ModifyRequest(ModifyProfileParams params, std::shared_ptr<IProfileKey> key);
    std::string dump() override;
    ModifyProfileParams getModifyProfileParams() const { return params; }
    std::shared_ptr<IProfileKey> getModifyProfileKey() const { return key; }

  private:
    ModifyProfileParams params;
    std::shared_ptr<IProfileKey> key;
};

class KEL_EXPORT DeleteRequest : public ClientRequest {
  public:
    explicit DeleteRequest(std::shared_ptr<IProfileKey> key);
    std::string dump() override;
    std::shared_ptr<IProfileKey> getDeleteProfileKey() const { return key; }

  private:
    std::shared_ptr<IProfileKey> key;
};

class KEL_EXPORT FilterRequest : public ClientRequest {
  public:
    explicit FilterRequest(FilterProfileParams params);
    std::string dump() override;
    FilterProfileParams getFilterParams() const { return params; }

  private:
    FilterProfileParams params;
};

class KEL_EXPORT MatchRequest : public ClientRequest {
  public:
    MatchRequest(FilterProfileParams params, std::shared_ptr<IProfileKey> key);
    std::string dump() override;
    FilterProfileParams getMatchParams() const { return params; }
    std::shared_ptr<IProfileKey> getMatchKey() const { return key; }

  private:
    FilterProfileParams params;
    std::shared_ptr<IProfileKey> key;
};

class KEL_EXPORT GetRequest : public ClientRequest {
  public:
    explicit GetRequest(std::shared_ptr<IProfileKey> key);
    std::string dump() override;
    std::shared_ptr<IProfileKey> getProfileKey() const { return key; }

  private:
    std::shared_ptr<IProfileKey> key;
};

// Sent by a profile handle: the release of the handle, or the registration of an expiration
// listener. Filled by its setters before it is sent.
class KEL_EXPORT CallbackRequest : public ClientRequest {
  public:
    CallbackRequest() : ClientRequest(ReqRespType::Callback) {}
    std::string dump() override;

    void setReleaseToken(unsigned long long token) { releaseToken = token; }
    void setExpirationInfo(std::function<void()> callback, std::weak_ptr<IProfileKey> key,
                           unsigned long long token);
    bool hasReleaseToken() const { return releaseToken.has_value(); }
    // True only when the callback, the handle and the token are all present.
    bool hasExpirationInfo() const;

    // Read without checking; test hasReleaseToken() / hasExpirationInfo() first.
    unsigned long long getReleaseToken() const { return releaseToken.value_or(0); }
    unsigned long long getExpirationToken() const { return expirationToken.value_or(0); }
    std::function<void()> getExpirationCb() const {
        return expirationCb.value_or(std::function<void()>());
    }
    std::weak_ptr<IProfileKey> getExpirationKey() const {
        return expirationKey.value_or(std::weak_ptr<IProfileKey>());
    }

  private:
    std::optional<unsigned long long> releaseToken;
    std::optional<unsigned long long> expirationToken;
    std::optional<std::function<void()>> expirationCb;
    std::optional<std::weak_ptr<IProfileKey>> expirationKey;
};

class KEL_EXPORT RefreshRequest : public ClientRequest {
  public:
    explicit RefreshRequest(PDCRefreshStatus status)
        : ClientRequest(ReqRespType::Refresh), refreshStatus(status) {}

    // Read directly by the request manager.
    PDCRefreshStatus refreshStatus;
};

}  // namespace kel

#endif  // KEL_CLIENT_REQUEST_H
