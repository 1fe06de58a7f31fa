// What the fuzz targets share: the reader of their inputs, the peers that
// answer the data manager, and the event accounting that every input must
// leave balanced.  Every input starts with a byte of setup flags and then
// holds steps until it ends; any byte string is a valid input.
#ifndef FUZZ_FUZZ_H
#define FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "testkit/testkit.h"

namespace dm::fuzz {

// Consumes an input front to back; past its end every read yields zeros.
class Reader {
  public:
    explicit Reader(std::span<const uint8_t> data) : data_(data) {}
    bool done() const { return pos_ >= data_.size(); }
    uint8_t u8() { return done() ? 0 : data_[pos_++]; }
    uint16_t u16() { return static_cast<uint16_t>(u8() | (u8() << 8)); }
    uint32_t u32() { return u16() | (static_cast<uint32_t>(u16()) << 16); }
    // Up to `n` bytes, fewer at the end of the input.
    std::span<const uint8_t> bytes(size_t n) {
        n = done() ? 0 : std::min(n, data_.size() - pos_);
        auto out = data_.subspan(pos_, n);
        pos_ += n;
        return out;
    }
    std::span<const uint8_t> rest() { return bytes(data_.size()); }

  private:
    std::span<const uint8_t> data_;
    size_t pos_ = 0;
};

// The longest input of the dispatcher and AT targets (scripts/fuzz gives
// libFuzzer -max_len with it; make_seeds cuts the scenarios' flows to it):
// some ten to twenty steps, so that each run stays cheap while a request,
// its answer and a query of the result still fit in one input.
constexpr size_t kMaxLen = 128;

// Setup flags of the dispatcher and AT targets.
enum Setup : uint8_t {
    kRilAnswers = 1 << 0,      // the RIL proxy answers every request
    kEpdg = 1 << 1,            // "persist.qpx_epdg_support" = 1
    kMultiIms = 1 << 2,        // two IMS stacks, main SIM 2
    kPrefixes = 1 << 3,        // the network daemon's prefixes of pdnet4 and pdnet5
    kAnnounceRil = 1 << 4,     // the RIL proxy announces itself first
    kAnnounceClients = 1 << 5  // imsm_0, imsm_1 and lanmngr announce themselves first
};

// A step of the dispatcher target, an event to the main task:
//   sender u8 (kSenders, modulo);
//   id u8: an index into the dispatcher's table, or kRawId and a u16 id;
//   length u8 (LenMode, modulo; kRawLen and a u16 length);
//   fill u8; patch count u8 (modulo 16), each: offset u16 (modulo the
//   length), size u8, bytes.
constexpr size_t kSenders = 6;  // RIL proxy, imsm_0, imsm_1, lanmngr, RB of SIM 0, AT manager
constexpr uint8_t kRawId = 0xff;
enum LenMode : uint8_t { kExpected, kMinus1, kPlus1, kZero, kEight, kOne, kRawLen, kLenModes };
constexpr uint8_t kMaxPatches = 16;
// A step of the AT target: id u16 (4065 a command line, 4067 a name, ...),
// length u16, the bytes.
// The URC target: flags u8 (bit 0 ePDG, bit 1 the AT task has seen its
// entity), PDN rows u8 count (modulo 8) of {cid u8, interface u8}, then kind
// u32, sim u32 and the text: the rest of the input.
// The netlink target: mode u8 (kNl*), then the received bytes.
enum NetlinkMode : uint8_t { kNlParse = 1, kNlNoRa = 2, kNlReceive = 4 };

testkit::Peer &sender(testkit::Harness &h, uint8_t index);
// The process's one harness in the state of a fresh load (the last input's
// end restarted it), with the trace and the runtime's diagnostics echo off,
// and the modem's AT manager answering every AT command.  Loading the entity
// anew for each input would cost more than running it.
testkit::Harness &fresh();
// Properties, the RIL proxy's answers and announcements of the setup flags.
void setup(testkit::Harness &h, uint8_t flags);
// Ends an input: once the runtime is idle, each event the runtime allocated
// must be freed, held by the library, or one of the prescribed leaks;
// nothing freed twice; the dispatcher without a current event (else it
// prints what is off and aborts).  Then restarts the harness (Harness::
// restart), so that the input leaves nothing allocated behind it: libFuzzer
// takes more allocations than frees in an input for a leak.
void end_input(testkit::Harness &h, const char *target);

}  // namespace dm::fuzz

#endif  // FUZZ_FUZZ_H
