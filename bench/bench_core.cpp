// Throughput of the CPU-bound pieces of a run: serialising a large result
// document, merging scan polls, and listing a large store from disk.
#include "result/json.h"
#include "result/resultdocument.h"
#include "storage/storelisting.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

using kelvane::core::DeviceInfo;

namespace {

std::vector<DeviceInfo> makeDevices(int count) {
    std::vector<DeviceInfo> devices;
    for (int i = 0; i < count; ++i) {
        DeviceInfo device;
        device.path = "/org/bluez/hci0/dev_" + std::to_string(i);
        device.address = QStringLiteral("00:11:22:%1:%2:%3")
                             .arg(i >> 16 & 0xFF, 2, 16, QLatin1Char('0'))
                             .arg(i >> 8 & 0xFF, 2, 16, QLatin1Char('0'))
                             .arg(i & 0xFF, 2, 16, QLatin1Char('0'))
                             .toUpper()
                             .toStdString();
        device.name = "Device " + std::to_string(i);
        device.classOfDevice = 0x240404;
        device.appearance = 0x03C1;
        device.uuids = {"00001124-0000-1000-8000-00805f9b34fb",
                        "0000110b-0000-1000-8000-00805f9b34fb"};
        if (i % 3)
            device.rssi = static_cast<std::int16_t>(-30 - i % 60);
        devices.push_back(device);
    }
    return devices;
}

} // namespace

class BenchCore : public QObject {
    Q_OBJECT

private slots:
    void serialiseThousandDevices() {
        kelvane::result::ResultDocument document;
        document.mergeDevices(makeDevices(1000));
        QByteArray json;
        QBENCHMARK {
            json = kelvane::result::resultToJson(document);
        }
        QVERIFY(json.size() > 1000);
    }

    void mergeTenPollsOfTwoHundred() {
        const std::vector<DeviceInfo> poll = makeDevices(200);
        QBENCHMARK {
            kelvane::result::ResultDocument document;
            for (int i = 0; i < 10; ++i)
                document.mergeDevices(poll);
            QCOMPARE(document.devices().size(), poll.size());
        }
    }

    void listStoreOfFiveHundredDevices() {
        QTemporaryDir root;
        QVERIFY(root.isValid());
        for (int i = 0; i < 500; ++i) {
            const QString dir = root.path() + QStringLiteral("/00:1A:7D:DA:71:13/AA:BB:CC:00:%1:%2")
                                                  .arg(i >> 8, 2, 16, QLatin1Char('0'))
                                                  .arg(i & 0xFF, 2, 16, QLatin1Char('0'));
            QVERIFY(QDir().mkpath(dir));
            QFile info(dir + QStringLiteral("/info"));
            QVERIFY(info.open(QIODevice::WriteOnly));
            info.write(
                "[General]\nName=Device " + QByteArray::number(i) +
                "\nClass=0x240404\nTrusted=true\nServices=0000110b-0000-1000-8000-00805f9b34fb;\n"
                "[LinkKey]\nKey=00112233445566778899AABBCCDDEEFF\n");
        }
        QBENCHMARK {
            QCOMPARE(kelvane::storage::listStoredDevices(root.path()).size(), size_t(500));
        }
    }
};

QTEST_GUILESS_MAIN(BenchCore)
#include "bench_core.moc"
