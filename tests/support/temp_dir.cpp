#include "support/temp_dir.h"

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace test_support {

TempDir::TempDir() {
  auto pattern = (std::filesystem::temp_directory_path() / "sm-test-XXXXXX").string();
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = buffer.data();
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace test_support
