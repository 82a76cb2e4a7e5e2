/* tagdoc.h - a small scanner and filler for tagged text documents.
 *
 * The Depot's entry files are a flat run of elements, each an opening tag,
 * its text and the matching closing tag. These functions find one element by
 * name inside a character buffer and report where its parts lie, insert or
 * replace an element's content in place, and find a document-type
 * declaration. They allocate nothing and never raise. There is no nesting,
 * no attribute parsing, no entity decoding and no validation.
 *
 * A document's searchable region runs from its first character to its end:
 * the last character before the terminating NUL or, when a non-null limit
 * lies before that, the limit. Every range is inclusive: {first, last} point
 * at the first and the last character; {null, null} means absent.
 *
 * Thread safety: nothing here keeps state; any thread may call these on its
 * own documents.
 */
#ifndef FANOUT_TAGDOC_H
#define FANOUT_TAGDOC_H

#include "paltypes.h"

FANOUT_BEGIN_DECLS

typedef struct TagRange {
    PalChar* first;
    PalChar* last;
} TagRange;

/* Where the parts of one element lie. All null when no opening tag is found;
 * content and closing pointers null as described at getTagRanges. */
typedef struct TagRanges {
    PalChar* openStart;    /* the '<' of the opening tag */
    PalChar* openEnd;      /* the '>' closing the opening tag */
    PalChar* contentStart; /* the character after openEnd */
    PalChar* contentEnd;   /* the character before the closing tag's '<' */
    PalChar* closeStart;   /* the '<' of the closing tag */
    PalChar* closeEnd;     /* the '>' of the closing tag */
} TagRanges;

/* Finds the first element named `tag` (without brackets) in `doc`, searching
 * no further than `limit` (null for the whole NUL-terminated document).
 * A name that merely begins with `tag` does not match; attributes after the
 * name are skipped. A self-closing element gives null content and closing
 * pointers equal to the opening ones. Without a closing tag the content runs
 * to the region's end and the closing pointers are null. A closing tag whose
 * '>' is the region's very last character is not found, so documents end
 * with at least one character after their last closing tag. Null doc or tag,
 * an empty tag, or a document of fewer than two characters: all null. */
FANOUT_EXPORT TagRanges getTagRanges(const PalChar* tag, const PalChar* doc, const PalChar* limit);

/* With whole 0 the content range of the element, otherwise {openStart,
 * closeEnd} (which is {openStart, null} for an element without a closing
 * tag); {null, null} when the tag is absent. */
FANOUT_EXPORT TagRange getTagScope(const PalChar* tag, const PalChar* doc, const PalChar* limit,
                                   PalInt32 whole);

/* The "!DOCTYPE" declaration: with whole non-zero {openStart, openEnd};
 * with whole 0 the range of the document-type name (the first word after
 * the keyword). {null, null} when there is none or doc is null. */
FANOUT_EXPORT TagRange getDocType(const PalChar* doc, const PalChar* limit, PalInt32 whole);

/* Puts new content (the inclusive range newFirst..newLast) into the element
 * `tag` of the document doc..docEnd, whose buffer may be used up to and
 * including bufferEnd. With replace non-zero the old content is replaced;
 * with 0 the new content goes in front of the old. `unused` is ignored.
 * Returns {doc, the document's new last character} on success, and the
 * caller writes the terminating NUL after it; {null, the last character the
 * result would need} when it would not fit (nothing is changed); {null, null}
 * when the element, its closing tag or its content range is absent (a
 * self-closing element) or an argument is null. */
FANOUT_EXPORT TagRange addContentToTag(PalChar* doc, PalChar* docEnd, void* unused,
                                       PalChar* bufferEnd, const PalChar* tag,
                                       const PalChar* newFirst, const PalChar* newLast,
                                       PalInt32 replace);

FANOUT_END_DECLS

#endif /* FANOUT_TAGDOC_H */
