// Test support: a private temporary folder, removed with its contents.
#ifndef TESK_TESTS_SUPPORT_TEMP_DIR_H_
#define TESK_TESTS_SUPPORT_TEMP_DIR_H_

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace tesk_test {

class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/tesk-test-XXXXXX";
    if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string Join(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace tesk_test

#endif  // TESK_TESTS_SUPPORT_TEMP_DIR_H_
