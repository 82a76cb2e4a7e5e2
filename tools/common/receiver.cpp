// receiver.cpp - the receiving side of a distribution (fanout-receive, and
// fanout-relay before it forwards). It checks what the sender announces,
// asks the depot how much of each segment is already there, lets the
// local-source search decide whether anything must cross the network, and
// writes what arrives into depot entries with checkpoints.
//
// How a segment's bytes reach the depot:
// 1. A segment complete in the depot (state 1 or 2, data file of the
//    announced size) is not asked for: its offset is its size.
// 2. An entry in progress whose writer has died is resumed: its checkpoint
//    is the size of its data file (DepotSetCheckpointOffset with the stamp of
//    the record read from disk), so the sender starts there.
// 3. Anything else starts at 0 with a new entry (DepotAddEntry). Entries are
//    added and opened only when their first byte arrives, so a distribution
//    of many segments holds one data file open at a time.
// 4. Every 4 MiB of a segment, and when the data stop for any reason, the
//    checkpoint is taken again; a stamp that no longer matches means another
//    writer opened the file, and the distribution fails rather than mix data.
// 5. An entry is completed (DepotCompleteEntry) only when all its bytes are
//    in its data file.
// The stream's local-source search holds the leading complete segments in use
// and unregisters them when the stream closes, which takes one reference
// each; the receiver therefore registers each of them once more first, so
// that the depot keeps what it already had.
#include <sys/statvfs.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <memory>

#include "dist.h"
#include "fanout/depot.h"
#include "fanout/exception.h"
#include "fanout/properties.h"
#include "fanout/stream.h"

namespace fanout::dist {
namespace {

constexpr int64_t kCheckpointEvery = 4 * 1024 * 1024;
constexpr int32_t kHandshakeTimeoutMs = 30000;

// One segment that still needs bytes.
struct Pending {
    size_t index = 0;             // into the distribution's segments
    DepotEntry* entry = nullptr;  // the record being written, or null
    PalFileHandle file{};         // its open data file, or null
    PalInt32 stamp = 0;           // lastWriteTime of our open
    int64_t written = 0;          // bytes in the data file
    int64_t since_checkpoint = 0;
};

std::string Key(const SegmentInfo& s) {
    return s.id + "^" + s.version;
}

class Receive {
  public:
    Receive(const ReceiveOptions& opts, ReceiveResult* r) : opts_(opts), r_(*r) {}
    ~Receive() { Cleanup(); }

    // Everything before the stream: the depot's view of each segment.
    void Plan() {
        (void)DepotNew(&depot_, opts_.depot.c_str(), opts_.size_kib);
        if (depot_ == nullptr) throw Failure("cannot open the depot " + opts_.depot);
        Distribution& d = r_.dist;
        uint64_t missing = 0;
        for (size_t i = 0; i < d.segments.size(); ++i) {
            SegmentInfo& s = d.segments[i];
            Pending p;
            p.index = i;
            DepotEntry* e = DepotGetEntry(depot_, s.id.c_str(), s.version.c_str());
            if (e != nullptr && e->state != DEPOT_STATE_IN_PROGRESS) {
                PalUint64 bytes = 0;
                const PalError err = DepotEntryGetFileSize(depot_, e, &bytes);
                (void)DepotFreeEntry(depot_, e);
                if (err.palError != PAL_OK || bytes != static_cast<PalUint64>(s.size))
                    throw Failure("segment " + Key(s) +
                                  " is in the depot with another size; refused");
                s.offset = s.size;
                continue;
            }
            if (e != nullptr) {
                if (DepotEntryWriterAlive(depot_, e)) {
                    (void)DepotFreeEntry(depot_, e);
                    throw Failure("segment " + Key(s) + " is being written by another process");
                }
                PalUint64 offset = 0;
                (void)DepotSetCheckpointOffset(depot_, s.id.c_str(), s.version.c_str(),
                                               e->lastWriteTime, &offset);
                // A data file longer than the segment is not ours: start over.
                p.written =
                    offset <= static_cast<PalUint64>(s.size) ? static_cast<int64_t>(offset) : 0;
                p.entry = e;
            }
            s.offset = p.written;
            missing += static_cast<uint64_t>(s.size - s.offset);
            pending_.push_back(p);
        }
        Reserve(missing);
        CompleteWhatIsWhole();
        RegisterCompletePrefix();
        r_.bytes = 0;
        missing_ = missing;
    }

    // The stream: local when everything is in the depot, else the network.
    void Run() {
        const std::string& id = r_.dist.id;
        std::vector<uint8_t> octets = {NET_STREAM_RECV, 0, static_cast<uint8_t>(opts_.mobile)};
        octets.insert(octets.end(), id.begin(), id.end());
        StreamKey key{};
        key.maximum = key.length = static_cast<uint32_t>(octets.size());
        key.buffer = octets.data();
        stream_ = net_stream_open(&key);
        if (stream_ == nullptr) throw Failure("cannot open the receiving stream");
        {
            std::unique_ptr<PropertiesList, void (*)(PropertiesList*)> toc(MakeToc(r_.dist, true),
                                                                           properties_list_delete);
            net_stream_save_modified_toc(stream_, toc.get());
        }
        DropUnheldRegistrations();
        IpcHandle ch = ecp_get_ipc_handle();
        if (stream_->type == NET_STREAM_DEPOT) {
            // Nothing to read from the network: the sender learns it from a
            // table of contents whose offsets are all the sizes.
            r_.local = true;
            const std::string toc = EncodeToc(r_.dist);
            fanout_channel_send(ch, FANOUT_MSG_RECVSTART, toc.data(),
                                static_cast<uint32_t>(toc.size()));
            FanoutFrameHeader h{};
            void* payload = nullptr;
            fanout_channel_recv(ch, &h, &payload);
            mg_free(payload);
            if (h.type != FANOUT_MSG_END)
                throw Failure("the sender sent data although nothing was needed");
        } else {
            ReadAll();
            if (r_.status != kDone) return;
        }
        fanout_channel_send(ch, FANOUT_MSG_END, nullptr, 0);
    }

    // Closes the stream; a finished mobile distribution's progress file
    // gets its finished name.
    void Finish() {
        NetStream* s = stream_;
        stream_ = nullptr;
        if (s != nullptr) {
            if (r_.status == kFailed && !r_.message.empty())
                net_stream_set_status(s, r_.message.c_str());
            net_stream_close(s);
        }
        if (opts_.mobile && r_.status == kDone) {
            MStat* m = mstat_new(r_.dist.id.c_str(), 0);
            if (m != nullptr) {
                mstat_done(m);
                mstat_free(m);
            }
        }
    }

    // Records why the data stopped in a mobile stream's progress file.
    void NoteStop(const char* why) {
        if (stream_ != nullptr) net_stream_update_mstat(stream_, "err_msg", why);
    }

  private:
    void Reserve(uint64_t missing) {
        struct statvfs vfs {};
        if (statvfs(opts_.depot.c_str(), &vfs) == 0) {
            const uint64_t free_bytes = static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize;
            if (missing > free_bytes)
                throw Failure("the distribution needs " + std::to_string(missing) +
                              " bytes; the depot's file system has " + std::to_string(free_bytes) +
                              " free");
        }
        if (missing / 1024 >= UINT32_MAX) throw Failure("the distribution is too large");
        const PalUint32 kib = ConvertDataSize(missing);
        if (DepotReserveDiskSpace(depot_, kib).palError != PAL_OK)
            throw Failure("the depot cannot reserve " + std::to_string(kib) + " KiB for " +
                          std::to_string(missing) + " bytes");
        reserved_kib_ = kib;
    }

    // Segments whose bytes are all there already (empty ones, or a writer
    // that died just before completing) are completed now.
    void CompleteWhatIsWhole() {
        for (auto it = pending_.begin(); it != pending_.end();) {
            SegmentInfo& s = r_.dist.segments[it->index];
            if (it->written < s.size) {
                ++it;
                continue;
            }
            if (it->entry == nullptr) {
                it->entry = DepotAddEntry(depot_, s.id.c_str(), s.version.c_str(), nullptr, 0);
                if (it->entry == nullptr) throw Failure("cannot add segment " + Key(s));
            }
            DepotEntry* e = it->entry;
            it->entry = nullptr;
            if (DepotCompleteEntry(depot_, e, Deadline()).palError != PAL_OK)
                throw Failure("cannot complete segment " + Key(s));
            s.offset = s.size;
            it = pending_.erase(it);
        }
    }

    // One more reference for each leading complete segment (see the top of
    // this file).
    void RegisterCompletePrefix() {
        for (const SegmentInfo& s : r_.dist.segments) {
            if (s.offset < s.size) break;
            DepotEntry* e = DepotAddEntry(depot_, s.id.c_str(), s.version.c_str(), nullptr, 0);
            if (e == nullptr) break;  // in use elsewhere: the search stops here too
            if (e->state != DEPOT_STATE_COMPLETE) {
                (void)DepotFreeEntry(depot_, e);
                break;
            }
            if (DepotCompleteEntry(depot_, e, Deadline()).palError != PAL_OK) break;
            registered_.push_back(&s);
        }
    }

    // Registrations the search did not take (it found no depot, or stopped
    // earlier) are given back.
    void DropUnheldRegistrations() {
        const size_t held = stream_->depot_entries.length;
        for (size_t i = held; i < registered_.size(); ++i) {
            const SegmentInfo& s = *registered_[i];
            DepotEntry* e = DepotGetEntry(depot_, s.id.c_str(), s.version.c_str());
            if (e != nullptr) (void)DepotUnregisterEntry(depot_, e, PAL_FALSE);
        }
        registered_.clear();
    }

    PalInt32 Deadline() const {
        const int64_t t =
            static_cast<int64_t>(time(nullptr)) + int64_t{opts_.deadline_days} * 86400;
        return static_cast<PalInt32>(std::min<int64_t>(t, INT32_MAX));
    }

    void ReadAll() {
        ProgressBar bar("receiving " + r_.dist.id, missing_);
        void* data = nullptr;
        int32_t n;
        while ((n = net_stream_read(stream_, &data)) > 0) {
            struct Give {
                NetStream* s;
                void* d;
                ~Give() { net_stream_free_buffer(s, d); }
            } give{stream_, data};
            Store(static_cast<const uint8_t*>(data), static_cast<uint32_t>(n));
            r_.bytes += static_cast<uint64_t>(n);
            bar.Advance(static_cast<uint64_t>(n));
            if (opts_.kill_after != 0 && r_.bytes >= opts_.kill_after) {
                // Test knob: die here as a crash would, without clean-up.
                kill(getpid(), SIGKILL);
            }
        }
        if (n == 0) {
            if (current_ < pending_.size())
                throw Failure("the sender ended the data " + std::to_string(missing_ - r_.bytes) +
                              " bytes early");
            bar.Finish();
            return;
        }
        Checkpoint();
        r_.status = n == NET_STREAM_PAUSED ? kPaused : kCancelled;
        r_.message = n == NET_STREAM_PAUSED ? "paused by the sender" : "cancelled by the sender";
        NoteStop(r_.message.c_str());
    }

    // Splits the bytes of one block over the segments by the lengths asked.
    void Store(const uint8_t* bytes, uint32_t len) {
        while (len > 0) {
            if (current_ >= pending_.size())
                throw Failure("the sender sent more data than the table of contents announced");
            Pending& p = pending_[current_];
            const SegmentInfo& s = r_.dist.segments[p.index];
            if (p.file.handle == nullptr) Open(p, s);
            const int64_t want = s.size - p.written;
            const uint32_t k = static_cast<uint32_t>(std::min<int64_t>(want, len));
            WriteAll(p, s, bytes, k);
            bytes += k;
            len -= k;
            p.written += k;
            p.since_checkpoint += k;
            if (opts_.observer != nullptr) opts_.observer->Stored(p.index, p.written, false);
            if (p.written == s.size) {
                Complete(p, s);
                ++current_;
            } else if (p.since_checkpoint >= kCheckpointEvery) {
                Checkpoint();
            }
        }
    }

    void Open(Pending& p, const SegmentInfo& s) {
        if (p.entry == nullptr) {
            p.entry = DepotAddEntry(depot_, s.id.c_str(), s.version.c_str(), nullptr, 0);
            if (p.entry == nullptr || p.entry->state != DEPOT_STATE_IN_PROGRESS)
                throw Failure("cannot add segment " + Key(s) + " to the depot");
        }
        const PalBool fresh = p.written == 0 ? PAL_TRUE : PAL_FALSE;
        if (DepotFileOpenForWrite(depot_, p.entry, &p.file, fresh).palError != PAL_OK)
            throw Failure("cannot open the data file of segment " + Key(s));
        p.stamp = p.entry->lastWriteTime;
        if (!fresh && (PalFileSetSize(p.file, p.written).palError != PAL_OK ||
                       PalFileSetLocation(p.file, p.written, PAL_SEEK_BEGIN).palError != PAL_OK))
            throw Failure("cannot resume the data file of segment " + Key(s));
    }

    void WriteAll(Pending& p, const SegmentInfo& s, const uint8_t* bytes, uint32_t len) {
        while (len > 0) {
            PalUint32 n = 0;
            const PalError err = PalFileWrite(p.file, bytes, len, &n);
            if (err.palError != PAL_OK || n == 0)
                throw Failure("cannot write segment " + Key(s) + ": " +
                              std::strerror(err.nativeError != 0 ? err.nativeError : ENOSPC));
            bytes += n;
            len -= n;
        }
    }

    // The current segment's checkpoint: the depot must see every byte
    // written and no other writer.
    void Checkpoint() {
        if (current_ >= pending_.size()) return;
        Pending& p = pending_[current_];
        if (p.file.handle == nullptr) return;
        const SegmentInfo& s = r_.dist.segments[p.index];
        PalUint64 offset = UINT64_MAX;
        (void)DepotSetCheckpointOffset(depot_, s.id.c_str(), s.version.c_str(), p.stamp, &offset);
        p.since_checkpoint = 0;
        if (offset != static_cast<PalUint64>(p.written))
            throw Failure("segment " + Key(s) + " was opened by another writer");
    }

    void Complete(Pending& p, const SegmentInfo& s) {
        Checkpoint();
        PalFileClose(p.file);
        p.file = PalFileHandle{};
        DepotEntry* e = p.entry;
        p.entry = nullptr;
        if (DepotCompleteEntry(depot_, e, Deadline()).palError != PAL_OK)
            throw Failure("cannot complete segment " + Key(s));
        r_.dist.segments[p.index].offset = s.size;
        if (opts_.observer != nullptr) opts_.observer->Stored(p.index, s.size, true);
    }

    // Leaves every entry in progress resumable and gives back the space not
    // used.
    void Cleanup() noexcept {
        if (stream_ != nullptr) {
            try {
                Finish();
            } catch (...) {
            }
        }
        uint64_t unwritten = 0;
        for (Pending& p : pending_) {
            const SegmentInfo& s = r_.dist.segments[p.index];
            if (p.file.handle != nullptr) PalFileClose(p.file);
            p.file = PalFileHandle{};
            if (p.entry != nullptr) (void)DepotFreeEntry(depot_, p.entry);
            p.entry = nullptr;
            unwritten += static_cast<uint64_t>(s.size - p.written);
        }
        if (depot_ != nullptr) {
            if (reserved_kib_ != 0)
                DepotUnreserveDiskSpace(depot_,
                                        std::min(reserved_kib_, ConvertDataSize(unwritten)));
            (void)DepotFree(depot_);
            depot_ = nullptr;
        }
    }

    const ReceiveOptions& opts_;
    ReceiveResult& r_;
    DepotHandle* depot_ = nullptr;
    NetStream* stream_ = nullptr;
    std::vector<Pending> pending_;
    std::vector<const SegmentInfo*> registered_;
    size_t current_ = 0;
    uint64_t missing_ = 0;
    PalUint32 reserved_kib_ = 0;
};

// Copies the finished segments to opts.out, each under its id.
void CopyOut(const std::string& out, const Distribution& d) {
    MakeDirs(out);
    std::vector<char> buf(1 << 20);
    for (const SegmentInfo& s : d.segments) {
        const std::string part = out + "/." + s.id + ".part";
        const int in = open(s.path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (in < 0) throw Failure("cannot read " + s.path + ": " + std::strerror(errno));
        const int fd =
            open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd < 0) {
            close(in);
            throw Failure("cannot create " + part + ": " + std::strerror(errno));
        }
        ssize_t n;
        bool ok = true;
        while (ok && (n = read(in, buf.data(), buf.size())) > 0)
            for (ssize_t at = 0; ok && at < n;) {
                const ssize_t w = write(fd, buf.data() + at, static_cast<size_t>(n - at));
                ok = w > 0;
                at += w;
            }
        ok = ok && n == 0;
        close(in);
        ok = close(fd) == 0 && ok;
        if (!ok || rename(part.c_str(), (out + "/" + s.id).c_str()) != 0) {
            unlink(part.c_str());
            throw Failure("cannot copy segment " + s.id + " to " + out);
        }
    }
}

}  // namespace

void LocateInDepot(const std::string& dir, Distribution* d, bool take_sizes) {
    DepotHandle* depot = nullptr;
    (void)DepotNew(&depot, dir.c_str(), 0);
    if (depot == nullptr) throw Failure("cannot open the depot " + dir);
    std::string missing;
    for (SegmentInfo& s : d->segments) {
        DepotEntry* e = DepotGetEntry(depot, s.id.c_str(), s.version.c_str());
        if (e == nullptr || e->state == DEPOT_STATE_IN_PROGRESS || e->location == nullptr) {
            if (e != nullptr) (void)DepotFreeEntry(depot, e);
            missing = Key(s);
            break;
        }
        PalUint64 bytes = 0;
        if (DepotEntryGetFileSize(depot, e, &bytes).palError == PAL_OK && take_sizes &&
            bytes <= INT32_MAX)
            s.size = static_cast<int64_t>(bytes);
        if (bytes != static_cast<PalUint64>(s.size)) {
            (void)DepotFreeEntry(depot, e);
            missing = Key(s);
            break;
        }
        s.path = e->location;
        (void)DepotFreeEntry(depot, e);
    }
    (void)DepotFree(depot);
    if (!missing.empty()) throw Failure("segment " + missing + " is not complete in " + dir);
}

ReceiveResult ReceiveFrom(FanoutChannel* ch, const ReceiveOptions& opts) {
    ReceiveResult r;
    bool attached = false;
    bool observed = false;
    try {
        Receive receive(opts, &r);
        try {
            fanout_channel_set_timeout(ch, kHandshakeTimeoutMs);
            ReceiverAuthenticate(ch, opts.token);
            r.dist = ReceiveDistribution(ch);
            fanout_channel_set_timeout(ch, fanout_ipc_timeout());
            receive.Plan();
        } catch (const Failure& f) {
            SendRefusal(ch, f.what());
            throw;
        }
        if (opts.observer != nullptr) {
            // Before the connection becomes the process's channel: a relay
            // forks its forwarding processes here.
            opts.observer->Accepted(r.dist, fanout_channel_fd(ch));
            observed = true;
        }
        fanout_ipc_set(ch);  // the stream's channel from now on
        attached = true;
        try {
            receive.Run();
        } catch (...) {
            r.status = kFailed;
            r.message = CurrentFailureText();
        }
        if (r.status == kFailed) SendRefusal(ecp_get_ipc_handle(), r.message);
        receive.Finish();
    } catch (...) {
        r.status = kFailed;
        r.message = CurrentFailureText();
    }
    if (attached) {
        fanout_ipc_set(nullptr);
    } else {
        fanout_channel_close(ch);
    }
    // Every entry is complete or left resumable by now.
    if (observed) opts.observer->Ended(r.status, r.message);
    if (r.status == kDone && !opts.out.empty()) {
        try {
            LocateInDepot(opts.depot, &r.dist);
            CopyOut(opts.out, r.dist);
        } catch (const Failure& f) {
            r.status = kFailed;
            r.message = f.what();
        }
    }
    return r;
}

}  // namespace fanout::dist
