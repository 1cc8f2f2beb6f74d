#include "core/trace.h"
#include "core/utf8.h"
#include "testing.h"

#include <QtTest>

namespace DbusTrace = kelvane::core::DbusTrace;

class TestCore : public QObject {
    Q_OBJECT

private slots:
    // Trace lines are written only when asked for, and in UTF-8; the shape of
    // each kind of line is pinned where it is written.
    void traceOnlyWhenEnabledInUtf8() {
        const auto write = [] {
            DbusTrace::reply("Connect", false, QString::fromUtf8("\xc3\xa9\x63hec"));
        };
        DbusTrace::setEnabled(false);
        QCOMPARE(captureStream(stderr, write), QByteArray());
        DbusTrace::setEnabled(true);
        const QByteArray written = captureStream(stderr, write);
        DbusTrace::setEnabled(false);
        QCOMPARE(written, QByteArray("dbus << Connect error: \xc3\xa9\x63hec\n"));
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
