#include "tests/support/temp_dir.h"

#include <ftw.h>
#include <stdlib.h>
#include <unistd.h>

#include <stdexcept>

namespace tesk_test {

TempDir::TempDir() {
  char pattern[] = "/tmp/tesk-test-XXXXXX";
  if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  nftw(
      path_.c_str(),
      [](const char* path, const struct stat*, int, struct FTW*) { return remove(path); }, 16,
      FTW_DEPTH | FTW_PHYS);
}

}  // namespace tesk_test
