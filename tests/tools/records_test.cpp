// The record table of dmsim: dotted field paths, the values a scenario may
// write, and the agreement of the event -> record map with the data
// manager's own length table.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "entity/datamngr.h"
#include "evfw_ids.h"
#include "tools/dmsim/records.h"

namespace {

using namespace dmsim;

struct PathCase {
    const char *record;
    const char *path;
    size_t offset;
    size_t size;
    Kind kind;
};

class FieldPathTest : public ::testing::TestWithParam<PathCase> {};

TEST_P(FieldPathTest, ResolvesToTheWireOffset) {
    const PathCase &c = GetParam();
    const RecordDesc *rec = find_record(c.record);
    ASSERT_NE(rec, nullptr);
    FieldRef f;
    std::string err;
    ASSERT_TRUE(resolve_field(*rec, c.path, f, err)) << err;
    EXPECT_EQ(f.offset, c.offset);
    EXPECT_EQ(f.size, c.size);
    EXPECT_EQ(f.kind, c.kind);
}

// Offsets written out from the wire layout, not taken from the structs.
INSTANTIATE_TEST_SUITE_P(
        Records, FieldPathTest,
        ::testing::Values(PathCase{"SetupDataCallReq", "apn", 256, 128, Kind::Text},
                          PathCase{"SetupDataCallReq", "sim_id", 700, 1, Kind::U8},
                          PathCase{"SetupDataCallResp", "ipv6_addr", 160, 16, Kind::Ipv6},
                          PathCase{"SetupDataCallResp", "calls.0.cid", 252 + 12, 4, Kind::I32},
                          PathCase{"SetupDataCallResp", "calls.10.interface_id",
                                   252 + 10 * 3956 + 4, 4, Kind::U32},
                          PathCase{"SetupDataCallResp", "extra_call.cid", 43772 + 12, 4, Kind::I32},
                          PathCase{"DataCallListInd", "resp.calls.1.primary_cid",
                                   4 + 252 + 3956 + 8, 4, Kind::U32},
                          PathCase{"DedicateBearerInd", "sim_id", 3960, 4, Kind::U32},
                          PathCase{"ImsPdnReq", "req_token", 128, 4, Kind::U32},
                          PathCase{"AtCmdResp", "text", 20, 4096, Kind::Text}));

struct BadPathCase {
    const char *path;
    const char *error;
};

class BadFieldPathTest : public ::testing::TestWithParam<BadPathCase> {};

TEST_P(BadFieldPathTest, IsRefusedWithWhatWasExpected) {
    FieldRef f;
    std::string err;
    EXPECT_FALSE(resolve_field(*find_record("SetupDataCallResp"), GetParam().path, f, err));
    EXPECT_NE(err.find(GetParam().error), std::string::npos) << err;
}

INSTANTIATE_TEST_SUITE_P(
        Records, BadFieldPathTest,
        ::testing::Values(
                BadPathCase{"cid", "SetupDataCallResp has no field 'cid' (fields: word_0"},
                BadPathCase{"calls.cid", "expected calls.<0..10>.<field>"},
                BadPathCase{"calls.11.cid", "expected calls.<0..10>.<field>"},
                BadPathCase{"calls.2", "is a DataCallEntry record: name one of its fields"},
                BadPathCase{"extra_call", "name one of its fields (status, interface_id"},
                BadPathCase{"status.x", "'status' is a u32, not a record"},
                BadPathCase{"calls.0.bogus", "DataCallEntry has no field 'bogus'"}));

struct ValueCase {
    Kind kind;
    size_t size;
    const char *text;
    bool quoted;
    std::vector<uint8_t> bytes;  // empty: refused
};

class ValueTest : public ::testing::TestWithParam<ValueCase> {};

TEST_P(ValueTest, EncodesLittleEndianOrRefuses) {
    const ValueCase &c = GetParam();
    std::vector<uint8_t> out;
    std::string err;
    const bool ok = encode_value(c.kind, c.size, c.text, c.quoted, out, err);
    if (c.bytes.empty()) {
        EXPECT_FALSE(ok) << c.text;
        EXPECT_FALSE(err.empty());
    } else {
        ASSERT_TRUE(ok) << err;
        EXPECT_EQ(out, c.bytes);
    }
}

INSTANTIATE_TEST_SUITE_P(
        Values, ValueTest,
        ::testing::Values(ValueCase{Kind::U32, 4, "4003", false, {0xa3, 0x0f, 0, 0}},
                          ValueCase{Kind::U32, 4, "0x10", false, {0x10, 0, 0, 0}},
                          ValueCase{Kind::U32, 4, "-7", false, {0xf9, 0xff, 0xff, 0xff}},
                          ValueCase{Kind::I32, 4, "4294967295", false, {0xff, 0xff, 0xff, 0xff}},
                          ValueCase{Kind::U32, 4, "4294967296", false, {}},
                          ValueCase{Kind::U8, 1, "256", false, {}},
                          ValueCase{Kind::U8, 1, "-129", false, {}},
                          ValueCase{Kind::U32, 4, "12ab", false, {}},
                          ValueCase{Kind::U32, 4, "7", true, {}},
                          ValueCase{Kind::U32, 4, "hex:01020304", false, {1, 2, 3, 4}},
                          ValueCase{Kind::U32, 4, "hex:0102", false, {}},
                          ValueCase{Kind::Text, 4, "abcd", true, {'a', 'b', 'c', 'd'}},
                          ValueCase{Kind::Text, 4, "abcde", false, {}},
                          ValueCase{Kind::Bytes, 4, "hex:0a0b", false, {0x0a, 0x0b}},
                          ValueCase{Kind::Bytes, 2, "hex:0a0b0c", false, {}},
                          ValueCase{Kind::Bytes, 4, "0a0b", false, {}},
                          ValueCase{Kind::Ipv4, 4, "10.0.0.1", false, {10, 0, 0, 1}},
                          ValueCase{Kind::Ipv6,
                                    16,
                                    "2001:db8::1",
                                    false,
                                    {0x20, 1, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}},
                          ValueCase{Kind::Ipv6, 16, "2001:db8::g", false, {}}));

TEST(ValueMatchTest, TextComparesUpToItsTerminatorAndBytesWantZerosAfter) {
    const uint8_t field[8] = {'i', 'm', 's', 0, 'x', 0, 0, 0};
    EXPECT_TRUE(value_matches(Kind::Text, field, 8, {'i', 'm', 's'}));
    EXPECT_FALSE(value_matches(Kind::Text, field, 8, {'i', 'm'}));
    const uint8_t full[3] = {'a', 'b', 'c'};  // no terminator within the field
    EXPECT_TRUE(value_matches(Kind::Text, full, 3, {'a', 'b', 'c'}));
    EXPECT_FALSE(value_matches(Kind::Bytes, field, 3, {'i', 'm'}));
    EXPECT_TRUE(value_matches(Kind::Bytes, field + 5, 3, {0}));
    EXPECT_TRUE(value_matches(Kind::Bytes, field, 4, {'i', 'm', 's'}));
    EXPECT_EQ(format_value(Kind::U32, std::vector<uint8_t>{0xf9, 0xff, 0xff, 0xff}.data(), 4),
              "-7");
    EXPECT_EQ(format_value(Kind::Text, field, 8), "\"ims\"");
}

// Every event the main task receives whose record the table names must have
// the length the dispatcher expects for it, so that a scenario that sends a
// record by default sends a length the data manager accepts.
TEST(EventRecordTest, DefaultRecordsHaveTheLengthsTheDispatcherExpects) {
    int checked = 0;
    for (uint32_t id = 1; id < 10000; ++id) {
        bool known = false;
        const uint32_t expected = dm_expected_length(id, &known);
        const RecordDesc *rec = default_record(id);
        if (!known || rec == nullptr || rec->size == 0) continue;
        EXPECT_EQ(rec->size, expected) << "event " << id << " " << rec->name;
        ++checked;
    }
    EXPECT_GT(checked, 30);
}

}  // namespace
