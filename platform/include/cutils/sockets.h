// libcutils: the part of it that a service started by init needs.
#ifndef CUTILS_SOCKETS_H_
#define CUTILS_SOCKETS_H_

#ifdef __cplusplus
extern "C" {
#endif

#define ANDROID_SOCKET_ENV_PREFIX "ANDROID_SOCKET_"

// The descriptor of the socket that init created for this service under
// `name`, published in the environment as ANDROID_SOCKET_<name>; -1 when the
// variable is missing, is not a plain decimal number, or names a descriptor
// that is not an open socket.
int android_get_control_socket(const char* name);

#ifdef __cplusplus
}
#endif

#endif  // CUTILS_SOCKETS_H_
