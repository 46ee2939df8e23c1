#pragma once

#include <filesystem>
#include <string>

namespace test_support {

// A fresh folder under the system's temporary directory, removed with its content when
// the object ends.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(TempDir const&) = delete;
  TempDir& operator=(TempDir const&) = delete;

  std::filesystem::path const& Path() const { return path_; }
  // A path inside the folder, as text.
  std::string File(std::string const& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

}  // namespace test_support
