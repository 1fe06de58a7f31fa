#include "entity/dm_log.h"

#include <unistd.h>

#include <array>

#include "evfw.h"

uint32_t dm_debug_lv = 15;

namespace dm::log {
namespace {

constexpr int kTagDaemon = 2;
constexpr int kTagElsewhere = 10;
constexpr int kTagUnboundDaemon = 0;
constexpr int kTagUnboundElsewhere = 1;

std::array<int, static_cast<size_t>(Module::Count)> g_tag_index = {-1, -1, -1, -1};

bool in_daemon() {
    return getpid() == rvn_pid;
}

}  // namespace

const char *tag(Module module) {
    int index = g_tag_index[static_cast<size_t>(module)];
    if (index == -1) index = in_daemon() ? kTagUnboundDaemon : kTagUnboundElsewhere;
    return android_log_tag[index];
}

void bind_tags() {
    g_tag_index.fill(in_daemon() ? kTagDaemon : kTagElsewhere);
}

void unbind_tags() {
    g_tag_index.fill(-1);
}

}  // namespace dm::log
