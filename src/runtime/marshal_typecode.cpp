// marshal_typecode.cpp - CDR TypeCodes: writing type codes and reading them back from the wire.
//
// An any travels as its TypeCode followed by its value, so the decoder must
// rebuild type codes from bytes another program wrote. The writer emits the
// canonical form: every complex TypeCode as an encapsulation in big-endian
// order, zero padding, no indirections. The reader accepts what other ORBs
// write as well: each encapsulation in its own byte order, and indirections
// (kind 0xffffffff and a negative offset) to TypeCodes read earlier within
// the same top-level TypeCode. A TypeCode read from the wire becomes a
// run-time type code (refcount 1, see runtime.h) with a C layout computed for
// its values, unless its repository id names a type the library registered
// and the two are structurally equal: then the library's static type code is
// used, so decoded values carry the same type codes as values built locally.
//
// Hostile input is bounded three ways: nesting (ADR_MAX_DEPTH, shared with
// the value walk), counts (checked against the bytes left before arrays are
// allocated), and expansion: indirections may share a TypeCode many times,
// so the number of nodes a TypeCode describes when shared parts are counted
// at every use is limited to a multiple of its bytes. That keeps every later
// walk over the type (layout, comparison, re-encoding) linear in the input.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "fanout/runtime.h"
#include "runtime/marshal_internal.h"
#include "runtime/typecode_internal.h"

namespace fanout::cdr {
namespace {

constexpr uint32_t kIndirection = 0xffffffffu;
// Nodes a TypeCode may describe per byte of its encoding (indirections
// included) before it is refused as an expansion attack.
constexpr uint64_t kExpansionPerByte = 4;
constexpr uint64_t kExpansionSlack = 64;

/* ---------------------------------------------------------------- writing */

// Opens an encapsulation: a length word, then the byte-order octet (0, big-
// endian) at which alignment restarts. The destructor fills in the length.
class EncapsulationWriter {
  public:
    explicit EncapsulationWriter(AdrBuffer* b) : b_(b), saved_origin_(b->origin) {
        put_u32(b_, 0);
        slot_ = b_->length - 4;
        b_->origin = b_->length;
        put_u8(b_, 0);
    }
    ~EncapsulationWriter() {
        if (!failed(b_)) {
            uint32_t len = to_big(b_->length - b_->origin);
            std::memcpy(b_->data + slot_, &len, 4);
        }
        b_->origin = saved_origin_;
    }
    EncapsulationWriter(const EncapsulationWriter&) = delete;
    EncapsulationWriter& operator=(const EncapsulationWriter&) = delete;

  private:
    AdrBuffer* b_;
    uint32_t saved_origin_;
    uint32_t slot_ = 0;
};

TypeCode member(TypeCode tc, uint32_t i) {
    return tc->member_types != nullptr && i < tc->member_count ? tc->member_types[i] : nullptr;
}

void write_typecode(AdrBuffer* b, TypeCode tc) {
    if (failed(b)) return;
    DepthGuard depth(b);
    if (!depth.ok()) return;
    if (tc == nullptr) tc = TC_null;
    put_u32(b, tc->kind);
    switch (tc->kind) {
        case FANOUT_TK_NULL:
        case FANOUT_TK_VOID:
        case FANOUT_TK_SHORT:
        case FANOUT_TK_LONG:
        case FANOUT_TK_USHORT:
        case FANOUT_TK_ULONG:
        case FANOUT_TK_FLOAT:
        case FANOUT_TK_DOUBLE:
        case FANOUT_TK_BOOLEAN:
        case FANOUT_TK_CHAR:
        case FANOUT_TK_OCTET:
        case FANOUT_TK_ANY:
        case FANOUT_TK_TYPECODE:
        case FANOUT_TK_LONGLONG:
        case FANOUT_TK_ULONGLONG:
            return;
        case FANOUT_TK_STRING:
            return put_u32(b, tc->bound);
        case FANOUT_TK_OBJREF: {
            EncapsulationWriter encap(b);
            put_string(b, tc->repo_id);
            put_string(b, tc->name);
            return;
        }
        case FANOUT_TK_STRUCT:
        case FANOUT_TK_EXCEPT: {
            EncapsulationWriter encap(b);
            put_string(b, tc->repo_id);
            put_string(b, tc->name);
            put_u32(b, tc->member_count);
            for (uint32_t i = 0; i < tc->member_count && !failed(b); ++i) {
                put_string(b, tc->member_names != nullptr ? tc->member_names[i] : "");
                TypeCode m = member(tc, i);
                if (m == nullptr) return fail(b, ADR_ERR_BAD_TYPECODE);
                write_typecode(b, m);
            }
            return;
        }
        case FANOUT_TK_ENUM: {
            EncapsulationWriter encap(b);
            put_string(b, tc->repo_id);
            put_string(b, tc->name);
            put_u32(b, tc->member_count);
            for (uint32_t i = 0; i < tc->member_count && !failed(b); ++i)
                put_string(b, tc->member_names != nullptr ? tc->member_names[i] : "");
            return;
        }
        case FANOUT_TK_SEQUENCE: {
            TypeCode elem = member(tc, 0);
            if (elem == nullptr) return fail(b, ADR_ERR_BAD_TYPECODE);
            EncapsulationWriter encap(b);
            write_typecode(b, elem);
            put_u32(b, tc->bound);
            return;
        }
        case FANOUT_TK_ALIAS: {
            TypeCode named = member(tc, 0);
            if (named == nullptr) return fail(b, ADR_ERR_BAD_TYPECODE);
            EncapsulationWriter encap(b);
            put_string(b, tc->repo_id);
            put_string(b, tc->name);
            write_typecode(b, named);
            return;
        }
        default:
            return fail(b, ADR_ERR_UNSUPPORTED);
    }
}

/* ---------------------------------------------------------------- reading */

struct ReleaseTc {
    void operator()(const TypeCodeRec* tc) const { TypeCode_release(tc); }
};
using TcRef = std::unique_ptr<const TypeCodeRec, ReleaseTc>;

// Enters an encapsulation: reads its length and byte-order octet, narrows the
// buffer to its end and restarts alignment at its first octet. The destructor
// restores the outer stream and moves past the whole encapsulation (octets
// after the parameters are ignored).
class EncapsulationReader {
  public:
    explicit EncapsulationReader(AdrBuffer* b)
        : b_(b), outer_length_(b->length), outer_origin_(b->origin), outer_swap_(b->swap) {
        uint32_t len = 0;
        if (!get_u32(b_, &len)) return;
        if (len == 0 || len > remaining(b_)) {
            fail(b_, ADR_ERR_BAD_LENGTH);
            return;
        }
        end_ = b_->position + len;
        b_->length = end_;
        b_->origin = b_->position;
        uint8_t order = 0;
        if (!get_u8(b_, &order)) return;
        if (order > 1) {
            fail(b_, ADR_ERR_BAD_TYPECODE);
            return;
        }
        b_->swap = order;
    }
    ~EncapsulationReader() {
        b_->length = outer_length_;
        b_->origin = outer_origin_;
        b_->swap = outer_swap_;
        if (!failed(b_)) b_->position = end_;
    }
    EncapsulationReader(const EncapsulationReader&) = delete;
    EncapsulationReader& operator=(const EncapsulationReader&) = delete;

  private:
    AdrBuffer* b_;
    uint32_t outer_length_, outer_origin_;
    int32_t outer_swap_;
    uint32_t end_ = 0;
};

// Kinds that cannot stand as a member, element or aliased type: they have no
// value bytes (so counts of them could not be bounded by the input) or are
// not data types at all.
bool valid_component(TypeCode tc) {
    TypeCode base = unalias(tc);
    if (base == nullptr) return false;
    return base->kind != FANOUT_TK_NULL && base->kind != FANOUT_TK_VOID &&
           base->kind != FANOUT_TK_EXCEPT;
}

class TypeCodeReader {
  public:
    explicit TypeCodeReader(AdrBuffer* b) : b_(b), first_(b->position) {}
    ~TypeCodeReader() {
        for (const Seen& s : seen_) TypeCode_release(s.tc);
    }
    TypeCodeReader(const TypeCodeReader&) = delete;
    TypeCodeReader& operator=(const TypeCodeReader&) = delete;

    // One TypeCode (and everything nested in it); null with the error set.
    TcRef read();

  private:
    struct Seen {
        uint32_t at;     // position of its kind word
        uint64_t nodes;  // nodes it describes, shared parts counted at every use
        TypeCode tc;     // one reference, held until the reader ends
    };

    TcRef fail_with(int32_t code) {
        fail(b_, code);
        return nullptr;
    }
    bool count_nodes(uint64_t n);
    TcRef read_indirection();
    TcRef read_body(uint32_t kind);
    TcRef read_canonical();
    char* read_text();
    bool read_names(TypeCodeRec* rec);
    TcRef read_members(TypeCodeRec* rec, bool is_struct);
    TcRef registered(TcRef tc);

    AdrBuffer* b_;
    uint32_t first_;
    uint64_t nodes_ = 0;
    int level_ = 0;  // TypeCodes being read that enclose the current one
    std::vector<Seen> seen_;
};

bool TypeCodeReader::count_nodes(uint64_t n) {
    nodes_ += n;
    uint64_t read_so_far = b_->position - first_;
    if (nodes_ > read_so_far * kExpansionPerByte + kExpansionSlack) {
        fail(b_, ADR_ERR_BAD_TYPECODE);
        return false;
    }
    return true;
}

TcRef TypeCodeReader::read() {
    if (failed(b_)) return nullptr;
    DepthGuard depth(b_);
    if (!depth.ok() || !get_align(b_, 4)) return nullptr;
    uint32_t at = b_->position;
    uint32_t kind = 0;
    if (!get_u32(b_, &kind)) return nullptr;
    if (kind == kIndirection) return read_indirection();
    uint64_t nodes_before = nodes_;
    if (!count_nodes(1)) return nullptr;
    // Only nested TypeCodes can be named by an indirection: the top-level one
    // is complete only when there is nothing left to read. Entries are made
    // as reading starts, so they stay in position order.
    bool nested = level_ > 0;
    size_t slot = seen_.size();
    if (nested) seen_.push_back(Seen{at, 0, nullptr});
    ++level_;
    TcRef tc = read_body(kind);
    --level_;
    if (tc == nullptr) return nullptr;
    if (nested) {
        seen_[slot].nodes = nodes_ - nodes_before;
        seen_[slot].tc = TypeCode_duplicate(tc.get());
    }
    return tc;
}

// An indirection names a TypeCode already complete in this top-level
// TypeCode by the offset from the offset word to its kind word. One that
// points into a TypeCode still being read (a recursive type) is refused: a
// type code record cannot hold a cycle.
TcRef TypeCodeReader::read_indirection() {
    uint32_t from = b_->position;
    uint32_t raw = 0;
    if (!get_u32(b_, &raw)) return nullptr;
    int64_t target = int64_t{from} + static_cast<int32_t>(raw);
    auto it = std::lower_bound(seen_.begin(), seen_.end(), target,
                               [](const Seen& s, int64_t at) { return s.at < at; });
    // Not a TypeCode's start, or one still being read.
    if (it == seen_.end() || it->at != target || it->tc == nullptr)
        return fail_with(ADR_ERR_BAD_TYPECODE);
    if (!count_nodes(it->nodes)) return nullptr;
    return TcRef(TypeCode_duplicate(it->tc));
}

char* TypeCodeReader::read_text() {
    const char* s = nullptr;
    uint32_t n = 0;
    if (!get_string_view(b_, &s, &n)) return nullptr;
    auto* copy = static_cast<char*>(mg_malloc(n + 1));
    std::memcpy(copy, s, n + 1);
    return copy;
}

// The repository id and the name that open most complex TypeCodes.
bool TypeCodeReader::read_names(TypeCodeRec* rec) {
    rec->repo_id = read_text();
    if (rec->repo_id == nullptr) return false;
    rec->name = read_text();
    if (rec->name == nullptr) return false;
    rec->reg_name = mg_strdup(rec->name);
    return true;
}

TcRef TypeCodeReader::read_members(TypeCodeRec* rec, bool is_struct) {
    TcRef owner(rec);
    if (!read_names(rec)) return nullptr;
    uint32_t count = 0;
    if (!get_u32(b_, &count)) return nullptr;
    // A member takes at least a name (5 octets) and a kind (4).
    if (count > remaining(b_) / 9) return fail_with(ADR_ERR_BAD_LENGTH);
    if (count == 0) {
        // A structure needs a member; an exception may have none.
        if (is_struct) return fail_with(ADR_ERR_BAD_TYPECODE);
        rec->align = 1;
        return owner;
    }
    rec->member_count = count;
    auto** names = static_cast<const char**>(mg_calloc(count, sizeof(char*)));
    rec->member_names = names;
    auto** types = static_cast<TypeCode*>(mg_calloc(count, sizeof(TypeCode)));
    rec->member_types = types;
    auto* offsets = static_cast<uint32_t*>(mg_calloc(count, sizeof(uint32_t)));
    rec->member_offsets = offsets;
    for (uint32_t i = 0; i < count; ++i) {
        names[i] = read_text();
        if (names[i] == nullptr) return nullptr;
        TcRef m = read();
        if (m == nullptr) return nullptr;
        if (!valid_component(m.get())) return fail_with(ADR_ERR_BAD_TYPECODE);
        types[i] = m.release();
    }
    if (!tc_struct_layout(count, types, offsets, &rec->size, &rec->align))
        return fail_with(ADR_ERR_BAD_TYPECODE);
    return owner;
}

TcRef TypeCodeReader::read_body(uint32_t kind) {
    if (TypeCode basic = tc_basic(kind); basic != nullptr && kind != FANOUT_TK_STRING)
        return TcRef(basic);
    // Only a whole top-level TypeCode is matched in one piece: the parts of a
    // nested one must be read, since a later indirection may name them.
    if (kind != FANOUT_TK_SEQUENCE && level_ == 1) {
        if (TcRef known = read_canonical()) return known;
        if (failed(b_)) return nullptr;
    }
    switch (kind) {
        case FANOUT_TK_STRING: {
            uint32_t bound = 0;
            if (!get_u32(b_, &bound)) return nullptr;
            if (bound == 0) return TcRef(TC_string);
            TcRef tc(tc_new_dynamic(kind));
            auto* rec = const_cast<TypeCodeRec*>(tc.get());
            rec->bound = bound;
            tc_kind_layout(kind, &rec->size, &rec->align);
            return tc;
        }
        case FANOUT_TK_OBJREF:
        case FANOUT_TK_ENUM: {
            EncapsulationReader encap(b_);
            TcRef tc(tc_new_dynamic(kind));
            auto* rec = const_cast<TypeCodeRec*>(tc.get());
            if (failed(b_) || !read_names(rec)) return nullptr;
            tc_kind_layout(kind, &rec->size, &rec->align);
            if (kind == FANOUT_TK_ENUM) {
                uint32_t count = 0;
                if (!get_u32(b_, &count)) return nullptr;
                if (count == 0) return fail_with(ADR_ERR_BAD_TYPECODE);
                if (count > remaining(b_) / 5) return fail_with(ADR_ERR_BAD_LENGTH);
                rec->member_count = count;
                auto** names = static_cast<const char**>(mg_calloc(count, sizeof(char*)));
                rec->member_names = names;
                for (uint32_t i = 0; i < count; ++i) {
                    names[i] = read_text();
                    if (names[i] == nullptr) return nullptr;
                }
            }
            return registered(std::move(tc));
        }
        case FANOUT_TK_STRUCT:
        case FANOUT_TK_EXCEPT: {
            EncapsulationReader encap(b_);
            if (failed(b_)) return nullptr;
            TcRef tc = read_members(tc_new_dynamic(kind), kind == FANOUT_TK_STRUCT);
            return tc == nullptr ? nullptr : registered(std::move(tc));
        }
        case FANOUT_TK_SEQUENCE: {
            EncapsulationReader encap(b_);
            if (failed(b_)) return nullptr;
            TcRef elem = read();
            uint32_t bound = 0;
            if (elem == nullptr || !get_u32(b_, &bound)) return nullptr;
            if (!valid_component(elem.get())) return fail_with(ADR_ERR_BAD_TYPECODE);
            TcRef tc(tc_new_dynamic(kind));
            auto* rec = const_cast<TypeCodeRec*>(tc.get());
            rec->repo_id = mg_strdup("");
            rec->name = mg_strdup("");
            rec->bound = bound;
            rec->member_count = 1;
            auto** types = static_cast<TypeCode*>(mg_calloc(1, sizeof(TypeCode)));
            types[0] = elem.release();
            rec->member_types = types;
            tc_kind_layout(kind, &rec->size, &rec->align);
            return tc;
        }
        case FANOUT_TK_ALIAS: {
            EncapsulationReader encap(b_);
            if (failed(b_)) return nullptr;
            TcRef tc(tc_new_dynamic(kind));
            auto* rec = const_cast<TypeCodeRec*>(tc.get());
            if (!read_names(rec)) return nullptr;
            TcRef named = read();
            if (named == nullptr) return nullptr;
            if (!valid_component(named.get())) return fail_with(ADR_ERR_BAD_TYPECODE);
            rec->size = tc_size(named.get());
            rec->align = named->align;
            rec->member_count = 1;
            auto** types = static_cast<TypeCode*>(mg_calloc(1, sizeof(TypeCode)));
            types[0] = named.release();
            rec->member_types = types;
            return registered(std::move(tc));
        }
        case FANOUT_TK_PRINCIPAL:
        case FANOUT_TK_UNION:
        case FANOUT_TK_ARRAY:
            // Known to CDR, but the runtime has no memory layout for their values.
            return fail_with(ADR_ERR_UNSUPPORTED);
        default:
            return fail_with(ADR_ERR_BAD_TYPECODE);
    }
}

// Swaps a TypeCode read from the wire for the library's own when its
// repository id is registered and the two are structurally equal.
TcRef TypeCodeReader::registered(TcRef tc) {
    TypeCode known = tc_registry_find(tc->repo_id);
    if (known == nullptr || known == tc.get() || !TypeCode_equal(known, tc.get())) return tc;
    return TcRef(TypeCode_duplicate(known));
}

/* ------------------------------------------- fast path for our own output */

// What the slow path would have counted for a registered type code: its
// nodes and its height.
struct Canonical {
    std::vector<uint8_t> bytes;  // the encapsulation, length word included
    uint64_t nodes = 0;
    int height = 0;
};

void measure(TypeCode tc, int level, Canonical* c) {
    if (tc == nullptr || level > 2 * ADR_MAX_DEPTH) return;
    c->nodes++;
    if (level > c->height) c->height = level;
    bool has_members = tc->kind == FANOUT_TK_STRUCT || tc->kind == FANOUT_TK_EXCEPT ||
                       tc->kind == FANOUT_TK_SEQUENCE || tc->kind == FANOUT_TK_ALIAS;
    if (!has_members) return;
    for (uint32_t i = 0; i < tc->member_count; ++i) measure(member(tc, i), level + 1, c);
}

// The canonical encoding of a registered type code's parameters, built once
// per type code and kept for the life of the process (registered type codes
// are static, so the set is small and fixed).
const Canonical& canonical_form(TypeCode known) {
    static std::mutex lock;
    static auto* forms = new std::unordered_map<TypeCode, Canonical>();
    std::lock_guard<std::mutex> hold(lock);
    auto it = forms->find(known);
    if (it != forms->end()) return it->second;
    Canonical c;
    AdrBuffer* enc = adr_init_encode_buffer();
    write_typecode(enc, known);
    if (enc->error == ADR_OK && enc->length > 4) {
        c.bytes.assign(enc->data + 4, enc->data + enc->length);
    }
    adr_free_buf(enc);
    measure(known, 1, &c);
    return forms->emplace(known, std::move(c)).first->second;
}

// Our encoder writes a registered type code's encapsulation in one fixed
// form. When the input holds exactly that form (same length word, big-endian
// octet, same bytes), the registered type code is the answer and nothing
// needs building. Returns null, without an error, when the form differs:
// the caller then reads the TypeCode in full.
TcRef TypeCodeReader::read_canonical() {
    uint32_t at = b_->position;
    uint32_t left = remaining(b_);
    if (left < 12) return nullptr;
    const uint8_t* p = b_->data + at;
    uint32_t len = 0, id_len = 0;
    std::memcpy(&len, p, 4);
    std::memcpy(&id_len, p + 8, 4);
    len = to_big(len);
    id_len = to_big(id_len);
    // Big-endian only: the length word and the order octet of our own output.
    if (b_->swap != 0 || p[4] != 0 || len > left - 4 || len < 8 || id_len == 0 || id_len > len - 8)
        return nullptr;
    const auto* id = reinterpret_cast<const char*>(p + 12);
    if (id[id_len - 1] != '\0') return nullptr;
    TypeCode known = tc_registry_find(id);
    if (known == nullptr) return nullptr;
    const Canonical& form = canonical_form(known);
    if (form.bytes.size() != uint64_t{len} + 4 || std::memcmp(form.bytes.data(), p, len + 4) != 0)
        return nullptr;
    // The nesting the full reading would have gone through must fit as well.
    if (b_->depth + form.height - 1 > ADR_MAX_DEPTH) return nullptr;
    b_->position = at + 4 + len;
    if (!count_nodes(form.nodes - 1)) return nullptr;
    return TcRef(TypeCode_duplicate(known));
}

uint32_t min_wire(TypeCode tc, int depth) {
    if (tc == nullptr || depth > 2 * ADR_MAX_DEPTH) return 0;
    switch (tc->kind) {
        case FANOUT_TK_SHORT:
        case FANOUT_TK_USHORT:
            return 2;
        case FANOUT_TK_LONG:
        case FANOUT_TK_ULONG:
        case FANOUT_TK_FLOAT:
        case FANOUT_TK_ENUM:
        case FANOUT_TK_ANY:
        case FANOUT_TK_TYPECODE:
        case FANOUT_TK_SEQUENCE:
            return 4;
        case FANOUT_TK_LONGLONG:
        case FANOUT_TK_ULONGLONG:
        case FANOUT_TK_DOUBLE:
            return 8;
        case FANOUT_TK_BOOLEAN:
        case FANOUT_TK_CHAR:
        case FANOUT_TK_OCTET:
            return 1;
        case FANOUT_TK_STRING:
            return 5;  // length word and the NUL
        case FANOUT_TK_OBJREF:
            return 9;  // an empty type id and a profile count
        case FANOUT_TK_ALIAS:
            return min_wire(member(tc, 0), depth + 1);
        case FANOUT_TK_STRUCT:
        case FANOUT_TK_EXCEPT: {
            uint64_t sum = 0;
            for (uint32_t i = 0; i < tc->member_count && sum < UINT32_MAX; ++i)
                sum += min_wire(member(tc, i), depth + 1);
            return sum < UINT32_MAX ? static_cast<uint32_t>(sum) : UINT32_MAX;
        }
        default:
            return 0;
    }
}

}  // namespace

uint32_t min_wire_size(TypeCode tc) {
    return min_wire(tc, 0);
}

void encode_typecode(AdrBuffer* b, TypeCode tc) {
    put_align(b, 4);
    write_typecode(b, tc);
}

TypeCode decode_typecode(AdrBuffer* b) {
    if (failed(b) || !get_align(b, 4)) return nullptr;
    TypeCodeReader reader(b);
    return reader.read().release();
}

}  // namespace fanout::cdr
