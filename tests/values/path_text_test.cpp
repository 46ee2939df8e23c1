// Ids and the text form of paths: CheckId, ToString, FromString and the library's rules.

#include <limits>

#include "settings_manager/paths.h"
#include "values_test_util.h"

namespace values_test {
namespace {

using uvc::IdSpec;
using uvc::IdState;
using uvc::Path;

IdSpec const& Lib() { return settings_manager::meta::GetIdSpecification(); }
IdSpec const& Unlimited() {
  static IdSpec const spec{Lib().specialChars, 0};
  return spec;
}
IdSpec const& NoSeparator() {
  static IdSpec const spec{"", 0};
  return spec;
}

constexpr std::uint64_t kMax64 = std::numeric_limits<std::uint64_t>::max();
// Bytes above 0x7F are ordinary key characters ("été" in UTF-8, and a lone 0xFF).
std::string const kHighKey = "\xC3\xA9t\xC3\xA9";
std::string const kFF = "\xFF";

TEST(IdSpecification, ForbidsEightCharactersAndIndicesAbove65535) {
  EXPECT_EQ(Lib().specialChars, std::string("/\\\"'`%_ "));
  EXPECT_EQ(Lib().specialChars.size(), 8u);
  EXPECT_EQ(Lib().indexLimit, 65535u);
  EXPECT_EQ(&Lib(), &settings_manager::meta::GetIdSpecification());
}

TEST(CheckId, TestsEmptyThenDigitThenCharacters) {
  struct Case {
    uvc::Id id;
    IdSpec const& spec;
    IdState state;
  };
  Case const cases[] = {
      {K("a"), Lib(), IdState::Ok},          {K(kHighKey), Lib(), IdState::Ok},
      {K(""), Lib(), IdState::EmptyName},    {K("1x"), Lib(), IdState::DigitFirst},
      {K("1/"), Lib(), IdState::DigitFirst},  // the digit test comes first
      {K("a/b"), Lib(), IdState::BadChar},   {I(0), Lib(), IdState::Ok},
      {I(65535), Lib(), IdState::Ok},        {I(65536), Lib(), IdState::IndexTooBig},
      {I(kMax64), Unlimited(), IdState::Ok},
  };
  for (auto const& c : cases)
    EXPECT_EQ(uvc::aux::CheckId(c.id, c.spec), c.state) << ::testing::PrintToString(c.id);
}

struct ToStringCase {
  Path path;
  IdSpec const& spec;
  std::string text;
  IdState state;
};

TEST(ToString, WritesIdsWithTrailingSeparatorsOrFailsWithEmptyText) {
  ToStringCase const cases[] = {
      {{}, Lib(), "", IdState::Ok},
      {{K("a"), I(0)}, Lib(), "a/0/", IdState::Ok},
      {{K("network"), I(3), K("name")}, Lib(), "network/3/name/", IdState::Ok},
      {{K(kHighKey), K(kFF)}, Lib(), kHighKey + "/" + kFF + "/", IdState::Ok},
      {{I(65535)}, Lib(), "65535/", IdState::Ok},
      {{K("a"), I(65536)}, Lib(), "", IdState::IndexTooBig},
      {{K("a"), K("")}, Lib(), "", IdState::EmptyName},
      {{K("1x")}, Lib(), "", IdState::DigitFirst},
      // Without an index limit: 19 digits can be written, 20 cannot.
      {{I(9999999999999999999ull)}, Unlimited(), "9999999999999999999/", IdState::Ok},
      {{I(10000000000000000000ull)}, Unlimited(), "", IdState::NumberError},
      {{I(kMax64)}, Unlimited(), "", IdState::NumberError},
      // An empty spec fails before the path is looked at.
      {{}, NoSeparator(), "", IdState::NoSeparator},
      {{K("")}, NoSeparator(), "", IdState::NoSeparator},
  };
  for (auto const& c : cases) {
    auto const [text, state] = uvc::ToString(c.path, c.spec);
    EXPECT_EQ(state, c.state) << ::testing::PrintToString(c.path);
    EXPECT_EQ(text, c.text) << ::testing::PrintToString(c.path);
  }
}

struct FromStringCase {
  std::string text;
  IdSpec const& spec;
  Path path;
  IdState state;
};

TEST(FromString, ReadsSegmentsOrFailsWithEmptyPath) {
  FromStringCase const cases[] = {
      {"", Lib(), {}, IdState::Ok},
      {"a/0/", Lib(), {K("a"), I(0)}, IdState::Ok},
      {"a/0", Lib(), {K("a"), I(0)}, IdState::Ok},
      {kHighKey + "/" + kFF, Lib(), {K(kHighKey), K(kFF)}, IdState::Ok},
      {"007/0/00/", Lib(), {I(7), I(0), I(0)}, IdState::Ok},
      {"/a", Lib(), {}, IdState::EmptyId},
      {"/", Lib(), {}, IdState::EmptyId},
      {"a//b", Lib(), {}, IdState::EmptyId},
      {"a/b//", Lib(), {}, IdState::EmptyId},  // good ids before the fault are dropped
      {"1x", Lib(), {}, IdState::BadChar},
      {"65535", Lib(), {I(65535)}, IdState::Ok},
      {"65536/", Lib(), {}, IdState::IndexTooBig},
      {"70000", Lib(), {}, IdState::IndexTooBig},
      {"18446744073709551615", Lib(), {}, IdState::IndexTooBig},
      {"18446744073709551615/", Unlimited(), {I(kMax64)}, IdState::Ok},
      {"0000000000000000000000018446744073709551615", Unlimited(), {I(kMax64)}, IdState::Ok},
      {"18446744073709551616", Lib(), {}, IdState::NumberError},
      {"18446744073709551616", Unlimited(), {}, IdState::NumberError},
      {"99999999999999999999", Unlimited(), {}, IdState::NumberError},
      {"a", NoSeparator(), {}, IdState::NoSeparator},
      {"", NoSeparator(), {}, IdState::NoSeparator},
  };
  for (auto const& c : cases) {
    auto const [path, state] = uvc::FromString(c.text, c.spec);
    EXPECT_EQ(state, c.state) << '"' << c.text << '"';
    EXPECT_EQ(path, c.path) << '"' << c.text << '"';
  }
}

TEST(PathText, EverySpecialCharacterIsRefusedInBothDirections) {
  for (char const special : Lib().specialChars) {
    std::string const key = std::string("a") + special + "b";
    SCOPED_TRACE(key);
    EXPECT_EQ(uvc::aux::CheckId(K(key), Lib()), IdState::BadChar);
    EXPECT_EQ(uvc::ToString({K(key)}, Lib()).second, IdState::BadChar);
    auto const read = uvc::FromString(key, Lib());
    if (special == '/') {
      // The separator cannot be inside a segment: the text names two keys.
      EXPECT_EQ(read.first, (Path{K("a"), K("b")}));
      EXPECT_EQ(read.second, IdState::Ok);
    } else {
      EXPECT_EQ(read.first, Path{});
      EXPECT_EQ(read.second, IdState::BadChar);
    }
    // Also refused after a digit, where the segment would be read as a number.
    EXPECT_EQ(uvc::FromString(std::string("1") + special + "x", Lib()).second,
              special == '/' ? IdState::Ok : IdState::BadChar);
  }
}

TEST(PathText, ReadsBackWhatItWrites) {
  Path const path{K("network"), I(0), K(kHighKey), I(65535), K("x-y.z")};
  auto const [text, state] = uvc::ToString(path, Lib());
  ASSERT_EQ(state, IdState::Ok);
  EXPECT_EQ(text, "network/0/" + kHighKey + "/65535/x-y.z/");
  EXPECT_EQ(uvc::FromString(text, Lib()), std::make_pair(path, IdState::Ok));
}

}  // namespace
}  // namespace values_test
