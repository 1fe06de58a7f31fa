// Start and stop of the entity: the framework calls it makes, its state, its
// init thread and the default URC table.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "entity/datamngr.h"
#include "pdn/pdn_info.h"
#include "testkit/testkit.h"

namespace {

using evfw_host::EntityAbi;
using evfw_host::Runtime;

class LifecycleTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dm::testkit::reset_library_state();
        rt.reset();
        abi.init = datamngr_entity_init;
        abi.exit = datamngr_entity_exit;
    }
    void TearDown() override {
        rt.unload();
        dm::testkit::reset_library_state();
        rt.reset();
    }
    Runtime &rt = Runtime::instance();
    EntityAbi abi;
};

std::vector<std::string> expected_init_calls() {
    std::vector<std::string> calls = {"evfw_mutex_init", "evfw_task_init(41,402)",
                                      "evfw_task_init(41,403)", "evfw_task_init(41,404)"};
    for (int id : {4002, 4003, 4019, 4005, 4007, 4009, 4011, 4013, 4015, 4017, 4027, 4028,
                   4029, 4035, 4049, 4045, 4047, 4041, 4043, 4062, 4063, 4058, 4060}) {
        calls.push_back("evfw_connmngr_common_subscribe(402," + std::to_string(id) + ",1)");
    }
    calls.push_back("evfw_atmngr_subscribe_urc(402,+CGEV,3006,4)");
    calls.push_back("set_hdl(402)");
    calls.push_back("evfw_thrd_init");
    calls.push_back("evfw_thrd_start");
    return calls;
}

TEST_F(LifecycleTest, InitMakesItsFrameworkCallsInOrder) {
    evfw_entity_t *entity = rt.load("datamngr", abi);
    ASSERT_NE(entity, nullptr);
    EXPECT_EQ(rt.calls(), expected_init_calls());
    EXPECT_EQ(rt.subscriptions().size(), 23u);
    auto urcs = rt.urc_subscriptions();
    ASSERT_EQ(urcs.size(), 1u);
    EXPECT_EQ(urcs[0].prefix, "+CGEV");
    EXPECT_EQ(urcs[0].mode, 4);
    EXPECT_EQ(urcs[0].event_id, 3006u);
}

TEST_F(LifecycleTest, InitSetsTheEntityRecordAndUnregistersAtPdpContexts) {
    evfw_entity_t *entity = rt.load("datamngr", abi);
    EXPECT_EQ(entity->id, 41u);
    auto *state = static_cast<DatamngrEntity *>(entity->priv);
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state, dm_entity());
    EXPECT_EQ(state->entity, entity);
    EXPECT_EQ(state->cur_atcmd_event, nullptr);
    for (const AtPdpContext &ctx : state->at_pdp_ctx) {
        EXPECT_EQ(ctx.state, -1);
        EXPECT_EQ(ctx.cid, -1);
        EXPECT_EQ(ctx.deact_req.id, 0u);
        EXPECT_EQ(ctx.setup_req.interface_id, 0u);
    }
}

TEST_F(LifecycleTest, InitWithoutEntityRecordStillStartsTasksWithEntityIdZero) {
    EXPECT_EQ(datamngr_entity_init(nullptr), nullptr);
    auto calls = rt.calls();
    EXPECT_NE(std::find(calls.begin(), calls.end(), "evfw_task_init(0,402)"), calls.end());
    EXPECT_NE(dm_entity(), nullptr);
    evfw_entity_t record = {};
    record.priv = dm_entity();
    datamngr_entity_exit(&record);
}

TEST_F(LifecycleTest, InitThreadClearsThePdnTablesOnceAllEntitiesAreUp) {
    rt.load("datamngr", abi);
    DataCallEntry entry = {};
    entry.cid = 3;
    ASSERT_NE(update_pdn_info(&entry, nullptr), nullptr);
    ASSERT_NE(find_pdn_info_by_cid(3), nullptr);

    EXPECT_EQ(rt.run_threads(), 1u);
    EXPECT_EQ(find_pdn_info_by_cid(3), nullptr);
}

TEST_F(LifecycleTest, ExitStopsTasksInOrderAndClearsTheEntityId) {
    evfw_entity_t *entity = rt.load("datamngr", abi);
    size_t before = rt.calls().size();
    rt.unload();
    auto calls = rt.calls();
    std::vector<std::string> tail(calls.begin() + before, calls.end());
    EXPECT_EQ(tail, (std::vector<std::string>{"evfw_task_exit(404)", "evfw_task_exit(402)",
                                              "evfw_task_exit(403)", "evfw_mutex_exit"}));
    (void)entity;
}

TEST_F(LifecycleTest, ExitWithoutStateOnlyClearsTheEntityId) {
    evfw_entity_t record = {};
    record.id = 41;
    EXPECT_EQ(datamngr_entity_exit(&record), &record);
    EXPECT_EQ(record.id, 0u);
    EXPECT_TRUE(rt.calls().empty());
}

TEST(DefaultUrcTable, HoldsOnlyCgevWithItsFlag) {
    char prefix[16] = "untouched";
    int32_t flag = 7;
    EXPECT_EQ(dm_get_default_urc_num(), 1);
    EXPECT_EQ(dm_get_default_urc_prefix(1, prefix, &flag), -1);
    EXPECT_EQ(dm_get_default_urc_prefix(-1, prefix, &flag), -1);
    EXPECT_STREQ(prefix, "untouched");
    EXPECT_EQ(flag, 7);
    EXPECT_EQ(dm_get_default_urc_prefix(0, prefix, &flag), 0);
    EXPECT_STREQ(prefix, "+CGEV");
    EXPECT_EQ(flag, 1);
}

}  // namespace
