// The shared library's dynamic symbol table holds the public API and nothing else, and
// it carries the product text the build was given.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/temp_dir.h"

#ifndef SM_SHARED_LIBRARY
#error "SM_SHARED_LIBRARY must name the built libsettings_manager.so"
#endif
#ifndef SM_SOVERSION
#error "SM_SOVERSION must hold the library file's major number"
#endif
#ifndef SM_EXPECTED_PRODUCT_NAME
#error "SM_EXPECTED_PRODUCT_NAME must hold the configured product text"
#endif

namespace {

struct CommandResult {
  int status;
  std::string output;
};

CommandResult RunCommand(std::string const& command) {
  CommandResult result{-1, {}};
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  if (!pipe) return result;
  std::array<char, 4096> buffer{};
  while (std::fgets(buffer.data(), static_cast<int>(buffer.size()), pipe.get()) != nullptr)
    result.output += buffer.data();
  result.status = pclose(pipe.release());
  return result;
}

struct Export {
  std::string name;     // demangled
  std::string version;  // the symbol version node, empty when unversioned
};

// The defined dynamic symbols, apart from the version nodes' own entries.
std::vector<Export> ExportedSymbols() {
  auto const nm = RunCommand(std::string("nm -D --defined-only -C '") + SM_SHARED_LIBRARY + "'");
  EXPECT_EQ(nm.status, 0) << nm.output;
  std::vector<Export> exports;
  std::istringstream lines(nm.output);
  for (std::string line; std::getline(lines, line);) {
    // "<address> <type> <name>[@@<version>]"
    auto const type = line.find(' ');
    if (type == std::string::npos || type + 3 > line.size()) continue;
    if (line[type + 1] == 'A') continue;  // a version node
    std::string name = line.substr(type + 3);
    std::string version;
    if (auto const at = name.rfind("@@"); at != std::string::npos) {
      version = name.substr(at + 2);
      name.erase(at);
    }
    exports.push_back({name, version});
  }
  return exports;
}

bool StartsWith(std::string const& text, std::string const& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

TEST(Exports, OnlyThePublicApiIsExported) {
  std::vector<std::string> symbols;
  for (auto const& symbol : ExportedSymbols()) symbols.push_back(symbol.name);
  ASSERT_FALSE(symbols.empty());
  std::vector<std::string> const allowed = {
      "settings_manager::CreateSettingsManager(",
      "settings_manager::IsReadOnly(",
      "settings_manager::LastResult[abi:cxx11](",
      "settings_manager::LastResult(",
      "settings_manager::logging::SetThreshold(",
      "settings_manager::logging::Threshold(",
      "settings_manager::logging::SetSink(",
      "settings_manager::operator==(",
      "settings_manager::PathToStr(",
      "settings_manager::ListChildren(",
      "settings_manager::GetTree(",
      "settings_manager::EditTree(",
      "settings_manager::ReplaceTree(",
      "settings_manager::CompareTrees(",
      "settings_manager::BackupDatabase(",
      "settings_manager::RestoreDatabase(",
      "settings_manager::ReadSettingFromFile(",
      "settings_manager::meta::GetIdSpecification(",
      "uvc::ToString(",
      "uvc::FromString[abi:cxx11](",
      "uvc::FromString(",
      "uvc::aux::CheckId(",
      "uvc::ProcessException[abi:cxx11](",
      "uvc::ProcessException(",
      "uvc::ResultOk[abi:cxx11](",
      "uvc::ResultOk(",
      "typeinfo for uvc::Error",
      "typeinfo name for uvc::Error",
      "vtable for uvc::Error",
      "uvc::Error::",
      "fdn::ResultCodeText[abi:cxx11](",
      "fdn::ResultCodeText(",
      "fdn::GeneralCodeText(",
      "fdn::PlatformCodeText(",
      "tern::rtl::Timestamp::Now(",
      // The client interfaces are public too, should their type data ever be emitted here.
      "typeinfo for settings_manager::ISettings",
      "typeinfo name for settings_manager::ISettings",
      "vtable for settings_manager::ISettings",
  };
  // Internals, wherever they appear (the config struct is public and merely shares a prefix).
  std::regex const internal(
      R"(settings_db|impl::|db_wrappers|tern::logger|settings_manager::SettingsManager(?!Config))");
  for (auto const& symbol : symbols) {
    bool const known = symbol == "sdkProdName" ||
                       std::any_of(allowed.begin(), allowed.end(),
                                   [&](std::string const& p) { return StartsWith(symbol, p); });
    EXPECT_TRUE(known) << "unexpected export: " << symbol;
    EXPECT_FALSE(std::regex_search(symbol, internal)) << symbol;
    // Standard types may appear in a parameter list, never as the symbol itself.
    EXPECT_FALSE(StartsWith(symbol, "std::")) << symbol;
  }
  auto const has = [&](std::string const& prefix) {
    return std::any_of(symbols.begin(), symbols.end(),
                       [&](std::string const& s) { return StartsWith(s, prefix); });
  };
  EXPECT_TRUE(has(
      "settings_manager::CreateSettingsManager(settings_manager::SettingsManagerConfig const&"));
  EXPECT_TRUE(has("settings_manager::EditTree(settings_manager::ISettingsManager&"));
  EXPECT_TRUE(has("sdkProdName"));
  EXPECT_TRUE(has("typeinfo for uvc::Error"));
}

// Each export belongs to the node of the release that added it: SETTINGS_MANAGER_<the
// library file's major number>.<minor>, the nodes the Debian symbols file names.
TEST(Exports, EveryExportCarriesAReleaseVersionNode) {
  std::regex const node("SETTINGS_MANAGER_" SM_SOVERSION R"(\.[0-9]+)");
  auto const exports = ExportedSymbols();
  ASSERT_FALSE(exports.empty());
  for (auto const& symbol : exports)
    EXPECT_TRUE(std::regex_match(symbol.version, node)) << symbol.name << " @@" << symbol.version;
}

TEST(Exports, ProductTextSitsInItsOwnSection) {
  test_support::TempDir dir;
  auto const out = dir.File("section.bin");
  auto const objcopy = RunCommand(std::string("objcopy -O binary --only-section=.sdk_prod_name '") +
                                  SM_SHARED_LIBRARY + "' '" + out + "' 2>&1");
  ASSERT_EQ(objcopy.status, 0) << objcopy.output;
  std::ifstream file(out, std::ios::binary);
  std::string const bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  // The whole section is the text and its terminating zero.
  EXPECT_EQ(bytes, std::string(SM_EXPECTED_PRODUCT_NAME) + '\0');
}

}  // namespace
