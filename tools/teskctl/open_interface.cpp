#include <cerrno>
#include <cstdio>
#include <system_error>

#include "command.h"
#include "teskclient/session.h"

int OpenInterface(const GlobalOptions& options, uint32_t interface_id, Object* service) {
  Object root = kNullObject;
  const int error = teskclient::Connect(options.socket_path, &root);
  if (error != 0) {
    fprintf(stderr, "teskctl: cannot reach the daemon at %s: %s\n", options.socket_path.c_str(),
            std::generic_category().message(error < 0 ? -error : EIO).c_str());
    return kExitUnreachable;
  }
  const int32_t result = teskclient::OpenService(root, interface_id, service);
  ObjectRelease(root);
  if (result == OBJECT_OK) return kExitOk;
  if (result == OBJECT_ERROR_INVALID) {
    fprintf(stderr, "teskctl: the daemon does not offer interface %u\n", interface_id);
    return kExitInvalid;
  }
  if (result == OBJECT_ERROR_NOT_STARTED) {
    fprintf(stderr, "teskctl: the daemon could not open interface %u\n", interface_id);
    return kExitNotStarted;
  }
  // Not an answer of the root object: the call did not get through.
  fprintf(stderr, "teskctl: lost the connection to the daemon at %s (result %d)\n",
          options.socket_path.c_str(), result);
  return kExitUnreachable;
}
