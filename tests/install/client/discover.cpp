// Builds against the installed package alone: connects to the daemon at
// argv[1], opens the discovery scan interface and encodes a request there.
#include <teskclient/request_encoding.h>
#include <teskclient/session.h>

#include <string>

int main(int argc, char** argv) {
  Object root = kNullObject, scan = kNullObject;
  if (argc != 2 || teskclient::Connect(argv[1], &root) != 0) return 1;
  const int32_t opened = teskclient::OpenService(root, kInterfaceDiscoveryScan, &scan);
  teskclient::EncodedDiscoveryScan request;
  std::string error;
  const bool encoded =
      teskclient::EncodeDiscoveryScan(teskclient::DiscoveryScanPlan(), &request, &error);
  ObjectRelease(scan);
  ObjectRelease(root);
  return opened == OBJECT_OK && encoded ? 0 : 1;
}
