#include "classify/appearance.h"
#include "classify/classofdevice.h"
#include "classify/hid.h"
#include "classify/uuids.h"

#include <QRegularExpression>
#include <QtTest>

using namespace kelvane::classify;

namespace {

std::uint32_t cod(unsigned major, unsigned minor) {
    return (major << 8) | (minor << 2);
}

template <typename T> std::optional<T> optional(const QVariant &value) {
    return value.isValid() ? std::optional<T>(static_cast<T>(value.toLongLong())) : std::nullopt;
}

// Named minors of each table, index = minor value ("" = the fallback).
struct MinorTable {
    unsigned major;
    const char *fallback;
    QByteArrayList named;
};
const MinorTable minorTables[] = {
    {1,
     "Uncategorized computer",
     {"", "Desktop workstation", "Server-class computer", "Laptop", "Handheld PC/PDA",
      "Palm-size PC/PDA", "Wearable computer"}},
    {2,
     "Uncategorized phone",
     {"", "Cellular phone", "Cordless phone", "Smartphone", "Wired modem or voice gateway",
      "Common ISDN access"}},
    {4,
     "Uncategorized audio/video device",
     {"", "Wearable headset", "Hands-free device", "", "Microphone", "Loudspeaker", "Headphones",
      "Portable audio", "Car audio", "Set-top box", "HiFi audio device", "VCR", "Video camera",
      "Camcorder", "Video monitor", "Video display and loudspeaker", "Video conferencing", "",
      "Gaming or toy audio/video device"}},
    {7, "Uncategorized wearable", {"", "Wristwatch", "Pager", "Jacket", "Helmet", "Glasses"}},
    {8,
     "Uncategorized toy",
     {"", "Robot", "Vehicle", "Doll or action figure", "Controller", "Game"}},
    {9,
     "Uncategorized health device",
     {"", "Blood pressure monitor", "Thermometer", "Weighing scale", "Glucose meter",
      "Pulse oximeter", "Heart rate monitor", "Health data display", "Step counter",
      "Body composition analyzer", "Peak flow monitor", "Medication monitor", "Knee prosthesis",
      "Ankle prosthesis", "Generic health manager", "Personal mobility device"}},
    // Single fields of the bit-field minors, where only one reading is possible.
    {5, "Uncategorized peripheral", {"", "Joystick", "Gamepad", "Remote control"}},
    {6, "Uncategorized imaging device", {"", "", "", "", "Display", "", "", "", "Camera"}},
    {0, "Uncategorized device", {}},
    {10, "Uncategorized device", {}},
    {31, "Uncategorized device", {}},
};

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
        QTest::newRow("laptop") << 0x00010Cu << QByteArray("Computer: Laptop");
        QTest::newRow("format, 14, 15, 22, 23") << 0xC0C10Fu << QByteArray("Computer: Laptop");
        QTest::newRow("unknown major")
            << 0x000A00u << QByteArray("Unknown major device class: Uncategorized device");
        QTest::newRow("limited") << 0x002000u
                                 << QByteArray("Miscellaneous: Uncategorized device (Limited "
                                               "Discoverable Mode)");
        QTest::newRow("zero") << 0u << QByteArray("Miscellaneous: Uncategorized device");
        QTest::newRow("major 31") << 0x001F24u << QByteArray("Uncategorized: Uncategorized device");
        QTest::newRow("all services")
            << 0xFFE000u
            << QByteArray("Miscellaneous: Uncategorized device (Audio, Object Transfer, Capturing, "
                          "Rendering, Networking, Positioning, Limited Discoverable Mode)");
    }
    void describe() {
        QFETCH(uint, value);
        QFETCH(QByteArray, text);
        QCOMPARE(describeClassOfDevice(ClassOfDevice(value)), text);
    }

    void majorNames() {
        const QByteArrayList names{
            "Miscellaneous", "Computer",   "Phone",   "LAN/Network Access Point",
            "Audio/Video",   "Peripheral", "Imaging", "Wearable",
            "Toy",           "Health"};
        for (unsigned major = 0; major < 32; ++major) {
            const QByteArray expected = major < 10    ? names.at(int(major))
                                        : major == 31 ? QByteArray("Uncategorized")
                                                      : QByteArray("Unknown major device class");
            QCOMPARE(majorDeviceClassName(ClassOfDevice(cod(major, major))), expected);
        }
    }

    // Every named minor, and the fallback for every unnamed value up to 63.
    void minorNames_data() {
        QTest::addColumn<uint>("value");
        QTest::addColumn<QByteArray>("text");
        for (const MinorTable &table : minorTables) {
            for (unsigned minor = 0; minor < 64; ++minor) {
                if (table.major == 5 && minor >= 16)
                    break; // bits 6-7 set: covered below
                const QByteArray named = table.named.value(int(minor));
                if (table.major == 6 && named.isEmpty() && (minor >> 2) != 0)
                    continue; // combinations of imaging flags: reading left open
                QTest::addRow("%u/%u", table.major, minor)
                    << cod(table.major, minor)
                    << (named.isEmpty() ? QByteArray(table.fallback) : named);
            }
        }
        QTest::newRow("keyboard") << cod(5, 16) << QByteArray("Keyboard");
        QTest::newRow("pointing") << cod(5, 32) << QByteArray("Pointing device");
        QTest::newRow("combo") << cod(5, 48) << QByteArray("Combo keyboard and pointing device");
        QTest::newRow("scanner") << cod(6, 16) << QByteArray("Scanner");
        QTest::newRow("printer") << cod(6, 32) << QByteArray("Printer");
    }
    void minorNames() {
        QFETCH(uint, value);
        QFETCH(QByteArray, text);
        QCOMPARE(minorDeviceClassName(ClassOfDevice(value)), text);
        QCOMPARE(minorDeviceClassName(ClassOfDevice(value | 0xFFE003u)), text);
    }

    // Majors 3, 5 and 6: one text from the fixed vocabulary for every minor value.
    void bitFieldMinors_data() {
        QTest::addColumn<uint>("major");
        QTest::addColumn<QByteArrayList>("vocabulary");
        QTest::newRow("LAN") << 3u << QByteArrayList{"Uncategorized network device"};
        QTest::newRow("Peripheral") << 5u
                                    << QByteArrayList{"Keyboard",
                                                      "Pointing device",
                                                      "Combo keyboard and pointing device",
                                                      "Joystick",
                                                      "Gamepad",
                                                      "Remote control",
                                                      "Uncategorized peripheral"};
        QTest::newRow("Imaging") << 6u
                                 << QByteArrayList{"Display", "Camera", "Scanner", "Printer",
                                                   "Uncategorized imaging device"};
    }
    void bitFieldMinors() {
        QFETCH(uint, major);
        QFETCH(QByteArrayList, vocabulary);
        const QRegularExpression utilization(QStringLiteral("^Network utilization (\\d+)%$"));
        for (unsigned minor = 0; minor < 64; ++minor) {
            const QByteArray text = minorDeviceClassName(ClassOfDevice(cod(major, minor)));
            const auto match = utilization.match(QString::fromLatin1(text));
            const bool percentage =
                major == 3 && match.hasMatch() && match.captured(1).toInt() <= 100;
            QVERIFY2(vocabulary.contains(text) || percentage,
                     QByteArray::number(minor) + ": " + text);
        }
    }

    void serviceNames_data() {
        QTest::addColumn<uint>("value");
        QTest::addColumn<QByteArray>("names");
        const char *names[] = {"Positioning", "Networking",      "Rendering",
                               "Capturing",   "Object Transfer", "Audio"};
        for (unsigned bit = 16; bit <= 21; ++bit)
            QTest::addRow("bit %u", bit) << (1u << bit) << QByteArray(names[bit - 16]);
        QTest::newRow("bit 13") << 0x002000u << QByteArray("Limited Discoverable Mode");
        QTest::newRow("unnamed bits") << (0xC0FFFFu & ~0x2000u) << QByteArray();
        QTest::newRow("first and last")
            << 0x202000u << QByteArray("Audio, Limited Discoverable Mode");
    }
    void serviceNames() {
        QFETCH(uint, value);
        QFETCH(QByteArray, names);
        QCOMPARE(serviceClassNames(ClassOfDevice(value)), names);
    }

    void classFields() {
        QJsonObject object;
        writeClassFields(object, 0xFFFFFFFFu);
        QCOMPARE(object.value("class_of_device").toVariant().toLongLong(), 4294967295LL);
        QCOMPARE(object.value("class").toString(),
                 QString::fromLatin1(describeClassOfDevice(ClassOfDevice(0xFFFFFF))));
        writeClassFields(object, std::nullopt);
        QVERIFY(object.contains("class_of_device") && object.value("class_of_device").isNull());
        QVERIFY(object.contains("class") && object.value("class").isNull());
    }

    void appearance_data() {
        QTest::addColumn<QVariant>("appearance");
        QTest::addColumn<QString>("icon");
        QTest::addColumn<QString>("description");
        QTest::newRow("absent") << QVariant() << "device" << QString();
        const QStringList names{"Generic HID", "Generic Keyboard", "Generic Mouse",
                                "Generic Joystick", "Generic Gamepad"};
        const char *icons[] = {
            "0000=device",     "0040=phone",    "007F=phone",   "0080=computer",
            "00C1=watch",      "0100=device",   "0180=remote",  "03BF=device",
            "03C0=device",     "03C1=keyboard", "03C2=mouse",   "03C3=joystick",
            "03C4=gamepad",    "03C5=device",   "0680=printer", "0740=speaker",
            "0741=headphones", "0742=speaker",  "0743=headset", "0744=headphones",
            "07C0=headphones", "07C2=headset",  "0940=camera",  "4080=computer",
            "C3C1=keyboard",   "FFFF=device"};
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
        QJsonObject object;
        writeAppearanceFields(object, value);
        QCOMPARE(object.value("icon-name").toString(), icon);
        QVERIFY(object.contains("appearance") && object.contains("appearance_description"));
        if (!value) {
            QVERIFY(object.value("appearance").isNull());
            QVERIFY(object.value("appearance_description").isNull());
            return;
        }
        QCOMPARE(object.value("appearance").toVariant().toInt(), appearance.toInt());
        QVERIFY(object.value("appearance_description").isString());
        QCOMPARE(object.value("appearance_description").toString(), description);
        QCOMPARE(appearanceDescription(*value).isNull(), description.isEmpty());
    }

    void shortUuid_data() {
        QTest::addColumn<QString>("uuid");
        QTest::addColumn<int>("value"); // -1: no value
        QTest::newRow("full") << "00001124-0000-1000-8000-00805f9b34fb" << 0x1124;
        QTest::newRow("short") << "1812" << 0x1812;
        QTest::newRow("32-bit group") << "abcd1812-0000-1000-8000-00805f9b34fb" << 0x1812;
        QTest::newRow("upper case") << "0000110B-0000-1000-8000-00805F9B34FB" << 0x110B;
        QTest::newRow("trimmed") << " \t00001812-0000-1000-8000-00805f9b34fb\n" << 0x1812;
        QTest::newRow("no dash, max") << "FFFFFFFF" << 0xFFFF;
        QTest::newRow("too large") << "100001124-0000-1000-8000-00805f9b34fb" << -1;
        QTest::newRow("non-hex") << "0000112g-0000" << -1;
        QTest::newRow("inner blank") << "11 24" << -1;
        QTest::newRow("empty") << "" << -1;
        QTest::newRow("blank") << "  " << -1;
        QTest::newRow("empty head") << "-1124" << -1;
    }
    void shortUuid() {
        QFETCH(QString, uuid);
        QFETCH(int, value);
        const auto result = kelvane::classify::shortUuid(uuid);
        QCOMPARE(result ? int(*result) : -1, value);
    }

    void isHid_data() {
        QTest::addColumn<QVariant>("appearance");
        QTest::addColumn<QStringList>("uuids");
        QTest::addColumn<QVariant>("classOfDevice");
        QTest::addColumn<bool>("hid");
        const QString sink = "0000110b-0000-1000-8000-00805f9b34fb";
        const QVariant none;
        QTest::newRow("nothing") << none << QStringList{} << none << false;
        QTest::newRow("hid") << none << QStringList{"00001124-0000-1000-8000-00805f9b34fb"} << none
                             << true;
        QTest::newRow("later hogp, skipping junk")
            << none << QStringList{"junk", "", sink, " 00001812-0000-1000-8000-00805F9B34FB "}
            << none << true;
        QTest::newRow("32-bit hid") << none << QStringList{"abcd1124"} << none << true;
        QTest::newRow("no sign") << QVariant(0x0941) << QStringList{sink} << QVariant(0x240404)
                                 << false;
        QTest::newRow("appearance low") << QVariant(0x03C0) << QStringList{} << none << true;
        QTest::newRow("appearance high") << QVariant(0x03FF) << QStringList{} << none << true;
        QTest::newRow("below hid") << QVariant(0x03BF) << QStringList{} << none << false;
        QTest::newRow("above hid") << QVariant(0x0400) << QStringList{} << none << false;
        QTest::newRow("bits 14-15") << QVariant(0xC3C1) << QStringList{} << none << false;
        QTest::newRow("peripheral") << none << QStringList{} << QVariant(9536) << true;
        QTest::newRow("peripheral, high bits")
            << none << QStringList{} << QVariant(0xFFFFE503u) << true;
        QTest::newRow("audio/video") << none << QStringList{} << QVariant(0x0400) << false;
        QTest::newRow("major 21") << none << QStringList{} << QVariant(0x1500) << false;
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

    void uuidArrayKeepsOrder() {
        QCOMPARE(uuidArray({"b", "a", "Caf\xc3\xa9", "a"}),
                 (QJsonArray{"b", "a", QString::fromUtf8("Caf\xc3\xa9"), "a"}));
    }
};

QTEST_GUILESS_MAIN(TestClassify)
#include "test_classify.moc"
