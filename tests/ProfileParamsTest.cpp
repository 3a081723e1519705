#include "kel/ProfileParams.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace kel {
namespace {

struct NameCase {
    std::string streamed;
    std::string converted;
    std::string expected;
};

template <typename T>
NameCase printed(T value, std::string expected) {
    std::ostringstream os;
    os << value;
    return NameCase{os.str(), toString(value), std::move(expected)};
}

// The names the dumps below show are not repeated here.
TEST(EnumPrinterTest, PrintsNameOrNumber) {
    const NameCase cases[] = {
        printed(TechType::TYPE_3GPP2, "3GPP2"),
        printed(static_cast<TechType>(7), "7"),
        printed(IPType::UNKNOWN, "UNKNOWN"),
        printed(IPType::V6, "V6"),
        printed(static_cast<IPType>(4), "4"),
        printed(AuthType::NONE, "NONE"),
        printed(AuthType::PAP, "PAP"),
        printed(AuthType::CHAP, "CHAP"),
        printed(static_cast<AuthType>(-2), "-2"),
        printed(static_cast<ApnClass>(0), "0"),
        printed(ApnClass::IMS, "IMS"),
        printed(ApnClass::ADMN, "ADMN"),
        printed(ApnClass::APP, "APP"),
        printed(static_cast<ApnClass>(5), "5"),
        printed(static_cast<ApnTypes>(0), "NONE"),
        printed(static_cast<ApnTypes>(0x41), "DEFAULT|IMS|"),
        printed(static_cast<ApnTypes>(0xFFF),
                "DEFAULT|MMS|SUPL|DUN|HIPRI|FOTA|IMS|CBS|IA|EMERGENCY|MCX|XCAP|"),
        printed(static_cast<ApnTypes>(0x1000), ""),
        printed(static_cast<ApnTypes>(0xFFFFF800), "XCAP|"),
        printed(static_cast<FilterMatchType>(0), "None"),
        printed(static_cast<FilterMatchType>(0x33),
                "HomeIPSubset|RoamIPSubset|HomeIPSuperset|RoamIPSuperset|"),
        printed(static_cast<FilterMatchType>(0x4C), "ApnNameSubset|ApnTypeBitmaskSubset|"),
        printed(static_cast<FilterMatchType>(0x40), "")};
    for (const NameCase& c : cases) {
        EXPECT_EQ(c.streamed, c.expected);
        EXPECT_EQ(c.converted, c.expected);
    }
}

// Every field set, in an order unlike the dump's, so the dump's own order shows.
FilterProfileParams everyField() {
    FilterProfileParams params;
    params.setFilterByIsIAProfile(false);
    params.setFilterByIsKelProfile(true);
    params.setIsEmergencySupported(true);
    params.setIsApnDisabled(false);
    params.setPdnReqWaitInterval(-1);
    params.setMaxPdnConnTimer(300);
    params.setMaxPdnsConnPerBlock(20);
    params.setIsClatEnabled(true);
    params.setApnClass(ApnClass::INET);
    params.setApnTypesMask(0x101);
    params.setRoamIPType(IPType::V4);
    params.setHomeIPType(IPType::V4V6);
    params.setAuthType(AuthType::PAP_CHAP);
    params.setPassword("se,cret");
    params.setUserName("user");
    params.setApnName("internet");
    return params;
}

const char* const kEveryFieldDump =
    "ApnName=internet,UserName=user,Password=se,cret,AuthType=PAP_CHAP,HomeIPType=V4V6,"
    "RoamIPType=V4,ApnTypesMask=DEFAULT|IA|,ApnClass=INET,IsClatEnabled=true,"
    "MaxPdnsConnPerBlock=20,MaxPdnConnTimer=300,PdnReqWaitInterval=-1,IsApnDisabled=false,"
    "IsEmergencySupported=true,IsKelProfile=true,IsIAProfile=false,";

// Each field alone, dumped by the base class.
TEST(ProfileParamsTest, DumpsEachFieldAlone) {
    const struct {
        const char* name;
        void (*fill)(FilterProfileParams&);
        const char* expected;
    } cases[] = {
        {"UnnamedApnClass", [](FilterProfileParams& p) { p.setApnClass(ApnClass{}); },
         "ApnClass=0,"},
        {"UnnamedAuthType", [](FilterProfileParams& p) { p.setAuthType(static_cast<AuthType>(7)); },
         "AuthType=7,"},
        {"UnnamedIPType", [](FilterProfileParams& p) { p.setRoamIPType(static_cast<IPType>(9)); },
         "RoamIPType=9,"},
        {"UnknownMaskBitsOnly", [](FilterProfileParams& p) { p.setApnTypesMask(0x1000); },
         "ApnTypesMask=,"},
        {"EmptyMask", [](FilterProfileParams& p) { p.setApnTypesMask(0); }, "ApnTypesMask=NONE,"},
        {"EmptyStringIsPresent", [](FilterProfileParams& p) { p.setApnName(""); }, "ApnName=,"},
        {"KelFlagPresentFalse", [](FilterProfileParams& p) { p.setFilterByIsKelProfile(false); },
         "IsKelProfile=false,"},
        {"IAFlagPresentTrue", [](FilterProfileParams& p) { p.setFilterByIsIAProfile(true); },
         "IsIAProfile=true,"},
        {"FlagsAbsent", [](FilterProfileParams&) {}, ""}};
    for (const auto& c : cases) {
        FilterProfileParams filter;
        c.fill(filter);
        const ProfileParams& params = filter;
        EXPECT_EQ(params.ProfileParams::dump(), c.expected) << c.name;
    }
}

TEST(AddProfileParamsTest, ConstructorMakesIAFlagPresentAndDumpsTheTechByNameOrNumber) {
    AddProfileParams params(false, TechType::TYPE_3GPP, false);
    EXPECT_FALSE(params.getIsPersistent());
    EXPECT_EQ(params.getTechType(), TechType::TYPE_3GPP);
    EXPECT_FALSE(params.getIsIAProfile());
    EXPECT_EQ(params.dump(), "3GPP persist=false: IsIAProfile=false,");

    AddProfileParams attach(true, TechType::TYPE_3GPP, true);
    EXPECT_TRUE(attach.getIsIAProfile());
    EXPECT_EQ(attach.dump(), "3GPP persist=true: IsIAProfile=true,");
    EXPECT_EQ(AddProfileParams(false, static_cast<TechType>(5), true).dump(),
              "5 persist=false: IsIAProfile=true,");
}

TEST(AddProfileParamsTest, CopiedParamsGetTheArgumentsIAFlag) {
    FilterProfileParams source;
    source.setApnName("ims");
    source.setFilterByIsIAProfile(true);
    source.setFilterByIsKelProfile(true);

    AddProfileParams params(source, true, TechType::TYPE_3GPP2, false);
    EXPECT_FALSE(params.getIsIAProfile());
    EXPECT_TRUE(FilterProfileParams(params).hasFilterByIsIAProfile());
    EXPECT_TRUE(params.getIsKelProfile());
    EXPECT_TRUE(params.getIsPersistent());
    EXPECT_EQ(params.getTechType(), TechType::TYPE_3GPP2);
    EXPECT_EQ(params.dump(),
              "3GPP2 persist=true: ApnName=ims,IsKelProfile=true,IsIAProfile=false,");
}

TEST(FilterProfileParamsTest, DumpsCriteriaTechAndIdBeforeFields) {
    FilterProfileParams params;
    EXPECT_EQ(params.dump(), "None: ");

    params.addFilterMatchCriteria(0x11);
    params.setFilterByProfileId(4);
    params.setFilterByTechType(TechType::TYPE_3GPP2);
    params.setApnName("x");
    EXPECT_EQ(params.dump(), "HomeIPSubset|HomeIPSuperset|: tech=3GPP2,id=4,ApnName=x,");

    FilterProfileParams unnamedTech;
    unnamedTech.setFilterByTechType(static_cast<TechType>(9));
    unnamedTech.addFilterMatchCriteria(0x80);
    EXPECT_EQ(unnamedTech.dump(), ": tech=9,");
}

// Texts longer than any short-string buffer and the extreme numbers are written whole.
TEST(FilterProfileParamsTest, DumpsLongTextsAndExtremeNumbersWhole) {
    const std::string apn(150, 'a');
    const std::string user(127, 'u');
    const std::string password(127, 'p');
    FilterProfileParams params;
    params.addFilterMatchCriteria(0x3F);
    params.setFilterByProfileId(-2147483647 - 1);
    params.setFilterByTechType(TechType::TYPE_3GPP);
    params.setApnName(apn);
    params.setUserName(user);
    params.setPassword(password);
    params.setMaxPdnsConnPerBlock(2147483647);
    params.setMaxPdnConnTimer(-2147483647 - 1);
    params.setPdnReqWaitInterval(0);
    params.setApnTypesMask(0xFFFFFFFFu);
    EXPECT_EQ(params.dump(),
              "HomeIPSubset|RoamIPSubset|ApnNameSubset|ApnTypeBitmaskSubset|HomeIPSuperset|"
              "RoamIPSuperset|: tech=3GPP,id=-2147483648,ApnName=" +
                  apn + ",UserName=" + user + ",Password=" + password +
                  ",ApnTypesMask=DEFAULT|MMS|SUPL|DUN|HIPRI|FOTA|IMS|CBS|IA|EMERGENCY|MCX|XCAP|,"
                  "MaxPdnsConnPerBlock=2147483647,MaxPdnConnTimer=-2147483648,"
                  "PdnReqWaitInterval=0,");
}

TEST(FilterProfileParamsTest, CriteriaAddAndRemoveBits) {
    FilterProfileParams params;
    EXPECT_EQ(params.getFilterMatchCriteria(), 0u);
    params.addFilterMatchCriteria(0x11);
    params.removeFilterMatchCriteria(0x01);
    EXPECT_EQ(params.getFilterMatchCriteria(), 0x10u);
    params.removeFilterMatchCriteria(0x04);
    EXPECT_EQ(params.getFilterMatchCriteria(), 0x10u);
    params.addFilterMatchCriteria(0x22);
    EXPECT_EQ(params.getFilterMatchCriteria(), 0x32u);
}

TEST(FilterProfileParamsTest, BuiltFromParamsKeepsFieldsAndDropsFilterSettings) {
    FilterProfileParams source = everyField();
    source.addFilterMatchCriteria(0x33);
    source.setFilterByProfileId(7);
    source.setFilterByTechType(TechType::TYPE_3GPP2);

    FilterProfileParams built(static_cast<const ProfileParams&>(source));
    EXPECT_EQ(built.getFilterMatchCriteria(), 0u);
    EXPECT_FALSE(built.hasFilterByProfileId());
    EXPECT_FALSE(built.hasFilterByTechType());
    EXPECT_TRUE(built.hasFilterByIsKelProfile());
    EXPECT_EQ(built.dump(), std::string("None: ") + kEveryFieldDump);
}

// The add and filter dumps are shown above; here, that a base reference reaches them.
TEST(ProfileParamsTest, DumpIsVirtualAndModifyKeepsTheBaseDump) {
    AddProfileParams add(true, TechType::TYPE_3GPP, false);
    ModifyProfileParams modify;
    modify.setApnName("a");
    modify.setIsClatEnabled(false);
    EXPECT_EQ(static_cast<const ProfileParams&>(add).dump(), add.dump());
    EXPECT_EQ(static_cast<const ProfileParams&>(modify).dump(), "ApnName=a,IsClatEnabled=false,");
}

}  // namespace
}  // namespace kel
