// Responses: what the worker thread answers to a request. Always held as std::shared_ptr.
#ifndef KEL_CLIENT_RESPONSE_H
#define KEL_CLIENT_RESPONSE_H

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "kel/ClientRequest.h"
#include "kel/IProfileKey.h"
#include "kel/ProfileParams.h"

namespace kel {

// Outcome of a request; other values print as their number.
enum class Status : std::int32_t {
    Success = 0,
    Failure = 1,
};

KEL_EXPORT std::ostream& operator<<(std::ostream& os, Status status);

class KEL_EXPORT ClientResponse {
  public:
    explicit ClientResponse(ReqRespType type) : responseType(type) {}
    virtual ~ClientResponse() = 0;
    // The printed type name, a blank and the status.
    virtual std::string dump();
    ReqRespType getResponseType() const { return responseType; }
    Status getStatus() const { return status; }

  protected:
    Status status = Status::Failure;

  private:
    ReqRespType responseType;
};

class KEL_EXPORT AddResponse : public ClientResponse {
  public:
    AddResponse(Status status, std::shared_ptr<IProfileKey> key);
    std::string dump() override;
    // Empty when nothing was added.
    std::shared_ptr<IProfileKey> getAddProfileKey() const { return key; }

  private:
    std::shared_ptr<IProfileKey> key;
};

class KEL_EXPORT ModifyResponse : public ClientResponse {
  public:
    explicit ModifyResponse(Status status);
};

class KEL_EXPORT DeleteResponse : public ClientResponse {
  public:
    explicit DeleteResponse(Status status);
};

class KEL_EXPORT FilterResponse : public ClientResponse {
  public:
    FilterResponse(Status status, std::list<std::shared_ptr<IProfileKey>> result);
    std::string dump() override;
    std::list<std::shared_ptr<IProfileKey>> getFilterResult() const { return result; }

  private:
    std::list<std::shared_ptr<IProfileKey>> result;
};

class KEL_EXPORT MatchResponse : public ClientResponse {
  public:
    MatchResponse(Status status, bool matchResult);
    std::string dump() override;
    bool getMatchResult() const { return matchResult; }

  private:
    bool matchResult;
};

class KEL_EXPORT GetResponse : public ClientResponse {
  public:
    GetResponse(Status status, std::optional<ProfileParams> params);
    std::string dump() override;
    std::optional<ProfileParams> getParams() const { return params; }

  private:
    std::optional<ProfileParams> params;
};

class KEL_EXPORT CallbackResponse : public ClientResponse {
  public:
    explicit CallbackResponse(Status status);
};

class KEL_EXPORT RefreshResponse : public ClientResponse {
  public:
    explicit RefreshResponse(Status status);
};

}  // namespace kel

#endif  // KEL_CLIENT_RESPONSE_H
