/*
 * sable_comm: message passing between the processes of one host over named FIFOs.
 *
 * A pipe is a pair of FIFOs under /dev/shm/nux/sable_comm/, one per direction. One end opens
 * with SABLO_MODE_CREATE and creates both files, the other with SABLO_MODE_JOIN and waits for
 * them. Requests reach the callback given at open time on library worker threads; a caller can
 * wait for the response to its own request with a time-out.
 *
 * Every function returning int gives 0 (or a positive pipe number) on success and a negative
 * errno value on failure. All functions may be called from any thread, request callbacks
 * included.
 *
 * A send to a peer that has gone fails with -EPIPE, and the SIGPIPE its write raises never
 * reaches the process. SIGPIPE: an application that ignores it or has a handler of its own
 * keeps it as it is (the handler never hears of the library's writes). Where SIGPIPE has its
 * default action, the library puts a handler of its own in place, which ends the process for
 * every SIGPIPE but its own writes', exactly as the default action does. A SIGPIPE setting
 * made later is followed at the next open and, on the send path, within 0.1 s: set it before
 * opening pipes (a send meeting a peer that has just gone in between would get the new
 * setting). The library is never unloaded.
 */
#ifndef SABLE_COMM_H
#define SABLE_COMM_H

#include <cstdint>
#include <functional>

/* Request identifier chosen by the sender and echoed by the response. */
struct SabloRequest {
    uint32_t id;
    uint8_t* data; /* must not be NULL when sending */
    uint32_t size; /* must not be 0 when sending; at most 4000 */
};

/*
 * A response filled by SabloTimedRPCSync owns a library-allocated `data` array; release it with
 * DestroyResponse. A response passed to SabloSendResponse stays the caller's.
 */
struct SabloResponse {
    uint32_t id;
    uint8_t* data;
    uint32_t size;
};

enum SabloPipeType : int32_t {
    SABLO_NORMAL_PIPE = 0, /* opened by SabloOpen */
    SABLO_CLIENT_PIPE = 1, /* opened by SabloCreateClient towards a server */
    SABLO_SERVER_PIPE = 2, /* opened by a server for a connecting client */
};

enum SabloPriority : int32_t {
    SABLO_PRIORITY_DEFAULT = 0,  /* threads keep the scheduling they have */
    SABLO_PRIORITY_NORMAL = 1,   /* SCHED_OTHER, priority 0 */
    SABLO_PRIORITY_REALTIME = 2, /* SCHED_FIFO, priority 50; uses the urgent workers */
};

enum SabloDomain : int32_t {
    SABLO_DOMAIN_NONE = 0, /* the remote end is in the caller's own domain */
    SABLO_DOMAIN_DP = 1,
    SABLO_DOMAIN_ELM = 2,
};

enum SabloMode : int32_t {
    SABLO_MODE_JOIN = 0,   /* wait for the remote end to create the FIFO files */
    SABLO_MODE_CREATE = 1, /* create both FIFO files */
};

/*
 * Request callback. `request` and its data belong to the library and are valid only during the
 * call. A NULL request means the remote end has gone; the pipe is closed after the callback
 * returns.
 */
using SabloCallback = std::function<void(int fd, SabloRequest* request)>;

/* Attributes of a pipe to open. The library copies what it keeps. */
struct SabloAttr {
    const char* targetName = nullptr; /* remote process name, 1 to 100 characters */
    SabloCallback callback;           /* may be empty: requests are then cached, not delivered */
    int timeout = 0;                  /* open time-out in ms; below 1 waits without limit */
    SabloMode mode = SABLO_MODE_JOIN;
    uint32_t gid = 0xFFFFFFFFu; /* group owning the FIFO files; all ones = none */
    SabloPriority priority = SABLO_PRIORITY_DEFAULT; /* 0 or 2 (1 has no receive monitor) */
    const char* selfName = nullptr; /* NULL: the process name (PROC_NAME or /proc comm) */
    int targetPid = -1;             /* remote pid for labelling its FIFO; -1 = unknown */
    bool isConcur = false;          /* requests may run concurrently, at most 200 at once */
    SabloDomain domain = SABLO_DOMAIN_NONE;
    const char* targetCon = nullptr; /* security context of the FIFO; NULL = none */
};

/*
 * What a server learns of a client that has just connected, passed by value to the server's
 * notification function. `name` is the client's pipe name (its program name, '_' and its pid)
 * and is valid only during the call.
 */
struct SabloClientInfo {
    int32_t pid;
    uint32_t gid;
    const char* name;
};
static_assert(sizeof(void*) != 8 || sizeof(SabloClientInfo) == 16, "16-byte record by value");

struct SabloServerAttr {
    void (*serverCallback)(int fd, SabloClientInfo client); /* a client connected; may be NULL */
    void (*callback)(int fd, SabloRequest* request);        /* request callback of client pipes */
    uint32_t gid;                                           /* group of the server FIFO */
    SabloPriority priority;
    const char* selfName; /* server name; NULL: the process name */
};

/* Opens a pipe; returns its number (> 0) or a negative errno. Blocks up to attr->timeout ms.
 * Throws std::out_of_range for priority 1, which has no receive monitor. */
int SabloOpen(const SabloAttr* attr);
/* Short form: priority 1 (so it throws std::out_of_range), no group, no self name. */
int SabloOpen(const char* name, void (*callback)(int, SabloRequest*), int timeout, SabloMode mode);

extern "C" {

/* Opens a pipe to a server process (see SabloCreateServer); the pipe's own name is the self name
 * followed by '_' and this process's pid. Pipe number or negative errno. */
int SabloCreateClient(const SabloAttr* attr);
/* SabloOpen with an explicit pipe type. */
int SabloPipeTypeOpen(const SabloAttr* attr, SabloPipeType type);
/* Starts this process's server: clients of any name may connect through its FIFO.
 * -EEXIST while running, -EINVAL for bad attributes, or the error of the FIFO set-up
 * (a second server process of the same name fails to take the FIFO's lock). -EBUSY from the
 * connect callback of a server that the callback itself has just stopped. */
int SabloCreateServer(const SabloServerAttr* attr);
/* Stops the server and disables the pipe table (every pipe is closed, and requests are no
 * longer delivered in this process). Blocks until the server thread has ended; called from the
 * connect callback, the thread ends when the callback returns. The server FIFO stays on disk. */
void SabloCfgFinishServer();
/* Closes a pipe; 0 also when no pipe has that number, -ENOENT once the table is gone. */
int SabloClosePipe(int fd);
/* For the application's signal handler: removes the FIFO files of every pipe. */
void SabloExceptionHandler(int signal);
/* Sends a request without waiting; never blocks: -EAGAIN when the FIFO is full, -EPIPE when
 * the remote has gone. */
int SabloSendRequest(int fd, const SabloRequest* req);
/* Sends a response; `resp->id` must be the id of the request it answers. */
int SabloSendResponse(int fd, const SabloResponse* resp);
/* Sends `req` (its id is assigned here) and waits up to timeoutMs (negative: no limit) for the
 * response, which lands in `resp` (free it with DestroyResponse). With resp NULL it only sends.
 * -ETIMEDOUT on time-out, -EPIPE when the pipe closes during the wait. */
int SabloTimedRPCSync(int fd, SabloRequest* req, SabloResponse* resp, int timeoutMs);
/* SabloTimedRPCSync without a time limit. */
int SabloRPCSync(int fd, SabloRequest* req, SabloResponse* resp);
/* true while the pipe table exists and has not been disabled. */
bool SabloServiceIsExist();

/* Frees the library-allocated data of a response and sets it to NULL. NULL-safe, idempotent. */
void DestroyResponse(SabloResponse* resp);

/* Hook called by every library thread after it has named itself; empty in this library. */
void KorCoreSetaffinity();

/* true: create the log restraint early; false: silence every restrained log type for good. */
void NuxLogGetInstance(bool alive);

} /* extern "C" */

#endif /* SABLE_COMM_H */
