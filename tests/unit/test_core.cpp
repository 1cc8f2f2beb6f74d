#include "core/trace.h"
#include "testing.h"

#include <QtTest>

#include <functional>

namespace DbusTrace = kelvane::core::DbusTrace;

Q_DECLARE_METATYPE(std::function<void()>)

class TestCore : public QObject {
    Q_OBJECT

private slots:
    // The pairing tests pin the other shapes of these lines.
    void traceLines_data() {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<std::function<void()>>("write");
        const auto row = [](const char *line, std::function<void()> write) {
            QTest::newRow(line) << QByteArray(line) + '\n' << write;
        };
        const QString device = "org.bluez.Device1";
        row("debug: Ger\xc3\xa4t", [] { DbusTrace::debug("Ger\xc3\xa4t"); });
        row("dbus >> org.bluez /d org.bluez.Device1.Pair",
            [=] { DbusTrace::call("org.bluez", "/d", device, "Pair", ""); });
        row("dbus << org.bluez.Device1.Cancel path=/d n=\xe2\x98\x95", [=] {
            DbusTrace::incoming("/d", device, "Cancel", QString::fromUtf8("n=\xe2\x98\x95"));
        });
        row("dbus << RegisterAgent ok", [] { DbusTrace::reply("RegisterAgent", true, ""); });
        row("dbus << Set ok: Powered=true", [] { DbusTrace::reply("Set", true, "Powered=true"); });
        row("dbus << Connect error: \xc3\xa9\x63hec",
            [] { DbusTrace::reply("Connect", false, QString::fromUtf8("\xc3\xa9\x63hec")); });
    }
    void traceLines() {
        QFETCH(QByteArray, line);
        QFETCH(std::function<void()>, write);
        DbusTrace::setEnabled(false);
        QCOMPARE(captureStream(stderr, write), QByteArray());
        DbusTrace::setEnabled(true);
        const QByteArray written = captureStream(stderr, write);
        DbusTrace::setEnabled(false);
        QCOMPARE(written, line);
    }
};

QTEST_GUILESS_MAIN(TestCore)
#include "test_core.moc"
