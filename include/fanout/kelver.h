/* kelver.h - build identification of the library.
 *
 * Two constant texts that say which build of the library a process loaded,
 * each framed as a source-control keyword string so that tools which scan
 * binaries for "$Keyword: ... $" find them.
 *
 * Thread safety: constant texts; any thread may read them at any time.
 */
#ifndef FANOUT_KELVER_H
#define FANOUT_KELVER_H

#include "export.h"

FANOUT_BEGIN_DECLS

/* The build level, "$Level: fanout <version> $". A static string; never
 * null, never to be freed. */
FANOUT_EXPORT const char* kelver_get_level_name(void);

/* The build date, "$Date: <Mmm dd yyyy hh:mm:ss> $" (the compiler's date and
 * time of the build; SOURCE_DATE_EPOCH makes it reproducible). A static
 * string; never null, never to be freed. */
FANOUT_EXPORT const char* kelver_get_bld_date(void);

FANOUT_END_DECLS

#endif /* FANOUT_KELVER_H */
