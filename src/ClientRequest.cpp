#include "kel/ClientRequest.h"

#include <ostream>
#include <utility>

#include "DumpText.h"

namespace kel {

namespace {

// A handle's text, or nothing for an empty handle.
std::string keyText(const std::shared_ptr<IProfileKey>& key) {
    return key ? key->dump() : std::string();
}

}  // namespace

void appendText(std::string& out, ReqRespType type) {
    switch (type) {
        case ReqRespType::Add:
            out += "Add";
            return;
        case ReqRespType::Modify:
            out += "Modify";
            return;
        case ReqRespType::Delete:
            out += "Delete";
            return;
        case ReqRespType::Filter:
            out += "Filter";
            return;
        case ReqRespType::Match:
            out += "Match";
            return;
        case ReqRespType::Get:
            out += "Get";
            return;
        case ReqRespType::Callback:
            out += "Callback";
            return;
        case ReqRespType::Refresh:
            out += "Refresh";
            return;
    }
    appendText(out, static_cast<std::int32_t>(type));
}

std::ostream& operator<<(std::ostream& os, ReqRespType type) {
    return os << textOf(type);
}

std::string ClientRequest::dump() {
    std::string text;
    appendText(text, requestType);
    text += ' ';
    return text;
}

AddRequest::AddRequest(AddProfileParams addParams)
    : ClientRequest(ReqRespType::Add), params(std::move(addParams)) {}

std::string AddRequest::dump() {
    return ClientRequest::dump() + params.dump();
}

ModifyRequest::ModifyRequest(ModifyProfileParams modifyParams,
                             std::shared_ptr<IProfileKey> profileKey)
    : ClientRequest(ReqRespType::Modify),
      params(std::move(modifyParams)),
      key(std::move(profileKey)) {}

std::string ModifyRequest::dump() {
    return ClientRequest::dump() + keyText(key) + " " + params.dump();
}

DeleteRequest::DeleteRequest(std::shared_ptr<IProfileKey> profileKey)
    : ClientRequest(ReqRespType::Delete), key(std::move(profileKey)) {}

std::string DeleteRequest::dump() {
    return ClientRequest::dump() + keyText(key);
}

FilterRequest::FilterRequest(FilterProfileParams filterParams)
    : ClientRequest(ReqRespType::Filter), params(std::move(filterParams)) {}

std::string FilterRequest::dump() {
    return ClientRequest::dump() + "params: " + params.dump();
}

MatchRequest::MatchRequest(FilterProfileParams matchParams, std::shared_ptr<IProfileKey> profileKey)
    : ClientRequest(ReqRespType::Match),
      params(std::move(matchParams)),
      key(std::move(profileKey)) {}

std::string MatchRequest::dump() {
    return ClientRequest::dump() + keyText(key) + " " + params.dump();
}

GetRequest::GetRequest(std::shared_ptr<IProfileKey> profileKey)
    : ClientRequest(ReqRespType::Get), key(std::move(profileKey)) {}

std::string GetRequest::dump() {
    return ClientRequest::dump() + keyText(key);
}

void CallbackRequest::setExpirationInfo(std::function<void()> callback,
                                        std::weak_ptr<IProfileKey> profileKey,
                                        unsigned long long token) {
    expirationCb = std::move(callback);
    expirationKey = std::move(profileKey);
    expirationToken = token;
}

bool CallbackRequest::hasExpirationInfo() const {
    return expirationToken.has_value() && expirationCb.has_value() && expirationKey.has_value();
}

std::string CallbackRequest::dump() {
    std::string text = ClientRequest::dump();
    if (hasReleaseToken()) {
        text += "Release ";
        appendText(text, *releaseToken);
    } else if (hasExpirationInfo()) {
        std::shared_ptr<IProfileKey> key = expirationKey->lock();
        // No separator between the handle and the token: kept as log readers know it.
        text += "Register ";
        text += key ? key->dump() : std::string("null");
        appendText(text, *expirationToken);
    }
    return text;
}

}  // namespace kel
