/* transport.h - the framed message channel that carries a distribution.
 *
 * A channel is one connected stream socket (Unix-domain or TCP) between a
 * stream of this library and the program at the other end, its "peer". Every
 * message is a frame: a 12-octet header of three big-endian 32-bit words
 * (message type, session id, payload length) followed by the payload. The
 * message types and who sends them (docs/transport.md has the byte layouts):
 *
 *   20 METHSTAT  stream -> peer   a 28-octet method-status record: "I am about
 *                                 to write"
 *   21 REPLY     peer -> stream   8 octets: the type answered, then the signed
 *                                 status (a block size, or a negative stop)
 *   11 DATA      either way       stream -> peer: raw data of one block;
 *                                 peer -> stream: a status octet (1 data,
 *                                 2 cancelled, 3 paused) and the data
 *   23 END       either way       end of data, no payload
 *   24 RECVSTART stream -> peer   the receiver's table-of-contents octets,
 *                                 sent with its first receive
 *   25 CONTROL   peer -> stream   a status octet (2 cancel, 3 pause) that a
 *                                 local-file stream picks up between reads
 *
 * A frame whose type is unknown, whose length is larger than the type allows
 * (at most FANOUT_FRAME_MAX_PAYLOAD octets for any frame) or whose session id
 * is not the channel's is refused before anything is allocated for it.
 *
 * Conventions of this interface:
 * - This is the record side: every failure raises a catalogue exception
 *   (exception.h): 101 when the peer cannot be reached or the connection is
 *   lost (argument: the channel's name), 108 when the I/O time-out expires,
 *   109 when the peer breaks the protocol while this side receives and 111
 *   while it writes (argument: the channel's name). Nothing here kills the
 *   process with SIGPIPE: sockets are written with MSG_NOSIGNAL.
 * - Blocks handed to the caller come from the runtime allocator (mg_malloc):
 *   the caller frees them with mg_free.
 * - A null channel raises 101 with the argument "FANOUT_IPC".
 * - The I/O time-out bounds one frame: sending it, or receiving it from the
 *   moment the call starts to wait. A frame that the time-out cuts short is
 *   kept, and the next receive completes it.
 * - After a protocol violation has been read (109 or 111) the channel's
 *   read side is unusable: every later receive raises the violation again.
 * - Threads. A channel, the process's channel included, is used by one
 *   thread at a time; different channels may be used by different threads at
 *   once. Finding the process's channel (ecp_get_ipc_handle, ep_session_id)
 *   is safe from any thread; replace it (fanout_ipc_set, fanout_ipc_attach)
 *   only while no thread uses it.
 */
#ifndef FANOUT_TRANSPORT_H
#define FANOUT_TRANSPORT_H

#include <stddef.h>
#include <stdint.h>

#include "export.h"
#include "runtime.h"

FANOUT_BEGIN_DECLS

/* Message types. */
#define FANOUT_MSG_DATA 11u
#define FANOUT_MSG_METHSTAT 20u
#define FANOUT_MSG_REPLY 21u
#define FANOUT_MSG_END 23u
#define FANOUT_MSG_RECVSTART 24u
#define FANOUT_MSG_CONTROL 25u

/* Status octets that head the blocks a peer sends to a receiving stream. */
#define FANOUT_STATUS_DATA 1u
#define FANOUT_STATUS_CANCEL 2u
#define FANOUT_STATUS_PAUSE 3u

/* Sizes of the fixed parts. */
#define FANOUT_FRAME_HEADER_SIZE 12u
#define FANOUT_METHSTAT_SIZE 28u
#define FANOUT_REPLY_SIZE 8u
/* The largest payload any frame may carry (64 MiB); a larger length word is
 * a protocol violation. */
#define FANOUT_FRAME_MAX_PAYLOAD (64u * 1024u * 1024u)

/* One frame header, in host order. */
typedef struct FanoutFrameHeader {
    uint32_t type;
    uint32_t session;
    uint32_t length;
} FanoutFrameHeader;

/* Results of fanout_frame_check. */
#define FANOUT_FRAME_OK 0
#define FANOUT_FRAME_TRUNCATED 1  /* fewer octets than the header or its payload */
#define FANOUT_FRAME_BAD_TYPE 2   /* not one of the message types above */
#define FANOUT_FRAME_BAD_LENGTH 3 /* a length the type does not allow */

/* Encodes `h` as the 12 header octets at `out`. */
FANOUT_EXPORT void fanout_frame_encode_header(const FanoutFrameHeader* h, uint8_t out[12]);

/* Decodes the header at the start of the `len` octets at `bytes` into *h and
 * checks it: the type must be known and the length allowed for it (20: 28,
 * 21: 8, 23: 0, 24: up to the maximum, 25: 1 to 256, 11: up to the maximum).
 * Returns FANOUT_FRAME_OK when the header and the whole payload are present
 * in the input (the payload then starts at bytes + 12), else one of the
 * FANOUT_FRAME_* codes; never reads past `len` octets and never allocates.
 * *h is filled whenever the 12 header octets are present. Never raises. */
FANOUT_EXPORT int32_t fanout_frame_check(const uint8_t* bytes, size_t len, FanoutFrameHeader* h);

/* ------------------------------------------------------------------------ */
/* Channels. */

typedef struct FanoutChannel FanoutChannel;

/* The handle the stream functions use: the process's current channel. */
typedef FanoutChannel* IpcHandle;

/* A new channel over the connected stream socket `fd`, which it adopts (it is
 * closed by fanout_channel_close, or at once if this call fails). `session`
 * is the session id written into every frame and expected in every frame
 * read. `name` (copied; null gives "fd N") names the channel in messages.
 * The I/O time-out starts as fanout_ipc_timeout() gives it. TCP sockets get
 * TCP_NODELAY. Raises 101 for a negative fd. */
FANOUT_EXPORT FanoutChannel* fanout_channel_attach(int fd, uint32_t session, const char* name);

/* Connects to `address` ("unix:PATH" or "tcp:HOST:PORT") and returns a new
 * channel. Raises 101 with the address when it is malformed or nothing
 * accepts the connection. */
FANOUT_EXPORT FanoutChannel* fanout_channel_connect(const char* address, uint32_t session);

/* Opens a listening socket on `address` ("unix:PATH", "tcp:HOST:PORT"; port 0
 * picks a free one) and returns its descriptor, which the caller closes. An
 * empty HOST, "*" or "localhost" binds to loopback (127.0.0.1); any other
 * host binds where it says. When `bound` is not null it receives a newly
 * allocated address with the real port (mg_free). An existing Unix socket
 * file at PATH is replaced. Raises 101 with the address on failure. */
FANOUT_EXPORT int fanout_listen(const char* address, char** bound);

/* Waits for one connection on `listen_fd` (retrying EINTR) and returns a new
 * channel over it. Raises 101 when accept fails. */
FANOUT_EXPORT FanoutChannel* fanout_channel_accept(int listen_fd, uint32_t session);

/* Closes the socket and frees the channel. Null is ignored. Never raises. */
FANOUT_EXPORT void fanout_channel_close(FanoutChannel* ch);

/* The socket descriptor (for poll), the session id, the name (owned by the
 * channel). */
FANOUT_EXPORT int fanout_channel_fd(const FanoutChannel* ch);
FANOUT_EXPORT uint32_t fanout_channel_session(const FanoutChannel* ch);
FANOUT_EXPORT const char* fanout_channel_name(const FanoutChannel* ch);

/* Sets how long one frame may take to send or to receive, in milliseconds;
 * 0 or a negative value waits for ever. Null is ignored. */
FANOUT_EXPORT void fanout_channel_set_timeout(FanoutChannel* ch, int32_t milliseconds);

/* Sends one frame: header and `len` payload octets (len at most
 * FANOUT_FRAME_MAX_PAYLOAD). Short writes and EINTR are retried. Raises 111,
 * sending nothing, for a frame the peer would refuse (a type or length that
 * fanout_frame_check refuses, or a null payload with a nonzero len); 101
 * when the connection is lost; 108 when the time-out expires. */
FANOUT_EXPORT void fanout_channel_send(FanoutChannel* ch, uint32_t type, const void* payload,
                                       uint32_t len);

/* Receives the next frame (a frame queued by ep_fanout_poll first). Stores
 * its header in *h and its payload, newly allocated (null when empty), in
 * *payload; either may be null. Raises 101 when the peer closes the
 * connection (also in the middle of a frame), 108 when the time-out expires,
 * 109 for a frame that fanout_frame_check refuses or a foreign session id. */
FANOUT_EXPORT void fanout_channel_recv(FanoutChannel* ch, FanoutFrameHeader* h, void** payload);

/* ------------------------------------------------------------------------ */
/* The process's channel: the one the stream functions use. */

/* Makes `ch` the process's channel, closing any previous one (null just
 * closes it). */
FANOUT_EXPORT void fanout_ipc_set(FanoutChannel* ch);

/* Makes a new channel over the connected socket `fd` (adopted) the process's
 * channel; a shorthand for fanout_ipc_set(fanout_channel_attach(fd, session,
 * null)). */
FANOUT_EXPORT void fanout_ipc_attach(int fd, uint32_t session);

/* The configured I/O time-out in milliseconds, 0 for none: the environment
 * variable FANOUT_IPC_TIMEOUT (whole seconds), else the configuration file's
 * key "ipc_timeout" (whole seconds), else 0. A value that is not a decimal
 * number is ignored; one beyond INT32_MAX milliseconds gives INT32_MAX. */
FANOUT_EXPORT int32_t fanout_ipc_timeout(void);

/* The framework's calls, over the process's channel. */

/* The process's channel. On first use without fanout_ipc_set it adopts the
 * descriptor in FANOUT_IPC_FD, else connects to the address in FANOUT_IPC;
 * the session id is FANOUT_IPC_SESSION (decimal, default 0). Raises 101 when
 * neither is set (argument "FANOUT_IPC"), when the descriptor is not an open
 * one, the session id not a number, or the connection fails. The channel
 * stays owned by the process (fanout_ipc_set(null) closes it). */
FANOUT_EXPORT IpcHandle ecp_get_ipc_handle(void);

/* The session id of the process's channel; 0 when there is none yet (it
 * does not connect). Never raises. */
FANOUT_EXPORT uint32_t ep_session_id(void);

/* Sends the 28-octet method-status record at `record` (message type 20); a
 * null record is sent as 28 zero octets. */
FANOUT_EXPORT void send_methstat(IpcHandle handle, const void* record);

/* Receives the next frame, which must be of `type` with exactly `size`
 * payload octets, and copies the payload to `out`. Any other frame raises 111
 * (it is consumed). */
FANOUT_EXPORT void recv_struct(IpcHandle handle, uint32_t type, void* out, uint32_t size);

/* Sends `len` octets at `data` as one frame of `type` with `session` (which
 * must be the channel's). */
FANOUT_EXPORT void net_send_protected(IpcHandle handle, const void* data, uint32_t len,
                                      uint32_t type, uint32_t session);

/* Receives the next block of a receiving stream over the process's channel.
 * The first call on a channel, and the first after an end of data, first
 * sends message 24 with the octets of `toc_octets` (none when it is null);
 * other calls ignore the argument.
 * Returns the payload length of a DATA or CONTROL frame, status octet
 * included, with a newly allocated block in *data whose first octet is the
 * status; or 0 at END with *data null. Raises as fanout_channel_recv does,
 * and 109 for another message type, an empty block, or a status octet other
 * than 1, 2 or 3. */
FANOUT_EXPORT int32_t ep_fanout_recv(void** data, const Kel_Types_OctetList* toc_octets);

/* Looks, without blocking, for a control block on the process's channel.
 * Returns nonzero with a newly allocated block (its first octet the status)
 * in *data when one was pending; 0 with *data null when nothing was, when
 * the process has no channel, or when the peer has gone (the next blocking
 * call reports that). It takes every whole frame already there, so a control
 * block behind data blocks is found; the other frames are kept, in order,
 * for the next receives (at most 16: with that many kept it reads no
 * further). A frame that has only partly arrived is kept and completed by a
 * later call. When the process has no channel yet, one is made as
 * ecp_get_ipc_handle makes it; a failure is not raised but remembered, and
 * later calls return 0 at once until fanout_ipc_set is called. Raises only
 * for a malformed frame (109). A null `data` returns 0. */
FANOUT_EXPORT int32_t ep_fanout_poll(void** data);

/* Closes an I/O channel held by a type-1 stream (a FanoutChannel). When it
 * is the process's channel, the process has none afterwards. Null is
 * ignored. Never raises. */
FANOUT_EXPORT void iom_close(void* channel);

/* ------------------------------------------------------------------------ */
/* The peer: the other end of a stream's channel. */

/* Write direction (the stream writes, the peer takes the data). */

/* Waits for the method-status message (20) and copies its 28 octets to
 * `record` (may be null). Raises 111 for any other message. */
FANOUT_EXPORT void fanout_peer_accept_methstat(FanoutChannel* ch, void* record);

/* Sends a reply (21) answering message `answered` with `status`: the block
 * size accepted (after a method status), 0 to go on (after a data block), or
 * a negative stop status (-2 cancel, -3 pause). */
FANOUT_EXPORT void fanout_peer_reply(FanoutChannel* ch, uint32_t answered, int32_t status);

/* Waits for the next data block (11) or the end of data (23). Returns 1 with
 * the block, newly allocated (null when empty), in *data and its length in
 * *len; 0 at the end of data (*data null, *len 0). Raises 111 for any other
 * message. The peer answers each block with fanout_peer_reply. */
FANOUT_EXPORT int32_t fanout_peer_recv_block(FanoutChannel* ch, void** data, uint32_t* len);

/* Receive direction (the peer sends, the stream reads). */

/* Waits for the receiver's start message (24); stores its table-of-contents
 * octets, newly allocated (null when none), in *octets and their count in
 * *len. Raises 109 for any other message. */
FANOUT_EXPORT void fanout_peer_recv_toc(FanoutChannel* ch, void** octets, uint32_t* len);

/* Sends one block headed by `status` (1 data, 2 cancel, 3 pause) with `len`
 * data octets (len at most FANOUT_FRAME_MAX_PAYLOAD - 1). */
FANOUT_EXPORT void fanout_peer_send_block(FanoutChannel* ch, uint8_t status, const void* data,
                                          uint32_t len);

/* Sends a control block (25) holding `status` (2 cancel, 3 pause). */
FANOUT_EXPORT void fanout_peer_send_control(FanoutChannel* ch, uint8_t status);

/* Sends the end of data (23). */
FANOUT_EXPORT void fanout_peer_send_end(FanoutChannel* ch);

FANOUT_END_DECLS

#endif /* FANOUT_TRANSPORT_H */
