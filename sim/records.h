// The records that travel between the data manager and its peers, by name,
// with their fields by name: what a scenario uses to build a payload field by
// field and to check what a peer received.  The table is made from the
// library's own headers with offsetof, so it follows every change of a
// layout.
#ifndef DM_SIM_RECORDS_H
#define DM_SIM_RECORDS_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace dm::sim {

enum class Kind {
    U8,
    U32,
    I32,
    U64,
    Text,    // char[N], NUL-terminated when shorter than the field
    Bytes,   // opaque bytes, written and compared as hex
    Ipv4,    // 4 bytes, dotted text
    Ipv6,    // 16 bytes, IPv6 text, network byte order
    Ptr,     // a pointer the data manager keeps: "null" or "set"
    Record,  // a nested record (or an array of them)
};

struct RecordDesc;

struct FieldDesc {
    std::string_view name;
    size_t offset;
    size_t size;  // whole field (all elements of an array)
    Kind kind;
    const RecordDesc *record = nullptr;  // Kind::Record: element type
    size_t count = 1;                    // Kind::Record: number of elements
};

struct RecordDesc {
    std::string_view name;
    size_t size;  // 0: a text payload of any length (its one field is `text`)
    std::span<const FieldDesc> fields;
};

// A field reached by a dotted path such as "calls.0.cid".
struct FieldRef {
    std::string path;
    size_t offset = 0;
    size_t size = 0;
    Kind kind = Kind::U32;
};

std::span<const RecordDesc *const> all_records();
const RecordDesc *find_record(std::string_view name);
// The record an event of this id carries, or nullptr when it has none or
// its layout is the RIL proxy's business.
const RecordDesc *default_record(uint32_t event_id);
// The text-payload pseudo record (AT command lines, forwarded commands).
const RecordDesc &text_record();
// A row of the PDN table (PdnInfo), for expect-pdn.
const RecordDesc &pdn_row_record();

// Resolves `path` in `record`; false with a reason in `error`.
bool resolve_field(const RecordDesc &record, std::string_view path, FieldRef &out,
                   std::string &error);

// Encodes a value written in a scenario for a field of `kind` and `size`.
// `quoted` tells that the value was written between double quotes.  Text
// and Bytes values may be shorter than the field.
bool encode_value(Kind kind, size_t size, std::string_view text, bool quoted,
                  std::vector<uint8_t> &out, std::string &error);
// The field's bytes as a scenario would write them.
std::string format_value(Kind kind, const uint8_t *bytes, size_t size);
// Whether the field's bytes hold the encoded value: Text compares the
// string up to its NUL, Bytes compares the bytes given and wants zeros after
// them, the others compare all bytes.
bool value_matches(Kind kind, const uint8_t *bytes, size_t size, const std::vector<uint8_t> &value);

const char *kind_name(Kind kind);
// A printable form of text: \r, \n, \t, \\, \" and other control bytes escaped.
std::string escape(std::string_view text);

}  // namespace dm::sim

#endif  // DM_SIM_RECORDS_H
