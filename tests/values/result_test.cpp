// Turning exceptions into results, the error type, and the formatters of ids, results
// and paths.

#include <fmt/format.h>

#include <functional>
#include <stdexcept>

#include "settings_manager/format.h"
#include "uvc/format.h"
#include "values_test_util.h"

namespace values_test {
namespace {

uvc::Result Convert(std::function<void()> const& action) {
  try {
    action();
  } catch (...) {
    return uvc::ProcessException();
  }
  ADD_FAILURE() << "nothing thrown";
  return {};
}

struct ThrowCase {
  char const* name;
  std::function<void()> action;
  uvc::Result expected;
};

TEST(ProcessException, MapsEveryKindOfException) {
  ThrowCase const cases[] = {
      {"thrown result",
       [] {
         throw uvc::Result{Code(0x80000059u), "disk gone"};
       },
       {Code(0x80000059u), "disk gone"}},
      {"uvc::Error",
       [] { throw uvc::Error(Code(0x80000066u), "read only"); },
       {Code(0x80000066u), "read only"}},
      {"uvc::Error with a success code", [] { throw uvc::Error(1, "nothing"); }, {1, "nothing"}},
      {"wrong alternative",
       [] { static_cast<void>(std::get<std::string>(Setting(true))); },
       {Code(0x8000004Au), "uvc: std::bad_variant_access"}},
      {"std::out_of_range",
       [] { throw std::out_of_range("index 9"); },
       {Code(0x8000004Bu), "uvc: std::exception: index 9"}},
      {"std::logic_error",
       [] { throw std::logic_error(""); },
       {Code(0x8000004Bu), "uvc: std::exception: "}},
      {"int", [] { throw 42; }, {Code(0x80000072u), "uvc: non-std exception"}},
      {"pair of another type",
       [] { throw std::pair<int, char const*>(0, "x"); },
       {Code(0x80000072u), "uvc: non-std exception"}},
  };
  for (auto const& c : cases) EXPECT_EQ(Convert(c.action), c.expected) << c.name;
}

TEST(Error, IsALogicErrorWhoseCopiesKeepCodeAndMessage) {
  uvc::Error const original(Code(0x8000005Eu), "out of range: 7");
  uvc::Error const copy = original;
  EXPECT_EQ(copy.code, Code(0x8000005Eu));
  EXPECT_STREQ(copy.what(), "out of range: 7");
  try {
    throw copy;
  } catch (std::logic_error const& caught) {
    EXPECT_STREQ(caught.what(), "out of range: 7");
    EXPECT_EQ(dynamic_cast<uvc::Error const&>(caught).code, Code(0x8000005Eu));
  }
}

TEST(Error, SharedTreeErrorsCarryTheirCodesAndTexts) {
  auto const asResult = [](uvc::Error const& error) {
    return uvc::Result{error.code, error.what()};
  };
  EXPECT_EQ(asResult(uvc::kErrorFound), kFound);
  EXPECT_EQ(asResult(uvc::kErrorNotFound), kNotFound);
  EXPECT_EQ(asResult(uvc::kErrorNotMatched), kNotMatched);
}

TEST(ResultOk, IsOneSuccessResultWithEmptyText) {
  EXPECT_EQ(uvc::ResultOk(), (uvc::Result{0, ""}));
  EXPECT_EQ(&uvc::ResultOk(), &uvc::ResultOk());
}

TEST(Formatters, PrintStatesResultsAndPaths) {
  EXPECT_EQ(fmt::format("{}", uvc::IdState::Ok), "0");
  EXPECT_EQ(fmt::format("{}", uvc::IdState::IndexTooBig), "2");
  EXPECT_EQ(fmt::format("state = {}", uvc::IdState::NoSeparator), "state = 8");

  // Only the display text of the code; the pair's own text is left out.
  EXPECT_EQ(fmt::format("{}", uvc::Result{Code(0x8000004Cu), "own text"}),
            "Not found = 0x8000004c");
  EXPECT_EQ(fmt::format("{}", uvc::ResultOk()), "No error = 0x0");

  EXPECT_EQ(fmt::format("[{}]", uvc::Path{K("a"), I(0)}), "[a/0/]");
  EXPECT_EQ(fmt::format("[{}]", uvc::Root()), "[]");
  EXPECT_EQ(fmt::format("{}", uvc::Path{K("a"), I(65536)}), "<path to str fail: state = 2>");
  EXPECT_EQ(settings_manager::PathToStr(uvc::Path{K("a b")}), "<path to str fail: state = 7>");
}

}  // namespace
}  // namespace values_test
