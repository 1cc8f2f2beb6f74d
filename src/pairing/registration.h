#pragma once

#include "pairing/agentpolicy.h"

namespace kelvane::pairing {

// The pairing agent's stay on the bus, owned by the pair procedure. Going
// out of scope withdraws the agent from BlueZ and unexports it: that is the
// one place release happens, so it runs exactly once on every path.
struct AgentRegistration {
    bool exported = false;

    AgentRegistration() = default;
    AgentRegistration(const AgentRegistration &) = delete;
    AgentRegistration &operator=(const AgentRegistration &) = delete;
    ~AgentRegistration();
};

// Exports an agent answering with `policy` (which must outlive the
// registration) and makes it BlueZ's default agent. Problems are only
// traced: pairing then goes ahead with whatever agent BlueZ has.
void registerPairingAgent(AgentRegistration &registration, AgentPolicy &policy);

// UnregisterAgent (its answer does not matter), then unexport.
void releasePairingAgent(AgentRegistration &registration);

} // namespace kelvane::pairing
