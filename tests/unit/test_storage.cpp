#include "storage/backup.h"
#include "storage/forgetstored.h"
#include "storage/infofile.h"
#include "storage/storelisting.h"

#include <QDirIterator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <memory>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

using namespace kelvane::storage;
namespace ks = kelvane::storage;

namespace {

// Creates entries below root, written as tree() lists them: "path=content" for a file,
// "path@target" for a link, a bare path for a directory.
void plant(const QString &root, const QStringList &entries) {
    for (const QString &entry : entries) {
        const int mark = entry.indexOf(QRegularExpression("[=@]"));
        const QString path = root + '/' + entry.left(mark);
        QVERIFY(QDir().mkpath(mark < 0 ? path : QFileInfo(path).path()));
        QFile file(path);
        if (mark >= 0 && entry[mark] == '@')
            QVERIFY(QFile::link(entry.mid(mark + 1), path));
        else if (mark >= 0)
            QVERIFY(file.open(QIODevice::WriteOnly) &&
                    file.write(entry.mid(mark + 1).toUtf8()) >= 0);
    }
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
        if (info.isSymLink())
            entry += '@';
        else if (QFile file(info.filePath()); info.isFile() && file.open(QIODevice::ReadOnly))
            entry += '=' + QString::fromUtf8(file.readAll());
        entries << entry;
    }
    entries.sort();
    return entries;
}

// The fields that differ from a fresh record, as "key=value|...".
QString describe(const StoredDevice &d) {
    const auto num = [](const auto &v, int base) { return v ? QString::number(*v, base) : ""; };
    const auto flag = [](bool set) { return QString(set ? "1" : ""); };
    QStringList fields;
    fields << "name=" + d.name << "type=" + d.addressType
           << "tech=" + d.supportedTechnologies.join(',') << "trusted=" + flag(d.trusted)
           << "blocked=" + flag(d.blocked) << "wake=" + flag(d.wakeAllowed)
           << "class=" + num(d.deviceClass, 16) << "appearance=" + num(d.appearance, 16)
           << "services=" + d.services.join(',') << "vendor=" + num(d.vendor, 10)
           << "product=" + num(d.product, 10) << "version=" + num(d.version, 10);
    return fields.filter(QRegularExpression("^\\w+=.")).join('|');
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

    std::unique_ptr<QTemporaryDir> m_tmp; // fresh for every test
    QString at(const QString &name) const { return m_tmp->filePath(name); }

private slots:
    void init() { m_tmp = std::make_unique<QTemporaryDir>(); }

    void parseInfoFile_data() {
        QTest::addColumn<QString>("content");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const char *content, const char *expected) {
            QTest::newRow(name) << QString::fromUtf8(content) << QString::fromUtf8(expected);
        };
        row("trim, last wins, '=' in value", "[General]\nName=A\n  Name = Zo\xc3\xab = x \n",
            "name=Zo\xc3\xab = x");
        row("skipped lines",
            "Name=A\n# Name=B\n[General]\n; Name=C\n\n  #Name=D\n=E\nNameF\n[General\n[Name=G\n"
            "Trusted=1\n",
            "trusted=1");
        row("crlf", "[General]\r\nName=Foo\r\nTrusted=yes\r\n", "name=Foo|trusted=1");
        row("other sections, bracketed line",
            "[general]\nName=A\n[LinkKey]\nName=B\n[ General]\nName=C\n"
            "[General]\n[Name=x]\nName=D\n",
            "");
        row("every field",
            "[General]\nClass=0X00240404\nAppearance=0x03c1\nAddressType=public\nTrusted=TRUE\n"
            "SupportedTechnologies=BR/EDR;LE;\nServices= a-1; b 2 ;; ;\nBlocked= yes\n"
            "WakeAllowed=1\n[DeviceID]\nVendor=76\nProduct=2\nVersion=65537\n",
            "type=public|tech=BR/EDR,LE|trusted=1|blocked=1|wake=1|class=240404|appearance=3c1|"
            "services=a-1,b 2|vendor=76|product=2|version=1");
        row("flags cleared, bad hex",
            "[General]\nTrusted=1\nTrusted=false\nBlocked=1\nBlocked= NO \nWakeAllowed=1\n"
            "WakeAllowed=0\nClass=1\nClass=xyz\nAppearance=1\nAppearance=\n",
            "");
        row("unknown words keep flags",
            "[General]\nTrusted= True \nTrusted=truee\nBlocked=Yes\nBlocked=2\nWakeAllowed=\n",
            "trusted=1|blocked=1");
        row("device id decimal only",
            "[DeviceID]\nVendor=76\nVendor=abc\nProduct=0x004c\n[General]\nVersion=5", "vendor=76");
    }
    void parseInfoFile() {
        QFETCH(QString, content);
        QFETCH(QString, expected);
        plant(m_tmp->path(), {"info=" + content});
        StoredDevice device;
        device.adapter = "A";
        QVERIFY(ks::parseInfoFile(at("info"), device));
        QCOMPARE(describe(device), expected);
        QCOMPARE(device.adapter, QString("A"));
        QVERIFY(!ks::parseInfoFile(at("missing"), device));
        QCOMPARE(describe(device), expected);
    }

    // At most 32 bits, an optional "0x" and nothing else; the 16-bit form keeps the low bits.
    void parseHex() {
        QCOMPARE(parseHex32(" 0X00240404 "), std::optional<quint32>(0x240404));
        QCOMPARE(parseHex16(" 0X00240404 "), std::optional<quint16>(0x0404));
        QCOMPARE(parseHex32("FFFFFFFF"), std::optional<quint32>(0xFFFFFFFF));
        for (const char *text : {"0x100000000", "0x", "0x0x1", "+1", "1 2", "1g"})
            QVERIFY2(!parseHex32(text) && !parseHex16(text), text);
    }

    void listStoredDevices() {
        const QString root = at("store");
        plant(root, {"A1/00:11:22:33:44:55/info=[General]\nName=alpha",
                     "A1/AA:BB:CC:DD:EE:FF/info=[General]\nName=Zeta",
                     "A1/22:22:22:22:22:22/info=[General]\nName=Zeta",
                     "A1/00\\:11\\:22\\:33\\:44\\:66/info=[General]\nName=esc",
                     "A1/11:11:11:11:11:11/info=[LinkKey]\nKey=1\n", "A1/noinfo/other=x",
                     "A1/infodir/info", "A1/.hidden/info=[General]\nName=hidden",
                     "A2/AA:BB:CC:DD:EE:FF/info=[General]\nName=Zeta",
                     ".A3/00:00:00:00:00:00/info=[General]\nName=hidden adapter",
                     "../elsewhere/33:33:33:33:33:33/info=[General]\nName=Linked",
                     "linked@../elsewhere"});

        QStringList got;
        for (const StoredDevice &d : ks::listStoredDevices(root))
            got << d.name + ' ' + d.address + ' ' + (d.address[0] == 'A' ? "A?" : d.adapter);
        const QStringList expected{"Linked 33:33:33:33:33:33 linked", "Zeta 22:22:22:22:22:22 A1",
                                   "Zeta AA:BB:CC:DD:EE:FF A?",       "Zeta AA:BB:CC:DD:EE:FF A?",
                                   " 11:11:11:11:11:11 A1",           "alpha 00:11:22:33:44:55 A1",
                                   "esc 00:11:22:33:44:66 A1"};
        QCOMPARE(got, expected);
        QVERIFY(ks::listStoredDevices(at("missing")).empty());
    }

    void copyAndMirror() {
        const QString src = at("src"), dst = at("dst");
        plant(m_tmp->path(),
              {"out/file=f", "out/dir/inner=i", "src/a=new", "src/sub/b=b", "src/.hidden=h",
               "src/keys/linkkey=k", "src/keys/readonly=r", "src/filelink@../out/file",
               "src/dirlink@../out/dir", "src/dangling@../nowhere", "dst/a=old", "dst/stale=s",
               "dst/.keep=k"});
        const QFile::Permissions secret = QFile::ReadOwner | QFile::WriteOwner;
        const QFile::Permissions dirMode = secret | QFile::ExeOwner | QFile::ReadGroup;
        const QFile::Permissions readOnly = QFile::ReadOwner | QFile::ReadGroup;
        QVERIFY(QFile::setPermissions(src + "/keys/linkkey", secret));
        QVERIFY(QFile::setPermissions(src + "/keys/readonly", readOnly));
        QVERIFY(QFile::setPermissions(src + "/keys", dirMode));
        // Links are followed: the copy holds plain files and directories.
        const auto copiedAnd = [](QStringList entries) {
            entries += QStringList{"a=new",           "dirlink", "dirlink/inner=i",
                                   "filelink=f",      "keys",    "keys/linkkey=k",
                                   "keys/readonly=r", "sub",     "sub/b=b"};
            entries.sort();
            return entries;
        };
        QString error;
        QVERIFY(copyRecursively(src, dst, &error));
        QCOMPARE(tree(dst), copiedAnd({".keep=k", "stale=s"}));
        QVERIFY(mirrorDirectory(src, dst, &error));
        QCOMPARE(tree(dst), copiedAnd({".keep=k"}));
        QVERIFY(mirrorDirectory(src, at("x/y/dst"), &error));
        QCOMPARE(tree(at("x/y/dst")), copiedAnd({}));
        QVERIFY(error.isEmpty());
        // Owner, group and other bits; the "user" bits only echo the caller's access.
        const auto mode = [](const QString &p) { return QFile::permissions(p) & 0x7077; };
        QCOMPARE(mode(dst + "/keys/linkkey"), secret);
        QCOMPARE(mode(dst + "/keys"), dirMode);
        // Also when the caller may write anyway (root).
        QCOMPARE(mode(dst + "/keys/readonly"), readOnly);
    }

    void clearRemovesLinksNotTargets() {
        const QString dir = at("dir"), out = at("out");
        plant(m_tmp->path(),
              {"out/file=f", "out/sub/inner=i", "dir/.hidden=h", "dir/real/plain=p",
               "dir/dirlink@../out", "dir/filelink@../out/file", "dir/real/nested@../../out/sub"});
        const QStringList outside = tree(out);
        QString error;
        QVERIFY(clearDirectoryContents(dir, &error));
        QCOMPARE(tree(dir), QStringList{".hidden=h"});
        QCOMPARE(tree(out), outside);
        QVERIFY(clearDirectoryContents(at("missing"), &error));
        QVERIFY(error.isEmpty());
    }

    // A link back up the tree fails the copy instead of recursing without end.
    void linkCycleFails() {
        plant(m_tmp->path(),
              {"one/a/b/file=x", "one/a/loop@..", "two/a/b/file=x", "two/a/b/loop@../.."});
        QString error;
        QVERIFY(!copyRecursively(at("one"), at("copy"), &error));
        QVERIFY2(error.startsWith("failed to copy " + at("one")), qPrintable(error));
        QVERIFY(!mirrorDirectory(at("two"), at("mirror"), &error));
        QVERIFY2(error.startsWith("failed to copy " + at("two")), qPrintable(error));
    }

    void primitiveErrors() {
        const QString file = at("file"), missing = at("missing"), full = at("full");
        plant(m_tmp->path(), {"file=x", "full/x=x"});
        QString error;
        QVERIFY(!copyRecursively(missing, at("t"), &error));
        QCOMPARE(error, "source path does not exist: " + missing);
        QVERIFY(!copyRecursively(file, full, &error));
        QCOMPARE(error, "failed to remove existing file: " + full);
        QVERIFY(!copyRecursively(full, file + "/sub", &error));
        QCOMPARE(error, "failed to create directory: " + file + "/sub");
        for (const QString &source : {missing, file}) {
            QVERIFY(!mirrorDirectory(source, at("t"), &error));
            QCOMPARE(error, "source directory does not exist: " + source);
        }
        QVERIFY(!mirrorDirectory(full, file + "/a/b", &error));
        QCOMPARE(error, "failed to create parent directory: " + file + "/a");
        QVERIFY(!QFileInfo::exists(at("t")));
    }

    void unremovableEntry() {
        const std::pair<QString, QString> cases[] = {{"f", "failed to remove file: %1/f"},
                                                     {"d/f", "failed to remove directory: %1/d"}};
        for (const auto &[locked, message] : cases) {
            QTemporaryDir tmp;
            plant(tmp.path(), {locked + "=x"});
            if (!setImmutable(tmp.filePath(locked), true))
                QSKIP("no immutable attribute on this file system, and nothing else stops root");
            QString error;
            const bool cleared = clearDirectoryContents(tmp.path(), &error);
            setImmutable(tmp.filePath(locked), false);
            QVERIFY(!cleared);
            QCOMPARE(error, message.arg(tmp.path()));
        }
    }

    void restoreBackupFrom() {
        const QString store = at("store"), backup = at("backup"), link = at("link");
        plant(m_tmp->path(), {"store/stale/info=s", "store/.hidden=h", "link@store", "backup=x"});
        const QStringList before = tree(store);
        QString error;
        // A missing backup, or one that is not a directory, is no error.
        QVERIFY(ks::restoreBackupFrom(at("missing"), store, &error));
        QVERIFY(ks::restoreBackupFrom(backup, store, &error));
        QVERIFY(error.isEmpty());
        // Paths that lead into each other are refused before anything is cleared.
        QVERIFY(!mirrorDirectory(store, link, &error));
        QVERIFY(!mirrorDirectory(store, store + "/stale/inner", &error));
        QVERIFY(!ks::restoreBackupFrom(link, store, &error));
        QCOMPARE(error, "failed to create directory: " + store);
        QCOMPARE(tree(store), before);

        QVERIFY(QFile::remove(backup));
        plant(backup, {"A/D/info=i"});
        QVERIFY(ks::restoreBackupFrom(backup, store, &error));
        QCOMPARE(tree(store), QStringList({".hidden=h", "A", "A/D", "A/D/info=i"}));
    }

    // A link planted anywhere on the backup's way below the trusted root must
    // stop the save before anything is cleared through it.
    void saveRefusesPlantedLinks_data() {
        QTest::addColumn<QString>("linked");
        QTest::addColumn<QString>("message");
        const auto row = [](const char *linked, const char *message) {
            QTest::newRow(linked) << QString(linked) << QString(message);
        };
        row("config/files/var_bluetooth",
            "failed to create directory: %1/config/files/var_bluetooth");
        row("config/files", "failed to create parent directory: %1/config/files");
        row("config", "failed to create parent directory: %1/config");
    }
    void saveRefusesPlantedLinks() {
        QFETCH(QString, linked);
        QFETCH(QString, message);
        const QString trusted = at("tmp"), backup = trusted + "/config/files/var_bluetooth";
        plant(m_tmp->path(),
              {"store/A/info=i", "victim/precious=p", "tmp/" + linked + '@' + at("victim")});
        QString error;
        QVERIFY(!saveBackupTo(at("store"), backup, trusted, &error));
        QCOMPARE(error, message.arg(trusted));
        QCOMPARE(tree(at("victim")), QStringList{"precious=p"});
        // Without the planted link the same save goes through.
        QVERIFY(QFile::remove(trusted + "/" + linked));
        QVERIFY(saveBackupTo(at("store"), backup, trusted, &error));
        QCOMPARE(tree(backup), tree(at("store")));
    }

    // A restore must not copy a tree someone else planted in /tmp into the store.
    void restoreRefusesForeignBackup() {
        if (geteuid() != 0)
            QSKIP("handing a directory to another owner needs root");
        const QString trusted = at("tmp"), store = at("store");
        const QString backup = trusted + "/config/files/var_bluetooth";
        const QByteArray config = QFile::encodeName(trusted + "/config");
        plant(m_tmp->path(), {"store/A/info=mine", "planted/A/info=theirs",
                              "tmp/config/files/var_bluetooth@../../../planted"});
        QString error;
        QVERIFY(!restoreTrustedBackup(backup, store, trusted, &error));
        QCOMPARE(error, "untrusted backup path: " + backup);
        QCOMPARE(tree(store), QStringList({"A", "A/info=mine"}));
        // Foreign ownership of a parent is refused the same way.
        QVERIFY(QFile::remove(backup));
        plant(backup, {"A/info=restored"});
        QVERIFY(::chown(config.constData(), 4242, 4242) == 0);
        QVERIFY(!restoreTrustedBackup(backup, store, trusted, &error));
        QCOMPARE(error, "untrusted backup path: " + trusted + "/config");
        QVERIFY(::chown(config.constData(), geteuid(), getegid()) == 0);
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
        QTest::newRow("link, not its target") << "cc-cc-cc-cc-cc-cc" << QStringList{"A3/CC"}
                                              << QStringList{"A3 CC:CC:CC:CC:CC:CC name=Out"};
        QTest::newRow("not through a linked adapter")
            << "DD:DD:DD:DD:DD:DD" << QStringList{} << QStringList{};
        QTest::newRow("prefix only") << "aa:bb:cc:dd:ee:f" << QStringList{} << QStringList{};
    }
    void forgetStoredDevice() {
        QFETCH(QString, address);
        QFETCH(QStringList, removed);
        QFETCH(QStringList, records);
        const QString root = at("store");
        plant(root, {"A1/AA:BB:CC:DD:EE:FF/info=[General]\nName=One",
                     "A1/11:22:33:44:55:66/info=[General]\nName=Other",
                     "A1/cache/AA:BB:CC:DD:EE:FF=c", R"(A2/aa\:bb\:cc\:dd\:ee\:ff/attributes=a)",
                     "A3/CC:CC:CC:CC:CC:CC@../../outside", "A4@../away"});
        plant(m_tmp->path(), {"outside/info=[General]\nName=Out",
                              "away/DD:DD:DD:DD:DD:DD/info=[General]\nName=Away"});
        const QStringList outside = tree(at("outside")) + tree(at("away"));
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
        QCOMPARE(tree(at("outside")) + tree(at("away")), outside);
        const QString got = record.adapter + ' ' + record.address + ' ' + describe(record);
        if (records.isEmpty())
            QCOMPARE(got, QString("  name=sentinel"));
        else
            QVERIFY2(records.contains(got), qPrintable(got));
        QVERIFY(!ks::forgetStoredDevice(address, nullptr, at("missing")));
    }
};

QTEST_GUILESS_MAIN(TestStorage)
#include "test_storage.moc"
