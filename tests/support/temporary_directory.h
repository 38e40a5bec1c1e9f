// Real files for tests.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace zor::client::test {

namespace fs = std::filesystem;

/// A new directory that goes with this object.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string name = ::testing::TempDir() + "remote.XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp");
    mPath = name;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    using Iterator = fs::recursive_directory_iterator;
    for (Iterator entry(mPath, ignored); entry != Iterator(); entry.increment(ignored)) {
      if (entry->is_directory() && !entry->is_symlink()) {
        fs::permissions(entry->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
      }
    }
    fs::remove_all(mPath, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  fs::path operator/(const std::string& name) const { return mPath / name; }
  const fs::path& path() const { return mPath; }

 private:
  fs::path mPath;
};

inline void writeFile(const fs::path& path, const std::string& contents) {
  std::ofstream(path, std::ios::binary) << contents;
}

inline std::string readFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

}  // namespace zor::client::test
