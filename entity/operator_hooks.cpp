#include "entity/operator_hooks.h"

namespace {
const OperatorHooks *g_hooks = nullptr;
}

const OperatorHooks *dm_get_operator_hooks() {
    return g_hooks;
}

void dm_set_operator_hooks(const OperatorHooks *hooks) {
    g_hooks = hooks;
}
