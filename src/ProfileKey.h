// The handle clients hold: names one profile cache entry by its token. The handle never touches
// the cache; its release and its listener registrations travel as CallbackRequests through the
// request pipeline's send function.
//
// Threads: client threads. Members are fixed at construction, so no lock is needed; the send
// function blocks until the worker has answered, so a handle must never be released or used on
// the worker thread.
#ifndef KEL_PROFILE_KEY_H
#define KEL_PROFILE_KEY_H

#include <functional>
#include <memory>
#include <string>

#include "kel/ClientRequest.h"
#include "kel/ClientResponse.h"
#include "kel/IProfileKey.h"

namespace kel {

// Submits a request to the worker thread and returns its response.
using SendRequestFn =
    std::function<std::shared_ptr<ClientResponse>(std::shared_ptr<ClientRequest>)>;

class ProfileKey : public IProfileKey {
  public:
    // Always create with std::make_shared: listener registration needs a weak pointer to itself.
    ProfileKey(TechType techType, int profileId, unsigned long long token,
               SendRequestFn sendRequest);
    // Sends the release of the token and waits for the worker to take it.
    ~ProfileKey() override;

    // A copy would release the same reference twice.
    ProfileKey(const ProfileKey&) = delete;
    ProfileKey& operator=(const ProfileKey&) = delete;

    int getProfileId() override;
    TechType getTechType() override;
    void registerExpirationListener(std::function<void()> callback) override;
    // "3GPP:3 token=12".
    std::string dump() override;

    unsigned long long getToken() const { return token; }

  private:
    const TechType techType;
    const int profileId;
    const unsigned long long token;
    const SendRequestFn sendRequest;
};

}  // namespace kel

#endif  // KEL_PROFILE_KEY_H
