#include "core/trace.h"

#include <cstdio>

namespace kelvane::core::DbusTrace {

namespace {

bool enabled = false;

void writeLine(const QByteArray &line) {
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

} // namespace

void setEnabled(bool on) {
    enabled = on;
}

void debug(const QByteArray &text) {
    if (!enabled)
        return;
    writeLine("debug: " + text);
}

void call(const QString &service, const QString &path, const QString &interface,
          const QString &method, const QString &args) {
    if (!enabled)
        return;
    QString line = QStringLiteral("dbus >> ") + service + QLatin1Char(' ') + path +
                   QLatin1Char(' ') + interface + QLatin1Char('.') + method;
    if (!args.isEmpty())
        line += QStringLiteral(" (") + args + QLatin1Char(')');
    writeLine(line.toUtf8());
}

void incoming(const QString &path, const QString &interface, const QString &method,
              const QString &args) {
    if (!enabled)
        return;
    QString line = QStringLiteral("dbus << ") + interface + QLatin1Char('.') + method +
                   QStringLiteral(" path=") + path;
    if (!args.isEmpty())
        line += QLatin1Char(' ') + args;
    writeLine(line.toUtf8());
}

void reply(const QString &method, bool ok, const QString &message) {
    if (!enabled)
        return;
    QString line = QStringLiteral("dbus << ") + method +
                   (ok ? QStringLiteral(" ok") : QStringLiteral(" error"));
    if (!message.isEmpty())
        line += QStringLiteral(": ") + message;
    writeLine(line.toUtf8());
}

} // namespace kelvane::core::DbusTrace
