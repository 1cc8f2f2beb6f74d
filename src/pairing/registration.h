#pragma once

#include "pairing/agent.h"

namespace kelvane::pairing {

// The pairing agent's stay on the bus, owned by the pair procedure. Going
// out of scope withdraws the agent from BlueZ, unexports and deletes it: that
// is the one place release happens, so it runs exactly once on every path.
struct AgentRegistration {
    PairingAgent *agent = nullptr;
    bool exported = false;

    AgentRegistration() = default;
    AgentRegistration(const AgentRegistration &) = delete;
    AgentRegistration &operator=(const AgentRegistration &) = delete;
    ~AgentRegistration();
};

// Exports a new agent and makes it BlueZ's default agent. Problems are only
// traced: pairing then goes ahead with whatever agent BlueZ has.
void registerPairingAgent(AgentRegistration &registration);

// UnregisterAgent (its answer does not matter), unexport, delete.
void releasePairingAgent(AgentRegistration &registration);

} // namespace kelvane::pairing
