#include "classify/classofdevice.h"

#include <array>
#include <utility>

namespace kelvane::classify {

namespace {

struct NamedMinor {
    unsigned value;
    const char *text;
};

template <size_t N>
QByteArray lookupMinor(const std::array<NamedMinor, N> &table, unsigned minor,
                       const char *fallback) {
    for (const NamedMinor &entry : table) {
        if (entry.value == minor)
            return entry.text;
    }
    return fallback;
}

const std::array<NamedMinor, 6> computerMinors{{{1, "Desktop workstation"},
                                                {2, "Server-class computer"},
                                                {3, "Laptop"},
                                                {4, "Handheld PC/PDA"},
                                                {5, "Palm-size PC/PDA"},
                                                {6, "Wearable computer"}}};

const std::array<NamedMinor, 5> phoneMinors{{{1, "Cellular phone"},
                                             {2, "Cordless phone"},
                                             {3, "Smartphone"},
                                             {4, "Wired modem or voice gateway"},
                                             {5, "Common ISDN access"}}};

const std::array<NamedMinor, 16> audioVideoMinors{{{1, "Wearable headset"},
                                                   {2, "Hands-free device"},
                                                   {4, "Microphone"},
                                                   {5, "Loudspeaker"},
                                                   {6, "Headphones"},
                                                   {7, "Portable audio"},
                                                   {8, "Car audio"},
                                                   {9, "Set-top box"},
                                                   {10, "HiFi audio device"},
                                                   {11, "VCR"},
                                                   {12, "Video camera"},
                                                   {13, "Camcorder"},
                                                   {14, "Video monitor"},
                                                   {15, "Video display and loudspeaker"},
                                                   {16, "Video conferencing"},
                                                   {18, "Gaming or toy audio/video device"}}};

const std::array<NamedMinor, 5> wearableMinors{
    {{1, "Wristwatch"}, {2, "Pager"}, {3, "Jacket"}, {4, "Helmet"}, {5, "Glasses"}}};

const std::array<NamedMinor, 5> toyMinors{
    {{1, "Robot"}, {2, "Vehicle"}, {3, "Doll or action figure"}, {4, "Controller"}, {5, "Game"}}};

const std::array<NamedMinor, 15> healthMinors{{{1, "Blood pressure monitor"},
                                               {2, "Thermometer"},
                                               {3, "Weighing scale"},
                                               {4, "Glucose meter"},
                                               {5, "Pulse oximeter"},
                                               {6, "Heart rate monitor"},
                                               {7, "Health data display"},
                                               {8, "Step counter"},
                                               {9, "Body composition analyzer"},
                                               {10, "Peak flow monitor"},
                                               {11, "Medication monitor"},
                                               {12, "Knee prosthesis"},
                                               {13, "Ankle prosthesis"},
                                               {14, "Generic health manager"},
                                               {15, "Personal mobility device"}}};

// Bits 5-7 are a load factor in eighths of the Assigned Numbers ranges
// (0 = fully available ... 7 = no service); we report the upper end of each
// range. Bits 2-4 are reserved: a value there is not something we can name.
QByteArray lanMinorName(ClassOfDevice cod) {
    static const std::array<int, 8> utilization{0, 17, 33, 50, 67, 83, 99, 100};
    if ((cod.minor() & 0x07u) != 0)
        return "Uncategorized network device";
    const unsigned loadFactor = cod.minor() >> 3;
    return "Network utilization " + QByteArray::number(utilization[loadFactor]) + "%";
}

// Bits 6-7 say keyboard and/or pointing device; bits 2-5 the device type.
// The keyboard/pointing field is the primary one, so it wins when both are set.
QByteArray peripheralMinorName(ClassOfDevice cod) {
    switch (cod.minor() >> 4) {
    case 1:
        return "Keyboard";
    case 2:
        return "Pointing device";
    case 3:
        return "Combo keyboard and pointing device";
    default:
        break;
    }
    switch (cod.minor() & 0x0Fu) {
    case 1:
        return "Joystick";
    case 2:
        return "Gamepad";
    case 3:
        return "Remote control";
    default:
        return "Uncategorized peripheral";
    }
}

// Bits 4-7 are independent flags; a multi-function device is named by its
// highest flag (a printer that also scans is a printer).
QByteArray imagingMinorName(ClassOfDevice cod) {
    const unsigned flags = cod.minor() >> 2;
    if (flags & 0x8u)
        return "Printer";
    if (flags & 0x4u)
        return "Scanner";
    if (flags & 0x2u)
        return "Camera";
    if (flags & 0x1u)
        return "Display";
    return "Uncategorized imaging device";
}

} // namespace

QByteArray majorDeviceClassName(ClassOfDevice cod) {
    static const std::array<const char *, 10> names{
        "Miscellaneous", "Computer",   "Phone",   "LAN/Network Access Point",
        "Audio/Video",   "Peripheral", "Imaging", "Wearable",
        "Toy",           "Health"};
    const unsigned major = cod.major();
    if (major < names.size())
        return names[major];
    return major == 31 ? "Uncategorized" : "Unknown major device class";
}

QByteArray minorDeviceClassName(ClassOfDevice cod) {
    const unsigned minor = cod.minor();
    switch (cod.major()) {
    case 1:
        return lookupMinor(computerMinors, minor, "Uncategorized computer");
    case 2:
        return lookupMinor(phoneMinors, minor, "Uncategorized phone");
    case 3:
        return lanMinorName(cod);
    case 4:
        return lookupMinor(audioVideoMinors, minor, "Uncategorized audio/video device");
    case 5:
        return peripheralMinorName(cod);
    case 6:
        return imagingMinorName(cod);
    case 7:
        return lookupMinor(wearableMinors, minor, "Uncategorized wearable");
    case 8:
        return lookupMinor(toyMinors, minor, "Uncategorized toy");
    case 9:
        return lookupMinor(healthMinors, minor, "Uncategorized health device");
    default:
        return "Uncategorized device";
    }
}

QByteArray serviceClassNames(ClassOfDevice cod) {
    static const std::array<std::pair<std::uint32_t, const char *>, 7> services{
        {{0x200000, "Audio"},
         {0x100000, "Object Transfer"},
         {0x080000, "Capturing"},
         {0x040000, "Rendering"},
         {0x020000, "Networking"},
         {0x010000, "Positioning"},
         {0x002000, "Limited Discoverable Mode"}}};
    QByteArray names;
    for (const auto &[mask, name] : services) {
        if (!(cod.value & mask))
            continue;
        if (!names.isEmpty())
            names += ", ";
        names += name;
    }
    return names;
}

QByteArray describeClassOfDevice(ClassOfDevice cod) {
    QByteArray text = majorDeviceClassName(cod) + ": " + minorDeviceClassName(cod);
    const QByteArray services = serviceClassNames(cod);
    if (!services.isEmpty())
        text += " (" + services + ")";
    return text;
}

} // namespace kelvane::classify
