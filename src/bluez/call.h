#pragma once

#include "bluez/connection.h"
#include "bluez/message.h"
#include "core/expected.h"

#include <QString>

#include <vector>

namespace kelvane::bluez {

// What the -v trace shows of a call. Property reads and the adapter probes
// are left out; some callers report a failure in words of their own.
enum class Tracing {
    Untraced,
    Traced,        // "dbus >> ..." before, "dbus << <method> ok|error: ..." after
    FailureAsNote, // as Traced, but a failure is left to the caller's note
    CallLineOnly,  // "dbus >> ..." only; the caller reports the outcome
};

// One method call on an org.bluez object.
struct MethodCall {
    QString path;
    QString interface;
    QString method;
    std::vector<Argument> arguments = {};
    QString summary = {};     // the argument summary of the trace's call line
    QString outcomeName = {}; // the method as the outcome line names it, if not `method`
    QString okDetail = {};    // the message of a successful outcome line
    Waiting waiting = Waiting::Blocking;
};

// Every call to BlueZ goes through here: traced, sent, waited for. The reply
// on success; the peer's error, or the bus library's when BlueZ did not
// answer. Once BlueZ has let a call time out, every later call fails at once
// with that same error, so a daemon that hangs costs one timeout per run.
core::Expected<Message> callBluez(const MethodCall &call, Tracing tracing = Tracing::Traced);

// For callers that need only whether the call succeeded.
core::Status statusOf(const core::Expected<Message> &reply);

// Whether BlueZ cannot answer at all (no owner, no reply in time, no bus):
// asking the rest of a fallback chain would only fail the same way, slower.
bool endsFallbackChain(const core::Error &error);

// bluetoothd's word for a device that did not answer the page, in whatever
// error and letter case it comes.
bool isPageTimeout(const core::Error &error);

} // namespace kelvane::bluez
