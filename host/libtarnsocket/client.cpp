// The connecting half of the public API.
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>
#include <mutex>

#include "connection.h"
#include "endpoint.h"
#include "tarnsocket/tarn_ipc.h"

namespace tarnsocket {
namespace {

// One endpoint serves every client connection of the process. It is never
// destroyed: its threads may run until the process exits.
int ClientEndpoint(Endpoint** out) {
  static std::mutex mutex;
  static Endpoint* endpoint = nullptr;
  std::lock_guard<std::mutex> lock(mutex);
  if (endpoint == nullptr) {
    // Kept for the life of the process once started, as the static above.
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory)
    auto* created = new Endpoint(-1, Object{nullptr, nullptr});
    const int rc = created->Start();
    if (rc != 0) {
      delete created;  // NOLINT(cppcoreguidelines-owning-memory)
      return rc;
    }
    endpoint = created;
  }
  *out = endpoint;
  return 0;
}

}  // namespace
}  // namespace tarnsocket

extern "C" __attribute__((visibility("default"))) int TarnIPC_connect(const char* socket_path,
                                                                      Object* root_out) {
  using tarnsocket::Connection;
  if (socket_path == nullptr || root_out == nullptr) return -EINVAL;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const size_t length = strlen(socket_path);
  if (length == 0 || length >= sizeof address.sun_path) return -ENAMETOOLONG;
  memcpy(address.sun_path, socket_path, length);

  tarnsocket::Endpoint* endpoint = nullptr;
  int rc = tarnsocket::ClientEndpoint(&endpoint);
  if (rc != 0) return rc;

  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -errno;
  int result;
  do {
    result = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    const int error = errno;
    close(fd);
    return -error;
  }
  auto connection =
      std::make_shared<Connection>(fd, Connection::Side::kClient, endpoint, endpoint->NextId());
  rc = endpoint->Add(connection);
  if (rc != 0) return rc;
  *root_out = connection->ImportRoot();
  return 0;
}
