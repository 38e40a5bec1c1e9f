// Real files for tests.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace zor::remote::test {

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

}  // namespace zor::remote::test
