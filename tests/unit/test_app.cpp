#include "app/commandline.h"
#include "app/frontend.h"
#include "testing.h"

#include <QtTest>

#include <unistd.h>

using namespace kelvane::app;

class TestApp : public QObject {
    Q_OBJECT

private slots:
    // Words separated by '|'; parsed as "<usage|unknown|operation> [word] [mac=...] [root]
    // [trace]", root when the operation is for root alone.
    void grammar_data() {
        QTest::addColumn<QStringList>("words");
        QTest::addColumn<QString>("parsed");
        const auto row = [](const char *words, const char *parsed) {
            QTest::newRow(qPrintable(QString(words).replace('\n', "\\n")))
                << QString(words).split('|', Qt::SkipEmptyParts) << QString(parsed);
        };
        row("", "usage");
        row("-v|-v", "usage trace");
        row("-e|-h", "-e");
        row("-l|AA:BB:CC:DD:EE:FF", "-l root");
        row("-r", "-r root");
        row("-f", "-f root");
        row("-f|-v|AA:BB:CC:DD:EE:FF", "-f mac=AA:BB:CC:DD:EE:FF root trace");
        row("-p| aa-bb-cc-dd-ee-ff\n|x", "-p mac= aa-bb-cc-dd-ee-ff\n root");
        row("-h|-e", "usage -h");
        row("--help", "usage --help");
        row("-v|-x|-v", "unknown -x trace");
        for (const char *word : {"-vv", "-E", " -e", "", "e"})
            QTest::addRow("unknown '%s'", word)
                << QStringList{word, "-e"} << "unknown " + QString(word);
    }
    void grammar() {
        QFETCH(QStringList, words);
        QFETCH(QString, parsed);
        std::vector<std::string> arguments;
        for (const QString &word : words)
            arguments.push_back(word.toStdString());
        const ParsedCommandLine p = parseCommandLine(arguments);
        using Kind = ParsedCommandLine::Kind;
        QString got = p.kind == Kind::Usage     ? "usage"
                      : p.kind == Kind::Unknown ? "unknown"
                                                : QString(p.command->word);
        if (p.kind != Kind::Operation && (p.kind == Kind::Unknown || !p.word.empty()))
            got += ' ' + QString::fromStdString(p.word);
        if (p.mac)
            got += " mac=" + QString::fromStdString(*p.mac);
        if (p.command && p.command->needsRoot)
            got += " root";
        QCOMPARE(p.trace ? got + " trace" : got, parsed);
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
