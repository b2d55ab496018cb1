// The client connection to the location service.
//
// createInstance connects and starts the client's own delivery thread. Each
// accepted request is answered later on that thread, through the listener's
// responseReceived; the client deletes the response as soon as
// responseReceived returns, so a listener keeps nothing of it. One request
// gets one response as a rule, but a listener must cope with a null response,
// a response of an unexpected type and a repeated response for an id.
//
// Deleting the client stops the delivery thread; answers not yet delivered
// are dropped. Do not delete the client from inside responseReceived.
#ifndef KY_LOC_FW_VELA_CLIENT_H_
#define KY_LOC_FW_VELA_CLIENT_H_

#include "ky_loc_fw/vela_request.h"
#include "ky_loc_fw/vela_response.h"

namespace ky_loc_fw {

// The notification comes first in the table of virtual operations, before
// the destructors: the library calls it through slot 0.
class VELAClientListener {
 public:
  // On the client's delivery thread. response may be null; it is deleted by
  // the client after the call.
  virtual void responseReceived(VELAResponse* response) = 0;
  virtual ~VELAClientListener();
};

class VELAClient {
 public:
  // Level of the client's own log lines (tag "vela"): 2 adds debug lines.
  enum eLogLevel : int {
    LOG_LEVEL_ERROR = 0,
    LOG_LEVEL_INFO = 1,
    LOG_LEVEL_DEBUG = 2,
  };

  // listener must outlive the client. autoReconnect: reconnect by itself when
  // the service restarts (requests pending then are answered with
  // SCAN_STATUS_ABORTED). Returns null when the service cannot be reached or
  // listener is null.
  static VELAClient* createInstance(VELAClientListener* listener, bool autoReconnect,
                                    eLogLevel logLevel);

  VELAClient(const VELAClient&) = delete;
  VELAClient& operator=(const VELAClient&) = delete;
  virtual ~VELAClient();

  // Copies what it needs of request; the caller keeps it and may delete it
  // when the call returns. 0: accepted, one response will follow; nonzero:
  // refused, nothing will follow. The response may be delivered before this
  // call returns.
  virtual int sendRequest(VELARequest* request) = 0;

 protected:
  VELAClient();
};

}  // namespace ky_loc_fw

#endif  // KY_LOC_FW_VELA_CLIENT_H_
