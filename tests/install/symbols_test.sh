#!/bin/sh
# The shared library exports the interface and nothing of its internals:
# a sample of every family must be there, and the internal helpers (generic
# names among them) and any fanout:: C++ internals other than the exception
# class must not be.
set -eu
lib=$1
exports=$(nm -D --defined-only "$lib" | awk '{print $3}')
missing=0
for name in PalErrorCreate PalMemoryMalloc PalStringCmp PalPathGetName PalFileOpen \
    PalDirOpen PalInitSem PalRtlLoad PalList1Create mg_malloc seq_add TypeCode_equal \
    marshal_item adr_v_any vaThrow vaMThrow vaMThrowChild eh_throw LogMsg LogQ \
    mrt_get_work_dir PalMutexCreate PalThreadOnce fanout_init zel_generic_equal \
    TC_Kel_Fanout2_Properties _create_Kel_Fanout2_ExDepotNoSpace Fanout2Catalog \
    kelver_get_level_name kelver_get_bld_date Encode Decode getTagRanges addContentToTag \
    match pathname_append file_open seq_replace properties_get_string properties_load_improved \
    segment_new toc_from_properties message_from_properties decode_command SEGMENT_ID_KEY \
    JOB_TOC_KEY DepotNew DepotAddEntry DepotGetEntry_internal DepotPurgeExpiredEntries \
    DepotSetCheckpointOffset Logger TableSize PowerOf2Primes; do
  if ! printf '%s\n' "$exports" | grep -qx "$name"; then
    echo "not exported: $name"
    missing=1
  fi
done
for name in init Clear AllocEncode AllocDecode EncodeRaw DecodeRaw m_DecodeTable; do
  if printf '%s\n' "$exports" | grep -qx "$name"; then
    echo "exported but internal: $name"
    missing=1
  fi
done
internal=$(printf '%s\n' "$exports" | grep '^_ZN6fanout' | grep -v '^_ZN6fanout9Exception' || true)
if [ -n "$internal" ]; then
  echo "internal C++ symbols exported:"
  printf '%s\n' "$internal"
  missing=1
fi
[ $missing -eq 0 ] && echo "exports ok"
exit $missing
