#include "core/trace.h"
#include "core/utf8.h"
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

    // Every leading byte order mark is kept, and so is what follows a NUL.
    void utf8KeepsEveryByte() {
        static const char raw[] = "\xEF\xBB\xBF\xEF\xBB\xBFname\0tail";
        const QByteArray bytes(raw, sizeof raw - 1);
        const QString text = kelvane::core::fromUtf8(bytes);
        QCOMPARE(text, QString(2, QChar(0xFEFF)) + QStringLiteral("name") + QChar(0) +
                           QStringLiteral("tail"));
        QCOMPARE(QByteArray::fromStdString(kelvane::core::toUtf8(text)), bytes);
    }
};

QTEST_GUILESS_MAIN(TestCore)
#include "test_core.moc"
