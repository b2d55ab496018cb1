/*
 * A client written only against the IPC library's client header, in C.
 *   root_client SOCKET            asks for interface id 3 and checks that the
 *                                 answer is 2 with the null object (exit 0)
 *   root_client SOCKET --hammer   invokes the root object in a loop, holding
 *                                 the objects it opens, until killed
 */
#include <stdio.h>
#include <string.h>

#include "tarnsocket/tarn_ipc.h"

static int32_t OpenInterface(Object root, uint32_t id, Object* out) {
  ObjectArg args[2];
  args[0].b.ptr = &id;
  args[0].b.size = sizeof id;
  args[1].o.invoke = NULL;
  args[1].o.context = NULL;
  int32_t result = root.invoke(root.context, OBJECT_OP_METHOD, args, OBJECT_COUNTS(1, 0, 0, 1));
  *out = args[1].o;
  return result;
}

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: root_client SOCKET [--hammer]\n");
    return 64;
  }
  Object root;
  int rc = TarnIPC_connect(argv[1], &root);
  if (rc != 0) {
    fprintf(stderr, "connect: %s\n", strerror(-rc));
    return 3;
  }

  if (argc > 2 && strcmp(argv[2], "--hammer") == 0) {
    printf("calling\n");
    fflush(stdout);
    for (;;) {
      Object held;
      OpenInterface(root, 3, &held);
      if (OpenInterface(root, 1, &held) == OBJECT_OK && held.invoke != NULL) {
        /* kept on purpose: the daemon must drop it when this process dies */
      }
    }
  }

  Object out;
  int32_t result = OpenInterface(root, 3, &out);
  printf("result %d, %s object\n", (int)result, out.invoke == NULL ? "null" : "non-null");
  root.invoke(root.context, OBJECT_OP_RELEASE, NULL, 0);
  return result == OBJECT_ERROR_INVALID && out.invoke == NULL && out.context == NULL ? 0 : 1;
}
