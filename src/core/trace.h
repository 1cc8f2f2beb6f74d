#pragma once

#include <QByteArray>
#include <QString>

// The -v trace on standard error. Silent until enabled; each line is flushed.
namespace kelvane::core::DbusTrace {

void setEnabled(bool on);

// "debug: <text>"
void debug(const QByteArray &text);
// "dbus >> <service> <path> <interface>.<method>[ (<args>)]"
void call(const QString &service, const QString &path, const QString &interface,
          const QString &method, const QString &args);
// "dbus << <interface>.<method> path=<path>[ <args>]"
void incoming(const QString &path, const QString &interface, const QString &method,
              const QString &args);
// "dbus << <method> ok|error[: <message>]"
void reply(const QString &method, bool ok, const QString &message);

} // namespace kelvane::core::DbusTrace
