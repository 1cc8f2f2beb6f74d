#include "classify/appearance.h"
#include "classify/classofdevice.h"
#include "classify/hid.h"
#include "classify/label.h"
#include "testing.h"

using namespace kelvane::classify;

namespace {

std::optional<std::uint32_t> hex(const QString &text) {
    return text.isEmpty() ? std::nullopt : std::optional<std::uint32_t>(text.toUInt(nullptr, 16));
}

} // namespace

class TestClassify : public QObject {
    Q_OBJECT

private slots:
    // What each rule answers for an argument. describe: a Class of Device;
    // minor: "major/minor" (the other bits must not matter); icon: an
    // appearance, answered "icon/description"; hid: "appearance;class;uuids,...";
    // label: "first|second".
    void rules_data() {
        ruleColumns();
        const auto row = rule;
        const QString headset = "Audio/Video: Wearable headset (Audio, Rendering)";
        row("describe", "240404", headset);
        row("describe", "FF240404", headset); // bits above 23
        row("describe", "5A020C", "Phone: Smartphone (Object Transfer, Capturing, Networking)");
        row("describe", "C0C10F", "Computer: Laptop"); // format bits, bits 14, 15, 22, 23
        row("describe", "000A00", "Unknown major device class: Uncategorized device");
        row("describe", "001F24", "Uncategorized: Uncategorized device");
        row("describe", "FFE000",
            "Miscellaneous: Uncategorized device (Audio, Object Transfer, Capturing, Rendering, "
            "Networking, Positioning, Limited Discoverable Mode)");
        // Each service bit alone, so that no two masks can be mixed up unnoticed.
        const char *services[] = {"Positioning", "Networking",      "Rendering",
                                  "Capturing",   "Object Transfer", "Audio"};
        for (unsigned bit = 16; bit <= 21; ++bit)
            row("describe", QString::number(1u << bit, 16),
                QString("Miscellaneous: Uncategorized device (%1)").arg(services[bit - 16]));
        // The last named minor of each table, the fallback in a gap and past the
        // end, and each field of the bit-field minors.
        for (const QString &minor :
             QString("1/6=Wearable computer|1/7=Uncategorized computer|2/5=Common ISDN access|"
                     "2/6=Uncategorized phone|4/3=Uncategorized audio/video device|"
                     "4/18=Gaming or toy audio/video device|4/63=Uncategorized audio/video device|"
                     "7/5=Glasses|7/6=Uncategorized wearable|8/1=Robot|8/6=Uncategorized toy|"
                     "9/15=Personal mobility device|9/16=Uncategorized health device|"
                     "10/1=Uncategorized device|3/1=Uncategorized network device|"
                     "3/56=Network utilization 100%|5/1=Joystick|5/3=Remote control|"
                     "5/4=Uncategorized peripheral|5/16=Keyboard|5/32=Pointing device|"
                     "5/49=Combo keyboard and pointing device|6/3=Uncategorized imaging device|"
                     "6/4=Display|6/8=Camera|6/16=Scanner|6/32=Printer")
                 .split('|'))
            row("minor", minor.section('=', 0, 0), minor.section('=', 1));
        row("icon", "", "device/");
        for (const QString &icon :
             QString("0040=phone/|0080=computer/|00C1=watch/|0180=remote/|03BF=device/|"
                     "03C0=device/Generic HID|03C1=keyboard/Generic Keyboard|"
                     "03C2=mouse/Generic Mouse|03C3=joystick/Generic Joystick|"
                     "03C4=gamepad/Generic Gamepad|03C5=device/|0680=printer/|0741=headphones/|"
                     "0742=speaker/|0743=headset/|0744=headphones/|07C0=headphones/|"
                     "07C2=headset/|0940=camera/|C3C1=keyboard/")
                 .split('|'))
            row("icon", icon.section('=', 0, 0), icon.section('=', 1));
        const QString sink = "0000110b-0000-1000-8000-00805f9b34fb";
        row("hid", ";;00001124-0000-1000-8000-00805f9b34fb", "1");
        row("hid", ";;abcd1124", "1"); // 32-bit group, no dashes
        // The first group must be plain hexadecimal digits worth at most 32 bits.
        row("hid", ";;100001124-0000,0000112g-0000,11 24,-1124, ,0x1124,+1124,1812 -", "0");
        row("hid", ";;junk,," + sink + ", 00001812-0000-1000-8000-00805F9B34FB ", "1");
        row("hid", "0941;240404;" + sink, "0");
        for (const char *appearance : {"03C0=1", "03FF=1", "03BF=0", "0400=0", "C3C1=0"})
            row("hid", QString(appearance).section('=', 0, 0) + ";;",
                QString(appearance).section('=', 1));
        row("hid", ";FFFFE503;", "1"); // peripheral, high bits set
        row("hid", ";1500;", "0");     // major 21
        row("label", "Name|Alias", "Name");
        row("label", "|Alias", "Alias");
        row("label", " |Alias", " "); // a blank name still counts
        row("label", "|", "[unknown]");
    }
    void rules() {
        checkRule({{"describe",
                    [](const QString &value) {
                        return describeClassOfDevice(ClassOfDevice(*hex(value)));
                    }},
                   {"minor",
                    [](const QString &minor) {
                        const std::uint32_t cod = (minor.section('/', 0, 0).toUInt() << 8) |
                                                  (minor.section('/', 1).toUInt() << 2);
                        const QByteArray name = minorDeviceClassName(ClassOfDevice(cod));
                        return name == minorDeviceClassName(ClassOfDevice(cod | 0xFFE003u)) ? name
                                                                                            : "";
                    }},
                   {"icon",
                    [](const QString &value) {
                        const auto appearance = hex(value);
                        return iconNameForAppearance(appearance) + '/' +
                               (appearance ? appearanceDescription(*appearance) : "");
                    }},
                   {"hid",
                    [](const QString &argument) {
                        const QStringList parts = argument.split(';');
                        std::vector<std::string> uuids;
                        for (const QString &uuid : parts[2].split(','))
                            uuids.push_back(uuid.toStdString());
                        const auto appearance = hex(parts[0]);
                        return QString::number(isHidDevice(
                            appearance ? std::optional<std::uint16_t>(*appearance) : std::nullopt,
                            uuids, hex(parts[1])));
                    }},
                   {"label", [](const QString &names) {
                        return displayLabel(names.section('|', 0, 0), names.section('|', 1));
                    }}});
    }
};

QTEST_GUILESS_MAIN(TestClassify)
#include "test_classify.moc"
