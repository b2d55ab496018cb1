// The process-wide deauth monitor: the detector whose OnDeauth fans each
// disconnect event out to every registered client callback.
#ifndef TESK_DEAUTH_DEAUTH_MONITOR_H_
#define TESK_DEAUTH_DEAUTH_MONITOR_H_

#include <atomic>
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include <tesk/object.h>

#include "deauth/deauth_detector.h"

class DeauthMonitor : public DeauthDetector {
 public:
  // One registration. Its address is the key of the registration; the
  // client holds it as a token object with a reference count.
  struct MonitorToken {
    std::atomic<uint32_t> refs{1};
  };

  // The singleton, created on first use and destroyed at process exit. Its
  // members go first and the base part stops the listener thread after
  // them, an order kept as it is.
  static DeauthMonitor& Get();

  // Registers callback (retaining it once) and writes the token object,
  // carrying one reference, to *token_out.
  void Listen(Object callback, Object* token_out);

  // Ends the registration of token, releasing its callback once; a token no
  // longer registered is ignored.
  void Release(MonitorToken* token);

  // Delivers one DeauthEvent to every registered callback, under the lock.
  void OnDeauth(int wiphy, int ifindex, int reason, bool by_ap) override;

 private:
  DeauthMonitor();

  std::unordered_map<MonitorToken*, Object> listeners;
  std::mutex mutex;
};

// The token object's invoke (context: the MonitorToken): retain and release
// only.
int32_t MonitorTokenInvoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts);

#endif  // TESK_DEAUTH_DEAUTH_MONITOR_H_
