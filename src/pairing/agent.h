#pragma once

#include "bluez/message.h"
#include "core/expected.h"
#include "pairing/agentpolicy.h"

#include <QString>

#include <functional>

namespace kelvane::pairing {

// The org.bluez.Agent1 object on the bus: a thin adaptor over the policy.
// It answers only the current owner of org.bluez, and only calls with the
// interface's exact signatures.
class AgentAdaptor {
public:
    // The unique name that owns org.bluez right now.
    using OwnerLookup = std::function<core::Expected<QString>()>;

    AgentAdaptor(AgentPolicy &policy, OwnerLookup bluezOwner);

    // The reply to one call on the agent's path; null for a call that is not
    // an Agent1 method (the bus library answers it with UnknownMethod).
    bluez::Message handle(DBusMessage *call);

private:
    bool fromBluez(const QString &sender) const;

    AgentPolicy &m_policy;
    OwnerLookup m_bluezOwner;
};

} // namespace kelvane::pairing
