// Storage of the two IMS parameter slots: interface 4 (IMS) and interface 5
// (emergency IMS).  They live for the process; the IMS PDN queries fill their
// parameters, the data-call setup stores each answer in them.  Main task
// thread only.
#include <string.h>

#include <array>

#include "ims/ims_pdn.h"

namespace {

// Each slot holds a whole setup answer: static storage, never on a stack.
std::array<ImsParaSlot, 2> g_slots = {};

}  // namespace

ImsParaSlot *ims_para_slot(uint32_t interface_id) {
    switch (interface_id) {
        case kImsInterface:
            return &g_slots[0];
        case kEmergencyImsInterface:
            return &g_slots[1];
        default:
            return nullptr;
    }
}

void ims_para_slots_reset() {
    // The event of a parked query is not freed here: the runtime that made
    // it is reset together with the slots.
    memset(g_slots.data(), 0, sizeof(g_slots));
}
