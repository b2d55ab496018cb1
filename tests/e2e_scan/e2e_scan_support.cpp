#include "tests/e2e_scan/e2e_scan_support.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "teskclient/callback_object.h"
#include "teskclient/session.h"

extern char** environ;

namespace e2e_scan {

ScenarioDaemon::ScenarioDaemon(const std::string& scenario) {
  const std::string path = dir_.Join("scenario.scn");
  std::ofstream(path) << scenario;
  tesk_test::DaemonProcess::Options options;
  options.environment.push_back("VELA_SCENARIO=" + path);
  daemon_ = std::make_unique<tesk_test::DaemonProcess>(options);
  if (!daemon_->WaitUntilServing()) throw std::runtime_error("the daemon does not serve");
}

ScenarioDaemon::~ScenarioDaemon() {
  const std::string log = daemon_->Log();
  if (log.find("Sanitizer") != std::string::npos ||
      log.find("runtime error") != std::string::npos) {
    ADD_FAILURE() << "the daemon reported:\n" << log;
  }
}

Client::Client(const std::string& socket_path, uint32_t interface_id) {
  Object root = kNullObject;
  if (teskclient::Connect(socket_path, &root) != 0) return;
  Object service = kNullObject;
  if (teskclient::OpenService(root, interface_id, &service) == OBJECT_OK) service_ = service;
  ObjectRelease(root);
  std::shared_ptr<Collected> collected = collected_;
  callback_ = teskclient::MakeCallbackObject([collected](const ObjectArg* args, uint32_t counts) {
    std::lock_guard<std::mutex> lock(collected->mutex);
    ++collected->deliveries;
    collected->counts = counts;
    collected->sizes.clear();
    for (unsigned i = 0; i < OBJECT_COUNTS_IN_BUFS(counts); ++i) {
      collected->sizes.push_back(args[i].b.size);
    }
    collected->decoded =
        counts == kDiscoveryDeliveryCounts
            ? teskclient::DecodeDiscoveryDelivery(args, counts, &collected->discovery)
            : teskclient::DecodeRangingDelivery(args, counts, &collected->ranging);
    collected->changed.notify_all();
  });
}

Client::~Client() {
  ReleaseHandle();
  if (!IsNullObject(callback_)) ObjectRelease(callback_);
  if (!IsNullObject(service_)) ObjectRelease(service_);
}

int32_t Client::StartDiscovery(const teskclient::DiscoveryScanPlan& plan) {
  teskclient::EncodedDiscoveryScan request;
  std::string error;
  if (!teskclient::EncodeDiscoveryScan(plan, &request, &error)) return -1;
  return teskclient::StartDiscoveryScan(service_, request, callback_, &handle_);
}

int32_t Client::StartRanging(const teskclient::RangingScanPlan& plan) {
  return teskclient::StartRangingScan(service_, teskclient::EncodeRangingScan(plan), callback_,
                                      &handle_);
}

bool Client::WaitForDelivery() {
  std::unique_lock<std::mutex> lock(collected_->mutex);
  return collected_->changed.wait_for(lock, kPatience,
                                      [this] { return collected_->deliveries > 0; });
}

void Client::ReleaseHandle() {
  if (IsNullObject(handle_)) return;
  ObjectRelease(handle_);
  handle_ = kNullObject;
}

Teskctl::Teskctl(const std::vector<std::string>& args) {
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  std::vector<std::string> strings{tesk_test::BuiltBinary("teskctl")};
  strings.insert(strings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& s : strings) argv.push_back(s.data());
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    dup2(out[1], STDOUT_FILENO);
    execve(argv[0], argv.data(), environ);
    _exit(127);
  }
  close(out[1]);
  out_fd_ = out[0];
}

Teskctl::~Teskctl() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    Finish();
  }
  if (out_fd_ >= 0) close(out_fd_);
}

int Teskctl::Finish(std::string* out) {
  std::string text;
  char buffer[4096];
  ssize_t n;
  while ((n = read(out_fd_, buffer, sizeof buffer)) > 0) text.append(buffer, n);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  if (out != nullptr) *out = text;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

Bytes Ie(uint8_t id, const Bytes& data) {
  Bytes ie(data.size() + 2);
  ie[0] = id;
  ie[1] = static_cast<uint8_t>(data.size());
  for (size_t i = 0; i < data.size(); ++i) ie[i + 2] = data[i];
  return ie;
}

std::string Hex(const Bytes& bytes) {
  std::string text;
  char pair[3];
  for (uint8_t byte : bytes) {
    snprintf(pair, sizeof pair, "%02x", byte);
    text += pair;
  }
  return text;
}

std::string JsonField(const std::string& line, const std::string& key) {
  const std::string marker = "\"" + key + "\":";
  const size_t at = line.find(marker);
  if (at == std::string::npos) return "";
  size_t end = at + marker.size();
  if (end < line.size() && line[end] == '"') {
    for (++end; end < line.size() && line[end] != '"'; ++end) {
      if (line[end] == '\\') ++end;
    }
    ++end;
  } else {
    while (end < line.size() && line[end] != ',' && line[end] != '}') ++end;
  }
  return line.substr(at + marker.size(), end - at - marker.size());
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t nl = text.find('\n'); nl != std::string::npos; nl = text.find('\n', start)) {
    lines.push_back(text.substr(start, nl - start));
    start = nl + 1;
  }
  return lines;
}

}  // namespace e2e_scan
