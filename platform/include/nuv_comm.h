/* Message bus: synchronous request/reply between the processes of one host.
 *
 * Each topic is a Unix stream socket named by the topic in the socket directory. A frame on
 * the wire is a 4-byte little-endian length followed by that many bytes. A request frame holds
 * the message bytes as posted; the reply frame holds the handler's 32-bit result
 * (little-endian), then any reply bytes (none are sent today; clients skip them).
 *
 * A client may send further requests on a connection before the earlier ones are answered
 * (nuv_comm_post_many does): the server reads what has arrived, handles the frames in order
 * and sends their replies in the same order.
 *
 * The first frame of a connection may instead be the 16 bytes "\0nuv_comm bell\0\1": the
 * server answers it with result 0, passes it to no handler, and attaches (SCM_RIGHTS) a
 * sealed 4096-byte memfd where from then on the client adds the bytes it sends to the 32-bit
 * count at offset 0 and the server the bytes it sends to the one at offset 64. A waiter
 * watches those counts instead of trying reads. With each send the server also stores at
 * offset 128 how many of its connections it is serving, those asleep waiting for a request
 * left out: a waiter spins without system calls only while its CPUs number at least twice
 * that (each such connection keeps a server thread and a poster running), and yields between
 * looks otherwise. Our client always asks; others need not.
 *
 * Knobs, read from the environment when the bus is first initialised (init count 0 -> 1):
 *   NUV_COMM_DIR         socket directory; default /run/nuv-comm for root, else
 *                        $XDG_RUNTIME_DIR/nuv-comm, else /tmp/nuv-comm-<uid>. Created mode 0700
 *                        by the first register; it must be owned by our uid or by root.
 *   NUV_COMM_TIMEOUT_MS  send and receive time-out of a remote post, and of the rest of a
 *                        frame once its first byte arrived at a server (default 5000).
 *   NUV_COMM_MAX_MSG     largest message in bytes, either direction (default 4 MiB).
 *   NUV_COMM_MAX_CONN    connections served at once per topic (default 64). At the cap, the
 *                        connection idle the longest is closed to make room; with none idle,
 *                        a new connection is closed at once.
 *   NUV_COMM_IDLE_MS     a server closes a connection that waits this long for a request
 *                        (default 30000). Clients notice a pooled connection that was closed
 *                        and reconnect without failing the post.
 *
 * Topic names: 1 to 100 bytes of letters, digits and ":._-", but not "." or "..".
 *
 * A listener serves only peers whose uid (SO_PEERCRED) is its own or 0, and a client posts
 * only to a server whose uid is its own or 0 (NUV_COMM_E_UNTRUSTED otherwise). A socket
 * directory that group or others may write to is refused by register (NUV_COMM_E_SYSTEM,
 * errno EPERM): anyone could bind a topic there first. The bus is not fork-safe: a child of a
 * process using it must exec before using it. */
#ifndef NUV_COMM_H
#define NUV_COMM_H

#include "nuv_api.h"

NUV_BEGIN_DECLS

/* Results: 0 or one of the bus codes below; nuv_comm_post gives the handler's own result
 * instead of 0. Bus codes are distinct from the 0x84CE.... results of the library's handlers;
 * a handler should not return values of this range, since a poster cannot tell them apart. */
#define NUV_COMM_E_NOTOPIC ((int)0x4E430001) /* nobody serves the topic */
#define NUV_COMM_E_TIMEOUT ((int)0x4E430002) /* no answer within the time-out */
#define NUV_COMM_E_TOOBIG ((int)0x4E430003)  /* message over NUV_COMM_MAX_MSG */
#define NUV_COMM_E_NOINIT ((int)0x4E430004)  /* nuv_comm_init has not been called */
#define NUV_COMM_E_INVAL ((int)0x4E430005)   /* bad topic name or NULL argument */
#define NUV_COMM_E_BUSY ((int)0x4E430006)    /* the topic is served by a live owner */
#define NUV_COMM_E_CONN ((int)0x4E430007)    /* server refused or dropped us, or spoke badly */
#define NUV_COMM_E_SYSTEM ((int)0x4E430008)  /* a system call failed; errno tells which */
#define NUV_COMM_E_UNTRUSTED ((int)0x4E430009) /* the topic's server is neither us nor root */

#define NUV_COMM_TOPIC_MAX 100

/* A message: a byte buffer owned by the bus. */
typedef struct comm_data comm_data;

/* Handles one request. `request` holds the posted bytes and stays valid only during the call;
 * `reply` is an empty message (reserved for reply bytes; handlers leave it alone). The result
 * goes back to the poster as it is. Handlers of one topic run concurrently on the bus's
 * threads, or on the poster's own thread when the poster is in this process. */
typedef int (*nuv_comm_handler)(comm_data *request, comm_data *reply, void *user_data);

/* Handles requests[0..count) of one topic together, storing each one's result in results[i]
 * (what a nuv_comm_handler would have returned for it). A server hands it the whole frames it
 * read from one connection at once (up to 512), in order, and sends their replies after it
 * returns; a post from this process hands it one request. So a handler may finish the requests
 * together (one write for all of them, say), as long as no result tells of work not yet done.
 * The requests stay valid only during the call; the bytes of each are followed by a NUL. */
typedef void (*nuv_comm_batch_handler)(comm_data *const *requests, unsigned int count,
                                       int *results, void *user_data);

/* Counts a user of the bus; the first call reads the knobs above. Returns 0. Thread-safe. */
NUV_API int nuv_comm_init(void);

/* Drops one user. The last one unregisters every topic still registered (waiting for their
 * handlers) and closes pooled connections. Returns 0, or NUV_COMM_E_NOINIT when the count is
 * already 0. Thread-safe. */
NUV_API int nuv_comm_uninit(void);

/* Serves `topic` with `handler(request, reply, user_data)`: binds its socket and starts a
 * listener thread; each connection gets a thread of its own. A socket file left by a dead
 * process is replaced. Returns 0; NUV_COMM_E_INVAL (bad name, NULL handler); NUV_COMM_E_BUSY
 * (registered here already, served by a live process, or a non-socket file in the way);
 * NUV_COMM_E_NOINIT; NUV_COMM_E_SYSTEM (errno set). Thread-safe. */
NUV_API int nuv_comm_register(const char *topic, nuv_comm_handler handler, void *user_data);

/* As nuv_comm_register, with a handler that takes the requests read together. */
NUV_API int nuv_comm_register_batch(const char *topic, nuv_comm_batch_handler handler,
                                    void *user_data);

/* Stops serving `topic`: closes the listener and every connection, removes the socket file
 * and waits for handlers in flight (except those of the calling thread, when a handler
 * unregisters its own topic). Returns 0; NUV_COMM_E_NOTOPIC when it is not registered here;
 * NUV_COMM_E_INVAL; NUV_COMM_E_NOINIT. Thread-safe. */
NUV_API int nuv_comm_unregister(const char *topic);

/* Delivers `data` to the handler of `topic` and returns the handler's result. A topic
 * registered in this process is handled directly on the calling thread. Otherwise the message
 * goes over a pooled connection (a new one when none is idle), reconnecting once if the server
 * went away. `data` stays the caller's. Returns the handler's result, or NUV_COMM_E_NOTOPIC,
 * NUV_COMM_E_TIMEOUT, NUV_COMM_E_TOOBIG, NUV_COMM_E_NOINIT, NUV_COMM_E_INVAL, NUV_COMM_E_CONN,
 * NUV_COMM_E_SYSTEM, NUV_COMM_E_UNTRUSTED. Not a cancellation point. Thread-safe. */
NUV_API int nuv_comm_post(const char *topic, comm_data *data);

/* Posts msgs[0..count) to `topic` in that order and stores each one's own result in results[i].
 * For a topic served by another process, up to `window` requests (0: 64) are in flight at once on
 * one connection (a pooled one, or a new one if the pooled one turns out closed before it took
 * anything), and replies are matched to requests by their order. A topic served by this process
 * has its handler called for each message in turn on the calling thread.
 * Results: the handler's result for every request it answered. A message over NUV_COMM_MAX_MSG is
 * not sent: NUV_COMM_E_TOOBIG, and the others go on. When the connection fails (the server dies
 * or closes, breaks the protocol, or makes no progress within the time-out), every request not
 * answered yet, sent or not, gets NUV_COMM_E_CONN or NUV_COMM_E_TIMEOUT; it may or may not have
 * reached the handler, and it is never reported as the handler's. A server that refuses a frame
 * as too large answers it NUV_COMM_E_TOOBIG and closes, so the requests after it get
 * NUV_COMM_E_CONN. When no connection can be made, every result is that failure's code
 * (NUV_COMM_E_NOTOPIC, NUV_COMM_E_UNTRUSTED, NUV_COMM_E_TIMEOUT, NUV_COMM_E_SYSTEM, or
 * NUV_COMM_E_CONN for a server that closed at once). Bad arguments (a bad topic, NULL msgs or a
 * NULL message) and NUV_COMM_E_NOINIT fill every result with that code and post nothing; a NULL
 * `results` with a non-zero count gives NUV_COMM_E_INVAL. Returns 0 when every result is the
 * handler's, else the first result that is a bus code (handlers must not answer with those). The
 * messages stay the caller's. Not a cancellation point. Thread-safe. */
NUV_API int nuv_comm_post_many(const char *topic, comm_data *const *msgs, unsigned int count,
                               unsigned int window, int *results);

/* 1 when this process serves `topic` (a post to it is handled on the calling thread), else 0.
 * Thread-safe. */
NUV_API int nuv_comm_served_here(const char *topic);

/* A new message holding a copy of `length` bytes at `bytes` (`bytes` may be NULL when length
 * is 0). Returns NULL when out of memory or for NULL bytes with a non-zero length. Release it
 * with nuv_comm_delete_data. */
NUV_API comm_data *nuv_comm_new_data(const void *bytes, unsigned int length);

/* Releases a message made by nuv_comm_new_data; NULL is ignored. Never call it on the
 * messages a handler receives. */
NUV_API void nuv_comm_delete_data(comm_data *data);

/* The bytes of a message: *pointer (owned by the bus, valid as long as the message, followed
 * by a NUL byte not counted in *length) and *length. Returns 0, or NUV_COMM_E_INVAL when an
 * argument is NULL. */
NUV_API int nuv_comm_get_data(comm_data *data, void **pointer, unsigned int *length);

/* Sets this process's time-out of remote posts in milliseconds, overriding
 * NUV_COMM_TIMEOUT_MS; 0 restores the configured value. Takes effect on the next post.
 * Thread-safe. */
NUV_API void nuv_comm_set_timeout_ms(unsigned int ms);

NUV_END_DECLS

#endif
