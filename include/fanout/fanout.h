/* fanout.h - everything libfanout exports, in one include.
 *
 * Thread safety is stated at the top of each header, family by family: constant
 * tables and stateless codecs may be used from any thread; logging, the type
 * registry, the allocator, the delivery client and the process's channel
 * lookup are safe to call from any thread; records, lists, files, streams,
 * channels and Depot handles are used by one thread at a time.
 */
#ifndef FANOUT_FANOUT_H
#define FANOUT_FANOUT_H

#include "export.h"
#include "paltypes.h"
#include "palerror.h"
#include "palmemory.h"
#include "palpath.h"
#include "palfile.h"
#include "pallock.h"
#include "palrtl.h"
#include "pallist.h"
#include "runtime.h"
#include "exception.h"
#include "log.h"
#include "thread.h"
#include "types.h"
#include "catalog.h"
#include "fanout2.h"
#include "kelver.h"
#include "base64.h"
#include "tagdoc.h"
#include "pathname.h"
#include "file.h"
#include "properties.h"
#include "segment.h"
#include "message.h"
#include "keys.h"
#include "depot.h"
#include "transport.h"
#include "stream.h"
#include "ferry.h"

#endif /* FANOUT_FANOUT_H */
