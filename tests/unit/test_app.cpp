#include "app/commandline.h"
#include "app/frontend.h"
#include "stdcapture.h"

#include <QtTest>

#include <unistd.h>

using namespace kelvane::app;

namespace {

// "usage", "unknown", or the word of the operation chosen.
QString describeChoice(const ParsedCommandLine &parsed) {
    switch (parsed.kind) {
    case ParsedCommandLine::Kind::Usage:
        return "usage";
    case ParsedCommandLine::Kind::Unknown:
        return "unknown";
    case ParsedCommandLine::Kind::Operation:
        break;
    }
    return parsed.command->word;
}

} // namespace

class TestApp : public QObject {
    Q_OBJECT

private slots:
    void grammar_data() {
        QTest::addColumn<QStringList>("words");
        QTest::addColumn<QString>("choice");
        QTest::addColumn<QString>("word");
        QTest::addColumn<QVariant>("mac"); // invalid: no MAC
        QTest::addColumn<bool>("trace");
        // Words are separated by '|'; a null mac means none.
        const auto row = [](const char *words, const char *choice, const char *word,
                            const char *mac, bool trace = false) {
            QTest::newRow(words) << QString(words).split('|', Qt::SkipEmptyParts) << choice << word
                                 << (mac ? QVariant(mac) : QVariant()) << trace;
        };
        const char *mac = "AA:BB:CC:DD:EE:FF";
        row("", "usage", "", nullptr);
        row("-v|-v", "usage", "", nullptr, true);
        row("-e|-h", "-e", "-e", nullptr);
        row("-l|AA:BB:CC:DD:EE:FF", "-l", "-l", nullptr);
        row("-r", "-r", "-r", nullptr);
        row("-f", "-f", "-f", nullptr);
        row("-f|-v|AA:BB:CC:DD:EE:FF", "-f", "-f", mac, true);
        row("-p| aa-bb-cc-dd-ee-ff\n|x", "-p", "-p", " aa-bb-cc-dd-ee-ff\n");
        row("-h|-e", "usage", "-h", nullptr);
        row("--help", "usage", "--help", nullptr);
        row("-v|-x|-v", "unknown", "-x", nullptr, true);
        for (const char *word : {"-vv", "-E", " -e", "", "e"})
            QTest::addRow("unknown '%s'", word)
                << QStringList{word, "-e"} << "unknown" << word << QVariant() << false;
    }
    void grammar() {
        QFETCH(QStringList, words);
        QFETCH(QString, choice);
        QFETCH(QString, word);
        QFETCH(QVariant, mac);
        QFETCH(bool, trace);
        std::vector<std::string> arguments;
        for (const QString &w : words)
            arguments.push_back(w.toStdString());
        const ParsedCommandLine parsed = parseCommandLine(arguments);
        QCOMPARE(describeChoice(parsed), choice);
        QCOMPARE(QString::fromStdString(parsed.word), word);
        QCOMPARE(parsed.mac.has_value(), mac.isValid());
        if (parsed.mac)
            QCOMPARE(QString::fromStdString(*parsed.mac), mac.toString());
        QCOMPARE(parsed.trace, trace);
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
