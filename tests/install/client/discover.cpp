// Runs one discovery scan through the daemon at argv[1] and prints how many
// records came back; exits 0 only for a well-formed, non-empty delivery.
#include <teskclient/callback_object.h>
#include <teskclient/request_encoding.h>
#include <teskclient/result_decoding.h>
#include <teskclient/session.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

namespace {

// Outlives main: a delivery still on its way when main gives up finds it.
std::mutex mutex;
std::condition_variable delivered;
bool done = false;
bool well_formed = false;
size_t records = 0;

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: discover SOCKET\n");
    return 2;
  }
  Object root = kNullObject;
  if (teskclient::Connect(argv[1], &root) != 0) {
    fprintf(stderr, "discover: cannot connect to %s\n", argv[1]);
    return 1;
  }
  Object scan = kNullObject;
  if (teskclient::OpenService(root, kInterfaceDiscoveryScan, &scan) != OBJECT_OK) {
    fprintf(stderr, "discover: no discovery scan interface\n");
    return 1;
  }

  teskclient::DiscoveryScanPlan plan;
  plan.params.band = 2;
  teskclient::EncodedDiscoveryScan request;
  std::string error;
  teskclient::EncodeDiscoveryScan(plan, &request, &error);

  Object callback = teskclient::MakeCallbackObject([](const ObjectArg* args, uint32_t counts) {
    teskclient::DiscoveryResults results;
    const bool ok = teskclient::DecodeDiscoveryDelivery(args, counts, &results);
    std::lock_guard<std::mutex> lock(mutex);
    well_formed = ok;
    records = results.records.size();
    done = true;
    delivered.notify_all();
  });

  Object handle = kNullObject;
  if (teskclient::StartDiscoveryScan(scan, request, callback, &handle) != OBJECT_OK) {
    fprintf(stderr, "discover: scan not started\n");
    return 1;
  }
  std::unique_lock<std::mutex> lock(mutex);
  delivered.wait_for(lock, std::chrono::seconds(30), [&] { return done; });
  const bool ok = done && well_formed && records > 0;
  printf("%s: %zu records\n", ok ? "delivered" : "no results", records);
  lock.unlock();

  ObjectRelease(handle);
  ObjectRelease(callback);
  ObjectRelease(scan);
  ObjectRelease(root);
  return ok ? 0 : 1;
}
