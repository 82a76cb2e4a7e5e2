// search.cpp - finding a distribution's segments on this machine.
//
// Before a stream reads, it is handed the distribution's table of contents.
// This file looks for each segment's data close at hand: in the endpoint's
// own depot (a receiving stream, type 2), in files the table of contents
// already names, in directories listed in the remote-directory file, on a
// CD-ROM, or in the directory named by the stream key. Each segment found is
// rewritten to point at its file ("data_path", "dat_file", "size"). A
// receiving stream whose segments are all in the depot turns into a depot
// stream (type 10) that reads the depot's data files; a local-file stream
// gets the list of files to read, and fails at once when a segment is
// missing.
//
// A directory is searched through its table-of-contents files: "*.toc" (the
// bare layout) and "*.itc" (the improved layout), each a property list whose
// nested "segment" list names a segment's id and version. A segment that
// matches is looked for in that directory under the last component of its
// own location.
//
// Which segments are found is kept beside the Toc record (TocSearch), not in
// it: the record is a view over the list and has no room for the flags.
//
// Clean-up: every temporary (the Toc views, the flags, the collected paths,
// files read) is owned by a guard, so a raise leaves nothing behind. Depot
// entries are the one thing that outlives a raise on purpose: an entry is
// added to the stream's `depot_entries` before it is switched to in use
// (state 2), so whatever happens afterwards, closing the stream gives every
// such entry back.

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "fanout/catalog.h"
#include "fanout/exception.h"
#include "fanout/ferry.h"
#include "fanout/keys.h"
#include "fanout/log.h"
#include "fanout/message.h"
#include "fanout/pathname.h"
#include "fanout/properties.h"
#include "fanout/stream.h"
#include "runtime/mg_ptr.h"
#include "runtime/raise.h"
#include "stream/stream_internal.h"

namespace fanout {
namespace {

// A Toc that borrows its list: its views go, the list stays.
struct TocViewFree {
    void operator()(Toc* t) const noexcept {
        toc_free_buffer(t);
        mg_free(t);
    }
};
using TocView = std::unique_ptr<Toc, TocViewFree>;

struct DirFree {
    void operator()(Directory* d) const noexcept { dir_delete(d); }
};
struct EnumFree {
    void operator()(DirEntryEnum* e) const noexcept { dir_entry_enum_delete(e); }
};
struct FileClose {
    void operator()(std::FILE* f) const noexcept { std::fclose(f); }
};

// A search over a list the caller keeps: the segment views and the found
// flags live as long as the guard.
class SearchOver {
  public:
    explicit SearchOver(PropertiesList* list)
        : found_(static_cast<uint8_t*>(list->length != 0 ? mg_calloc(list->length, 1) : nullptr)),
          toc_(toc_from_properties(list)) {
        record_.toc = toc_.get();
        record_.found = found_.get();
        record_.found_count = 0;
    }
    TocSearch* get() { return &record_; }

  private:
    std::unique_ptr<uint8_t, MgFree> found_;
    TocView toc_;
    TocSearch record_{};
};

// The paths of the files found, in the order found: each string and the
// buffer are freed with the guard.
class PathList {
  public:
    PathList() = default;
    PathList(const PathList&) = delete;
    PathList& operator=(const PathList&) = delete;
    ~PathList() {
        for (uint32_t i = 0; i < paths_.length; ++i) {
            mg_free(paths_.buffer[i]);
        }
        seq_free_buffer(&paths_);
    }
    Kel_Types_StringList* get() { return &paths_; }
    // The paths joined by commas, without a trailing comma.
    std::string joined() const {
        std::string list;
        for (uint32_t i = 0; i < paths_.length; ++i) {
            if (i != 0) {
                list += ',';
            }
            list += paths_.buffer[i];
        }
        return list;
    }

  private:
    Kel_Types_StringList paths_{};
};

bool all_found(const TocSearch* search) {
    return search->found_count >= search->toc->count;
}

bool is_separator(char c) {
    return c == '/' || c == '\\';
}

bool is_directory(const std::string& path, int32_t* result) {
    FileStatus st{};
    *result = stat_ex(path.c_str(), &st);
    return *result == 0 && S_ISDIR(st.mode);
}

// Appends a copy of `path` to `files` (when given).
void add_path(Kel_Types_StringList* files, const std::string& path) {
    if (files == nullptr) {
        return;
    }
    MgString copy(mg_strdup(path.c_str()));
    char* element = copy.get();
    seq_add(files, &element, sizeof element);
    copy.release();
}

// Rebuilds segment i's view after its list changed: the view copied the
// size when it was made.
void refresh_segment(Toc* toc, uint32_t i) {
    Segment* old = toc->segments[i];
    toc->segments[i] = segment_from_properties(old->props);
    mg_free(old->aux_data);
    mg_free(old);
}

// Points segment i at the file `path` of `size` bytes, collects the path and
// counts the segment found.
void found_file(TocSearch* search, uint32_t i, const std::string& path, int64_t size,
                Kel_Types_StringList* files) {
    Properties* props = search->toc->segments[i]->props;
    properties_put_string_dup(props, SEGMENT_DATA_PATH_KEY, path.c_str());
    properties_put_string_dup(props, SEGMENT_DAT_FILE_KEY, path.c_str());
    // The size field holds the low 32 bits, as the file wrapper reports a size.
    properties_put_long_dup(props, SEGMENT_SIZE_KEY,
                            static_cast<int32_t>(static_cast<uint32_t>(size)));
    refresh_segment(search->toc, i);
    add_path(files, path);
    search->found[i] = 1;
    ++search->found_count;
}

// What a table-of-contents file says about its segment.
struct Description {
    std::string id;
    std::string version;
};

// Reads the table-of-contents file `path`. A file that does not decode, or
// that names no segment id and version, is skipped with a log line: a stray
// or damaged file in a searched directory must not stop the search of the
// others. Running out of memory still raises.
bool read_description(const std::string& path, bool improved, Description* out) {
    Properties top{};
    struct Release {
        Properties* p;
        ~Release() { kel_free_generic(p, TC_Kel_Fanout2_Properties); }
    } release{&top};
    try {
        if (improved) {
            properties_load_improved(&top, path.c_str());
        } else {
            properties_load_without_len(&top, path.c_str());
        }
        const Properties* segment = properties_get_properties2(&top, "segment", nullptr);
        const char* id =
            segment != nullptr ? properties_get_string2(segment, SEGMENT_ID_KEY, nullptr) : nullptr;
        const char* version = segment != nullptr
                                  ? properties_get_string2(segment, SEGMENT_VERSION_KEY, nullptr)
                                  : nullptr;
        if (id == nullptr || version == nullptr) {
            LogQ(1, "fanout: Skipping table of contents %s: it names no segment.", path.c_str());
            return false;
        }
        out->id = id;
        out->version = version;
        return true;
    } catch (const Exception& e) {
        if (e.is_a(FANOUT_EX_NO_MEMORY_ID)) {
            throw;
        }
        LogQ(1, "fanout: Skipping table of contents %s: %s", path.c_str(), e.what());
        return false;
    }
}

// Marks every missing segment that `file` describes and whose data file is
// in the directory (`prefix` ends with a separator).
void match_description(TocSearch* search, const Description& file, const std::string& prefix,
                       Kel_Types_StringList* files) {
    for (uint32_t i = 0; i < search->toc->count; ++i) {
        const Segment* seg = search->toc->segments[i];
        if (search->found[i] || file.id != seg->id || file.version != seg->version) {
            continue;
        }
        // The data file carries the name the segment had where it was made.
        // A segment without a location names no file.
        if (seg->location == nullptr) {
            continue;
        }
        const char* slash = std::strrchr(seg->location, '/');
        const std::string name = slash != nullptr ? slash + 1 : seg->location;
        const std::string path = prefix + name;
        // Only a regular file is data: an empty name or ".." would otherwise
        // name a directory.
        FileStatus st{};
        if (name.empty() || stat_ex(path.c_str(), &st) != 0 || !S_ISREG(st.mode)) {
            continue;
        }
        found_file(search, i, path, st.size, files);
    }
}

// The search of one directory (net_stream_search_endpoint_depot).
int32_t search_directory(TocSearch* search, const char* directory, Kel_Types_StringList* files) {
    // An empty name is no directory (the separator rule would make it "/").
    std::string dir = directory;
    if (dir.empty()) {
        return -1;
    }
    if (dir.size() > 1 && is_separator(dir.back())) {
        dir.pop_back();
    }
    // A name that does not fit a path name cannot be enumerated (the
    // directory object keeps it in one).
    if (dir.size() + 2 > pathname_max_length()) {
        return -1;
    }
    int32_t result = 0;
    if (!is_directory(dir, &result)) {
        if (dir.back() != '/') {
            dir += '/';
        }
        if (!is_directory(dir, &result)) {
            return result;
        }
    }
    const std::string prefix = is_separator(dir.back()) ? dir : dir + "/";
    std::unique_ptr<Directory, DirFree> d(dir_new(dir.c_str()));
    int32_t more = 0;
    for (const bool improved : {false, true}) {
        std::unique_ptr<DirEntryEnum, EnumFree> entries(
            dir_entries(d.get(), improved ? "*.itc" : "*.toc"));
        if (!entries) {
            continue;
        }
        while (!all_found(search) &&
               (more = dir_entry_enum_has_more_elements(entries.get())) != 0) {
            const std::string path = prefix + dir_entry_enum_next_element(entries.get());
            Description file;
            if (read_description(path, improved, &file)) {
                match_description(search, file, prefix, files);
            }
        }
    }
    return more;
}

// The directories listed in <ZEL_DATDIR>/remote.dir, one a line, "#" starting
// a comment line. Raises 170 when the file cannot be opened.
void search_remote_directories(TocSearch* search, Kel_Types_StringList* files) {
    const char* datdir = cpl_getenv("ZEL_DATDIR");
    // Without ZEL_DATDIR the file has no name; the message says which.
    const std::string path = std::string(datdir != nullptr ? datdir : "ZEL_DATDIR") + "/remote.dir";
    std::unique_ptr<std::FILE, FileClose> in(datdir != nullptr ? std::fopen(path.c_str(), "re")
                                                               : nullptr);
    if (!in) {
        raise_catalogued(170, path.c_str());
    }
    char line[4096];
    while (!all_found(search) && std::fgets(line, sizeof line, in.get()) != nullptr) {
        size_t n = std::strlen(line);
        if (n > 0 && line[n - 1] == '\n') {
            line[--n] = '\0';
        } else if (n == sizeof line - 1) {
            // A line is at most 4095 characters: the rest of a longer one is
            // dropped rather than taken for another directory.
            int c;
            while ((c = std::fgetc(in.get())) != EOF && c != '\n') {
            }
        }
        // An empty line would name "/" once the separator rule applied.
        if (n == 0 || line[0] == '#') {
            continue;
        }
        search_directory(search, line, files);
    }
}

// Segments whose "dat_file" is already set need no search.
void take_named_files(TocSearch* search, Kel_Types_StringList* files) {
    for (uint32_t i = 0; i < search->toc->count; ++i) {
        Properties* props = search->toc->segments[i]->props;
        const char* dat = properties_get_string2(props, SEGMENT_DAT_FILE_KEY, nullptr);
        if (search->found[i] || dat == nullptr) {
            continue;
        }
        const std::string path = dat;
        properties_put_string_dup(props, SEGMENT_DATA_PATH_KEY, path.c_str());
        add_path(files, path);
        search->found[i] = 1;
        ++search->found_count;
    }
}

// The searches of the local-file types (5 to 11), in their order.
void search_local(NetStream* s, TocSearch* search, Kel_Types_StringList* files) {
    take_named_files(search, files);
    const uint32_t type = s->type;
    if ((type == NET_STREAM_REMOTE_DIR || type == NET_STREAM_REMOTE_DIR_CDROM) &&
        !all_found(search)) {
        search_remote_directories(search, files);
    }
    if ((type == NET_STREAM_CDROM || type == NET_STREAM_REMOTE_DIR_CDROM) && !all_found(search)) {
        net_stream_search_cd_drives(search, files);
    }
    if (type == NET_STREAM_KEY_DIR && s->mobile_rest != nullptr && !all_found(search)) {
        search_directory(search, s->mobile_rest, files);
    }
}

// The endpoint's depot directory: "depot_dir" of the configuration file,
// else <ZEL_DATDIR>/depot when that is a directory; empty when neither.
std::string depot_directory() {
    MgString config_file(mrt_get_config_filespec());
    if (!config_file) {
        LogQ(1, "fanout: Unable to locate ZEL config file.");
        return {};
    }
    char* value = nullptr;
    if (mrt_get_config_from_file(config_file.get(), "depot_dir", &value) != 0) {
        LogQ(1, "fanout: Error reading config file %s.", config_file.get());
        value = nullptr;
    }
    MgString configured(value);
    // An empty value is taken as no value.
    if (configured && configured.get()[0] != '\0') {
        return configured.get();
    }
    if (const char* datdir = cpl_getenv("ZEL_DATDIR")) {
        std::string dir = std::string(datdir) + "/depot";
        if (dir_is_directory(dir.c_str())) {
            return dir;
        }
    }
    LogQ(1, "fanout: Local depot directory is not configured.");
    return {};
}

bool is_held(const NetStream* s, const DepotEntry* e) {
    for (uint32_t i = 0; i < s->depot_entries.length; ++i) {
        if (s->depot_entries.buffer[i] == e) {
            return true;
        }
    }
    return false;
}

// Undoes an earlier search's hold on the depot (the table of contents was
// saved again): its entries go back to complete without losing a reference,
// and the handle is freed.
void release_depot(NetStream* s) noexcept {
    for (uint32_t i = 0; i < s->depot_entries.length; ++i) {
        DepotEntry* e = s->depot_entries.buffer[i];
        (void)DepotEntryChangeState(s->depot, e, DEPOT_STATE_COMPLETE);
        (void)DepotFreeEntry(s->depot, e);
    }
    s->depot_entries.length = 0;
    (void)DepotFree(s->depot);
    s->depot = nullptr;
}

// The endpoint's own depot (type 2): every segment must be a complete entry,
// taken in order; the first one missing ends the search and the stream stays
// on the network. Entries found are held in use until the stream closes.
void search_depot(NetStream* s, TocSearch* search, Kel_Types_StringList* files) {
    const std::string dir = depot_directory();
    if (dir.empty()) {
        return;
    }
    if (s->depot != nullptr) {
        release_depot(s);
    }
    DepotHandle* depot = nullptr;
    (void)DepotNew(&depot, dir.c_str(), 2000);
    if (depot == nullptr) {
        LogQ(1, "fanout: Failure opening depot directory %s.", dir.c_str());
        return;
    }
    s->depot = depot;
    for (uint32_t i = 0; i < search->toc->count; ++i) {
        const Segment* seg = search->toc->segments[i];
        DepotEntry* e = DepotGetEntry(depot, seg->id, seg->version);
        if (e == nullptr || e->state != DEPOT_STATE_COMPLETE) {
            LogQ(1, "fanout: Unable to find entry for segment %s^%s.", seg->id, seg->version);
            // A record the stream already holds (the same segment twice)
            // stays with the stream.
            if (e != nullptr && !is_held(s, e)) {
                (void)DepotFreeEntry(depot, e);
            }
            return;
        }
        // Tracked first, so that close gives the entry back whatever
        // happens once it is in use.
        seq_add(&s->depot_entries, &e, sizeof e);
        if (DepotEntryChangeState(depot, e, DEPOT_STATE_IN_USE).palError != PAL_OK) {
            --s->depot_entries.length;
            (void)DepotFreeEntry(depot, e);
            LogQ(1, "fanout: Unable to mark segment %s^%s in use.", seg->id, seg->version);
            return;
        }
        const std::string path = e->location != nullptr ? e->location : "";
        FileStatus st{};
        if (stat_ex(path.c_str(), &st) == 0) {
            found_file(search, i, path, st.size, files);
        } else {
            LogQ(1, "fanout: Stat of %s failed.", path.c_str());
        }
    }
    if (all_found(search)) {
        LogQ(2, "fanout: All segments available locally, resetting stream type.");
        s->type = NET_STREAM_DEPOT;
    }
}

// Gives the stream a new file-list record over the files found. The record's
// cursor and list are one copy, as a file stream's are, so that releasing
// the list releases everything.
void install_file_list(NetStream* s, const PathList& paths) {
    MgString list(mg_strdup(paths.joined().c_str()));
    auto* record = static_cast<FileList*>(mg_calloc(1, sizeof(FileList)));
    stream_release_source(s);
    record->list = list.release();
    record->cursor = record->list;
    record->file = nullptr;
    s->source = record;
}

void zero_length(Int64Length** n) {
    if (*n == nullptr) {
        *n = int64_length_new();
    }
    (*n)->thousands = 0;
    (*n)->units = 0;
}

// A mobile stream whose table of contents (as given) is already complete
// records the totals at once: nothing more will arrive to count.
void record_complete_progress(NetStream* s, const PropertiesList* given) {
    if (!s->mobile) {
        return;
    }
    // The view only reads the caller's list.
    TocView toc(toc_from_properties(const_cast<PropertiesList*>(given)));
    for (uint32_t i = 0; i < toc->count; ++i) {
        if (toc->segments[i]->offset != toc->segments[i]->size) {
            return;
        }
    }
    // The lengths are set to the sums, not added to what they held.
    zero_length(&s->total_length);
    zero_length(&s->current_length);
    for (uint32_t i = 0; i < toc->count; ++i) {
        int64_length_add(s->total_length, toc->segments[i]->size);
        int64_length_add(s->current_length, toc->segments[i]->offset);
    }
    if (s->mstat == nullptr) {
        return;
    }
    MgString total(int64_length_to_string(s->total_length));
    properties_put_string_dup(s->mstat->properties, "c_len", total.get());
    properties_put_string_dup(s->mstat->properties, "t_len", total.get());
    // A save fails only when the file name cannot be built; the stream goes
    // on without its progress file, as everywhere else.
    (void)mstat_save(s->mstat);
}

// Frees the files that ferry_download_next collected in a state of its own.
struct FerryStateFree {
    void operator()(FileList* state) const noexcept {
        if (state->file != nullptr) {
            try {
                file_delete(state->file);
            } catch (...) {
            }
        }
        if (state->cursor != state->list) {
            mg_free(state->cursor);
        }
        mg_free(state->list);
    }
};

// Type 11: each segment's size from the delivery service, then the segment
// itself into the service's cache.
void fetch_sizes(NetStream* s, PropertiesList* toc) {
    SearchOver search(toc);
    TocSearch* rec = search.get();
    for (uint32_t i = 0; i < rec->toc->count; ++i) {
        if (rec->toc->segments[i]->size == 0) {
            const Segment* seg = rec->toc->segments[i];
            int64_t size = 0;
            const int32_t result =
                ferry_funcs.GetSingleFileSize != nullptr
                    ? ferry_funcs.GetSingleFileSize(seg->ferry_manager, seg->ferry_packageid,
                                                    seg->ferry_username, seg->ferry_password, &size)
                    : -1;
            if (result != 0) {
                raise_catalogued(203, "GetSingleFileSize", 0u, result);
            }
            properties_put_long_dup(seg->props, SEGMENT_SIZE_KEY,
                                    static_cast<int32_t>(static_cast<uint32_t>(size)));
            refresh_segment(rec->toc, i);
        }
        // The fetch has a state of its own: the stream's state, which its
        // reads go on from, is left as it was.
        FileList state{};
        std::unique_ptr<FileList, FerryStateFree> guard(&state);
        state.next_segment = i;
        void* data = nullptr;
        const int32_t stop = ferry_download_next(toc, &state, &data);
        // The fetch rewrote the segment's list (its path and size).
        refresh_segment(rec->toc, i);
        if (stop != 0 || data != nullptr) {
            const uint8_t status =
                data != nullptr ? *static_cast<const uint8_t*>(data) : static_cast<uint8_t>(-stop);
            net_stream_free_buffer(s, data);
            const char* name = decode_command(status);
            const std::string command = name != nullptr ? name : std::to_string(status);
            const Segment* seg = rec->toc->segments[i];
            raise_catalogued(211, seg->ferry_packageid != nullptr ? seg->ferry_packageid : "",
                             command.c_str());
        }
        rec->found[i] = 1;
        ++rec->found_count;
    }
}

bool searches_local_files(uint32_t type) {
    return type >= 5 && type <= NET_STREAM_FERRY;
}

}  // namespace
}  // namespace fanout

using namespace fanout;

extern "C" {

void net_stream_save_modified_toc(NetStream* s, const PropertiesList* toc) {
    if (toc == nullptr) {
        raise_catalogued(31);
    }
    PropertiesList* clone = properties_list_clone(toc);
    properties_list_delete(s->toc);
    s->toc = clone;

    SearchOver search(s->toc);
    TocSearch* rec = search.get();
    PathList paths;
    const uint32_t type = s->type;
    if (type == NET_STREAM_RECV) {
        search_depot(s, rec, paths.get());
    } else if (searches_local_files(type)) {
        search_local(s, rec, paths.get());
        if (type != NET_STREAM_FERRY && !all_found(rec)) {
            for (uint32_t i = 0; i < rec->toc->count; ++i) {
                if (!rec->found[i]) {
                    const Segment* seg = rec->toc->segments[i];
                    raise_catalogued(182, seg->id, seg->version);
                }
            }
        }
    }
    // A receiving stream that found everything is now a depot stream.
    if (searches_local_files(s->type) && s->type != NET_STREAM_FERRY && all_found(rec)) {
        install_file_list(s, paths);
    }
    record_complete_progress(s, toc);
}

int32_t net_stream_search_endpoint_depot(TocSearch* search, const char* directory,
                                         Kel_Types_StringList* files) {
    if (search == nullptr || search->toc == nullptr || directory == nullptr ||
        (search->found == nullptr && search->toc->count != 0)) {
        return -1;
    }
    return search_directory(search, directory, files);
}

int32_t net_stream_search_cd_drives(TocSearch* search, Kel_Types_StringList* files) {
    return net_stream_search_endpoint_depot(search, "/cdrom", files);
}

void net_stream_get_size(NetStream* s, PropertiesList* toc) {
    if (s == nullptr || toc == nullptr) {
        return;
    }
    if (s->type >= NET_STREAM_CDROM && s->type <= NET_STREAM_KEY_DIR) {
        SearchOver search(toc);
        search_local(s, search.get(), nullptr);
    } else if (s->type == NET_STREAM_FERRY) {
        fetch_sizes(s, toc);
    }
}

void free_toc_octets(Kel_Types_OctetList* octets) {
    if (octets == nullptr) {
        return;
    }
    kel_free_generic(octets, TC_Kel_Types_OctetList);
    mg_free(octets);
}

}  // extern "C"
