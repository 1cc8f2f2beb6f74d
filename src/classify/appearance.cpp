#include "classify/appearance.h"

namespace kelvane::classify {

QString appearanceDescription(std::uint16_t appearance) {
    switch (appearance) {
    case 0x03C0:
        return QStringLiteral("Generic HID");
    case 0x03C1:
        return QStringLiteral("Generic Keyboard");
    case 0x03C2:
        return QStringLiteral("Generic Mouse");
    case 0x03C3:
        return QStringLiteral("Generic Joystick");
    case 0x03C4:
        return QStringLiteral("Generic Gamepad");
    default:
        return QString();
    }
}

namespace {

QString hidIcon(unsigned subcategory) {
    switch (subcategory) {
    case 1:
        return QStringLiteral("keyboard");
    case 2:
        return QStringLiteral("mouse");
    case 3:
        return QStringLiteral("joystick");
    case 4:
        return QStringLiteral("gamepad");
    default:
        return QStringLiteral("device");
    }
}

QString wearableAudioIcon(unsigned subcategory) {
    if (subcategory == 3)
        return QStringLiteral("headset");
    if (subcategory == 1 || subcategory == 4)
        return QStringLiteral("headphones");
    return QStringLiteral("speaker");
}

} // namespace

QString iconNameForAppearance(const std::optional<std::uint16_t> &appearance) {
    if (!appearance)
        return QStringLiteral("device");
    const unsigned category = (*appearance >> 6) & 0xFFu;
    const unsigned subcategory = *appearance & 0x3Fu;
    switch (category) {
    case 1:
        return QStringLiteral("phone");
    case 2:
        return QStringLiteral("computer");
    case 3:
        return QStringLiteral("watch");
    case 6:
        return QStringLiteral("remote");
    case 15:
        return hidIcon(subcategory);
    case 26:
        return QStringLiteral("printer");
    case 29:
        return wearableAudioIcon(subcategory);
    case 31:
        return subcategory == 2 ? QStringLiteral("headset") : QStringLiteral("headphones");
    case 37:
        return QStringLiteral("camera");
    default:
        return QStringLiteral("device");
    }
}

} // namespace kelvane::classify
