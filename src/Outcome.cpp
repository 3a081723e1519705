#include "kel/Outcome.h"

#include <cstdio>

namespace kel {

const char* Outcome::name(Kind kind) {
    switch (kind) {
        case Kind::Done:
            return "done";
        case Kind::Refused:
            return "refused by the modem";
        case Kind::NoAnswer:
            return "no answer in time";
        case Kind::NoLink:
            return "no modem link";
        case Kind::NotBound:
            return "not bound";
        case Kind::RefreshInProgress:
            return "refresh in progress";
        case Kind::NotInitialized:
            return "not initialised";
        case Kind::InvalidArguments:
            return "invalid arguments";
        case Kind::Failed:
            return "failed in the library";
    }
    return "unknown";
}

std::string Outcome::dump() const {
    std::string text = name(kind);
    char detail[64];
    if (kind == Kind::Refused) {
        std::snprintf(detail, sizeof(detail), ": message 0x%04x, error 0x%04x", messageId,
                      modemError);
        text += detail;
    } else if (kind == Kind::NoAnswer) {
        std::snprintf(detail, sizeof(detail), ": message 0x%04x", messageId);
        text += detail;
    }
    return text;
}

}  // namespace kel
