// Talking to the daemon: connect, open an interface, start scans. Thin
// wrappers that put the documented buffers into the documented slots and
// return the daemon's own result codes.
#ifndef TESK_CLIENT_TESKCLIENT_SESSION_H_
#define TESK_CLIENT_TESKCLIENT_SESSION_H_

#include <cstdint>
#include <string>

#include <tesk/interfaces.h>
#include <tesk/object.h>

#include "teskclient/request_encoding.h"

namespace teskclient {

// 0 and *root holding one reference, or a negative errno.
int Connect(const std::string& socket_path, Object* root);

// The root's answer (0, or 2 for an unknown id); on 0 *service holds one
// reference.
int32_t OpenService(Object root, uint32_t interface_id, Object* service);

// The scan object's answer: 0 started (*handle holds one reference; release
// it to abandon the scan or after the results), 1 not started, 2 invalid.
int32_t StartDiscoveryScan(Object service, const EncodedDiscoveryScan& request, Object callback,
                           Object* handle);
int32_t StartRangingScan(Object service, const EncodedRangingScan& request, Object callback,
                         Object* handle);

// Registers `callback` with the deauth monitor service for disconnect events
// (see DecodeDeauthEvent). The service's answer: 0 with *token holding one
// reference (release it to end the registration), or 2.
int32_t WatchDisconnects(Object service, Object callback, Object* token);

}  // namespace teskclient

#endif  // TESK_CLIENT_TESKCLIENT_SESSION_H_
