// Network indications through the runtime: data-call list changes and
// dedicated bearers, forwarded to the IMS manager for the IMS interfaces.
#include <gtest/gtest.h>

#include "entity/task_info.h"
#include "ims_test_util.h"
#include "netns.h"
#include "testkit/testkit.h"

namespace {

using ims_test::bearer;
using ims_test::ipv6;

std::unique_ptr<DataCallListInd> list_changed(uint32_t interface_id, uint32_t pdp_type,
                                              const char *reported_ipv6) {
    auto ind = std::make_unique<DataCallListInd>();
    memset(ind.get(), 0, sizeof(*ind));
    ind->word0 = 0x11223344;
    ind->resp = *ims_test::setup_answer(interface_id, pdp_type, reported_ipv6);
    return ind;
}

DedicateBearerInd bearer_ind(int32_t cid, uint32_t interface_id, uint32_t primary_cid,
                             uint32_t sim = 0) {
    DedicateBearerInd ind;
    memset(&ind, 0, sizeof(ind));
    ind.word0 = 0x55;
    ind.entry = bearer(cid, interface_id, primary_cid);
    ind.sim_id = sim;
    return ind;
}

class ImsNwIndTest : public ims_test::ImsFixture {
  protected:
    std::vector<std::unique_ptr<DataCallListInd>> forwarded_lists() {
        return to_imsm<DataCallListInd>(EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC);
    }
};

// ---- data-call list changes -------------------------------------------------

TEST_F(ImsNwIndTest, ChangeForAnotherInterfaceIsIgnoredEntirely) {
    auto ind = list_changed(1, kPdpIpv4, "::");
    ind->resp.has_extra_call = 1;
    ind->resp.extra_call = bearer(1, 1, 1);
    from_ril(EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC, *ind);
    EXPECT_EQ(find_pdn_info_by_index(1)->active, 0u);
    EXPECT_TRUE(forwarded_lists().empty());
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(ImsNwIndTest, Ipv4ChangeIsForwardedUnchangedAfterItsExtraCall) {
    auto ind = list_changed(4, kPdpIpv4, "2001:db8::1");
    ind->resp.has_extra_call = 1;
    ind->resp.extra_call = bearer(6, 4, 6);
    from_ril(EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC, *ind);

    const PdnInfo *row = find_pdn_info_by_cid(6);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->interface_id, 4u);
    EXPECT_EQ(row->owner, nullptr);
    auto sent = h.sent_to(imsm.id(), EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC);
    ASSERT_EQ(sent.size(), 1u);
    ASSERT_EQ(sent[0].data.size(), sizeof(*ind));
    EXPECT_EQ(memcmp(sent[0].data.data(), ind.get(), sizeof(*ind)), 0);
    EXPECT_FALSE(h.logged("dm_ipv6_is_global"));
    EXPECT_EQ(h.stray_events(), 0);
}

class ImsNwIndNetnsTest : public ImsNwIndTest {
  protected:
    void SetUp() override {
        IMS_ENTER_PRIVATE_NETNS();
        ASSERT_TRUE(ims_test::add_data_interface(4));
        ASSERT_TRUE(ims_test::add_ipv6("pdnet4", "2001:db8:1:2::5/64"));
    }
};

TEST_F(ImsNwIndNetnsTest, SamePrefixForwardsTheSavedAddressWithoutReadingTheInterface) {
    auto ind = list_changed(4, kPdpIpv6, "2001:db8:1:2::aaaa");
    from_ril(EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC, *ind);
    auto first = forwarded_lists();
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(ims_test::addr_of(first[0]->resp.ipv6_addr), ipv6("2001:db8:1:2::5"));
    EXPECT_EQ(ims_test::addr_of(ims_para_slot(4)->saved_global_addr), ipv6("2001:db8:1:2::5"));
    EXPECT_TRUE(ims_test::logged_by(h, "dm_data_call_list_changed_urc",
                                    "prefix changed, need get ipv6 address from interface\n"));

    // Gone from the interface: only the saved address can bring it back.
    ASSERT_TRUE(ims_test::del_ipv6("pdnet4", "2001:db8:1:2::5/64"));
    h.clear();
    from_ril(EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC, *ind);
    auto second = forwarded_lists();
    ASSERT_EQ(second.size(), 1u);
    EXPECT_EQ(ims_test::addr_of(second[0]->resp.ipv6_addr), ipv6("2001:db8:1:2::5"));
    EXPECT_EQ(second[0]->resp.status, 0u);
    EXPECT_TRUE(h.logged("[DMGR-DBG] prefix not changed, use precious ipv6 address:"));
    EXPECT_EQ(ims_test::count_body(h, "2001:0db8:0001:0002:0000:0000:0000:0005\n"), 1);
    EXPECT_FALSE(h.logged("prefix changed"));
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(ImsNwIndNetnsTest, NewPrefixIsLookedUpOnTheInterfaceAndSaved) {
    from_ril(EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC,
             *list_changed(4, kPdpIpv6, "2001:db8:1:2::aaaa"));
    ASSERT_TRUE(ims_test::add_ipv6("pdnet4", "2001:db8:9:9::7/64"));
    h.clear();
    from_ril(EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC,
             *list_changed(4, kPdpIpv4v6, "2001:db8:9:9::aaaa"));
    auto sent = forwarded_lists();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0]->resp.pdp_type, kPdpIpv4v6);
    EXPECT_EQ(ims_test::addr_of(sent[0]->resp.ipv6_addr), ipv6("2001:db8:9:9::7"));
    EXPECT_EQ(ims_test::addr_of(ims_para_slot(4)->saved_global_addr), ipv6("2001:db8:9:9::7"));
    EXPECT_TRUE(h.logged("get ipv6 global address for pdnet4 success\n"));
}

// The completion fails: the prefix never comes, or it comes but the
// interface has no address with it.
struct FailCase {
    uint32_t pdp_type;
    const char *reported;
    long sleeps;
    bool forwarded;
    const char *last_line;
};
void PrintTo(const FailCase &c, std::ostream *os) {
    *os << "pdp_type " << c.pdp_type << " reported " << c.reported;
}

class ImsNwIndFailTest : public ImsNwIndNetnsTest,
                         public ::testing::WithParamInterface<FailCase> {};

TEST_P(ImsNwIndFailTest, Ipv6OnlyIsDroppedIpv4v6FallsBack) {
    const FailCase &c = GetParam();
    from_ril(EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC, *list_changed(4, c.pdp_type, c.reported));
    EXPECT_EQ(ims_test::fake_clock::sleeps(), c.sleeps);
    auto sent = forwarded_lists();
    ASSERT_EQ(sent.size(), c.forwarded ? 1u : 0u);
    if (c.forwarded) {
        EXPECT_EQ(sent[0]->resp.pdp_type, kPdpIpv4);
        EXPECT_EQ(sent[0]->resp.status, 0u);
    }
    EXPECT_TRUE(ims_test::logged_by(h, "dm_data_call_list_changed_urc", c.last_line));
    EXPECT_TRUE(ims_test::count_body(h, "ipv6 fail\n") == (c.forwarded ? 0 : 1));
    EXPECT_EQ(h.stray_events(), 0);
}

INSTANTIATE_TEST_SUITE_P(
        Failures, ImsNwIndFailTest,
        ::testing::Values(FailCase{kPdpIpv6, "fe80::aaaa", 160, false, "ipv6 fail\n"},
                          FailCase{kPdpIpv4v6, "fe80::aaaa", 160, true, "fallback to ipv4\n"},
                          FailCase{kPdpIpv6, "2001:db8:3:3::aaaa", 0, false,
                                   "get ipv6 global address for pdnet4 fail\n"},
                          FailCase{kPdpIpv4v6, "2001:db8:3:3::aaaa", 0, true,
                                   "fallback to ipv4\n"}));

// ---- dedicated bearers ------------------------------------------------------

class ImsBearerTest : public ImsNwIndTest {
  protected:
    // The default PDN of interface `iface` (cid == iface), owned by the IMS
    // manager's registry row.
    TaskInfo *default_pdn(uint32_t iface, const char *apn) {
        TaskInfo *owner = query_task_info(query_task_info_by_name("imsm_0"));
        DataCallEntry e = bearer(static_cast<int32_t>(iface), iface, iface);
        PdnInfo *row = update_pdn_info(&e, owner);
        dm::testkit::copy_field(row->apn, apn);
        h.clear();
        return owner;
    }
    size_t sent_with(uint32_t event_id) { return h.sent_to(imsm.id(), event_id).size(); }
};

TEST_F(ImsBearerTest, ActivatedOnImsBelongsToTheDefaultPdnsOwnerAndIsForwarded) {
    TaskInfo *owner = default_pdn(4, "ims");
    ASSERT_NE(owner, nullptr);
    DedicateBearerInd ind = bearer_ind(8, 4, 4);
    from_ril(EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC, ind);

    const PdnInfo *row = find_pdn_info_by_cid(8);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->owner, owner);
    EXPECT_EQ(row->primary_cid, 4u);
    auto sent = h.sent_to(imsm.id(), EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(memcmp(sent[0].data.data(), &ind, sizeof(ind)), 0);
    EXPECT_TRUE(
            h.logged("[DMGR-INF] dm_dedicate_bearer_activated_urc default PDN ims found "
                     "interface 4\n"));
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(ImsBearerTest, ActivatedOnNonImsIsEnteredButNotForwarded) {
    from_ril(EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC, bearer_ind(9, 2, 1));
    const PdnInfo *row = find_pdn_info_by_cid(9);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->owner, nullptr);
    EXPECT_EQ(sent_with(EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC), 0u);
    EXPECT_TRUE(
            h.logged("[DMGR-WAR] dm_dedicate_bearer_activated_urc default PDN not found "
                     "interface 2\n"));
    EXPECT_TRUE(h.logged("[DMGR-DBG] dm_dedicate_bearer_activated_urc skip non-IMS 2\n"));
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(ImsBearerTest, ModifiedLeavesTheTableAloneAndIsForwardedForIms) {
    default_pdn(5, "sos");
    from_ril(EVENT_DATAMNGR_DEDICATE_BEARER_MODIFIED_URC, bearer_ind(10, 5, 5));
    EXPECT_EQ(find_pdn_info_by_index(10)->active, 0u);
    EXPECT_EQ(sent_with(EVENT_DATAMNGR_DEDICATE_BEARER_MODIFIED_URC), 1u);
    EXPECT_TRUE(h.logged("dm_dedicate_bearer_modified_urc default PDN sos found interface 5\n"));

    from_ril(EVENT_DATAMNGR_DEDICATE_BEARER_MODIFIED_URC, bearer_ind(11, 3, 3));
    EXPECT_EQ(find_pdn_info_by_index(11)->active, 0u);
    EXPECT_EQ(sent_with(EVENT_DATAMNGR_DEDICATE_BEARER_MODIFIED_URC), 1u);
    EXPECT_TRUE(h.logged("dm_dedicate_bearer_modified_urc skip non-IMS 3\n"));
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(ImsBearerTest, DeactivatedIsForwardedForImsAndItsRowRemovedEitherWay) {
    default_pdn(4, "ims");
    DataCallEntry ims_dedicated = bearer(8, 4, 4);
    DataCallEntry other_dedicated = bearer(9, 2, 1);
    update_pdn_info(&ims_dedicated, nullptr);
    update_pdn_info(&other_dedicated, nullptr);

    DedicateBearerDeactInd ims{0, 8, 0};
    from_ril(EVENT_DATAMNGR_DEDICATE_BEARER_DEACTIVATED_URC, ims);
    auto sent = h.sent_to(imsm.id(), EVENT_DATAMNGR_DEDICATE_BEARER_DEACTIVATED_URC);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(dm::testkit::record_of<DedicateBearerDeactInd>(sent[0]).cid, 8);
    EXPECT_EQ(find_pdn_info_by_index(8)->active, 0u);

    from_ril(EVENT_DATAMNGR_DEDICATE_BEARER_DEACTIVATED_URC, DedicateBearerDeactInd{0, 9, 0});
    EXPECT_EQ(sent_with(EVENT_DATAMNGR_DEDICATE_BEARER_DEACTIVATED_URC), 1u);
    EXPECT_EQ(find_pdn_info_by_index(9)->active, 0u);
    EXPECT_TRUE(h.logged("dm_dedicate_bearer_deactivated_urc skip non-IMS 2\n"));

    // The default bearer is untouched.
    EXPECT_EQ(find_pdn_info_by_index(4)->active, 1u);
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(ImsBearerTest, DeactivatedUnknownCidOnlyWarns) {
    from_ril(EVENT_DATAMNGR_DEDICATE_BEARER_DEACTIVATED_URC, DedicateBearerDeactInd{0, 12, 0});
    EXPECT_EQ(sent_with(EVENT_DATAMNGR_DEDICATE_BEARER_DEACTIVATED_URC), 0u);
    EXPECT_TRUE(h.logged("[DMGR-WAR] dm_dedicate_bearer_deactivated_urc unknown PDN cid 12\n"));
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(ImsBearerTest, ForwardingFollowsTheMainSimWithSeveralImsStacks) {
    h.rt().set_property("ro.qpx_multiple_ims_support", "1");
    h.rt().set_property("persist.radio.simswitch", "2");
    auto &imsm1 = h.client("imsm_1");
    h.announce(imsm1);
    default_pdn(4, "ims");
    from_ril(EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC, bearer_ind(8, 4, 4, 1));
    from_ril(EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC, bearer_ind(9, 4, 4, 0));
    EXPECT_EQ(h.sent_to(imsm1.id(), EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC).size(), 1u);
    EXPECT_EQ(sent_with(EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC), 0u);
    EXPECT_EQ(h.stray_events(), 0);
}

// ---- entry points nothing routes to ------------------------------------------

TEST(ImsNoOpEntryPoints, AreOneRoutineThatDoesNothing) {
    EXPECT_EQ(reinterpret_cast<void *>(&dm_if_rat_cell_info_req),
              reinterpret_cast<void *>(&dm_if_status_req));
    EXPECT_EQ(reinterpret_cast<void *>(&dm_default_bearer_modified_urc),
              reinterpret_cast<void *>(&dm_if_status_req));
    uint8_t payload[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(dm_if_status_req(payload, nullptr), 0);
    EXPECT_EQ(payload[7], 8);
}

}  // namespace
