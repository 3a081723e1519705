#include "ProfileKey.h"

#include <utility>

#include "DumpText.h"
#include "LocalLogBuffer.h"

namespace kel {

ProfileKey::ProfileKey(TechType keyTechType, int keyProfileId, unsigned long long keyToken,
                       SendRequestFn send)
    : techType(keyTechType),
      profileId(keyProfileId),
      token(keyToken),
      sendRequest(std::move(send)) {}

ProfileKey::~ProfileKey() {
    // The cache always gives a handle a pipeline; without one there is nobody to tell, and a
    // destructor must not throw.
    if (sendRequest) {
        auto request = std::make_shared<CallbackRequest>();
        request->setReleaseToken(token);
        // A release cannot fail from the client's point of view: the response is not read.
        sendRequest(request);
    }
    KEL_LOG(Debug, "~ProfileKey");
}

int ProfileKey::getProfileId() {
    return profileId;
}

TechType ProfileKey::getTechType() {
    return techType;
}

void ProfileKey::registerExpirationListener(std::function<void()> callback) {
    // As in the release: without a pipeline nobody can take it, and a client is never thrown at.
    if (!sendRequest) {
        return;
    }
    auto request = std::make_shared<CallbackRequest>();
    request->setExpirationInfo(std::move(callback), weak_from_this(), token);
    // The worker always answers a registration with Failure; there is nothing to act on.
    sendRequest(request);
}

std::string ProfileKey::dump() {
    std::string text;
    appendText(text, techType);
    text += ':';
    appendText(text, profileId);
    text += " token=";
    appendText(text, token);
    return text;
}

}  // namespace kel
