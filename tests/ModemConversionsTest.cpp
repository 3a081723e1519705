#include "ModemConversions.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "DebugLogFixture.h"
#include "support/LogObservation.h"

namespace kel {
namespace {

struct ApnTypeRow {
    std::uint32_t library;
    std::uint64_t vex;
};

// Written out independently of the library's table, so a swapped row shows up here.
const std::vector<ApnTypeRow> kApnTypeRows = {
    {0x001, 0x001}, {0x002, 0x004}, {0x004, 0x010}, {0x008, 0x008}, {0x010, 0x020}, {0x020, 0x040},
    {0x040, 0x002}, {0x080, 0x080}, {0x100, 0x100}, {0x200, 0x200}, {0x400, 0x800}, {0x800, 0x400},
};

TEST(ApnTypeConversionTest, EveryBitMapsBothWaysAndAlone) {
    for (const ApnTypeRow& row : kApnTypeRows) {
        SCOPED_TRACE(row.library);
        EXPECT_EQ(convertToSingleVexApnType(static_cast<ApnTypes>(row.library)), row.vex);
        EXPECT_EQ(convertToSingleCommonApnType(row.vex), row.library);
        EXPECT_EQ(convertToVexApnTypeMask(row.library), row.vex);
        EXPECT_EQ(convertToCommonApnTypeMask(row.vex), row.library);
    }
}

TEST(ApnTypeConversionTest, MasksConvertBitByBitAndDropUnknownBits) {
    struct Case {
        std::uint32_t library;
        std::uint64_t vex;
    };
    const std::vector<Case> toVex = {{0x041, 0x003}, {0xC00, 0xC00},  {0x400, 0x800},
                                     {0xFFF, 0xFFF}, {0x1001, 0x001}, {0, 0}};
    for (const Case& c : toVex) {
        EXPECT_EQ(convertToVexApnTypeMask(c.library), c.vex) << c.library;
    }
    const std::vector<Case> toLibrary = {
        {0x041, 0x003}, {0xFFF, 0xFFF}, {0, 1ull << 32}, {0x001, 0x1001}, {0x001, ~0xFFEull}};
    for (const Case& c : toLibrary) {
        EXPECT_EQ(convertToCommonApnTypeMask(c.vex), c.library) << c.vex;
    }
}

TEST(ApnTypeConversionTest, SingleConversionsRejectCombinationsAndUnknownBits) {
    EXPECT_EQ(convertToSingleVexApnType(static_cast<ApnTypes>(0x003)), 0u);
    EXPECT_EQ(convertToSingleVexApnType(static_cast<ApnTypes>(0x1000)), 0u);
    EXPECT_EQ(convertToSingleCommonApnType(0x003), 0u);
    EXPECT_EQ(convertToSingleCommonApnType(1ull << 32 | 0x001), 0u);
}

TEST(IPTypeConversionTest, LibraryToModemFallsBackDifferentlyPerForm) {
    struct Case {
        IPType type;
        int pdn;
        int pdp;
        int common;
    };
    const std::vector<Case> cases = {
        {IPType::UNKNOWN, 2, 3, 255},
        {IPType::V4, 0, 0, 0},
        {IPType::V6, 1, 2, 1},
        {IPType::V4V6, 2, 3, 2},
        {static_cast<IPType>(9), 2, 3, 2},
        {static_cast<IPType>(-1), 2, 3, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.type));
        EXPECT_EQ(convertToVexProfilePdnType(c.type), c.pdn);
        EXPECT_EQ(convertToVexPdpType(c.type), c.pdp);
        EXPECT_EQ(convertToVexCommonPdpType(c.type), c.common);
    }
}

class ModemToLibraryConversionTest : public DebugLogFixture {};

TEST_F(ModemToLibraryConversionTest, IPTypesFallBackToUnknownAndLogOnlyUnknownValues) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    struct Case {
        std::string name;
        std::function<IPType()> convert;
        IPType expected;
        std::string log;  // empty: nothing logged
    };
    auto pdn = [](int v) { return convertPdnType(static_cast<wds_profile_pdn_type_enum_v01>(v)); };
    auto pdp = [](int v) { return convertPdpType(static_cast<wds_pdp_type_enum_v01>(v)); };
    auto common = [](int v) {
        return convertPdpType(static_cast<wds_common_pdp_type_enum_v01>(v));
    };
    const std::vector<Case> cases = {
        {"pdn 0", [&] { return pdn(0); }, IPType::V4, ""},
        {"pdn 1", [&] { return pdn(1); }, IPType::V6, ""},
        {"pdn 2", [&] { return pdn(2); }, IPType::V4V6, ""},
        {"pdn unspecified", [&] { return pdn(3); }, IPType::UNKNOWN, ""},
        {"pdn 4", [&] { return pdn(4); }, IPType::UNKNOWN, "Unknown profile_pdn_type_enum 4"},
        {"pdp 0", [&] { return pdp(0); }, IPType::V4, ""},
        {"pdp ppp", [&] { return pdp(1); }, IPType::UNKNOWN, "Unknown pdp_type_enum 1"},
        {"pdp 2", [&] { return pdp(2); }, IPType::V6, ""},
        {"pdp 3", [&] { return pdp(3); }, IPType::V4V6, ""},
        {"pdp 7", [&] { return pdp(7); }, IPType::UNKNOWN, "Unknown pdp_type_enum 7"},
        {"common 0", [&] { return common(0); }, IPType::V4, ""},
        {"common 1", [&] { return common(1); }, IPType::V6, ""},
        {"common 2", [&] { return common(2); }, IPType::V4V6, ""},
        {"common 3", [&] { return common(3); }, IPType::UNKNOWN, "Unknown pdp_type_enum 3"},
        {"common 255", [&] { return common(255); }, IPType::UNKNOWN, "Unknown pdp_type_enum 255"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        capture.clear();
        EXPECT_EQ(c.convert(), c.expected);
        const std::vector<std::string> expectedLines =
            c.log.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.log};
        EXPECT_EQ(debugLines(), expectedLines);
    }
}

TEST_F(ModemToLibraryConversionTest, ProfileTypeFallsBackTo3gppWithLog) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    EXPECT_EQ(convertProfileType(WDS_PROFILE_TYPE_3GPP_V01), TechType::TYPE_3GPP);
    EXPECT_EQ(convertProfileType(WDS_PROFILE_TYPE_3GPP2_V01), TechType::TYPE_3GPP2);
    EXPECT_TRUE(debugLines().empty());
    EXPECT_EQ(convertProfileType(WDS_PROFILE_TYPE_EPC_V01), TechType::TYPE_3GPP);
    EXPECT_EQ(debugLines(), std::vector<std::string>{"Unknown tech type 2"});
}

TEST(AuthConversionTest, PreferenceMaskAndProtocolEnumerationDifferOnPurpose) {
    struct Case {
        int value;
        AuthType fromMask;
        AuthType fromProtocol;
    };
    const std::vector<Case> cases = {
        {0, AuthType::NONE, AuthType::NONE},        {1, AuthType::PAP, AuthType::PAP},
        {2, AuthType::CHAP, AuthType::CHAP},        {3, AuthType::PAP_CHAP, AuthType::PAP_CHAP},
        {5, AuthType::PAP, AuthType::NONE},         {6, AuthType::CHAP, AuthType::NONE},
        {0xFF, AuthType::PAP_CHAP, AuthType::NONE},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value);
        EXPECT_EQ(convertToAuthType(static_cast<unsigned char>(c.value)), c.fromMask);
        EXPECT_EQ(convertToAuthType(static_cast<wds_profile_auth_protocol_enum_v01>(c.value)),
                  c.fromProtocol);
    }
}

TEST(AuthConversionTest, LibraryToModemKeepsKnownTypesOnly) {
    struct Case {
        int type;
        int pref;
        int protocol;
    };
    const std::vector<Case> cases = {{0, 0, 0}, {1, 1, 1}, {2, 2, 2},
                                     {3, 3, 3}, {4, 0, 0}, {7, 3, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        const auto type = static_cast<AuthType>(c.type);
        EXPECT_EQ(convertToVexAuthPref(type), c.pref);
        EXPECT_EQ(convertToVexAuthProtocol(type), c.protocol);
        EXPECT_EQ(convertToVexPdnLevelAuthProtocol(type), c.protocol);
    }
}

// Type and low-byte index for both techs show in the modify requests of the profile tests.
TEST(ProfileIdentifierTest, UnnamedTechIsTreatedAs3gpp) {
    EXPECT_EQ(convertToProfileIdentifier(static_cast<TechType>(5), 3).profile_type,
              WDS_PROFILE_TYPE_3GPP_V01);
}

TEST(ApnNameTest, LowerCasingTouchesAsciiCapitalsOnly) {
    EXPECT_EQ(convertToLower("IMS.Example"), "ims.example");
    // The neighbours of 'A' and 'Z' and a byte above 127 stay as they are.
    EXPECT_EQ(convertToLower("@AZ[`az{\xC4"), "@az[`az{\xC4");
    EXPECT_EQ(convertToLower(std::string("A\0B", 3)), std::string("a\0b", 3));
}

}  // namespace
}  // namespace kel
