// The cellular and ePDG PDN tables: index rules, search order, the
// default-bearer rule of the interface search, and the clears.
#include <gtest/gtest.h>

#include "pdn/pdn_info.h"
#include "pdn_test_util.h"

namespace {

using pdn_test::default_bearer;
using pdn_test::entry;
using pdn_test::PdnTest;
using pdn_test::put_row;

// ---- find_pdn_info_by_index ----

struct IndexCase {
    int32_t index;
    bool epdg;    // which table the row must come from
    int32_t row;  // its row, -1 for none
};

void PrintTo(const IndexCase &c, std::ostream *os) {
    *os << "index " << c.index;
}

class PdnIndexTest : public PdnTest, public ::testing::WithParamInterface<IndexCase> {};

TEST_P(PdnIndexTest, RowOrWarning) {
    const IndexCase &c = GetParam();
    // Each table's rows are contiguous: tell them apart by their distance
    // from a known row of each.
    PdnInfo *cell0 = find_pdn_info_by_index(0);
    PdnInfo *epdg0 = find_pdn_info_by_index(100);
    ASSERT_NE(cell0, nullptr);
    ASSERT_NE(epdg0, nullptr);
    h.clear();

    PdnInfo *row = find_pdn_info_by_index(c.index);
    std::string warning = "find_pdn_info_by_index fail index " + std::to_string(c.index) + "\n";
    if (c.row < 0) {
        EXPECT_EQ(row, nullptr);
        EXPECT_EQ(lines("find_pdn_info_by_index", "DMGR-WAR", warning), 1u);
    } else {
        EXPECT_EQ(row, (c.epdg ? epdg0 : cell0) + c.row);
        EXPECT_TRUE(h.logs().empty());
    }
}

INSTANTIATE_TEST_SUITE_P(PdnIndexes, PdnIndexTest,
                         ::testing::Values(IndexCase{0, false, 0}, IndexCase{15, false, 15},
                                           IndexCase{100, true, 0}, IndexCase{115, true, 15},
                                           IndexCase{16, false, -1}, IndexCase{99, false, -1},
                                           IndexCase{116, false, -1},
                                           // The unsigned test turns negatives away.
                                           IndexCase{-1, false, -1},
                                           IndexCase{INT32_MIN, false, -1}));

// ---- searches ----

class PdnTableTest : public PdnTest {
  protected:
    // The entity's start-up lines are not the table's.
    void SetUp() override { h.clear(); }
};

TEST_F(PdnTableTest, CidPresentInBothTablesIsFoundInTheCellularTable) {
    PdnInfo *epdg = put_row(default_bearer(105, 5));
    auto cellular_entry = default_bearer(5, 5);
    PdnInfo *cell = put_row(cellular_entry);
    // Same cid in both tables: make the ePDG row carry cid 5 too.
    epdg->cid = 5;
    EXPECT_EQ(find_pdn_info_by_cid(5), cell);
    cell->active = 0;
    EXPECT_EQ(find_pdn_info_by_cid(5), epdg);
}

TEST_F(PdnTableTest, ApnSearchSkipsFreeRowsAndPrefersTheLowestCellularRow) {
    EXPECT_EQ(find_pdn_info_by_apn("ims"), nullptr);
    EXPECT_TRUE(h.logs().empty());

    PdnInfo *free_row = find_pdn_info_by_index(1);
    strcpy(free_row->apn, "ims");
    EXPECT_EQ(find_pdn_info_by_apn("ims"), nullptr);

    PdnInfo *epdg = put_row(default_bearer(101, 4), "ims");
    PdnInfo *cell = put_row(default_bearer(9, 4), "ims");
    EXPECT_EQ(find_pdn_info_by_apn("ims"), cell);
    EXPECT_EQ(find_pdn_info_by_apn("IMS"), nullptr);
    EXPECT_EQ(find_pdn_info_by_apn("im"), nullptr);
    clear_pdn_info_by_cid(9);
    EXPECT_EQ(find_pdn_info_by_apn("ims"), epdg);
}

TEST_F(PdnTableTest, InterfaceSearchMatchesOnlyTheDefaultBearer) {
    put_row(entry(8, 3, 7));  // dedicated bearer of cid 7
    EXPECT_EQ(find_pdn_info_by_interface(3), nullptr);
    EXPECT_EQ(lines("find_pdn_info_by_interface", "DMGR-WAR",
                    "find_pdn_info_by_interface fail interface id 3\n"),
              1u);
    // The cid search does not ask for a default bearer.
    EXPECT_NE(find_pdn_info_by_cid(8), nullptr);
    EXPECT_EQ(get_interface_by_cid(8), 3u);

    PdnInfo *def = put_row(default_bearer(7, 3));
    EXPECT_EQ(find_pdn_info_by_interface(3), def);
}

TEST_F(PdnTableTest, MissesOnAnEmptyTable) {
    EXPECT_EQ(get_interface_by_cid(0), UINT32_MAX);
    EXPECT_TRUE(h.logs().empty());
    EXPECT_EQ(find_pdn_info_by_cid(0), nullptr);
    EXPECT_EQ(lines("find_pdn_info_by_cid", "DMGR-WAR", "find_pdn_info_by_cid fail cid 0\n"), 1u);
}

// ---- update ----

TEST_F(PdnTableTest, UpdateCopiesTheEntryAndKeepsTheRowsOwnFields) {
    PdnInfo *row = put_row(entry(3, 2, 3, 9), "internet");
    strcpy(row->ifname, "pdnet2");
    auto second = entry(3, 6, 3, 4);
    TaskInfo *owner = reinterpret_cast<TaskInfo *>(0x10);
    EXPECT_EQ(update_pdn_info(&second, owner), row);
    EXPECT_EQ(row->active, 1u);
    EXPECT_EQ(row->status, 4u);
    EXPECT_EQ(row->interface_id, 6u);
    EXPECT_EQ(row->owner, owner);
    EXPECT_EQ(memcmp(&row->call, &second, sizeof(second)), 0);
    // Not touched by an update.
    EXPECT_STREQ(row->apn, "internet");
    EXPECT_STREQ(row->ifname, "pdnet2");
    EXPECT_EQ(lines("update_pdn_info", "DMGR-INF",
                    "update_pdn_info cid 3, pimary cid 3, interface 6\n"),
              1u);
}

class PdnUpdateOutOfRangeTest : public PdnTest, public ::testing::WithParamInterface<int32_t> {};

TEST_P(PdnUpdateOutOfRangeTest, ReportsTheIndexThenItsOwnErrorAndChangesNothing) {
    const int32_t cid = GetParam();
    auto e = default_bearer(cid, 1);
    EXPECT_EQ(update_pdn_info(&e, nullptr), nullptr);
    std::string n = std::to_string(cid);
    EXPECT_EQ(lines("find_pdn_info_by_index", "DMGR-WAR",
                    "find_pdn_info_by_index fail index " + n + "\n"),
              1u);
    EXPECT_EQ(lines("update_pdn_info", "DMGR-ERR",
                    "update_pdn_info find pdn by index " + n + " fail\n"),
              1u);
    EXPECT_EQ(find_pdn_info_by_interface(1), nullptr);
}

INSTANTIATE_TEST_SUITE_P(PdnCids, PdnUpdateOutOfRangeTest, ::testing::Values(20, 200, -3));

// ---- clears ----

TEST_F(PdnTableTest, ClearByCidLogsOncePerRowCleared) {
    PdnInfo *cell = put_row(default_bearer(6, 1));
    PdnInfo *epdg = put_row(default_bearer(106, 1));
    epdg->cid = 6;
    PdnInfo *other = put_row(default_bearer(7, 1));
    h.clear();

    EXPECT_EQ(clear_pdn_info_by_cid(6), 0);
    EXPECT_EQ(lines("clear_pdn_info_by_cid", "DMGR-INF", "clear_pdn_info_by_cid 6\n"), 2u);
    EXPECT_EQ(cell->active, 0u);
    EXPECT_EQ(epdg->active, 0u);
    EXPECT_EQ(other->active, 1u);

    h.clear();
    EXPECT_EQ(clear_pdn_info_by_cid(6), 0);
    EXPECT_TRUE(h.logs().empty());
}

struct IfTypeCase {
    int32_t if_type;
    bool cellular_cleared;
    bool epdg_cleared;
};

void PrintTo(const IfTypeCase &c, std::ostream *os) {
    *os << "type " << c.if_type;
}

class PdnClearByIfTypeTest : public PdnTest, public ::testing::WithParamInterface<IfTypeCase> {};

TEST_P(PdnClearByIfTypeTest, ClearsTheRowsOfOneTableOnly) {
    const IfTypeCase &c = GetParam();
    PdnInfo *def = put_row(default_bearer(2, 3), "a");
    PdnInfo *ded = put_row(entry(4, 3, 2));
    PdnInfo *other_if = put_row(default_bearer(5, 1));
    PdnInfo *epdg = put_row(default_bearer(102, 3));
    h.clear();

    EXPECT_EQ(clear_pdn_info_by_if_type(3, c.if_type), 0);
    EXPECT_EQ(def->active == 0, c.cellular_cleared);
    EXPECT_EQ(ded->active == 0, c.cellular_cleared);
    EXPECT_EQ(epdg->active == 0, c.epdg_cleared);
    EXPECT_EQ(other_if->active, 1u);
    if (c.cellular_cleared) {
        // The whole row goes: strings and the copied entry included.
        EXPECT_EQ(def->apn[0], '\0');
        EXPECT_EQ(def->call.rest[1], 0);
    }
    EXPECT_TRUE(h.logs().empty());
}

INSTANTIATE_TEST_SUITE_P(PdnTypes, PdnClearByIfTypeTest,
                         ::testing::Values(IfTypeCase{kIfTypeCellular, true, false},
                                           IfTypeCase{kIfTypeEpdg, false, true},
                                           IfTypeCase{3, false, false},
                                           IfTypeCase{0, false, false}));

TEST_F(PdnTableTest, ResetFreesEveryRowAndDumpShowsTheCellularTableOnly) {
    put_row(default_bearer(0, 1), "internet");
    put_row(default_bearer(100, 4));
    h.clear();
    dump_pdn_info();
    auto dumped = h.logs_containing("PDN info ");
    ASSERT_EQ(dumped.size(), 16u);
    EXPECT_EQ(dm::testkit::log_body(dumped[0]),
              "PDN info 0 active 1 internet interface id 1 cid 0\n");
    EXPECT_EQ(dm::testkit::log_body(dumped[15]), "PDN info 15 active 0  interface id 0 cid 0\n");

    reset_pdn_info();
    EXPECT_EQ(find_pdn_info_by_index(0)->active, 0u);
    EXPECT_EQ(find_pdn_info_by_index(100)->active, 0u);
    EXPECT_EQ(find_pdn_info_by_apn("internet"), nullptr);
}

}  // namespace
