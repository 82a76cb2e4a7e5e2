// Feeds arbitrary text to the base64 decoder, and arbitrary bytes through an
// encode/decode round trip that must give them back.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fanout/base64.h"
#include "fanout/palmemory.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    PalUint8* bytes = nullptr;
    PalUint32 count = 0;
    Decode(reinterpret_cast<const PalChar*>(data), static_cast<PalUint32>(size), &bytes, &count);
    if (bytes != nullptr && count > 0) {
        volatile uint8_t sink = bytes[count - 1];
        (void)sink;
    }
    PalMemoryFree(bytes);

    PalChar* text = nullptr;
    PalUint32 textLen = 0;
    Encode(data, static_cast<PalUint32>(size), &text, &textLen);
    if (text == nullptr) abort();
    Decode(text, textLen, &bytes, &count);
    if (count < size || std::memcmp(bytes, data, size) != 0) abort();
    PalMemoryFree(text);
    PalMemoryFree(bytes);
    return 0;
}
