/*
 * A client written only against the IPC library's client header, in C:
 * root_client SOCKET asks the root object for interface id 3 and exits 0
 * when the answer is 2 with the null object.
 */
#include <stdio.h>

#include "tarnsocket/tarn_ipc.h"

int main(int argc, char** argv) {
  Object root;
  if (argc != 2 || TarnIPC_connect(argv[1], &root) != 0) return 3;
  uint32_t id = 3;
  ObjectArg args[2];
  args[0].b.ptr = &id;
  args[0].b.size = sizeof id;
  args[1].o.invoke = NULL;
  args[1].o.context = NULL;
  int32_t result = root.invoke(root.context, OBJECT_OP_METHOD, args, OBJECT_COUNTS(1, 0, 0, 1));
  printf("result %d, %s object\n", (int)result, args[1].o.invoke == NULL ? "null" : "non-null");
  root.invoke(root.context, OBJECT_OP_RELEASE, NULL, 0);
  return result == OBJECT_ERROR_INVALID && args[1].o.invoke == NULL ? 0 : 1;
}
