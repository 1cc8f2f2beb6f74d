#pragma once

#include <QByteArray>

#include <cstdint>

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

} // namespace kelvane::classify
