#include "storage/backup.h"
#include "storage/forgetstored.h"
#include "storage/infofile.h"
#include "storage/storelisting.h"

#include <QDirIterator>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

using namespace kelvane::storage;
namespace ks = kelvane::storage;

namespace {

void put(const QString &path, const QByteArray &content = "x") {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
}

// Every entry below root, hidden ones too, as "path=content" for files and
// "path@" for links (not followed).
QStringList tree(const QString &root) {
    QStringList entries;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        QString entry = QDir(root).relativeFilePath(info.filePath());
        QFile file(info.filePath());
        if (info.isSymLink())
            entry += '@';
        else if (info.isFile() && file.open(QIODevice::ReadOnly))
            entry += '=' + QString::fromUtf8(file.readAll());
        entries << entry;
    }
    entries.sort();
    return entries;
}

// The fields that differ from a fresh record.
QString describe(const StoredDevice &d) {
    QStringList p;
    const auto add = [&p](bool set, const QString &text) {
        if (set)
            p << text;
    };
    const auto num = [](const auto &v, int base) { return v ? QString::number(*v, base) : ""; };
    add(!d.name.isEmpty(), "name=" + d.name);
    add(!d.addressType.isEmpty(), "type=" + d.addressType);
    add(!d.supportedTechnologies.isEmpty(), "tech=" + d.supportedTechnologies.join(','));
    add(d.trusted, "trusted");
    add(d.blocked, "blocked");
    add(d.wakeAllowed, "wake");
    add(d.deviceClass.has_value(), "class=" + num(d.deviceClass, 16));
    add(d.appearance.has_value(), "appearance=" + num(d.appearance, 16));
    add(!d.services.isEmpty(), "services=" + d.services.join(','));
    add(d.vendor.has_value(), "vendor=" + num(d.vendor, 10));
    add(d.product.has_value(), "product=" + num(d.product, 10));
    add(d.version.has_value(), "version=" + num(d.version, 10));
    return p.join('|');
}

// The immutable attribute is what stops even root from deleting a file.
bool setImmutable(const QString &path, bool on) {
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK);
    int flags = 0;
    bool ok = fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    ok = ok && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    if (fd >= 0)
        ::close(fd);
    return ok;
}

} // namespace

class TestStorage : public QObject {
    Q_OBJECT

private slots:
    void parseInfoFile_data() {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("expected");
        const QByteArray g = "[General]\n";
        QTest::newRow("name only") << g + "Name=Foo\n"
                                   << "name=Foo";
        QTest::newRow("trim, last wins, '=' in value") << g + "Name=A\n  Name = Zo\xc3\xab = x \n"
                                                       << QString::fromUtf8("name=Zo\xc3\xab = x");
        QTest::newRow("skipped lines") << "Name=A\n# Name=B\n" + g +
                                              "; Name=C\n\n  #Name=D\n=E\nNameF\n[General\n"
                                              "[Name=G\nTrusted=1\n"
                                       << "trusted";
        QTest::newRow("bracketed line is a header") << g + "[Name=x]\nName=A\n"
                                                    << "";
        QTest::newRow("crlf") << g + "Name=Foo\r\nTrusted=yes\r\n"
                              << "name=Foo|trusted";
        QTest::newRow("other sections")
            << QByteArray("[general]\nName=A\n[LinkKey]\nName=B\n[ General]\nName=C\n") << "";
        QTest::newRow("every field")
            << g + "Class=0X00240404\nAppearance=0x03c1\nAddressType=public\nTrusted=TRUE\n"
                   "SupportedTechnologies=BR/EDR;LE;\nServices=a-1; b-2;\nBlocked= yes\n"
                   "WakeAllowed=1\n[DeviceID]\nVendor=76\nProduct=2\nVersion=65537\n"
            << "type=public|tech=BR/EDR,LE|trusted|blocked|wake|class=240404|appearance=3c1|"
               "services=a-1,b-2|vendor=76|product=2|version=1";
        QTest::newRow("bad values") << g + "Class=1\nClass=xyz\nAppearance=1\nAppearance=\n"
                                           "Trusted=true\nTrusted=maybe\n"
                                    << "trusted";
        QTest::newRow("device id decimal only")
            << QByteArray("[DeviceID]\nVendor=76\nVendor=abc\nProduct=0x004c\n") + g + "Version=5"
            << "vendor=76";
    }
    void parseInfoFile() {
        QFETCH(QByteArray, content);
        QFETCH(QString, expected);
        QTemporaryDir dir;
        put(dir.filePath("info"), content);
        StoredDevice device;
        device.adapter = "A";
        QVERIFY(ks::parseInfoFile(dir.filePath("info"), device));
        QCOMPARE(describe(device), expected);
        QCOMPARE(device.adapter, QString("A"));

        QVERIFY(!ks::parseInfoFile(dir.filePath("missing"), device));
        QCOMPARE(describe(device), expected);
    }

    void parseStoredBool_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("recognised");
        QTest::addColumn<bool>("value");
        for (const char *t : {"true", " TRUE ", "1", "Yes"})
            QTest::newRow(t) << QString(t) << true << true;
        for (const char *t : {"false", "No", " 0"})
            QTest::newRow(t) << QString(t) << true << false;
        for (const char *t : {"maybe", "", "truee", "y", "2"})
            QTest::newRow(t) << QString(t) << false << false;
    }
    void parseStoredBool() {
        QFETCH(QString, text);
        QFETCH(bool, recognised);
        QFETCH(bool, value);
        for (const bool initial : {false, true}) {
            bool flag = initial;
            QCOMPARE(ks::parseStoredBool(text, flag), recognised);
            QCOMPARE(flag, recognised ? value : initial);
        }
    }

    void parseHex_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<qint64>("value"); // -1: absent
        QTest::newRow("prefixed") << "0x5a020c" << qint64(0x5a020c);
        QTest::newRow("upper prefix, blanks") << " 0X00240404 " << qint64(0x240404);
        QTest::newRow("bare") << "240404" << qint64(0x240404);
        QTest::newRow("32 bits") << "FFFFFFFF" << qint64(0xffffffff);
        for (const char *t : {"0x100000000", "", "0x", "xyz", "0x0x1", "+1", "-1", "1 2", "1g"})
            QTest::newRow(t) << QString(t) << qint64(-1);
    }
    void parseHex() {
        QFETCH(QString, text);
        QFETCH(qint64, value);
        const auto wide = parseHex32(text);
        const auto narrow = parseHex16(text);
        QCOMPARE(wide ? qint64(*wide) : -1, value);
        QCOMPARE(narrow ? qint64(*narrow) : -1, value < 0 ? -1 : value & 0xffff);
    }

    void splitStoredList_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QStringList>("items");
        QTest::newRow("trailing") << "BR/EDR;LE;" << QStringList{"BR/EDR", "LE"};
        QTest::newRow("blanks") << " a; b c ;; ;" << QStringList{"a", "b c"};
        QTest::newRow("empty") << "" << QStringList{};
    }
    void splitStoredList() {
        QFETCH(QString, text);
        QFETCH(QStringList, items);
        QCOMPARE(ks::splitStoredList(text), items);
    }

    void listStoredDevices() {
        QTemporaryDir tmp;
        const QString root = tmp.filePath("store");
        const auto device = [&](const QString &rel, const QByteArray &name) {
            put(root + '/' + rel + "/info", "[General]\nName=" + name);
        };
        device("A1/00:11:22:33:44:55", "alpha");
        device("A1/AA:BB:CC:DD:EE:FF", "Zeta");
        device("A1/22:22:22:22:22:22", "Zeta");
        put(root + "/A1/11:11:11:11:11:11/info", "[LinkKey]\nKey=1\n");
        device(R"(A1/00\:11\:22\:33\:44\:66)", "esc");
        device("A1/.hidden", "hidden");
        device("A2/AA:BB:CC:DD:EE:FF", "Zeta");
        device(".A3/00:00:00:00:00:00", "hidden adapter");
        put(root + "/A4/cache/AA:BB:CC:DD:EE:00", "[General]\nName=cache");
        put(root + "/A1/noinfo/other");
        QDir().mkpath(root + "/A1/infodir/info");
        put(root + "/file-at-root");
        device("../elsewhere/33:33:33:33:33:33", "Linked");
        QVERIFY(QFile::link(tmp.filePath("elsewhere"), root + "/linked"));

        QStringList got;
        for (const StoredDevice &d : ks::listStoredDevices(root))
            got << d.name + ' ' + d.address + ' ' + (d.address[0] == 'A' ? "A?" : d.adapter);
        const QStringList expected{"Linked 33:33:33:33:33:33 linked", "Zeta 22:22:22:22:22:22 A1",
                                   "Zeta AA:BB:CC:DD:EE:FF A?",       "Zeta AA:BB:CC:DD:EE:FF A?",
                                   " 11:11:11:11:11:11 A1",           "alpha 00:11:22:33:44:55 A1",
                                   "esc 00:11:22:33:44:66 A1"};
        QCOMPARE(got, expected);
        QVERIFY(ks::listStoredDevices(tmp.filePath("missing")).empty());
    }

    void copyMergesAndMirrorReplaces() {
        QTemporaryDir tmp;
        const QString src = tmp.filePath("src"), dst = tmp.filePath("dst");
        const QString deep = tmp.filePath("x/y/dst");
        put(src + "/a", "new");
        put(src + "/sub/b", "b");
        put(src + "/.hidden", "h");
        put(dst + "/a", "old");
        put(dst + "/stale", "s");
        put(dst + "/.keep", "k");
        QString error;
        QVERIFY(copyRecursively(src, dst, &error));
        QCOMPARE(tree(dst), QStringList({".keep=k", "a=new", "stale=s", "sub", "sub/b=b"}));
        QVERIFY(mirrorDirectory(src, dst, &error));
        QCOMPARE(tree(dst), QStringList({".keep=k", "a=new", "sub", "sub/b=b"}));
        QVERIFY(mirrorDirectory(src, deep, &error));
        QCOMPARE(tree(deep), QStringList({"a=new", "sub", "sub/b=b"}));
        QVERIFY(error.isEmpty());
    }

    void copyFollowsLinksAndKeepsModes() {
        QTemporaryDir tmp;
        const QString src = tmp.filePath("src"), dst = tmp.filePath("dst");
        put(tmp.filePath("out/file"), "f");
        put(tmp.filePath("out/dir/inner"), "i");
        put(src + "/keys/linkkey", "k");
        QVERIFY(QFile::link(tmp.filePath("out/file"), src + "/filelink"));
        QVERIFY(QFile::link(tmp.filePath("out/dir"), src + "/dirlink"));
        QVERIFY(QFile::link(tmp.filePath("nowhere"), src + "/dangling"));
        const QFile::Permissions secret = QFile::ReadOwner | QFile::WriteOwner;
        const QFile::Permissions dirMode = secret | QFile::ExeOwner | QFile::ReadGroup;
        const QFile::Permissions readOnly = QFile::ReadOwner | QFile::ReadGroup;
        put(src + "/keys/readonly", "r");
        QVERIFY(QFile::setPermissions(src + "/keys/linkkey", secret));
        QVERIFY(QFile::setPermissions(src + "/keys/readonly", readOnly));
        QVERIFY(QFile::setPermissions(src + "/keys", dirMode));

        QVERIFY(mirrorDirectory(src, dst));
        QCOMPARE(tree(dst), QStringList({"dirlink", "dirlink/inner=i", "filelink=f", "keys",
                                         "keys/linkkey=k", "keys/readonly=r"}));
        // Owner, group and other bits; the "user" bits only echo the caller's access.
        const auto mode = [](const QString &p) { return QFile::permissions(p) & 0x7077; };
        QCOMPARE(mode(dst + "/keys/linkkey"), secret);
        QCOMPARE(mode(dst + "/keys"), dirMode);
        // Also when the caller may write anyway (root).
        QCOMPARE(mode(dst + "/keys/readonly"), readOnly);
    }

    void clearRemovesLinksNotTargets() {
        QTemporaryDir tmp;
        const QString dir = tmp.filePath("dir"), out = tmp.filePath("out");
        put(out + "/file", "f");
        put(out + "/sub/inner", "i");
        put(dir + "/.hidden", "h");
        put(dir + "/real/plain", "p");
        QVERIFY(QFile::link(out, dir + "/dirlink"));
        QVERIFY(QFile::link(out + "/file", dir + "/filelink"));
        QVERIFY(QFile::link(out + "/sub", dir + "/real/nested"));
        const QStringList outside = tree(out);

        QString error;
        QVERIFY(clearDirectoryContents(dir, &error));
        QCOMPARE(tree(dir), QStringList{".hidden=h"});
        QCOMPARE(tree(out), outside);
        QVERIFY(clearDirectoryContents(tmp.filePath("missing"), &error));
        QVERIFY(error.isEmpty());
    }

    void linkCycleFails_data() {
        QTest::addColumn<QString>("link"); // inside src
        QTest::addColumn<QString>("pointsTo");
        QTest::addColumn<bool>("mirror");
        QTest::newRow("parent, copy") << "a/loop"
                                      << ".." << false;
        QTest::newRow("parent, mirror") << "a/loop"
                                        << ".." << true;
        QTest::newRow("grandparent, mirror") << "a/b/loop"
                                             << "../.." << true;
    }
    void linkCycleFails() {
        QFETCH(QString, link);
        QFETCH(QString, pointsTo);
        QFETCH(bool, mirror);
        QTemporaryDir tmp;
        const QString src = tmp.filePath("src"), dst = tmp.filePath("dst");
        put(src + "/a/b/file");
        QVERIFY(QFile::link(pointsTo, src + '/' + link));
        QElapsedTimer timer;
        timer.start();
        QString error;
        QVERIFY(!(mirror ? mirrorDirectory(src, dst, &error) : copyRecursively(src, dst, &error)));
        QVERIFY2(error.startsWith("failed to copy " + src), qPrintable(error));
        QVERIFY(timer.elapsed() < 10000);
    }

    void primitiveErrors() {
        QTemporaryDir tmp;
        const QString file = tmp.filePath("file"), missing = tmp.filePath("missing");
        const QString full = tmp.filePath("full");
        put(file);
        put(full + "/x");
        QString error;
        QVERIFY(!copyRecursively(missing, tmp.filePath("t"), &error));
        QCOMPARE(error, "source path does not exist: " + missing);
        QVERIFY(!copyRecursively(file, full, &error));
        QCOMPARE(error, "failed to remove existing file: " + full);
        QVERIFY(!copyRecursively(full, file + "/sub", &error));
        QCOMPARE(error, "failed to create directory: " + file + "/sub");
        for (const QString &source : {missing, file}) {
            QVERIFY(!mirrorDirectory(source, tmp.filePath("t"), &error));
            QCOMPARE(error, "source directory does not exist: " + source);
        }
        QVERIFY(!mirrorDirectory(full, file + "/a/b", &error));
        QCOMPARE(error, "failed to create parent directory: " + file + "/a");
        QVERIFY(!QFileInfo::exists(tmp.filePath("t")));
    }

    void unremovableEntry_data() {
        QTest::addColumn<QString>("locked");
        QTest::addColumn<QString>("message");
        QTest::newRow("file") << "f"
                              << "failed to remove file: %1/f";
        QTest::newRow("in subdirectory") << "d/f"
                                         << "failed to remove directory: %1/d";
    }
    void unremovableEntry() {
        QFETCH(QString, locked);
        QFETCH(QString, message);
        QTemporaryDir tmp;
        const QString path = tmp.filePath(locked);
        put(path);
        if (!setImmutable(path, true))
            QSKIP("no immutable attribute on this file system, and nothing else stops root");
        QString error;
        const bool cleared = clearDirectoryContents(tmp.path(), &error);
        setImmutable(path, false);
        QVERIFY(!cleared);
        QCOMPARE(error, message.arg(tmp.path()));
    }

    void restoreBackupFrom() {
        QTemporaryDir tmp;
        const QString store = tmp.filePath("store"), backup = tmp.filePath("backup");
        put(store + "/stale/info", "s");
        put(store + "/.hidden", "h");
        const QStringList before = tree(store);
        QString error;
        QVERIFY(ks::restoreBackupFrom(backup, store, &error));
        put(backup);
        QVERIFY(ks::restoreBackupFrom(backup, store, &error));
        QCOMPARE(tree(store), before);
        QVERIFY(error.isEmpty());

        QFile::remove(backup);
        put(backup + "/A/D/info", "i");
        QVERIFY(ks::restoreBackupFrom(backup, store, &error));
        QCOMPARE(tree(store), QStringList({".hidden=h", "A", "A/D", "A/D/info=i"}));
    }

    void overlappingPathsAreRefused() {
        QTemporaryDir tmp;
        const QString store = tmp.filePath("store"), link = tmp.filePath("link");
        put(store + "/A/info", "i");
        QVERIFY(QFile::link(store, link));
        const QStringList before = tree(store);
        QString error;
        QVERIFY(!mirrorDirectory(store, link, &error));
        QVERIFY(!mirrorDirectory(store, store + "/A/inner", &error));
        QVERIFY(!ks::restoreBackupFrom(link, store, &error));
        QCOMPARE(error, "failed to create directory: " + store);
        QCOMPARE(tree(store), before);
    }

    // A link planted anywhere on the backup's way below the trusted root must
    // stop the save before anything is cleared through it.
    void saveRefusesPlantedLinks_data() {
        QTest::addColumn<QString>("linked");
        QTest::addColumn<QString>("message");
        QTest::newRow("backup itself")
            << "config/files/var_bluetooth"
            << "failed to create directory: %1/config/files/var_bluetooth";
        QTest::newRow("parent") << "config/files"
                                << "failed to create parent directory: %1/config/files";
        QTest::newRow("grandparent") << "config"
                                     << "failed to create parent directory: %1/config";
    }

    void saveRefusesPlantedLinks() {
        QFETCH(QString, linked);
        QFETCH(QString, message);
        QTemporaryDir tmp;
        const QString trusted = tmp.filePath("tmp"), victim = tmp.filePath("victim");
        put(tmp.filePath("store/A/info"), "i");
        put(victim + "/precious", "p");
        QVERIFY(QDir().mkpath(QFileInfo(trusted + "/" + linked).absolutePath()));
        QVERIFY(QFile::link(victim, trusted + "/" + linked));
        QString error;
        QVERIFY(!saveBackupTo(tmp.filePath("store"), trusted + "/config/files/var_bluetooth",
                              trusted, &error));
        QCOMPARE(error, message.arg(trusted));
        QCOMPARE(tree(victim), QStringList{"precious=p"});
        // Without the planted link the same save goes through.
        QVERIFY(QFile::remove(trusted + "/" + linked));
        QVERIFY(saveBackupTo(tmp.filePath("store"), trusted + "/config/files/var_bluetooth",
                             trusted, &error));
        QCOMPARE(tree(trusted + "/config/files/var_bluetooth"), tree(tmp.filePath("store")));
    }

    // A restore must not copy a tree someone else planted in /tmp into the store.
    void restoreRefusesForeignBackup() {
        if (geteuid() != 0)
            QSKIP("handing a directory to another owner needs root");
        QTemporaryDir tmp;
        const QString trusted = tmp.filePath("tmp"), store = tmp.filePath("store");
        const QString backup = trusted + "/config/files/var_bluetooth";
        put(store + "/A/info", "mine");
        put(tmp.filePath("planted/A/info"), "theirs");
        QVERIFY(QDir().mkpath(trusted + "/config/files"));
        QVERIFY(QFile::link(tmp.filePath("planted"), backup));
        QString error;
        QVERIFY(!restoreTrustedBackup(backup, store, trusted, &error));
        QCOMPARE(error, "untrusted backup path: " + backup);
        QCOMPARE(tree(store), QStringList({"A", "A/info=mine"}));
        // Foreign ownership of a parent is refused the same way.
        QVERIFY(QFile::remove(backup));
        put(backup + "/A/info", "restored");
        QVERIFY(::chown(QFile::encodeName(trusted + "/config").constData(), 4242, 4242) == 0);
        QVERIFY(!restoreTrustedBackup(backup, store, trusted, &error));
        QCOMPARE(error, "untrusted backup path: " + trusted + "/config");
        QVERIFY(::chown(QFile::encodeName(trusted + "/config").constData(), geteuid(), getegid()) ==
                0);
        QVERIFY(restoreTrustedBackup(backup, store, trusted, &error));
        QCOMPARE(tree(store), QStringList({"A", "A/info=restored"}));
    }

    void forgetStoredDevice_data() {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QStringList>("removed");
        QTest::addColumn<QStringList>("records"); // either may be the last one deleted
        QTest::newRow("every adapter")
            << " aa-bb-cc-dd-ee-ff "
            << QStringList{"A1/AA:BB:CC:DD:EE:FF", R"(A2/aa\:bb\:cc\:dd\:ee\:ff)"}
            << QStringList{"A1 AA:BB:CC:DD:EE:FF name=One", "A2 aa:bb:cc:dd:ee:ff "};
        QTest::newRow("one") << "11:22:33:44:55:66" << QStringList{"A1/11:22:33:44:55:66"}
                             << QStringList{"A1 11:22:33:44:55:66 name=Other|trusted"};
        QTest::newRow("link, not its target") << "cc-cc-cc-cc-cc-cc" << QStringList{"A3/CC"}
                                              << QStringList{"A3 CC:CC:CC:CC:CC:CC name=Out"};
        QTest::newRow("not through a linked adapter")
            << "DD:DD:DD:DD:DD:DD" << QStringList{} << QStringList{};
        QTest::newRow("no match") << "AA:BB:CC:DD:EE:00" << QStringList{} << QStringList{};
        QTest::newRow("prefix only") << "aa:bb:cc:dd:ee:f" << QStringList{} << QStringList{};
    }
    void forgetStoredDevice() {
        QFETCH(QString, address);
        QFETCH(QStringList, removed);
        QFETCH(QStringList, records);
        QTemporaryDir tmp;
        const QString root = tmp.filePath("store");
        put(root + "/A1/AA:BB:CC:DD:EE:FF/info", "[General]\nName=One");
        put(root + "/A1/11:22:33:44:55:66/info", "[General]\nName=Other\nTrusted=true");
        put(root + "/A1/cache/AA:BB:CC:DD:EE:FF", "c");
        put(root + "/A1/settings", "s");
        put(root + R"(/A2/aa\:bb\:cc\:dd\:ee\:ff/attributes)", "a");
        put(tmp.filePath("outside/info"), "[General]\nName=Out");
        QDir().mkpath(root + "/A3");
        QVERIFY(QFile::link(tmp.filePath("outside"), root + "/A3/CC:CC:CC:CC:CC:CC"));
        put(tmp.filePath("away/DD:DD:DD:DD:DD:DD/info"), "[General]\nName=Away");
        QVERIFY(QFile::link(tmp.filePath("away"), root + "/A4"));
        QStringList expected;
        for (const QString &entry : tree(root)) {
            if (std::none_of(removed.begin(), removed.end(),
                             [&](const QString &dir) { return entry.startsWith(dir); }))
                expected << entry;
        }

        StoredDevice record;
        record.name = "sentinel";
        QCOMPARE(ks::forgetStoredDevice(address, &record, root), !removed.isEmpty());
        QCOMPARE(tree(root), expected);
        QCOMPARE(tree(tmp.filePath("outside")), QStringList{"info=[General]\nName=Out"});
        QCOMPARE(tree(tmp.filePath("away")),
                 QStringList({"DD:DD:DD:DD:DD:DD", "DD:DD:DD:DD:DD:DD/info=[General]\nName=Away"}));
        const QString got = record.adapter + ' ' + record.address + ' ' + describe(record);
        if (records.isEmpty())
            QCOMPARE(got, QString("  name=sentinel"));
        else
            QVERIFY2(records.contains(got), qPrintable(got));

        QDir().mkpath(tmp.filePath("empty"));
        QVERIFY(!ks::forgetStoredDevice(address, nullptr, tmp.filePath("empty")));
        QVERIFY(!ks::forgetStoredDevice(address, nullptr, tmp.filePath("missing")));
    }
};

QTEST_GUILESS_MAIN(TestStorage)
#include "test_storage.moc"
