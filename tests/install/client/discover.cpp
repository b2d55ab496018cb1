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

int Fail(const char* what) {
  fprintf(stderr, "discover: %s\n", what);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  Object root = kNullObject, scan = kNullObject, handle = kNullObject;
  if (argc != 2 || teskclient::Connect(argv[1], &root) != 0) return Fail("cannot connect");
  if (teskclient::OpenService(root, kInterfaceDiscoveryScan, &scan) != OBJECT_OK) {
    return Fail("no discovery scan interface");
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
  if (teskclient::StartDiscoveryScan(scan, request, callback, &handle) != OBJECT_OK) {
    return Fail("scan not started");
  }
  std::unique_lock<std::mutex> lock(mutex);
  delivered.wait_for(lock, std::chrono::seconds(30), [&] { return done; });
  const bool ok = done && well_formed && records > 0;
  printf("%s: %zu records\n", ok ? "delivered" : "no results", records);
  lock.unlock();
  for (Object o : {handle, callback, scan, root}) ObjectRelease(o);
  return ok ? 0 : 1;
}
