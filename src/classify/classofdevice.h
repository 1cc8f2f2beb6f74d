#pragma once

#include <QByteArray>
#include <QJsonObject>

#include <cstdint>
#include <optional>

namespace kelvane::classify {

// A Class of Device word; only the low 24 bits carry meaning.
struct ClassOfDevice {
    explicit ClassOfDevice(std::uint32_t stored) : value(stored & 0xFFFFFFu) {}

    unsigned minor() const { return (value >> 2) & 0x3Fu; }
    unsigned major() const { return (value >> 8) & 0x1Fu; }

    std::uint32_t value;
};

QByteArray majorDeviceClassName(ClassOfDevice cod);
QByteArray minorDeviceClassName(ClassOfDevice cod);
QByteArray serviceClassNames(ClassOfDevice cod);
QByteArray describeClassOfDevice(ClassOfDevice cod);

// Writes "class_of_device" (the value as stored) and "class" (its text), or
// null for both when the device reports no class.
void writeClassFields(QJsonObject &device, const std::optional<std::uint32_t> &classOfDevice);

} // namespace kelvane::classify
