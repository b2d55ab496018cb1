// A descriptor owned by one scope: closed when the scope ends unless released.
#ifndef HOSTINIT_UNIQUE_FD_H_
#define HOSTINIT_UNIQUE_FD_H_

#include <unistd.h>

class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() { Reset(-1); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  int get() const { return fd_; }
  void Reset(int fd) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }
  int Release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

#endif  // HOSTINIT_UNIQUE_FD_H_
