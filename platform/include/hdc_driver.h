/*
 * The driver's host-device channel (HDC) and its device numbers. Plain C, from the closed
 * driver library on a card and from platform/emulation on a development machine.
 *
 * A server listens for one service type on one device; a client of the same service type
 * connects to it; both ends then hold a session, on which the driver moves buffers of at most
 * the maximum segment. Buffers arrive in the order in which they were sent, whole.
 *
 * Every operation returns 0 (DRV_ERROR_NONE) or a positive code; those that callers tell
 * apart are named below, any other is a failure without a special meaning. On a failure
 * out-parameters are unchanged.
 *
 * What callers keep to; nothing says what a driver does when they don't:
 *
 * - Operations on different handles may run on any threads at once. One session may be sent on
 *   by one thread, received on by another and closed by a third at the same time; two sends, or
 *   two receives, never overlap. The other operations on a session, such as the allocation of a
 *   message, may run on any threads beside these and beside each other. A message is used by one
 *   thread at a time.
 * - No call begins on a handle whose close has begun, on whatever thread; not even another
 *   close. Calls that are under way may be inside when it begins: a close wakes those that block,
 *   and may wait until all have left, so no lock that they need is held around it. A close or
 *   destroy that fails leaves the handle valid.
 * - After a send that failed with anything but DRV_ERROR_NON_BLOCK nothing more is sent on the
 *   session.
 */
#ifndef ORLA_PLATFORM_HDC_DRIVER_H
#define ORLA_PLATFORM_HDC_DRIVER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int drvError_t;

enum {
    DRV_ERROR_NONE = 0,
    DRV_ERROR_WAIT_TIMEOUT = 16,     /* the time given to a receive ran out */
    DRV_ERROR_CLIENT_BUSY = 23,      /* a server or client can't be released yet: try again */
    DRV_ERROR_SOCKET_CLOSE = 25,     /* the session was closed, by the peer or by this side */
    DRV_ERROR_DEVICE_NOT_READY = 34, /* the device's channel isn't up yet: try again */
    DRV_ERROR_NON_BLOCK = 36,        /* nothing to receive, or no room to send, right now */
    DRV_ERROR_NOT_SUPPORT = 65534,   /* this device does not know what was asked for */
};

/* Opaque handles; null means none. A message belongs to the session that it was allocated
 * for and outlives it: it is still to be freed after the session was closed. */
typedef void* drvHdcClient_t;
typedef void* drvHdcServer_t;
typedef void* drvHdcSession_t;
typedef void* drvHdcMsg_t;
typedef void* drvHdcEpoll_t;

enum {
    HDC_CHAN_TYPE_SOCKET = 2, /* the channel type whose capacity is asked for */
};

typedef struct {
    int32_t chanType;    /* in */
    uint32_t maxSegment; /* out: largest buffer that one send moves, in bytes */
} drvHdcCapacity;

/* What halHdcGetSessionAttr can be asked. */
enum {
    HDC_SESSION_ATTR_DEV_ID = 0,   /* logical device id of the server */
    HDC_SESSION_ATTR_RUN_ENV = 2,  /* where the peer runs: 1 physical machine, 2 container in it,
                                      3 virtual machine, 4 container in a virtual machine */
    HDC_SESSION_ATTR_VFID = 3,     /* virtual function id, 0 for none */
    HDC_SESSION_ATTR_PEER_PID = 5, /* process id of the peer on its own side */
};

enum {
    HDC_FLAG_WAIT = 0,    /* block until done, or until the session closes */
    HDC_FLAG_NOWAIT = 1,  /* answer DRV_ERROR_NON_BLOCK rather than block */
    HDC_FLAG_TIMEOUT = 2, /* receive only: block for at most the timeout */
};

/* ---- Clients and servers ----------------------------------------------------------- */

/* `maxSessions`: sessions that may be open at once; `flag`: 0. */
drvError_t drvHdcClientCreate(drvHdcClient_t* client, int maxSessions, int serviceType, int flag);
/* Its sessions must be closed before, else DRV_ERROR_CLIENT_BUSY. */
drvError_t drvHdcClientDestroy(drvHdcClient_t client);
/* Starts to listen. DRV_ERROR_DEVICE_NOT_READY while the device's channel is down. */
drvError_t drvHdcServerCreate(int logicalDevice, int serviceType, drvHdcServer_t* server);
/* Stops listening and makes a blocked accept on this server fail. Accepted sessions live on.
 * DRV_ERROR_CLIENT_BUSY while it can't be released yet; the handle then stays valid. Otherwise
 * the server leaves event waits by itself, and nothing is asked of them about it later. */
drvError_t drvHdcServerDestroy(drvHdcServer_t server);
/* Blocks until a peer is connected. On a failure errno tells the system's reason (EINTR: a
 * signal came; try again), or is unchanged. */
drvError_t drvHdcSessionAccept(drvHdcServer_t server, drvHdcSession_t* session);

/* ---- Sessions ---------------------------------------------------------------------- */

/* `peerNode`: 0 for the device side; `peerDevice`: logical device id there. */
drvError_t drvHdcSessionConnect(int peerNode, int peerDevice, drvHdcClient_t client,
                                drvHdcSession_t* session);
/* The same in the name of another process of this host. */
drvError_t halHdcSessionConnectEx(int peerNode, int peerDevice, int hostPid, drvHdcClient_t client,
                                  drvHdcSession_t* session);
/* Binds the session to the calling process, so that it ends with it. */
drvError_t drvHdcSetSessionReference(drvHdcSession_t session);
/* Ends the session on both sides. Sends and receives that are blocked on it return
 * DRV_ERROR_SOCKET_CLOSE, on any thread. The handle is invalid from the beginning of the call on,
 * for all calls that have not begun before. */
drvError_t drvHdcSessionClose(drvHdcSession_t session);
drvError_t halHdcGetSessionAttr(drvHdcSession_t session, int attribute, int* value);
drvError_t drvHdcGetCapacity(drvHdcCapacity* capacity);

/* ---- Messages: the carriers of buffers ---------------------------------------------- */

/* `count`: buffers that the message can carry out; this system uses 1. */
drvError_t drvHdcAllocMsg(drvHdcSession_t session, drvHdcMsg_t* message, int count);
/* Also ends the message's hold on a buffer that it carries, sent or not. */
drvError_t drvHdcFreeMsg(drvHdcMsg_t message);
/* Empties the message for its next use. Buffers that it has received are gone. */
drvError_t drvHdcReuseMsg(drvHdcMsg_t message);
/* Refers to `buffer` until the message is reused or freed, whatever becomes of its send; the buffer
 * stays the caller's and must live that long, unchanged. 1..maximum segment bytes. */
drvError_t drvHdcAddMsgBuffer(drvHdcMsg_t message, char* buffer, int length);
/* The index-th received buffer; it belongs to the message, until its reuse or free. It may begin at
 * any address and be empty; `*buffer` may then be null. */
drvError_t drvHdcGetMsgBuffer(drvHdcMsg_t message, int index, char** buffer, int* length);
/* Sends the message's buffers. A failure may come after part of a buffer went out: the session is
 * then of use for closing only. DRV_ERROR_NON_BLOCK means that nothing went out. `timeout`: 0. */
drvError_t halHdcSend(drvHdcSession_t session, drvHdcMsg_t message, uint64_t flag,
                      uint32_t timeout);
/* Receives into a message, which must be empty; `bufferCount` gets the number of buffers, at least
 * 1: one for each buffer that a send moved, of one send or of several. A receive that fails leaves
 * the message empty.
 * `size`: 0 for the driver's own limit, else the largest buffer taken, in bytes.
 * `timeout` in milliseconds counts with HDC_FLAG_TIMEOUT; when it runs out the result is
 * DRV_ERROR_WAIT_TIMEOUT. A peer that has gone gives DRV_ERROR_SOCKET_CLOSE, after all that
 * it sent has been received. */
drvError_t halHdcRecv(drvHdcSession_t session, drvHdcMsg_t message, int size, uint64_t flag,
                      int* bufferCount, uint32_t timeout);

/* ---- Event wait --------------------------------------------------------------------- */

enum {
    HDC_EPOLL_CTL_ADD = 0,
    HDC_EPOLL_CTL_DEL = 1,
};

/* Bits of drvHdcEvent.events. */
enum {
    HDC_EPOLL_CONN_IN = 1,       /* a peer wants to connect; the accept blocks if it has left */
    HDC_EPOLL_DATA_IN = 2,       /* data can be received */
    HDC_EPOLL_SESSION_CLOSE = 8, /* the peer has gone */
};

typedef struct {
    uint32_t events;
    uint32_t reserved;
    uint64_t data; /* the caller's own, handed back with each event */
} drvHdcEvent;

/* `size`: events that one wait hands out at most. */
drvError_t drvHdcEpollCreate(int size, drvHdcEpoll_t* epoll);
drvError_t drvHdcEpollClose(drvHdcEpoll_t epoll);
/* `target`: a server or a session handle. A session joins before anything is received on it, else
 * DRV_ERROR_NOT_SUPPORT. A handle that is closed leaves the set by itself. `event` is not read by
 * HDC_EPOLL_CTL_DEL, and may then be null. */
drvError_t drvHdcEpollCtl(drvHdcEpoll_t epoll, int operation, void* target,
                          const drvHdcEvent* event);
/* Waits for at most `timeout` milliseconds, -1 for ever. 0 with a count of 0 when it ran out.
 * Level-triggered. `eventCount` <= `maxEvents`. */
drvError_t drvHdcEpollWait(drvHdcEpoll_t epoll, drvHdcEvent* events, int maxEvents, int timeout,
                           int* eventCount);

/* ---- Device numbers ------------------------------------------------------------------ */

/* Number of devices that are up. */
drvError_t drvGetDevNum(uint32_t* count);
/* Logical ids of the devices that are up, at most `length` (limit of the driver: 64) of them;
 * entries beyond the number of devices are unchanged. */
drvError_t drvGetDeviceLocalIDs(uint32_t* ids, uint32_t length);
/* The physical id, which names the chip whatever logical id it has. */
drvError_t drvDeviceGetPhyIdByIndex(uint32_t logicalDevice, uint32_t* physicalDevice);

#ifdef __cplusplus
}
#endif
#endif
