// runtime_frame_fuzz.cpp - libFuzzer target: arbitrary octets as channel frames.
//
// The input less its first octet is checked as one frame by
// fanout_frame_check, then written into a socket pair whose other end is a
// channel with session 0, and read back by the receive calls until one
// raises a catalogue exception (the end of the input raises 101). The first
// octet picks the calls: 0 fanout_channel_recv; 1 ep_fanout_recv; 2
// ep_fanout_poll and ep_fanout_recv in turn; 3 the write side's
// fanout_peer_recv_block and recv_struct in turn. A frame the pure check
// accepts must come out of the channel unchanged. Seeds are in
// fuzz/corpus/frame (one file per mode and shape; docs/transport.md shows
// the frames).

#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fanout/exception.h"
#include "fanout/runtime.h"
#include "fanout/transport.h"

namespace {

constexpr size_t kMaxInput = 256 * 1024;
constexpr int kMaxCalls = 4096;

// Reads frames in `mode` until a call raises; checks the first frame against
// the pure decoder's verdict on the same octets.
void drain(FanoutChannel* ch, int mode, const uint8_t* bytes, size_t len) {
    FanoutFrameHeader expected{};
    bool whole =
        fanout_frame_check(bytes, len, &expected) == FANOUT_FRAME_OK && expected.session == 0;
    for (int i = 0; i < kMaxCalls; ++i) {
        void* data = nullptr;
        uint32_t size = 0;
        switch (mode) {
            case 0: {
                FanoutFrameHeader h{};
                fanout_channel_recv(ch, &h, &data);
                if (i == 0 && whole &&
                    (h.type != expected.type || h.length != expected.length ||
                     (h.length > 0 && std::memcmp(data, bytes + 12, h.length) != 0))) {
                    __builtin_trap();
                }
                break;
            }
            case 1:
                ep_fanout_recv(&data, nullptr);
                break;
            case 2:
                if (i % 2 == 0) {
                    if (ep_fanout_poll(&data) != 0 && data == nullptr) __builtin_trap();
                } else {
                    ep_fanout_recv(&data, nullptr);
                }
                break;
            default:
                if (i % 2 == 0) {
                    fanout_peer_recv_block(ch, &data, &size);
                } else {
                    uint8_t reply[FANOUT_REPLY_SIZE];
                    recv_struct(ch, FANOUT_MSG_REPLY, reply, sizeof reply);
                }
                break;
        }
        mg_free(data);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > kMaxInput) return 0;
    const int mode = data[0] % 4;
    const uint8_t* frames = data + 1;
    const size_t len = size - 1;
    FanoutFrameHeader h{};
    int32_t verdict = fanout_frame_check(frames, len, &h);
    if (verdict == FANOUT_FRAME_OK && len < FANOUT_FRAME_HEADER_SIZE + size_t{h.length}) {
        __builtin_trap();
    }

    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return 0;
    int room = 1 << 20;
    setsockopt(sv[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    // Whatever does not fit is left out: the reader sees a shorter input.
    if (len > 0) (void)send(sv[1], frames, len, MSG_DONTWAIT | MSG_NOSIGNAL);
    shutdown(sv[1], SHUT_WR);
    FanoutChannel* ch = nullptr;
    try {
        ch = fanout_channel_attach(sv[0], 0, "fuzz");
        if (mode == 1 || mode == 2) {
            fanout_ipc_set(ch);
        }
        drain(ch, mode, frames, len);
    } catch (const fanout::Exception&) {
        // Every input ends here: a refusal, or 101 at the end of the octets.
    }
    if (mode == 1 || mode == 2) {
        fanout_ipc_set(nullptr);
    } else {
        fanout_channel_close(ch);
    }
    close(sv[1]);
    return 0;
}
