// wire.cpp - what the distribution programs send each other on top of the
// transport before the data: the authentication exchange, the distribution
// message with its table of contents, and a receiver's refusal. Everything a
// peer sends is checked here before anything is written anywhere.
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <set>

#include "dist.h"
#include "fanout/exception.h"
#include "fanout/keys.h"
#include "fanout/message.h"
#include "fanout/properties.h"

namespace fanout::dist {
namespace {

constexpr size_t kChallengeSize = 32;
constexpr size_t kMacSize = 32;

struct BlockFree {
    void operator()(void* p) const { mg_free(p); }
};
using Block = std::unique_ptr<uint8_t, BlockFree>;

struct PropertiesFree {
    void operator()(Properties* p) const { properties_delete(p); }
};
struct ListFree {
    void operator()(PropertiesList* p) const { properties_list_delete(p); }
};

// The next frame, which must be DATA; its payload and length.
Block ReceiveData(FanoutChannel* ch, uint32_t* len, const char* what) {
    FanoutFrameHeader h{};
    void* payload = nullptr;
    fanout_channel_recv(ch, &h, &payload);
    Block block(static_cast<uint8_t*>(payload));
    if (h.type != FANOUT_MSG_DATA)
        throw Failure(std::string("expected ") + what + ", got message type " +
                      std::to_string(h.type));
    *len = h.length;
    return block;
}

std::string Mac(const std::string& token, const uint8_t* challenge) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    if (HMAC(EVP_sha256(), token.data(), static_cast<int>(token.size()), challenge, kChallengeSize,
             out, &n) == nullptr ||
        n != kMacSize)
        throw Failure("HMAC-SHA256 failed");
    return std::string(reinterpret_cast<char*>(out), n);
}

// A segment's integer field: a "long" between 0 and INT32_MAX.
int64_t SegmentNumber(const Properties* p, const char* key, bool required) {
    if (!properties_find(p, key)) {
        if (required) throw Failure(std::string("a segment has no \"") + key + "\"");
        return 0;
    }
    const int32_t v = properties_get_long(p, key);
    if (v < 0) throw Failure(std::string("a segment's \"") + key + "\" is negative");
    return v;
}

}  // namespace

void CheckName(const std::string& name, const char* what) {
    auto bad = [&](const std::string& why) {
        std::string shown;
        for (char c : name.substr(0, 64))
            shown += (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) ? '?' : c;
        return Failure(std::string(what) + " \"" + shown + "\" refused: " + why);
    };
    if (name.empty()) throw bad("empty");
    if (name.size() > kMaxNameLength) throw bad("longer than 255 octets");
    if (name == ".") throw bad("\".\" names a directory");
    if (name.find("..") != std::string::npos) throw bad("holds \"..\"");
    for (char c : name) {
        const auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7f) throw bad("holds a control character");
        if (std::strchr("/\\<>&,", c) != nullptr) throw bad(std::string("holds \"") + c + "\"");
    }
}

bool IsLoopback(const std::string& address) {
    if (address.rfind("unix:", 0) == 0) return true;
    if (address.rfind("tcp:", 0) != 0) return false;
    std::string rest = address.substr(4);
    std::string host;
    if (!rest.empty() && rest[0] == '[') {
        const size_t close = rest.find(']');
        if (close == std::string::npos) return false;
        host = rest.substr(1, close - 1);
    } else {
        const size_t colon = rest.rfind(':');
        host = colon == std::string::npos ? rest : rest.substr(0, colon);
    }
    return host.empty() || host == "*" || host == "localhost" || host == "::1" ||
           host.rfind("127.", 0) == 0;
}

std::string ReadToken(const std::string& path) {
    std::string token = ReadSmallFile(path, 4096);
    while (!token.empty() && (token.back() == '\n' || token.back() == '\r')) token.pop_back();
    if (token.empty()) throw Failure("the token file " + path + " is empty");
    return token;
}

void ReceiverAuthenticate(FanoutChannel* ch, const std::string& token) {
    uint8_t hello[1 + kChallengeSize];
    hello[0] = FANOUT_STATUS_DATA;
    if (token.empty()) {
        fanout_channel_send(ch, FANOUT_MSG_DATA, hello, 1);
        return;
    }
    if (RAND_bytes(hello + 1, kChallengeSize) != 1) throw Failure("no random challenge");
    fanout_channel_send(ch, FANOUT_MSG_DATA, hello, sizeof hello);
    uint32_t len = 0;
    Block answer = ReceiveData(ch, &len, "the answer to the challenge");
    const std::string expected = Mac(token, hello + 1);
    if (len != kMacSize || CRYPTO_memcmp(answer.get(), expected.data(), kMacSize) != 0)
        throw Failure("authentication failed: wrong token");
}

void SenderAuthenticate(FanoutChannel* ch, const std::string& token) {
    uint32_t len = 0;
    Block hello = ReceiveData(ch, &len, "the receiver's greeting");
    if (len == 0 || hello.get()[0] != FANOUT_STATUS_DATA || (len != 1 && len != 1 + kChallengeSize))
        throw Failure("the receiver's greeting is malformed");
    if (len == 1) return;  // the receiver asks for no token
    if (token.empty()) throw Failure("the receiver requires a token (--token-file)");
    const std::string mac = Mac(token, hello.get() + 1);
    fanout_channel_send(ch, FANOUT_MSG_DATA, mac.data(), kMacSize);
}

PropertiesList* MakeToc(const Distribution& d, bool with_offsets) {
    std::unique_ptr<PropertiesList, ListFree> toc(properties_list_new());
    for (const SegmentInfo& s : d.segments) {
        Properties p{};
        seq_add(toc.get(), &p, sizeof p);  // owned by the list from here on
        Properties* q = &toc->buffer[toc->length - 1];
        properties_put_string_dup(q, SEGMENT_ID_KEY, s.id.c_str());
        properties_put_string_dup(q, SEGMENT_VERSION_KEY, s.version.c_str());
        properties_put_long_dup(q, SEGMENT_SIZE_KEY, static_cast<int32_t>(s.size));
        properties_put_string_dup(q, SEGMENT_LOCATION_KEY, s.id.c_str());
        if (with_offsets)
            properties_put_long_dup(q, SEGMENT_OFFSET_KEY, static_cast<int32_t>(s.offset));
    }
    return toc.release();
}

std::string EncodeToc(const Distribution& d) {
    std::unique_ptr<PropertiesList, ListFree> toc(MakeToc(d, true));
    void* data = nullptr;
    uint32_t len = 0;
    properties_encode(TC_Kel_Fanout2_PropertiesList, toc.get(), &data, &len);
    Block block(static_cast<uint8_t*>(data));
    return std::string(reinterpret_cast<char*>(block.get()), len);
}

void SendDistribution(FanoutChannel* ch, const Distribution& d) {
    std::unique_ptr<Properties, PropertiesFree> msg(properties_new());
    int64_t total = 0;
    for (const SegmentInfo& s : d.segments) total += s.size;
    properties_put_short_dup(msg.get(), MESSAGE_TYPE_KEY, 1);
    properties_put_string_dup(msg.get(), MESSAGE_RECV_METHOD_KEY, "fanout-receive");
    properties_put_string_dup(msg.get(), MESSAGE_ID_KEY, d.id.c_str());
    // The message's "size" is a 32-bit field: a larger total is capped there;
    // the table of contents carries the real sizes.
    properties_put_long_dup(msg.get(), MESSAGE_SIZE_KEY,
                            static_cast<int32_t>(std::min<int64_t>(total, INT32_MAX)));
    std::unique_ptr<PropertiesList, ListFree> toc(MakeToc(d, false));
    properties_put_properties_list_dup(msg.get(), JOB_TOC_KEY, toc.get());
    void* data = nullptr;
    uint32_t len = 0;
    properties_encode(TC_Kel_Fanout2_Properties, msg.get(), &data, &len);
    Block block(static_cast<uint8_t*>(data));
    std::string frame(1, static_cast<char>(FANOUT_STATUS_DATA));
    frame.append(reinterpret_cast<char*>(block.get()), len);
    fanout_channel_send(ch, FANOUT_MSG_DATA, frame.data(), static_cast<uint32_t>(frame.size()));
}

Distribution ReceiveDistribution(FanoutChannel* ch) {
    uint32_t len = 0;
    Block frame = ReceiveData(ch, &len, "the distribution message");
    if (len < 1 || frame.get()[0] != FANOUT_STATUS_DATA)
        throw Failure("the distribution message is malformed");
    Properties decoded{};
    struct Guard {
        Properties* p;
        ~Guard() { kel_free_generic(p, TC_Kel_Fanout2_Properties); }
    } guard{&decoded};
    try {
        properties_decode(TC_Kel_Fanout2_Properties, frame.get() + 1, len - 1, &decoded);
    } catch (const fanout::Exception& e) {
        throw Failure("the distribution message does not decode: " + Trimmed(e.what()));
    }
    Distribution d;
    try {
        // The common keys must read as a message ("type", "recv_meth").
        Message* m = message_new_from_properties(&decoded);
        message_delete(m);
        d.id = properties_get_string2(&decoded, MESSAGE_ID_KEY, "");
        const PropertiesList* toc = properties_get_properties_list2(&decoded, JOB_TOC_KEY, nullptr);
        if (toc == nullptr) throw Failure("the distribution message has no table of contents");
        if (toc->length > kMaxSegments) throw Failure("too many segments");
        std::set<std::string> seen;
        for (uint32_t i = 0; i < toc->length; ++i) {
            const Properties* p = &toc->buffer[i];
            SegmentInfo s;
            s.id = properties_get_string2(p, SEGMENT_ID_KEY, "");
            s.version = properties_get_string2(p, SEGMENT_VERSION_KEY, "");
            s.size = SegmentNumber(p, SEGMENT_SIZE_KEY, true);
            CheckName(s.id, "segment id");
            CheckName(s.version, "segment version");
            if (!seen.insert(s.id + "^" + s.version).second)
                throw Failure("segment " + s.id + "^" + s.version + " is listed twice");
            d.segments.push_back(std::move(s));
        }
    } catch (const fanout::Exception& e) {
        throw Failure("the distribution message is malformed: " + Trimmed(e.what()));
    }
    CheckName(d.id, "distribution id");
    return d;
}

void SendRefusal(FanoutChannel* ch, const std::string& reason) {
    std::string frame(1, static_cast<char>(FANOUT_STATUS_CANCEL));
    frame += reason.substr(0, 4000);
    try {
        fanout_channel_send(ch, FANOUT_MSG_DATA, frame.data(), static_cast<uint32_t>(frame.size()));
    } catch (const fanout::Exception&) {
        // The sender has gone: nobody to tell.
    }
}

}  // namespace fanout::dist
