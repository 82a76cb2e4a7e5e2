/* fanout.h - everything libfanout exports, in one include. */
#ifndef FANOUT_FANOUT_H
#define FANOUT_FANOUT_H

#include "export.h"
#include "paltypes.h"
#include "palerror.h"
#include "runtime.h"
#include "exception.h"
#include "log.h"
#include "thread.h"
#include "types.h"
#include "catalog.h"
#include "fanout2.h"
#include "kelver.h"

#endif /* FANOUT_FANOUT_H */
