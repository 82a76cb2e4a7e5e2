/* catalog.h - the service's message catalogue.
 *
 * Fanout2Catalog[0] is the catalogue's name, "Fanout2Catalog"; entries 1 to
 * 211 are the default texts, indexed by message number, with positional
 * placeholders such as "%1$s". Every raise passes the name, the number and
 * the entry's text:
 *
 *     vaThrow(Fanout2Catalog[0], 11, Fanout2Catalog[11], path);
 *
 * Thread safety: the table is constant; any thread may read it at any time.
 */
#ifndef FANOUT_CATALOG_H
#define FANOUT_CATALOG_H

#include "export.h"

FANOUT_BEGIN_DECLS

#define FANOUT2_CATALOG_SIZE 212

FANOUT_EXPORT extern const char* const Fanout2Catalog[FANOUT2_CATALOG_SIZE];

FANOUT_END_DECLS

#endif /* FANOUT_CATALOG_H */
