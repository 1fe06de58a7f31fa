// The exported request senders: the events each one hands to the framework
// (ids, sizes, contents, destinations, order), sent from the caller's
// context.  Expected payloads are built here from raw byte offsets, not from
// the library's records, so that a record drifting from the wire layout is
// caught.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "entity/client_senders.h"
#include "testkit/testkit.h"

namespace {

using dm::testkit::Harness;
using dm::testkit::TraceEntry;
using Bytes = std::vector<uint8_t>;

struct Sent {
    uint32_t event_id;
    uint32_t to;
    Bytes data;
};

void put_u32(Bytes &b, size_t offset, uint32_t v) {
    std::memcpy(b.data() + offset, &v, 4);
}
void put_text(Bytes &b, size_t offset, const char *text) {
    std::memcpy(b.data() + offset, text, std::strlen(text));
}

Bytes setup_resp(uint32_t w24, uint32_t w176, uint32_t w188, const char *ifname) {
    Bytes b(47876, 0);
    put_u32(b, 24, w24);
    put_u32(b, 176, w176);
    put_u32(b, 188, w188);
    if (ifname != nullptr) put_text(b, 28, ifname);
    return b;
}

Bytes setup_req(uint32_t ims_valid, uint32_t first_ims_word) {
    Bytes b(704, 0);
    put_u32(b, 656, ims_valid);
    put_u32(b, 680, first_ims_word);
    return b;
}

Bytes urc(const char *text) {
    Bytes b(4108, 0);
    put_text(b, 12, text);
    return b;
}

struct SenderCase {
    const char *name;
    std::function<int32_t(evfw_context_t *)> send;
    std::function<std::vector<Sent>()> expected;
};

class ClientSendersTest : public ::testing::TestWithParam<SenderCase> {
  protected:
    void TearDown() override { EXPECT_EQ(h.rt().bad_frees(), 0); }

    // What `from` sent, in order.
    std::vector<TraceEntry> sent_by(evfw_host::Peer &from) {
        std::vector<TraceEntry> out;
        for (TraceEntry &e : h.rt().trace()) {
            if (e.from == from.id()) out.push_back(std::move(e));
        }
        return out;
    }

    Harness h;
};

TEST_P(ClientSendersTest, SendsTheEventsOfItsTableFromTheCallersContext) {
    auto &lan = h.client("lanmngr");
    EXPECT_EQ(GetParam().send(lan.ctx()), 0);
    std::vector<Sent> expected = GetParam().expected();
    std::vector<TraceEntry> sent = sent_by(lan);
    ASSERT_EQ(sent.size(), expected.size());
    for (size_t i = 0; i < sent.size(); ++i) {
        SCOPED_TRACE("event " + std::to_string(i));
        EXPECT_EQ(sent[i].event_id, expected[i].event_id);
        EXPECT_EQ(sent[i].to, expected[i].to);
        EXPECT_EQ(sent[i].len, expected[i].data.size());
        EXPECT_TRUE(sent[i].data == expected[i].data);
        // A fresh event takes the caller's route, as a peer's own request does.
        EXPECT_EQ(sent[i].ext_id, lan.id());
    }
    h.pump();
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_P(ClientSendersTest, SendsNothingWithoutAContext) {
    EXPECT_EQ(GetParam().send(nullptr), 0);
    EXPECT_TRUE(h.rt().trace().empty());
    EXPECT_EQ(h.rt().live_events(), 0);
}

const SenderCase kSenders[] = {
        {"Notification", [](evfw_context_t *c) { return dm_send_req_notification(c, "imsm_2"); },
         [] {
             Bytes b(132, 0);
             put_text(b, 0, "imsm_2");
             return std::vector<Sent>{{4002, 402, b}};
         }},
        {"SetupRequests", dm_send_req_setup_data_call,
         [] {
             return std::vector<Sent>{{4003, 402, setup_req(0, 0)},
                                      {4003, 402, setup_req(1, 1)},
                                      {4003, 402, setup_req(1, 0)}};
         }},
        {"SetupAnswers", dm_send_resp_setup_data_call,
         [] {
             return std::vector<Sent>{{4004, 402, setup_resp(1, 0, 1, nullptr)},
                                      {4004, 402, setup_resp(0, 1, 0, "pdnet3")},
                                      {4004, 402, setup_resp(2, 1, 1, nullptr)}};
         }},
        {"RadioPower", dm_send_req_radio_power,
         [] {
             return std::vector<Sent>{{4032, 402, Bytes(8, 0)}};
         }},
        {"Handover", dm_send_ho_notify,
         [] {
             return std::vector<Sent>{{9318, 402, Bytes{0, 1, 0, 0, 0, 0}}};
         }},
        {"Urc", dm_send_urc,
         [] {
             std::vector<Sent> v;
             for (const char *line :
                  {"+EAPNMOD: \"VZWINTERNET\"", "+ECCAUSE: \"emm_cause\", 28",
                   "+ECCAUSE: \"emm_cause\", 50", "+ECCAUSE: \"emm_cause\", 51",
                   "+ECCAUSE: \"emm_cause\", 39", "+ECCAUSE: \"emm_cause\", 54"}) {
                 v.push_back({3006, 402, urc(line)});
             }
             return v;
         }},
        {"NetlinkListen", dm_send_req_netlink_listen,
         [] {
             Bytes b(4, 0);
             put_u32(b, 0, 5566);
             return std::vector<Sent>{{4070, 404, b}};
         }},
};

INSTANTIATE_TEST_SUITE_P(Senders, ClientSendersTest, ::testing::ValuesIn(kSenders),
                         [](const auto &info) { return std::string(info.param.name); });

class NotificationTest : public ::testing::Test {
  protected:
    Harness h;
};

TEST_F(NotificationTest, TheAnnouncedPeerIsKnownToTheDataManager) {
    auto &lan = h.client("lanmngr");
    dm_send_req_notification(lan.ctx(), "lanmngr");
    h.pump();
    EXPECT_TRUE(h.logged("record_task_info add lanmngr"));
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(NotificationTest, ALongNameIsCutToKeepItsTerminator) {
    auto &lan = h.client("lanmngr");
    std::string name(200, 'n');
    dm_send_req_notification(lan.ctx(), name.c_str());
    auto sent = h.rt().trace();
    ASSERT_EQ(sent.size(), 1u);
    ASSERT_EQ(sent[0].data.size(), 132u);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(sent[0].data.data())),
              name.substr(0, 131));
    h.pump();
}

TEST_F(NotificationTest, ANullNameIsRefusedWithALog) {
    auto &lan = h.client("lanmngr");
    EXPECT_EQ(dm_send_req_notification(lan.ctx(), nullptr), 0);
    EXPECT_TRUE(h.rt().trace().empty());
    EXPECT_TRUE(h.logged("[DMGR-ERR] dm_send_req_notification NULL name"));
}

}  // namespace
