#include "app/commandline.h"
#include "app/frontend.h"
#include "stdcapture.h"

#include <QtTest>

#include <unistd.h>

using namespace kelvane::app;

Q_DECLARE_METATYPE(kelvane::app::Command)

class TestApp : public QObject {
    Q_OBJECT

private slots:
    void grammar_data() {
        QTest::addColumn<QStringList>("words");
        QTest::addColumn<Command>("command");
        QTest::addColumn<QString>("word");
        QTest::addColumn<QVariant>("mac"); // invalid: no MAC
        QTest::addColumn<bool>("trace");
        // Words are separated by '|'; a null mac means none.
        const auto row = [](const char *words, Command command, const char *word, const char *mac,
                            bool trace = false) {
            QTest::newRow(words) << QString(words).split('|', Qt::SkipEmptyParts) << command << word
                                 << (mac ? QVariant(mac) : QVariant()) << trace;
        };
        const char *mac = "AA:BB:CC:DD:EE:FF";
        row("", Command::Usage, "", nullptr);
        row("-v|-v", Command::Usage, "", nullptr, true);
        row("-e|-h", Command::Scan, "-e", nullptr);
        row("-l|AA:BB:CC:DD:EE:FF", Command::List, "-l", nullptr);
        row("-r", Command::Restore, "-r", nullptr);
        row("-f", Command::Forget, "-f", nullptr);
        row("-f|-v|AA:BB:CC:DD:EE:FF", Command::Forget, "-f", mac, true);
        row("-p| aa-bb-cc-dd-ee-ff\n|x", Command::Pair, "-p", " aa-bb-cc-dd-ee-ff\n");
        row("-h|-e", Command::Usage, "-h", nullptr);
        row("--help", Command::Usage, "--help", nullptr);
        row("-v|-x|-v", Command::Unknown, "-x", nullptr, true);
        for (const char *word : {"-vv", "-E", " -e", "", "e"})
            QTest::addRow("unknown '%s'", word)
                << QStringList{word, "-e"} << Command::Unknown << word << QVariant() << false;
    }
    void grammar() {
        QFETCH(QStringList, words);
        QFETCH(Command, command);
        QFETCH(QString, word);
        QFETCH(QVariant, mac);
        QFETCH(bool, trace);
        std::vector<std::string> arguments;
        for (const QString &w : words)
            arguments.push_back(w.toStdString());
        const ParsedCommandLine parsed = parseCommandLine(arguments);
        QCOMPARE(parsed.command, command);
        QCOMPARE(QString::fromStdString(parsed.word), word);
        QCOMPARE(parsed.mac.has_value(), mac.isValid());
        if (parsed.mac)
            QCOMPARE(QString::fromStdString(*parsed.mac), mac.toString());
        QCOMPARE(parsed.trace, trace);
    }

    void requirements() {
        for (const Command c : {Command::Usage, Command::Scan, Command::Unknown})
            QVERIFY(!commandNeedsMac(c) && !commandNeedsRoot(c));
        for (const Command c : {Command::List, Command::Restore})
            QVERIFY(!commandNeedsMac(c) && commandNeedsRoot(c));
        for (const Command c : {Command::Forget, Command::Pair})
            QVERIFY(commandNeedsMac(c) && commandNeedsRoot(c));
    }

    void usageText() {
        const QByteArray expected =
            "Usage: ./bin/kel vane [-v] [-e] [-l] [-r] [-f MAC] [-p MAC]\n\n"
            "Options:\n"
            "  -v              Print D-Bus debug messages to stderr\n"
            "  -e              Scan for nearby Bluetooth devices on powered adapters\n"
            "  -l              List known devices from /var/lib/bluetooth (root)\n"
            "  -r              Restore /var/lib/bluetooth from backup (root)\n"
            "  -f MAC          Forget a known or connected device at MAC (root)\n"
            "  -p MAC          Pair, trust, and connect to the device at MAC (root)\n"
            "  -h              Show this help message\n\n"
            "All operations write one JSON result object to stdout.\n"
            "Pairing progress events are written to /tmp/kelvane-events.json.\n"
            "Use -v for debug output on stderr.\n\n"
            "List (-l), restore (-r), forget (-f), and pair (-p) must be run as root.\n";
        QCOMPARE(captureStream(stdout, [] { printUsage("./bin/kel vane"); }), expected);
    }

    void rootCheck() {
        const bool root = geteuid() == 0;
        bool allowed = !root;
        const QByteArray written = captureStream(stderr, [&] { allowed = requireRoot("-f"); });
        QCOMPARE(allowed, root);
        QCOMPARE(written, root ? QByteArray() : QByteArray("error: -f requires root privileges\n"));
    }
};

QTEST_GUILESS_MAIN(TestApp)
#include "test_app.moc"
