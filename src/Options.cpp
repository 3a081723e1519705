#include "kel/Options.h"

#include "DumpText.h"

namespace kel {

namespace {

// How long an echo is expected once safe mode is on: the modem sends it within milliseconds,
// so ten seconds leave room for a worker busy with a long refresh.
constexpr std::uint32_t kSafeEchoExpiryMs = 10000;
// Timed-out reads in a row after which a refresh stops reading; one or two may be bad luck.
constexpr std::uint32_t kSafeRefreshGiveUp = 3;

}  // namespace

Options Options::safe() {
    Options options;
    options.reclaim = true;
    options.echoExpiryMs = kSafeEchoExpiryMs;
    options.refreshGiveUpAfterTimeouts = kSafeRefreshGiveUp;
    options.continueAfterMalformedIndication = true;
    options.failFastWhileUnbound = true;
    options.retryClientCreation = true;
    return options;
}

bool Options::anyOn() const {
    return *this != Options();
}

std::string Options::dump() const {
    std::string text = "Reclaim=";
    appendText(text, reclaim);
    text += ",EchoExpiryMs=";
    appendText(text, echoExpiryMs);
    text += ",RefreshGiveUpAfterTimeouts=";
    appendText(text, refreshGiveUpAfterTimeouts);
    text += ",ContinueAfterMalformedIndication=";
    appendText(text, continueAfterMalformedIndication);
    text += ",FailFastWhileUnbound=";
    appendText(text, failFastWhileUnbound);
    text += ",RetryClientCreation=";
    appendText(text, retryClientCreation);
    text += ',';
    return text;
}

bool Options::operator==(const Options& other) const {
    return reclaim == other.reclaim && echoExpiryMs == other.echoExpiryMs &&
           refreshGiveUpAfterTimeouts == other.refreshGiveUpAfterTimeouts &&
           continueAfterMalformedIndication == other.continueAfterMalformedIndication &&
           failFastWhileUnbound == other.failFastWhileUnbound &&
           retryClientCreation == other.retryClientCreation;
}

}  // namespace kel
