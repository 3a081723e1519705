// The handle a client holds for one of the modem's profiles. Returned by Manager::addProfile
// and Manager::filter, always as a std::shared_ptr.
//
// While a client holds a handle, the profile behind it stays on the modem; when the last copy of
// a handle to a profile the library created (non-persistent) is dropped, the library deletes the
// profile.
//
// Dropping the last copy of a handle blocks until the library has taken the release, so drop
// handles on a client thread. Dropped inside an expiration listener (the worker thread), the
// release is refused with an Error line and the profile stays on the modem.
//
// A handle expires when its profile is deleted, when Manager::refresh (Completed) or the modem
// makes the library re-read its profiles, and when its pipeline is replaced (Manager::init again)
// or torn down (the Manager destroyed, the process exiting). An expired handle's calls fail or do
// nothing, and dropping it deletes nothing: a non-persistent profile the library added stays on
// the modem once its handles have expired this way.
#ifndef KEL_IPROFILE_KEY_H
#define KEL_IPROFILE_KEY_H

#include <functional>
#include <memory>
#include <string>

#include "kel/ProfileParams.h"

namespace kel {

class KEL_EXPORT IProfileKey : public std::enable_shared_from_this<IProfileKey> {
  public:
    virtual ~IProfileKey() = default;
    // The modem's profile index.
    virtual int getProfileId() = 0;
    virtual TechType getTechType() = 0;
    // Asks to be told, once, when the profile behind this handle goes away (deleted, the library
    // re-read the modem, or the pipeline was torn down) while this handle is still held. The
    // callback runs on the library's worker thread: it must not call into Manager or drop the last
    // copy of a handle; such calls are refused with an Error line and fail (Manager::init does
    // nothing). Reading Manager::getModemStatus and Manager::dump is allowed. What the callback
    // throws is caught and logged at Error; the other listeners still run. Call on a client
    // thread; blocks until the library has taken the registration.
    virtual void registerExpirationListener(std::function<void()> callback) = 0;
    // "3GPP:3 token=12".
    virtual std::string dump() = 0;
};

}  // namespace kel

#endif  // KEL_IPROFILE_KEY_H
