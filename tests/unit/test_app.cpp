#include "app/commandline.h"
#include "testing.h"

#include <QtTest>

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
};

QTEST_GUILESS_MAIN(TestApp)
#include "test_app.moc"
