// Uses the installed library as a client would: builds and prints a parameter set and reads the
// facade's dump and the modem status, which work before init.
#include <kel/Manager.h>
#include <kel/ProfileParams.h>

#include <chrono>
#include <iostream>
#include <string>
#include <vector>

int main() {
    kel::ProfileParams params;
    params.setApnName("ims");
    params.setHomeIPType(kel::IPType::V4V6);
    params.setApnTypesMask(static_cast<unsigned int>(kel::ApnTypes::IMS));
    std::cout << "params: " << params.dump() << '\n';

    kel::Manager& manager = kel::Manager::getInstance();
    // Before init every operation fails and says so in the history that dump returns.
    if (!manager.filter(kel::FilterProfileParams()).empty()) {
        std::cerr << "filter before init returned profiles\n";
        return 1;
    }
    if (manager.getModemStatus() || manager.waitForModem(std::chrono::milliseconds(0))) {
        std::cerr << "a modem status before init\n";
        return 1;
    }
    std::cout << "status: " << kel::ModemStatus().dump() << '\n';
    std::vector<std::string> lines = manager.dump();
    for (const std::string& line : lines) {
        std::cout << "dump: " << line << '\n';
    }
    const std::string failure = "Manager not initialized!";
    if (lines.size() < 3 || !lines[0].empty() || lines[1] != "Logs:" ||
        lines.back().size() < failure.size() ||
        lines.back().compare(lines.back().size() - failure.size(), failure.size(), failure) != 0) {
        std::cerr << "unexpected dump\n";
        return 1;
    }
    return 0;
}
