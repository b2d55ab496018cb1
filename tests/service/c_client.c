/*
 * A client written in C against the IPC library's client header: building it
 * checks that the header compiles and links as C. It asks the root object at
 * SOCKET for interface id 3, which the daemon does not know.
 */
#include <stddef.h>

#include "tarnsocket/tarn_ipc.h"

int main(int argc, char** argv) {
  Object root;
  uint32_t id = 3;
  ObjectArg args[2];
  if (argc != 2 || TarnIPC_connect(argv[1], &root) != 0) return 3;
  args[0].b.ptr = &id;
  args[0].b.size = sizeof id;
  args[1].o.invoke = NULL;
  int32_t result = root.invoke(root.context, OBJECT_OP_METHOD, args, OBJECT_COUNTS(1, 0, 0, 1));
  return result == OBJECT_ERROR_INVALID ? 0 : 1;
}
