// The library's entry point: one process-wide Manager through which a client adds, modifies,
// deletes, reads, filters and matches the modem's packet-data profiles.
//
// Call init() once (again to switch subscription or log), before any other call and not
// concurrently with one. Every other method may be called on any client thread, never on the
// library's worker thread (that is: not from an expiration listener); each blocks until the
// library has answered. Calls from several threads are served one after the other. Nothing is
// thrown: failure comes back as an empty handle, false, an empty list or an empty optional, and
// the reason goes to the log.
#ifndef KEL_MANAGER_H
#define KEL_MANAGER_H

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kel/ClientRequest.h"
#include "kel/IProfileKey.h"
#include "kel/ProfileParams.h"

namespace kel {

class ClientRequestManager;

class KEL_EXPORT Manager {
  public:
    Manager();
    ~Manager();
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    static Manager& getInstance();

    // Serves subscriptionId (0 for the first) and logs to Android's log when useAdbLog is true,
    // to the modem diagnostics log otherwise. Replaces an earlier pipeline.
    void init(int subscriptionId, bool useAdbLog);

    // The new profile's handle; empty when the modem refused it or a refresh is in progress.
    std::shared_ptr<IProfileKey> addProfile(const AddProfileParams& params);
    bool modifyProfile(const ModifyProfileParams& params, std::shared_ptr<IProfileKey> key);
    // Deletes the profile from the modem, whoever created it; every handle to it expires.
    bool deleteProfile(std::shared_ptr<IProfileKey> key);
    // Handles of every cached profile that matches.
    std::list<std::shared_ptr<IProfileKey>> filter(const FilterProfileParams& params);
    std::optional<ProfileParams> getProfile(std::shared_ptr<IProfileKey> key);
    bool match(const FilterProfileParams& params, std::shared_ptr<IProfileKey> key);
    // Report the modem's persistent-configuration refresh: Started closes the library to profile
    // operations, Completed reopens it and re-reads the modem's profiles.
    void refresh(PDCRefreshStatus status);
    // The cache, an empty line, "Logs:", then the log history.
    std::vector<std::string> dump();

  private:
    std::unique_ptr<ClientRequestManager> clientRequestManager;
};

}  // namespace kel

#endif  // KEL_MANAGER_H
