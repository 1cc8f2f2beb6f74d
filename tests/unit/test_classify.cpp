#include "classify/appearance.h"
#include "classify/classofdevice.h"
#include "classify/hid.h"

#include <QtTest>

using namespace kelvane::classify;

namespace {

std::uint32_t cod(unsigned major, unsigned minor) {
    return (major << 8) | (minor << 2);
}

template <typename T> std::optional<T> optional(const QVariant &value) {
    return value.isValid() ? std::optional<T>(static_cast<T>(value.toLongLong())) : std::nullopt;
}

} // namespace

class TestClassify : public QObject {
    Q_OBJECT

private slots:
    void describe_data() {
        QTest::addColumn<uint>("value");
        QTest::addColumn<QByteArray>("text");
        const QByteArray headset = "Audio/Video: Wearable headset (Audio, Rendering)";
        QTest::newRow("headset") << 0x240404u << headset;
        QTest::newRow("bits above 23") << 0xFF240404u << headset;
        QTest::newRow("bit 22 unnamed")
            << 0x5A020Cu
            << QByteArray("Phone: Smartphone (Object Transfer, Capturing, Networking)");
        QTest::newRow("format, 14, 15, 22, 23") << 0xC0C10Fu << QByteArray("Computer: Laptop");
        QTest::newRow("unknown major")
            << 0x000A00u << QByteArray("Unknown major device class: Uncategorized device");
        QTest::newRow("major 31") << 0x001F24u << QByteArray("Uncategorized: Uncategorized device");
        QTest::newRow("all services")
            << 0xFFE000u
            << QByteArray("Miscellaneous: Uncategorized device (Audio, Object Transfer, Capturing, "
                          "Rendering, Networking, Positioning, Limited Discoverable Mode)");
        // Each service bit alone, so that no two masks can be mixed up unnoticed.
        const char *services[] = {"Positioning", "Networking",      "Rendering",
                                  "Capturing",   "Object Transfer", "Audio"};
        for (unsigned bit = 16; bit <= 21; ++bit)
            QTest::addRow("bit %u", bit)
                << (1u << bit)
                << "Miscellaneous: Uncategorized device (" + QByteArray(services[bit - 16]) + ")";
    }
    void describe() {
        QFETCH(uint, value);
        QFETCH(QByteArray, text);
        QCOMPARE(describeClassOfDevice(ClassOfDevice(value)), text);
    }

    // "major/minor=text": the last named minor of each table, the fallback in a gap and past
    // the end, and each field of the bit-field minors.
    void minorNames_data() {
        QTest::addColumn<uint>("value");
        QTest::addColumn<QByteArray>("text");
        const QString rows =
            "1/6=Wearable computer|1/7=Uncategorized computer|2/5=Common ISDN access|"
            "2/6=Uncategorized phone|4/3=Uncategorized audio/video device|"
            "4/18=Gaming or toy audio/video device|4/63=Uncategorized audio/video device|"
            "7/5=Glasses|7/6=Uncategorized wearable|8/1=Robot|8/6=Uncategorized toy|"
            "9/15=Personal mobility device|9/16=Uncategorized health device|"
            "10/1=Uncategorized device|3/1=Uncategorized network device|"
            "3/56=Network utilization 100%|5/1=Joystick|5/3=Remote control|"
            "5/4=Uncategorized peripheral|5/16=Keyboard|5/32=Pointing device|"
            "5/49=Combo keyboard and pointing device|6/3=Uncategorized imaging device|"
            "6/4=Display|6/8=Camera|6/16=Scanner|6/32=Printer";
        for (const QString &row : rows.split('|')) {
            const QString key = row.section('=', 0, 0);
            QTest::newRow(qPrintable(row))
                << cod(key.section('/', 0, 0).toUInt(), key.section('/', 1).toUInt())
                << row.section('=', 1).toLatin1();
        }
    }
    void minorNames() {
        QFETCH(uint, value);
        QFETCH(QByteArray, text);
        QCOMPARE(minorDeviceClassName(ClassOfDevice(value)), text);
        QCOMPARE(minorDeviceClassName(ClassOfDevice(value | 0xFFE003u)), text);
    }

    void appearance_data() {
        QTest::addColumn<QVariant>("appearance");
        QTest::addColumn<QString>("icon");
        QTest::addColumn<QString>("description");
        QTest::newRow("absent") << QVariant() << "device" << QString();
        const QStringList names{"Generic HID", "Generic Keyboard", "Generic Mouse",
                                "Generic Joystick", "Generic Gamepad"};
        const char *icons[] = {"0000=device",   "0040=phone",      "0080=computer",
                               "00C1=watch",    "0180=remote",     "03BF=device",
                               "03C0=device",   "03C1=keyboard",   "03C2=mouse",
                               "03C3=joystick", "03C4=gamepad",    "03C5=device",
                               "0680=printer",  "0741=headphones", "0742=speaker",
                               "0743=headset",  "0744=headphones", "07C0=headphones",
                               "07C2=headset",  "0940=camera",     "C3C1=keyboard"};
        for (const char *row : icons) {
            const QStringList parts = QString(row).split('=');
            const int value = parts[0].toInt(nullptr, 16);
            QTest::newRow(row) << QVariant(value) << parts[1] << names.value(value - 0x03C0, "");
        }
    }
    void appearance() {
        QFETCH(QVariant, appearance);
        QFETCH(QString, icon);
        QFETCH(QString, description);
        const auto value = optional<std::uint16_t>(appearance);
        QCOMPARE(iconNameForAppearance(value), icon);
        if (value)
            QCOMPARE(appearanceDescription(*value), description);
    }

    void isHid_data() {
        QTest::addColumn<QVariant>("appearance");
        QTest::addColumn<QStringList>("uuids");
        QTest::addColumn<QVariant>("classOfDevice");
        QTest::addColumn<bool>("hid");
        const auto row = [](const char *name, const QVariant &appearance, const QStringList &uuids,
                            const QVariant &classOfDevice, bool hid) {
            QTest::newRow(name) << appearance << uuids << classOfDevice << hid;
        };
        const QString sink = "0000110b-0000-1000-8000-00805f9b34fb";
        const QVariant none;
        row("hid", none, {"00001124-0000-1000-8000-00805f9b34fb"}, none, true);
        row("32-bit group, no dashes", none, {"abcd1124"}, none, true);
        // The first group must be plain hexadecimal digits worth at most 32 bits.
        row("no short form", none,
            {"100001124-0000", "0000112g-0000", "11 24", "-1124", " ", "0x1124", "+1124", "1812 -"},
            none, false);
        row("later hogp, skipping junk", none,
            {"junk", "", sink, " 00001812-0000-1000-8000-00805F9B34FB "}, none, true);
        row("no sign", 0x0941, {sink}, 0x240404, false);
        row("appearance low", 0x03C0, {}, none, true);
        row("appearance high", 0x03FF, {}, none, true);
        row("below hid", 0x03BF, {}, none, false);
        row("above hid", 0x0400, {}, none, false);
        row("bits 14-15", 0xC3C1, {}, none, false);
        row("peripheral, high bits", none, {}, 0xFFFFE503u, true);
        row("major 21", none, {}, 0x1500, false);
    }
    void isHid() {
        QFETCH(QVariant, appearance);
        QFETCH(QStringList, uuids);
        QFETCH(QVariant, classOfDevice);
        QFETCH(bool, hid);
        std::vector<std::string> list;
        for (const QString &uuid : uuids)
            list.push_back(uuid.toStdString());
        QCOMPARE(isHidDevice(optional<std::uint16_t>(appearance), list,
                             optional<std::uint32_t>(classOfDevice)),
                 hid);
    }
};

QTEST_GUILESS_MAIN(TestClassify)
#include "test_classify.moc"
