#pragma once

#include <QTemporaryFile>
#include <QtTest>

#include <cstdio>
#include <functional>
#include <map>
#include <unistd.h>

// Runs `fn` with the file descriptor behind `stream` redirected into a
// temporary file and returns everything written to it.
template <typename Fn> QByteArray captureStream(FILE *stream, Fn fn) {
    QTemporaryFile file;
    if (!file.open())
        return "<capture failed>";
    std::fflush(stream);
    const int fd = fileno(stream);
    const int saved = dup(fd);
    dup2(file.handle(), fd);
    fn();
    std::fflush(stream);
    dup2(saved, fd);
    close(saved);
    file.seek(0);
    return file.readAll();
}

// A table of rules, every cell text: each row names a rule, its argument and
// the answer expected; the test maps the names to functions of the argument.
using Rules = std::map<QString, std::function<QString(const QString &argument)>>;

inline void ruleColumns() {
    QTest::addColumn<QString>("rule");
    QTest::addColumn<QString>("argument");
    QTest::addColumn<QString>("answer");
}

inline void rule(const char *name, const QString &argument, const QString &answer) {
    QTest::addRow("%s %s", name, qPrintable(QString(argument).replace('\n', "\\n")))
        << QString(name) << argument << answer;
}

inline void checkRule(const Rules &rules) {
    QFETCH(QString, rule);
    QFETCH(QString, argument);
    QFETCH(QString, answer);
    QCOMPARE(rules.at(rule)(argument), answer);
}
