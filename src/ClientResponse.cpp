#include "kel/ClientResponse.h"

#include <ostream>
#include <utility>

#include "DumpText.h"

namespace kel {

void appendText(std::string& out, Status status) {
    switch (status) {
        case Status::Success:
            out += "Success";
            return;
        case Status::Failure:
            out += "Failure";
            return;
    }
    appendText(out, static_cast<std::int32_t>(status));
}

std::ostream& operator<<(std::ostream& os, Status status) {
    return os << textOf(status);
}

// Pure, so that only the typed responses can be made, but every subclass still destroys it.
ClientResponse::~ClientResponse() = default;

std::string ClientResponse::dump() {
    std::string text;
    appendText(text, responseType);
    text += ' ';
    appendText(text, status);
    return text;
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
