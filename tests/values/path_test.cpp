// Ids and the text form of paths under the library's rules, and the order of paths.

#include "support/settings.h"

namespace test_support {
namespace {

using uvc::IdState;
using uvc::Path;

TEST(Paths, TextFormsFollowTheRulesAndPathsSortIndicesFirst) {
  auto const& lib = settings_manager::meta::GetIdSpecification();
  uvc::IdSpec const unlimited{lib.specialChars, 0}, noSeparator{"", 0};
  EXPECT_EQ(lib.specialChars, std::string("/\\\"'`%_ "));
  std::string const high = "\xC3\xA9t\xC3\xA9";  // bytes above 0x7F are ordinary key bytes
  std::tuple<Path, std::string, IdState, uvc::IdSpec const*> const written[] = {
      {{K("net"), I(3), K(high), K("\xFF")}, "net/3/" + high + "/\xFF/", IdState::Ok, &lib},
      {{K("a"), I(65536)}, "", IdState::IndexTooBig, &lib},
      {{K("a"), K("")}, "", IdState::EmptyName, &lib},
      {{K("1/")}, "", IdState::DigitFirst, &lib},  // the digit test comes first
      {{I(9999999999999999999ull)}, "9999999999999999999/", IdState::Ok, &unlimited},
      {{I(10000000000000000000ull)}, "", IdState::NumberError, &unlimited}};
  for (auto const& [path, text, state, rules] : written)
    EXPECT_EQ(uvc::ToString(path, *rules), std::make_pair(text, state)) << text;
  std::tuple<std::string, Path, IdState, uvc::IdSpec const*> const read[] = {
      {"a/0", {K("a"), I(0)}, IdState::Ok, &lib},
      {"007/00/", {I(7), I(0)}, IdState::Ok, &lib},
      {"a/b//", {}, IdState::EmptyId, &lib},  // good ids before the fault are dropped
      {"1x", {}, IdState::BadChar, &lib},
      {"18446744073709551615", {}, IdState::IndexTooBig, &lib},
      {"00018446744073709551615/", {I(~0ull)}, IdState::Ok, &unlimited},
      {"18446744073709551616", {}, IdState::NumberError, &lib},
      {"a", {}, IdState::NoSeparator, &noSeparator}};
  for (auto const& [text, path, state, rules] : read)
    EXPECT_EQ(uvc::FromString(text, *rules), std::make_pair(path, state)) << text;
  for (char const special : lib.specialChars.substr(1)) {
    std::string const key = std::string("a") + special + "b";
    EXPECT_EQ(uvc::ToString({K(key)}, lib).second, IdState::BadChar) << key;
    EXPECT_EQ(uvc::FromString(key, lib), std::make_pair(Path{}, IdState::BadChar)) << key;
  }
  // Indices numerically, then keys bytewise, prefixes first.
  std::vector<Path> const ascending = {{},       {I(0)},         {I(0), I(5)}, {I(0), K("a")},
                                       {I(2)},   {I(10)},        {I(65536)},   {K("B")},
                                       {K("a")}, {K("a"), I(0)}, {K("ab")},    {K("\xC3\xA9")}};
  for (std::size_t i = 0; i + 1 < ascending.size(); ++i)
    EXPECT_TRUE(ascending[i] < ascending[i + 1] && !(ascending[i + 1] < ascending[i])) << i;
}

}  // namespace
}  // namespace test_support
