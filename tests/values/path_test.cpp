// Ids and the text form of paths under the library's rules, and the order of paths.

#include <limits>

#include "support/settings.h"

namespace test_support {
namespace {

using uvc::IdSpec;
using uvc::IdState;
using uvc::Path;

IdSpec const& Lib() { return settings_manager::meta::GetIdSpecification(); }
IdSpec const kUnlimited{"/\\\"'`%_ ", 0};
IdSpec const kNoSeparator{"", 0};
constexpr std::uint64_t kMax64 = std::numeric_limits<std::uint64_t>::max();
std::string const kHigh = "\xC3\xA9t\xC3\xA9";  // bytes above 0x7F are ordinary key bytes

TEST(PathText, CheckIdToStringAndFromStringFollowTheRules) {
  EXPECT_EQ(Lib().specialChars, std::string("/\\\"'`%_ "));
  auto const check = [](uvc::Id const& id, IdState state, IdSpec const& rules = Lib()) {
    EXPECT_EQ(uvc::aux::CheckId(id, rules), state) << ::testing::PrintToString(id);
  };
  auto const write = [](Path const& path, std::string text, IdState state,
                        IdSpec const& rules = Lib()) {
    EXPECT_EQ(uvc::ToString(path, rules), std::make_pair(text, state)) << text;
  };
  auto const read = [](std::string const& text, Path const& path, IdState state,
                       IdSpec const& rules = Lib()) {
    EXPECT_EQ(uvc::FromString(text, rules), std::make_pair(path, state)) << text;
  };
  check(K(""), IdState::EmptyName);
  check(K("1/"), IdState::DigitFirst);  // the digit test comes first
  check(K("a/b"), IdState::BadChar);
  check(I(65536), IdState::IndexTooBig);
  check(I(kMax64), IdState::Ok, kUnlimited);
  write({}, "", IdState::Ok);
  write({K("net"), I(3), K(kHigh), K("\xFF")}, "net/3/" + kHigh + "/\xFF/", IdState::Ok);
  write({K("a"), I(65536)}, "", IdState::IndexTooBig);
  write({K("a"), K("")}, "", IdState::EmptyName);
  write({K("1x")}, "", IdState::DigitFirst);
  write({I(9999999999999999999ull)}, "9999999999999999999/", IdState::Ok, kUnlimited);
  write({I(10000000000000000000ull)}, "", IdState::NumberError, kUnlimited);
  write({}, "", IdState::NoSeparator, kNoSeparator);
  read("", {}, IdState::Ok);
  read("a/0", {K("a"), I(0)}, IdState::Ok);
  read("007/00/", {I(7), I(0)}, IdState::Ok);
  read("/a", {}, IdState::EmptyId);
  read("a/b//", {}, IdState::EmptyId);  // good ids before the fault are dropped
  read("1x", {}, IdState::BadChar);
  read("65536/", {}, IdState::IndexTooBig);
  read("18446744073709551615", {}, IdState::IndexTooBig);
  read("00018446744073709551615/", {I(kMax64)}, IdState::Ok, kUnlimited);
  read("18446744073709551616", {}, IdState::NumberError);
  read("a", {}, IdState::NoSeparator, kNoSeparator);
  for (char const special : Lib().specialChars) {
    std::string const key = std::string("a") + special + "b";
    bool const separator = special == '/';
    EXPECT_EQ(uvc::ToString({K(key)}, Lib()).second, IdState::BadChar) << key;
    EXPECT_EQ(uvc::FromString(key, Lib()), separator
                                               ? std::make_pair(Path{K("a"), K("b")}, IdState::Ok)
                                               : std::make_pair(Path{}, IdState::BadChar))
        << key;
    EXPECT_EQ(uvc::FromString(std::string("1") + special + "x", Lib()).second,
              separator ? IdState::Ok : IdState::BadChar);
  }
}

TEST(PathOrder, IndicesNumericallyThenKeysBytewisePrefixesFirst) {
  std::vector<Path> const ascending = {{},       {I(0)},         {I(0), I(5)}, {I(0), K("a")},
                                       {I(2)},   {I(10)},        {I(65536)},   {K("B")},
                                       {K("a")}, {K("a"), I(0)}, {K("ab")},    {K("\xC3\xA9")}};
  for (std::size_t i = 0; i + 1 < ascending.size(); ++i) {
    EXPECT_TRUE(ascending[i] < ascending[i + 1]) << i;
    EXPECT_FALSE(ascending[i + 1] < ascending[i]) << i;
  }
}

}  // namespace
}  // namespace test_support
