/*
 * The client of the system's application monitor, which restarts what stops sending
 * heartbeats. Plain C, from the closed monitor library on a card and from platform/emulation
 * on a development machine.
 *
 * Every operation returns 0 on success and another value on failure. A client is used by one
 * thread at a time, except that deregister and exit may come while another thread is in a
 * registration or a heartbeat, which fails once the client has exited; so does every later call.
 * The record must live until the last of them has returned.
 */
#ifndef ORLA_PLATFORM_APP_MONITOR_H
#define ORLA_PLATFORM_APP_MONITOR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The library's own record, in the caller's memory. Zero before appmon_client_init; its
 * content is nobody else's business. */
typedef struct {
    uint64_t opaque[32];
} appmon_client_t;

/* Connects to the monitor's socket. Fails at once when nobody listens there; the record may
 * then be given to this operation again. `socketPath` is not kept. */
int appmon_client_init(appmon_client_t* client, const char* socketPath);

/* Asks to be watched: the monitor runs `script` when no heartbeat came for `timeoutMs`
 * milliseconds. A refusal is a failure, after which it may be asked again. The text is not
 * kept. */
int appmon_client_register(appmon_client_t* client, uint32_t timeoutMs, const char* script);

/* Tells that the caller is alive. Only after a registration. */
int appmon_client_heartbeat(appmon_client_t* client);

/* Ends the watching, for the reason given, without running the script. */
int appmon_client_deregister(appmon_client_t* client, const char* reason);

/* Closes the connection and releases what the record holds. */
int appmon_client_exit(appmon_client_t* client);

#ifdef __cplusplus
}
#endif
#endif
