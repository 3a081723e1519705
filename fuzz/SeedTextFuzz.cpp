// The simulated modem's seed and state files are text that people write and tools rewrite, so
// vexsim::parseProfiles must take any bytes: refuse bad text with a line-numbered reason and
// without touching its output, and read back what formatProfile writes as the very same profiles.
// Every value must also survive the quoting that formatProfile relies on.
//
// Input: the text of a seed file.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "ProfileText.h"
#include "vexsim/SimModem.h"

namespace {

std::string firstDifference(const vexsim::Profile& a, const vexsim::Profile& b) {
    if (a.subscription != b.subscription || a.type != b.type || a.index != b.index ||
        a.persistent != b.persistent) {
        return "identity or persistence";
    }
    return kelfuzz::firstSettingsDifference(a.settings, b.settings);
}

void checkQuoting(const std::string& value) {
    std::vector<std::string> words;
    std::string error;
    const std::string word = "key=" + vexsim::quoteValue(value);
    FUZZ_CHECK_MSG(vexsim::splitProfileWords(word, &words, &error), word + ": " + error);
    FUZZ_CHECK_MSG(words.size() == 1 && words[0] == "key=" + value, word);
}

vexsim::Profile sentinel() {
    vexsim::Profile profile;
    profile.subscription = 9;
    profile.index = 77;
    return profile;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    checkQuoting(text);

    // parseProfiles appends; a profile already in the output must survive a failed parse.
    std::vector<vexsim::Profile> parsed{sentinel()};
    std::string error;
    if (!vexsim::parseProfiles(text, &parsed, &error)) {
        FUZZ_CHECK(parsed.size() == 1 && firstDifference(parsed[0], sentinel()).empty());
        FUZZ_CHECK_MSG(error.rfind("line ", 0) == 0, error);
        return 0;
    }
    FUZZ_CHECK(!parsed.empty() && firstDifference(parsed[0], sentinel()).empty());
    parsed.erase(parsed.begin());

    std::string formatted;
    std::vector<std::string> lines;
    for (const vexsim::Profile& profile : parsed) {
        FUZZ_CHECK(profile.type == WDS_PROFILE_TYPE_3GPP_V01 ||
                   profile.type == WDS_PROFILE_TYPE_3GPP2_V01);
        FUZZ_CHECK(kelfuzz::textsTerminated(profile.settings));
        lines.push_back(vexsim::formatProfile(profile));
        FUZZ_CHECK_MSG(lines.back().find('\n') == std::string::npos, lines.back());
        formatted += lines.back() + "\n";
    }

    std::vector<vexsim::Profile> reparsed;
    FUZZ_CHECK_MSG(vexsim::parseProfiles(formatted, &reparsed, &error), formatted + error);
    FUZZ_CHECK(reparsed.size() == parsed.size());
    for (size_t i = 0; i < parsed.size(); ++i) {
        const std::string differs = firstDifference(parsed[i], reparsed[i]);
        FUZZ_CHECK_MSG(differs.empty(), differs + " in " + lines[i]);
        FUZZ_CHECK_MSG(vexsim::formatProfile(reparsed[i]) == lines[i], lines[i]);
    }
    return 0;
}
