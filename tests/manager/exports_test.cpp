// The shared library's dynamic symbol table holds the public API and nothing else, each
// symbol in its release's version node, and the library carries the configured product text.

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <regex>
#include <sstream>
#include <string>

#ifndef SM_SHARED_LIBRARY
#error "SM_SHARED_LIBRARY must name the built libsettings_manager.so"
#endif

namespace {

std::string Output(std::string const& command) {
  std::string output;
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  char buffer[4096];
  while (std::size_t n = pipe ? std::fread(buffer, 1, sizeof buffer, pipe.get()) : 0)
    output.append(buffer, n);
  return output;
}

TEST(Exports, OnlyThePublicApiEachInItsReleaseNodeAndTheProductTextInItsSection) {
  std::regex const line(R"(\S+ (\S) (.*?)(@@(.*))?)");  // "<address> <type> <name>@@<node>"
  std::regex const api(
      R"((settings_manager::(CreateSettingsManager|IsReadOnly|LastResult|logging::SetThreshold|)"
      R"(logging::Threshold|logging::SetSink|operator==|PathToStr|ListChildren|GetTree|EditTree|)"
      R"(ReplaceTree|CompareTrees|BackupDatabase|RestoreDatabase|ReadSettingFromFile|)"
      R"(meta::GetIdSpecification)|uvc::(ToString|FromString|aux::CheckId|ProcessException|)"
      R"(ResultOk)|fdn::(ResultCodeText|GeneralCodeText|PlatformCodeText)|)"
      R"(tern::rtl::Timestamp::Now))"
      R"((\[abi:cxx11\])?\(.*|((typeinfo|typeinfo name|vtable) for (uvc::Error|)"
      R"(settings_manager::ISettings\w+))|uvc::Error::.*|sdkProdName)");
  std::regex const node("SETTINGS_MANAGER_" SM_SOVERSION R"(\.[0-9]+)");
  std::istringstream lines(Output("nm -D --defined-only -C '" SM_SHARED_LIBRARY "'"));
  int exports = 0;
  for (std::string text; std::getline(lines, text);) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(text, m, line)) << text;
    if (m[1] == "A") continue;  // a version node's own entry
    auto const name = m[2].str();
    ++exports;
    EXPECT_TRUE(std::regex_match(name, api)) << "unexpected export: " << name;
    EXPECT_TRUE(std::regex_match(m[4].str(), node)) << name << " @@" << m[4];
  }
  EXPECT_GT(exports, 30);  // what is missing, settingsctl and the consumer fail to link
  EXPECT_EQ(
      Output("objcopy -O binary --only-section=.sdk_prod_name '" SM_SHARED_LIBRARY "' /dev/stdout"),
      std::string(SM_EXPECTED_PRODUCT_NAME) + '\0');  // the text and its zero
}

}  // namespace
