#include "kel/Outcome.h"

#include <gtest/gtest.h>

namespace {

using Kind = kel::Outcome::Kind;

// Tools print this line as the reason a call failed: only a refusal names the modem's error, and
// only a refusal or a missing answer names the message.
TEST(OutcomeTest, DumpNamesTheKindAndOnlyTheDetailsThatKindCarries) {
    const struct {
        kel::Outcome outcome;
        const char* expected;
    } rows[] = {
        {{Kind::Refused, 0x0003, 0x28}, "refused by the modem: message 0x0028, error 0x0003"},
        {{Kind::NoAnswer, 0, 0x2a}, "no answer in time: message 0x002a"},
        {{Kind::NoAnswer, 0x0003, 0x27}, "no answer in time: message 0x0027"},
        {{Kind::Done, 0, 0}, "done"},
        {{Kind::NoLink, 0, 0x27}, "no modem link"},
        {{Kind::Failed, 0x0001, 0x29}, "failed in the library"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.outcome.dump(), row.expected);
    }
}

}  // namespace
