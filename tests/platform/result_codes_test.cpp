#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "db_wrappers/sqlite/database.h"
#include "fdn/result_codes.h"

namespace {

struct Expected {
  std::uint32_t code;
  std::string text;
};

void ExpectTexts(std::vector<Expected> const& cases) {
  for (auto const& c : cases)
    EXPECT_EQ(fdn::ResultCodeText(fdn::MakeCode(c.code)), c.text) << std::hex << c.code;
}

TEST(ResultCodeText, SuccessCodes) {
  ExpectTexts({{0, "No error = 0x0"}, {1, "False = 0x1"}, {2, "Unknown result code = 0x2"}});
}

TEST(ResultCodeText, GeneralCodesAtBothEndsOfTheTable) {
  ExpectTexts({
      {0x80000001u, "Interface not supported = 0x80000001"},
      {0x80000040u, "Unexpected = 0x80000040"},
      {0x8000004Cu, "Not found = 0x8000004c"},
      {0x80000221u, "Operation timeout = 0x80000221"},
      {0x80000312u, "OID syntax error = 0x80000312"},
      {0x80000313u, "DateTime syntax error = 0x80000313"},
  });
}

TEST(ResultCodeText, GeneralCodesInGapsAreUnknown) {
  ExpectTexts({
      {0x80000000u, "Unknown result code = 0x80000000"},
      {0x80000002u, "Unknown result code = 0x80000002"},
      {0x8000003Fu, "Unknown result code = 0x8000003f"},
      {0x80000048u, "Unknown result code = 0x80000048"},
      {0x80000314u, "Unknown result code = 0x80000314"},
      {0x7FFFFFFFu, "Unknown result code = 0x7fffffff"},
  });
}

TEST(ResultCodeText, PlatformCodes) {
  ExpectTexts({
      {0x80010100u, "Unspecified platform error = 0x80010100"},
      {0x80010102u, "File not found = 0x80010102"},
      {0x80010109u, "Invalid path name = 0x80010109"},
      {0x8001010Au, "Unknown result code = 0x8001010a"},  // entries without text of their own
      {0x8001010Fu, "Unknown result code = 0x8001010f"},
      {0x80010110u, "Cannot open an anonymous level security token = 0x80010110"},
      {0x80010117u, "System image bad format = 0x80010117"},
      {0x80010118u, "Unknown result code = 0x80010118"},
      {0x800100FFu, "Unknown result code = 0x800100ff"},
  });
}

TEST(ResultCodeText, WrapperCodesHaveNoText) {
  using namespace db_wrappers::sqlite;
  ExpectTexts({{0x21110001u, "Unknown result code = 0x21110001"}});
  EXPECT_EQ(fdn::ResultCodeText(kRowReady), "Unknown result code = 0x21110001");
  EXPECT_EQ(fdn::ResultCodeText(MakeError(19)), "Unknown result code = 0xa1110013");
  EXPECT_EQ(fdn::ResultCodeText(MakeError(2067)), "Unknown result code = 0xa1110813");
}

// A sweep finds every entry: an entry out of order would be missed by the binary search.
TEST(ResultCodeText, EveryGeneralEntryIsFound) {
  int known = 0;
  for (std::uint32_t code = 0x80000000u; code < 0x80000400u; ++code)
    if (fdn::GeneralCodeText(fdn::MakeCode(code))) ++known;
  EXPECT_EQ(known, 62);
}

TEST(ResultCodeText, EveryNamedGeneralCodeHasText) {
  for (int code : {fdn::rc::kInterfaceNotSupported, fdn::rc::kUnexpected, fdn::rc::kOutOfMemory,
                   fdn::rc::kNotSupported, fdn::rc::kBufferTooSmall, fdn::rc::kInvalidArgument,
                   fdn::rc::kNotMatched, fdn::rc::kUnspecifiedError, fdn::rc::kNotFound,
                   fdn::rc::kFound, fdn::rc::kMediaError, fdn::rc::kInvalidVersion,
                   fdn::rc::kInvalidSize, fdn::rc::kOutOfRange, fdn::rc::kLessThan,
                   fdn::rc::kMoreThan, fdn::rc::kProhibited, fdn::rc::kBasesCorrupted,
                   fdn::rc::kInvalidState, fdn::rc::kInvalidResult, fdn::rc::kUnknownException,
                   fdn::rc::kClassNotFound, fdn::rc::kSettingsAreRequired}) {
    EXPECT_TRUE(fdn::GeneralCodeText(code)) << std::hex << static_cast<std::uint32_t>(code);
    EXPECT_TRUE(fdn::Failed(code));
  }
  EXPECT_EQ(fdn::GeneralCodeText(fdn::rc::kSettingsAreRequired), "Settings are required");
}

TEST(ResultCodeText, LookupsKeepToTheirFacility) {
  EXPECT_FALSE(fdn::GeneralCodeText(fdn::MakeCode(0x80010102u)));
  EXPECT_FALSE(fdn::PlatformCodeText(fdn::MakeCode(0x8000004Cu)));
  EXPECT_EQ(fdn::Facility(fdn::MakeCode(0x80010102u)), 1);
  EXPECT_EQ(fdn::Facility(db_wrappers::sqlite::MakeError(1)), 0x2111);
}

}  // namespace
