// Test support: a private temporary folder, removed with its contents.
#ifndef TESK_TESTS_SUPPORT_TEMP_DIR_H_
#define TESK_TESTS_SUPPORT_TEMP_DIR_H_

#include <string>

namespace tesk_test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string Join(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace tesk_test

#endif  // TESK_TESTS_SUPPORT_TEMP_DIR_H_
