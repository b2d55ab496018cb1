#include "deauth/deauth_monitor.h"

#include <memory>
#include <utility>

#include <tesk/counted_object.h>
#include <tesk/deauth_event.h>
#include <tesk/interfaces.h>

DeauthMonitor::DeauthMonitor() {
  listeners.max_load_factor(1.0f);
}

DeauthMonitor& DeauthMonitor::Get() {
  static DeauthMonitor monitor;
  return monitor;
}

void DeauthMonitor::Listen(Object callback, Object* token_out) {
  std::lock_guard<std::mutex> lock(mutex);
  auto token = std::make_unique<MonitorToken>();
  // The key is new, so this always inserts; an existing entry would be kept.
  listeners.emplace(token.get(), callback);
  ObjectRetain(callback);  // owned by the map's entry
  *token_out = HandOutCounted(MonitorTokenInvoke, std::move(token));
}

void DeauthMonitor::Release(MonitorToken* token) {
  Object callback;
  {
    std::lock_guard<std::mutex> lock(mutex);
    auto entry = listeners.find(token);
    if (entry == listeners.end()) return;
    callback = entry->second;
    listeners.erase(entry);
  }
  ObjectRelease(callback);
}

void DeauthMonitor::OnDeauth(int wiphy, int ifindex, int reason, bool by_ap) {
  // The whole round runs under the lock, without a snapshot: a slow callback
  // holds up the others and any registration meanwhile; kept as it is.
  std::lock_guard<std::mutex> lock(mutex);
  for (const auto& entry : listeners) {
    DeauthEvent event{wiphy, ifindex, reason, by_ap ? 1u : 0u};
    ObjectArg arg;
    arg.b = ObjectBuf{&event, sizeof event};
    ObjectCall(entry.second, OBJECT_OP_METHOD, &arg, kDeauthEventCounts);
  }
}

int32_t MonitorTokenInvoke(void* context, uint32_t op, ObjectArg* /*args*/, uint32_t /*counts*/) {
  // The token has no method of its own.
  return InvokeCounted<DeauthMonitor::MonitorToken>(
      context, op, NoMethods{},
      [](DeauthMonitor::MonitorToken& token) { DeauthMonitor::Get().Release(&token); });
}
