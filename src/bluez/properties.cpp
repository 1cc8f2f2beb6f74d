#include "bluez/properties.h"

#include "bluez/call.h"
#include "bluez/names.h"

namespace kelvane::bluez {

core::Status setPropertyTrue(const QString &path, const QString &interface,
                             const QString &property) {
    const QString detail =
        QStringLiteral("%1.%2=%3").arg(interface, property, QStringLiteral("true"));
    MethodCall call{path,
                    names::properties,
                    QStringLiteral("Set"),
                    {interface, property, BoolVariant{true}},
                    detail};
    call.outcomeName = QStringLiteral("Properties.Set");
    call.okDetail = detail;
    return statusOf(callBluez(call));
}

core::Expected<QVariant> readProperty(const QString &path, const QString &interface,
                                      const QString &property) {
    const auto reply = callBluez(
        {path, names::properties, QStringLiteral("Get"), {interface, property}}, Tracing::Untraced);
    if (!reply)
        return reply.error();
    return readVariant(reply->get());
}

core::Expected<PropertyMap> readAllProperties(const QString &path, const QString &interface) {
    const auto reply = callBluez({path, names::properties, QStringLiteral("GetAll"), {interface}},
                                 Tracing::Untraced);
    if (!reply)
        return reply.error();
    return readProperties(reply->get());
}

} // namespace kelvane::bluez
