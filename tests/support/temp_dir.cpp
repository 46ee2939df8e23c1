#include "support/temp_dir.h"

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>

namespace test_support {

TempDir::TempDir() {
  auto pattern = (std::filesystem::temp_directory_path() / "sm-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace test_support
