// kelctl carrier's local work, which must stay linear in the entries of the file: reading and
// checking a carrier database of one network, merging its entries, and spreading their APN types
// over a modem's profiles. The modem itself is not asked: its round trips do not grow with the
// file.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "Carrier.h"
#include "CarrierPlan.h"

namespace {

// A network of n entries shaped like a real database: APNs repeated for other bearers, with and
// without ia, and a few virtual operators beside them.
std::string carrierFile(int n) {
    std::string text = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<apns version=\"8\">\n";
    for (int i = 0; i < n; ++i) {
        const int apn = i % (n / 4 + 1);
        text += "  <apn carrier=\"Net " + std::to_string(i) +
                "\" mcc=\"262\" mnc=\"01\" apn=\"apn" + std::to_string(apn) + ".example\" type=\"" +
                (i % 3 == 0 ? "default,supl,ia" : "default,supl,mms") + "\" protocol=\"" +
                (i % 2 == 0 ? "IPV4V6" : "IP") +
                "\" roaming_protocol=\"IPV4V6\" network_type_bitmask=\"" + std::to_string(i % 5) +
                "\"" + (i % 50 == 0 ? " mvno_type=\"gid\" mvno_match_data=\"2A\"" : "") +
                " max_conns=\"" + std::to_string(i % 20) + "\" />\n";
    }
    return text + "</apns>\n";
}

std::vector<kelctl::ProfileRow> modemProfiles() {
    std::vector<kelctl::ProfileRow> rows;
    for (int id = 1; id <= 24; ++id) {
        kelctl::ProfileRow row;
        row.id = id;
        row.params.setApnName("apn" + std::to_string(id * 7) + ".example");
        row.params.setHomeIPType(id % 2 == 0 ? kel::IPType::V4V6 : kel::IPType::V4);
        row.params.setApnTypesMask(1);
        rows.push_back(row);
    }
    return rows;
}

void BM_CarrierParseAndPlan(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    char path[] = "/tmp/kel-bench-carrier-XXXXXX";
    const int fd = ::mkstemp(path);
    if (fd < 0) {
        state.SkipWithError("no temporary file");
        return;
    }
    ::close(fd);
    std::ofstream(path) << carrierFile(n);
    const kelctl::CarrierSelector network{"262", "01", "", ""};
    const auto rows = modemProfiles();
    for (auto _ : state) {
        kelctl::CarrierSelection selection;
        std::string error;
        if (!kelctl::loadCarrier(path, network, &selection, &error)) {
            state.SkipWithError(error.c_str());
            break;
        }
        kelctl::TypeSpread plan(rows, false);
        plan.spread(selection.typeUpdates());
        benchmark::DoNotOptimize(plan.state().size());
    }
    state.SetItemsProcessed(state.iterations() * n);
    state.SetComplexityN(n);
    std::remove(path);
}

BENCHMARK(BM_CarrierParseAndPlan)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(40000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oN);

}  // namespace
BENCHMARK_MAIN();
