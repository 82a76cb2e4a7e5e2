// base64.cpp - the base64 (MIME) codec of the Depot's entry files.
//
// The encoder writes one unbroken line; the decoder skips the blanks and
// control characters a MIME mailer puts between lines and otherwise takes
// every character through its 256-entry table, so malformed text decodes to
// something instead of failing. Output blocks come from the portability
// layer's allocator and are sized the way the Depot has always sized them:
// capacity rounded down to a multiple of 4096 plus 4096, zero-filled, which
// keeps every encoded text NUL-terminated.
//
// This file is on the Depot side: nothing here raises.

#include "fanout/base64.h"

#include <array>
#include <bit>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fanout/palmemory.h"
#include "posix/prefault.h"

extern "C" const PalChar Base64Digits[65] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

namespace fanout {
namespace {

constexpr uint8_t kNotDigit = 254;
constexpr uint8_t kPad = 255;

// The decode table: 254 for every character outside the alphabet, each
// digit's value at its own code and at its code with the high bit added,
// and 255 for '=' (61) and for 189 (61 with the high bit).
constexpr std::array<uint8_t, 256> MakeDecodeTable() {
    std::array<uint8_t, 256> t{};
    for (auto& e : t) e = kNotDigit;
    for (int v = 0; v < 64; ++v) {
        auto c = static_cast<uint8_t>(
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"[v]);
        t[c] = static_cast<uint8_t>(v);
        t[c | 0x80] = static_cast<uint8_t>(v);
    }
    t[61] = kPad;
    t[189] = kPad;
    return t;
}

constexpr std::array<uint8_t, 256> m_DecodeTable = MakeDecodeTable();

constexpr std::array<bool, 256> MakeBadMime() {
    std::array<bool, 256> t{};
    for (int c = 7; c <= 13; ++c) t[c] = true;
    t[32] = true;
    return t;
}

constexpr std::array<bool, 256> kBadMime = MakeBadMime();

// The group arithmetic keeps six bits of each value in the right place (the
// bits of 254 and 255 that spill over are cut away with the eighth bit), so
// a group is the 24-bit number of its four values masked to six bits. These
// tables hold each character's value pre-shifted for its place in a group;
// characters a MIME decoder skips carry kSkip instead.
constexpr uint32_t kSkip = 0x80000000u;
struct ShiftedTables {
    std::array<std::array<uint32_t, 256>, 4> t{};
    constexpr ShiftedTables() {
        const auto decode = MakeDecodeTable();
        const auto bad = MakeBadMime();
        for (int c = 0; c < 256; ++c) {
            const uint32_t v = decode[c] & 63u;
            for (int k = 0; k < 4; ++k) t[k][c] = bad[c] ? kSkip : v << (18 - 6 * k);
        }
    }
};
constexpr ShiftedTables kShifted;

// Eight characters with none to skip to six bytes through one 64-bit store
// (the two bytes past them are written as zeros, so the block stays
// zero-filled beyond the decoded bytes; the caller has the room). False, and
// nothing written, when one of them is to be skipped.
inline bool DecodeEight(const uint8_t* in, uint8_t* dest) {
    const auto& t = kShifted.t;
    const uint32_t a = t[0][in[0]] | t[1][in[1]] | t[2][in[2]] | t[3][in[3]];
    const uint32_t b = t[0][in[4]] | t[1][in[5]] | t[2][in[6]] | t[3][in[7]];
    if (((a | b) & kSkip) != 0) return false;
    const uint64_t bytes = __builtin_bswap64(((uint64_t{a} << 24) | b) << 16);
    std::memcpy(dest, &bytes, 8);
    return true;
}

// Two output characters for every 12-bit half of a three-byte group.
struct PairTable {
    std::array<char, 2 * 4096> chars{};
    std::array<uint16_t, 4096> words{};  // the same two characters as one
                                         // little-endian 16-bit word
    constexpr PairTable() {
        const char* d = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        for (int v = 0; v < 4096; ++v) {
            chars[2 * v] = d[v >> 6];
            chars[2 * v + 1] = d[v & 63];
            words[v] = static_cast<uint16_t>(static_cast<uint8_t>(d[v >> 6]) |
                                             (static_cast<uint8_t>(d[v & 63]) << 8));
        }
    }
};
constexpr PairTable kPairs;

// Six bytes to eight digits through one 64-bit load and one 64-bit store;
// reads eight bytes, so the caller keeps two more bytes of input in reach.
inline void EncodeSix(const uint8_t* in, char* dest) {
    uint64_t w;
    std::memcpy(&w, in, 8);
    w = __builtin_bswap64(w);  // input order: the first byte is the highest
    const uint64_t out = uint64_t{kPairs.words[(w >> 52) & 0xFFF]} |
                         (uint64_t{kPairs.words[(w >> 40) & 0xFFF]} << 16) |
                         (uint64_t{kPairs.words[(w >> 28) & 0xFFF]} << 32) |
                         (uint64_t{kPairs.words[(w >> 16) & 0xFFF]} << 48);
    std::memcpy(dest, &out, 8);
}

// A work buffer: {data, capacity, length}. AllocEncode and AllocDecode
// prepare one for n bytes by the same rule: when the capacity is below n the
// old block is freed and a new one of (n rounded down to 4096) + 4096 bytes
// taken; the whole capacity is zero-filled and the length set to 0. False
// (and an empty buffer) when the block cannot be had, which includes a size
// beyond the allocator's 32-bit range.
struct WorkBuffer {
    uint8_t* data = nullptr;
    uint64_t capacity = 0;
    uint64_t length = 0;
};

bool AllocEncode(WorkBuffer& b, uint64_t n) {
    if (b.capacity < n || b.data == nullptr) {
        PalMemoryFree(b.data);
        b = WorkBuffer{};
        const uint64_t capacity = (n / 4096) * 4096 + 4096;
        if (capacity > static_cast<uint64_t>(INT32_MAX)) return false;
        // Fresh from calloc, so already zero-filled.
        b.data = static_cast<uint8_t*>(PalMemoryCalloc(1, static_cast<PalInt32>(capacity)));
        if (b.data == nullptr) return false;
        b.capacity = capacity;
    } else {
        std::memset(b.data, 0, static_cast<size_t>(b.capacity));
    }
    b.length = 0;
    return true;
}

bool AllocDecode(WorkBuffer& b, uint64_t n) {
    return AllocEncode(b, n);
}

// The decode table is built at compile time; init is kept as the step that
// readies the codec before each decode and reports success.
PalError init() {
    return PalErrorCreate(PAL_OK, 0, 0);
}

// A group of up to four values being collected, and its count.
struct Group {
    uint8_t values[4];
    int count;
};

void Clear(Group& g) {
    std::memset(g.values, 0, sizeof g.values);
    g.count = 0;
}

// One three-byte group to four digits (no padding).
inline void EncodeRaw(uint8_t b0, uint8_t b1, uint8_t b2, char* dest) {
    const uint32_t v = (uint32_t{b0} << 16) | (uint32_t{b1} << 8) | b2;
    std::memcpy(dest, &kPairs.chars[2 * (v >> 12)], 2);
    std::memcpy(dest + 2, &kPairs.chars[2 * (v & 0xFFF)], 2);
}

// Four table values to three bytes, each cut to eight bits. Values 254 and
// 255 (not a digit, padding) go through the same arithmetic on purpose.
inline void DecodeRaw(const uint8_t* d, uint8_t* dest) {
    dest[0] = static_cast<uint8_t>(((d[0] & 63) << 2) | ((d[1] >> 4) & 3));
    dest[1] = static_cast<uint8_t>((d[1] << 4) | ((d[2] >> 2) & 15));
    dest[2] = static_cast<uint8_t>((d[2] << 6) | (d[3] & 63));
}

}  // namespace
}  // namespace fanout

using namespace fanout;

extern "C" {

FANOUT_EXPORT PalBool IsBadMimeChar(PalChar c) {
    return kBadMime[static_cast<uint8_t>(c)] ? PAL_TRUE : PAL_FALSE;
}

FANOUT_EXPORT void EncodeToBuffer(const PalUint8* group, PalInt32 count, PalChar* dest) {
    if (group == nullptr || dest == nullptr || count < 1) return;
    if (count > 3) count = 3;
    uint8_t g[3] = {0, 0, 0};
    std::memcpy(g, group, static_cast<size_t>(count));
    EncodeRaw(g[0], g[1], g[2], dest);
    if (count == 1) dest[2] = '=';
    if (count < 3) dest[3] = '=';
}

FANOUT_EXPORT PalInt32 DecodeToBuffer(const PalUint8* group, PalInt32 count, PalUint8* dest) {
    (void)count;  // a group is always four values; short groups arrive zero-completed
    if (group == nullptr || dest == nullptr) return 0;
    DecodeRaw(group, dest);
    return 3;
}

FANOUT_EXPORT void Encode(const void* data, PalUint32 len, PalChar** out, PalUint32* outLen) {
    if (out == nullptr || outLen == nullptr) return;
    *out = nullptr;
    *outLen = 0;
    if (data == nullptr && len > 0) return;
    // The output block is prepared for twice the input, as it always was;
    // the text needs only 4/3 of it, so the zero fill terminates it.
    WorkBuffer output;
    if (!AllocEncode(output, 2 * uint64_t{len})) return;
    auto* text = reinterpret_cast<char*>(output.data);
    prefault_for_write(text, 4 * ((size_t{len} + 2) / 3));
    const auto* in = static_cast<const uint8_t*>(data);
    const uint32_t whole = len / 3 * 3;
    char* dest = text;
    uint32_t i = 0;
    if constexpr (std::endian::native == std::endian::little) {
        for (; i + 14 <= len && i + 12 <= whole; i += 12, dest += 16) {
            EncodeSix(in + i, dest);
            EncodeSix(in + i + 6, dest + 8);
        }
        for (; i + 8 <= len && i + 6 <= whole; i += 6, dest += 8) EncodeSix(in + i, dest);
    }
    for (; i < whole; i += 3, dest += 4) EncodeRaw(in[i], in[i + 1], in[i + 2], dest);
    if (len > whole) {
        EncodeToBuffer(in + whole, static_cast<PalInt32>(len - whole), dest);
        dest += 4;
    }
    *out = text;
    *outLen = static_cast<PalUint32>(dest - text);
}

FANOUT_EXPORT PalError Decode(const PalChar* text, PalUint32 len, PalUint8** out,
                              PalUint32* outLen) {
    if (out == nullptr || outLen == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 1);
    *out = nullptr;
    *outLen = 0;
    if (text == nullptr && len > 0) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 1);
    init();
    WorkBuffer output;
    if (!AllocDecode(output, len)) return PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 2);
    uint8_t* bytes = output.data;
    prefault_for_write(bytes, size_t{len} / 4 * 3 + 3);

    const auto* in = reinterpret_cast<const uint8_t*>(text);
    uint8_t* dest = bytes;
    Group group;
    Clear(group);
    uint32_t i = 0;
    while (i < len) {
        // Runs of whole groups with nothing to skip take the short way;
        // anything else goes one character at a time.
        if constexpr (std::endian::native == std::endian::little) {
            if (group.count == 0 && len - i >= 8 && DecodeEight(in + i, dest)) {
                dest += 6;
                i += 8;
                continue;
            }
        }
        if (group.count == 0 && len - i >= 4 && !kBadMime[in[i]] && !kBadMime[in[i + 1]] &&
            !kBadMime[in[i + 2]] && !kBadMime[in[i + 3]]) {
            const uint8_t d[4] = {m_DecodeTable[in[i]], m_DecodeTable[in[i + 1]],
                                  m_DecodeTable[in[i + 2]], m_DecodeTable[in[i + 3]]};
            DecodeRaw(d, dest);
            dest += 3;
            i += 4;
            continue;
        }
        const uint8_t c = in[i++];
        if (kBadMime[c]) continue;
        group.values[group.count++] = m_DecodeTable[c];
        if (group.count == 4) {
            DecodeRaw(group.values, dest);
            dest += 3;
            Clear(group);
        }
    }
    PalUint32 count = static_cast<PalUint32>(dest - bytes);
    if (group.count > 0) {
        // Left-over characters decode as a group completed with zeros (the
        // cleared rest of the group) and count as many bytes as there were
        // characters.
        DecodeRaw(group.values, dest);
        count += static_cast<PalUint32>(group.count);
    }
    *out = bytes;
    *outLen = count;
    return PalErrorCreate(PAL_OK, 0, 0);
}

}  // extern "C"
