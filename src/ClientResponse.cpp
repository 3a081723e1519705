#include "kel/ClientResponse.h"

#include <sstream>
#include <utility>

namespace kel {

std::ostream& operator<<(std::ostream& os, Status status) {
    switch (status) {
        case Status::Success:
            return os << "Success";
        case Status::Failure:
            return os << "Failure";
    }
    return os << static_cast<std::int32_t>(status);
}

// Pure, so that only the typed responses can be made, but every subclass still destroys it.
ClientResponse::~ClientResponse() = default;

std::string ClientResponse::dump() {
    std::ostringstream os;
    os << responseType << " " << status;
    return os.str();
}

AddResponse::AddResponse(Status responseStatus, std::shared_ptr<IProfileKey> profileKey)
    : ClientResponse(ReqRespType::Add), key(std::move(profileKey)) {
    status = responseStatus;
}

std::string AddResponse::dump() {
    return ClientResponse::dump() + " " + (key ? key->dump() : std::string());
}

ModifyResponse::ModifyResponse(Status responseStatus) : ClientResponse(ReqRespType::Modify) {
    status = responseStatus;
}

DeleteResponse::DeleteResponse(Status responseStatus) : ClientResponse(ReqRespType::Delete) {
    status = responseStatus;
}

FilterResponse::FilterResponse(Status responseStatus, std::list<std::shared_ptr<IProfileKey>> keys)
    : ClientResponse(ReqRespType::Filter), result(std::move(keys)) {
    status = responseStatus;
}

std::string FilterResponse::dump() {
    std::string text = ClientResponse::dump() + " ";
    // Every handle, the last included, is followed by a comma; log readers rely on the form.
    for (const std::shared_ptr<IProfileKey>& key : result) {
        text += (key ? key->dump() : std::string("null")) + ",";
    }
    return text;
}

MatchResponse::MatchResponse(Status responseStatus, bool match)
    : ClientResponse(ReqRespType::Match), matchResult(match) {
    status = responseStatus;
}

std::string MatchResponse::dump() {
    return ClientResponse::dump() + " " + (matchResult ? "true" : "false");
}

GetResponse::GetResponse(Status responseStatus, std::optional<ProfileParams> profileParams)
    : ClientResponse(ReqRespType::Get), params(std::move(profileParams)) {
    status = responseStatus;
}

std::string GetResponse::dump() {
    return ClientResponse::dump() + " " + (params ? params->dump() : std::string());
}

CallbackResponse::CallbackResponse(Status responseStatus) : ClientResponse(ReqRespType::Callback) {
    status = responseStatus;
}

RefreshResponse::RefreshResponse(Status responseStatus) : ClientResponse(ReqRespType::Refresh) {
    status = responseStatus;
}

}  // namespace kel
