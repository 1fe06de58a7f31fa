// The input formats of the fuzz targets, read by the targets and written by
// the seed generator (Reader and Writer).  Every format starts with a byte of setup flags and
// then holds steps until the input ends; any byte string is a valid input.
#ifndef FUZZ_INPUTS_H
#define FUZZ_INPUTS_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace dm::fuzz {

// Consumes an input front to back; past its end every read yields zeros.
class Reader {
  public:
    explicit Reader(std::span<const uint8_t> data) : data_(data) {}
    bool done() const { return pos_ >= data_.size(); }
    size_t left() const { return done() ? 0 : data_.size() - pos_; }
    uint8_t u8() { return done() ? 0 : data_[pos_++]; }
    uint16_t u16() {
        uint16_t lo = u8();
        return static_cast<uint16_t>(lo | (u8() << 8));
    }
    uint32_t u32() {
        uint32_t lo = u16();
        return lo | (static_cast<uint32_t>(u16()) << 16);
    }
    // Up to `n` bytes, fewer at the end of the input.
    std::span<const uint8_t> bytes(size_t n) {
        n = n < left() ? n : left();
        std::span<const uint8_t> out = data_.subspan(pos_, n);
        pos_ += n;
        return out;
    }
    std::span<const uint8_t> rest() { return bytes(left()); }

  private:
    std::span<const uint8_t> data_;
    size_t pos_ = 0;
};

// The writing side of Reader, for the seed corpora.
class Writer {
  public:
    Writer &u8(uint8_t v) {
        out_.push_back(v);
        return *this;
    }
    Writer &u16(uint16_t v) { return u8(static_cast<uint8_t>(v)).u8(static_cast<uint8_t>(v >> 8)); }
    Writer &u32(uint32_t v) {
        return u16(static_cast<uint16_t>(v)).u16(static_cast<uint16_t>(v >> 16));
    }
    Writer &bytes(std::span<const uint8_t> b) {
        out_.insert(out_.end(), b.begin(), b.end());
        return *this;
    }
    const std::vector<uint8_t> &data() const { return out_; }

  private:
    std::vector<uint8_t> out_;
};

// ---- the main dispatcher -------------------------------------------------
//
// flags: u8 (kDispatch*)
// step:  sender u8 (index into kSenders, modulo)
//        id u8: 0xff then a u16 id, else an index into table_ids() (modulo)
//        length mode u8 (LenMode, modulo; kRawLen then a u16 length)
//        fill u8: the byte the payload starts out as
//        patch count u8 (modulo 16), each: offset u16 (modulo the length),
//        size u8, bytes
enum DispatchFlags : uint8_t {
    kDispatchAnnounceRil = 1 << 0,
    kDispatchAnnounceImsm0 = 1 << 1,
    kDispatchAnnounceImsm1 = 1 << 2,
    kDispatchAnnounceLan = 1 << 3,
    kDispatchRilAnswers = 1 << 4,
    kDispatchEpdg = 1 << 5,         // "persist.qpx_epdg_support" = 1
    kDispatchMultiIms = 1 << 6,     // two IMS stacks, main SIM 2
    kDispatchPrefixProps = 1 << 7,  // the network daemon's prefixes of pdnet4/5
};

enum LenMode : uint8_t {
    kExpected = 0,
    kExpected2 = 1,  // twice as likely as the others
    kExpectedMinus1 = 2,
    kExpectedPlus1 = 3,
    kZeroLen = 4,
    kEightLen = 5,
    kOneLen = 6,
    kRawLen = 7,
    kLenModes = 8,
};

constexpr uint8_t kRawId = 0xff;
constexpr uint8_t kMaxPatches = 16;

// Who sends: the RIL proxy, two IMS managers, the LAN manager, RB of SIM 0
// and the modem's AT manager.
constexpr size_t kSenders = 6;
enum Sender : uint8_t { kFromRil, kFromImsm0, kFromImsm1, kFromLan, kFromRb, kFromAtMngr };

// Writes one step carrying `record` (its non-zero bytes as patches over a
// zero fill) under id `id`.
inline void put_dispatch_step(Writer &w, Sender from, uint32_t id, LenMode mode,
                              std::span<const uint8_t> record, uint16_t raw_len = 0) {
    w.u8(from).u8(kRawId).u16(static_cast<uint16_t>(id)).u8(mode);
    if (mode == kRawLen) w.u16(raw_len);
    w.u8(0);
    // Runs of non-zero bytes, short gaps of zeros included, each patch at
    // most 255 bytes.
    constexpr size_t kGap = 8;
    struct Run {
        size_t at, len;
    };
    std::vector<Run> runs;
    for (size_t i = 0; i < record.size();) {
        if (record[i] == 0) {
            ++i;
            continue;
        }
        size_t end = i + 1;  // one past the last non-zero byte of the run
        for (size_t j = end; j < record.size() && j - i < 255 && j < end + kGap; ++j) {
            if (record[j] != 0) end = j + 1;
        }
        runs.push_back({i, end - i});
        i = end;
    }
    if (runs.size() > kMaxPatches - 1) runs.resize(kMaxPatches - 1);
    w.u8(static_cast<uint8_t>(runs.size()));
    for (const Run &r : runs) {
        w.u16(static_cast<uint16_t>(r.at)).u8(static_cast<uint8_t>(r.len));
        w.bytes(record.subspan(r.at, r.len));
    }
}

template <class T>
std::span<const uint8_t> as_bytes_of(const T &record) {
    return {reinterpret_cast<const uint8_t *>(&record), sizeof(record)};
}

// ---- the AT command interface task -----------------------------------------
//
// flags: u8 (kAt*)
// step:  control u8: kind in bits 0-1 (AtKind), bit 2 a NUL is appended,
//        bit 3 "\r" is appended before it; then a u16 length and the bytes
//        (kAtOtherId: a u16 id first)
enum AtFlags : uint8_t {
    kAtAnnounceRil = 1 << 0,
    kAtRilAnswers = 1 << 1,
    kAtRegisterAti = 1 << 2,  // "ati" registers through 4067 first
    kAtEpdg = 1 << 3,
};
enum AtKind : uint8_t { kAtLine = 0, kAtLine2 = 1, kAtRegistration = 2, kAtOtherId = 3 };
constexpr uint8_t kAtAppendNul = 1 << 2;
constexpr uint8_t kAtAppendCr = 1 << 3;

inline void put_at_step(Writer &w, AtKind kind, std::span<const uint8_t> text, bool cr, bool nul,
                        uint16_t other_id = 0) {
    w.u8(static_cast<uint8_t>(kind | (nul ? kAtAppendNul : 0) | (cr ? kAtAppendCr : 0)));
    if (kind == kAtOtherId) w.u16(other_id);
    w.u16(static_cast<uint16_t>(text.size())).bytes(text);
}

// ---- the modem URC path ------------------------------------------------------
//
// flags: u8 (kUrc*)
// rows:  count u8 (modulo 8), each: cid u8 (kUrcCids index, or a raw value
//        past their end), interface u8
// URC:   kind u32, sim u32, then the text: the rest of the input
enum UrcFlags : uint8_t {
    kUrcEpdg = 1 << 0,
    kUrcAtClientSeen = 1 << 1,  // the AT interface task has had an event
    kUrcDirect = 1 << 2,        // also given to dm_handle_default_urc directly
};
constexpr int32_t kUrcCids[] = {0, 1, 2, 5, 15, 16, 99, 100, 101, 115, 116, -1, 0x7fffffff};

// ---- the netlink receive walk -------------------------------------------------
//
// mode: u8 (kNl*), then the received bytes: the rest of the input
enum NetlinkMode : uint8_t {
    kNlParse = 1 << 0,    // parse_netlink_msg on the bytes
    kNlNoRa = 1 << 1,     // nl_no_ra_handle on them when they hold a whole message
    kNlReceive = 1 << 2,  // recv_netlink_msg reading them from a socket
};

}  // namespace dm::fuzz

#endif  // FUZZ_INPUTS_H
