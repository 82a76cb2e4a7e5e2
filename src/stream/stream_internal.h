// stream_internal.h - helpers shared by the stream sources.
#pragma once

#include "fanout/stream.h"

namespace fanout {

// Closes and frees the file-list record of a file-based stream (its open
// file, its list text and the record) and clears `source`. Null is ignored.
void stream_release_source(NetStream* s) noexcept;

}  // namespace fanout
