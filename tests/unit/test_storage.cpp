#include "core/utf8.h"
#include "storage/atomicfile.h"
#include "storage/backup.h"
#include "storage/forgetstored.h"
#include "storage/infofile.h"
#include "storage/lock.h"
#include "storage/replacetree.h"
#include "storage/storelisting.h"
#include "storage/tree.h"
#include "storage/trustedpath.h"
#include "testing.h"

#include <QDirIterator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace kelvane::storage;
namespace ks = kelvane::storage;

namespace {

QByteArray name(const QString &path) {
    return QFile::encodeName(path);
}

// Creates entries below root, written as tree() lists them: "path=content" for
// a file, "path@target" for a link, a bare path for a directory; and
// "chmod MODE path", "move FROM TO".
void plant(const QString &root, const QStringList &entries) {
    for (const QString &entry : entries) {
        const QStringList words = entry.split(' ');
        if (words[0] == "chmod")
            QVERIFY(::chmod(name(root + '/' + words[2]), words[1].toUInt(nullptr, 8)) == 0);
        if (words[0] == "move")
            QVERIFY(QDir(root).rename(words[1], words[2]));
        if (words[0] == "chmod" || words[0] == "move")
            continue;
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

// Every entry below root, hidden ones too: "path=content" for files, "path@" for links.
QStringList tree(const QString &root) {
    QStringList entries;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        QFile file(info.filePath());
        entries << QDir(root).relativeFilePath(info.filePath()) +
                       (info.isSymLink() ? "@"
                        : info.isFile() && file.open(QIODevice::ReadOnly)
                            ? '=' + QString::fromUtf8(file.readAll())
                            : "");
    }
    entries.sort();
    return entries;
}

struct stat statOf(const QString &path) {
    struct stat st {};
    ::lstat(name(path), &st);
    return st;
}

// The fields that differ from a fresh record, as "key=value|...".
QString describe(const StoredDevice &d) {
    const auto num = [](const auto &v, int base) { return v ? QString::number(*v, base) : ""; };
    QStringList fields{"name=" + d.name,
                       "type=" + d.addressType,
                       "tech=" + d.supportedTechnologies.join(','),
                       QString("trusted=") + (d.trusted ? "1" : ""),
                       QString("blocked=") + (d.blocked ? "1" : ""),
                       QString("wake=") + (d.wakeAllowed ? "1" : ""),
                       "class=" + num(d.deviceClass, 16),
                       "appearance=" + num(d.appearance, 16),
                       "services=" + d.services.join(','),
                       "vendor=" + num(d.vendor, 10),
                       "product=" + num(d.product, 10),
                       "version=" + num(d.version, 10)};
    return fields.filter(QRegularExpression("^\\w+=.")).join('|');
}

} // namespace

class TestStorage : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_tmp; // fresh for every test
    QString at(const QString &path) const { return m_tmp->filePath(path); }
    Fd open(const QString &path) const { return Fd(::open(name(at(path)), O_RDONLY)); }

private slots:
    void init() { m_tmp = std::make_unique<QTemporaryDir>(); }

    // What an info file's text fills in: the fields that differ from a fresh record.
    void parseInfoText_data() {
        ruleColumns();
        const auto row = [](const QByteArray &text, const QByteArray &fields) {
            rule("info", kelvane::core::fromUtf8(text), kelvane::core::fromUtf8(fields));
        };
        // Trimmed, the last one wins, '=' in a value.
        row("[General]\nName=A\n  Name = Zo\xc3\xab = x \n", "name=Zo\xc3\xab = x");
        // Outside [General], comments, no key, no '=', no closing bracket.
        row("Name=A\n# Name=B\n[General]\n; Name=C\n\n  #Name=D\n=E\nNameF\n[General\n[Name=G\n"
            "Trusted=1\n",
            "trusted=1");
        row("[General]\r\nName=Foo\r\nTrusted=yes\r\n", "name=Foo|trusted=1");
        // Other sections, a bracketed line.
        row("[general]\nName=A\n[LinkKey]\nName=B\n[ General]\nName=C\n"
            "[General]\n[Name=x]\nName=D\n",
            "");
        row("[General]\nClass=0X00240404\nAppearance=0x03c1\nAddressType=public\nTrusted=TRUE\n"
            "SupportedTechnologies=BR/EDR;LE;\nServices= a-1; b 2 ;; ;\nBlocked= yes\n"
            "WakeAllowed=1\n[DeviceID]\nVendor=76\nProduct=2\nVersion=65537\n",
            "type=public|tech=BR/EDR,LE|trusted=1|blocked=1|wake=1|class=240404|appearance=3c1|"
            "services=a-1,b 2|vendor=76|product=2|version=1");
        // Flags cleared, bad hexadecimal numbers.
        row("[General]\nTrusted=1\nTrusted=false\nBlocked=1\nBlocked= NO \nWakeAllowed=1\n"
            "WakeAllowed=0\nClass=1\nClass=xyz\nAppearance=1\nAppearance=\n",
            "");
        // Unknown words keep flags.
        row("[General]\nTrusted= True \nTrusted=truee\nBlocked=Yes\nBlocked=2\nWakeAllowed=\n",
            "trusted=1|blocked=1");
        // At most 32 bits and an optional "0x"; the appearance keeps the low 16.
        row("[General]\nClass=FFFFFFFF\nAppearance= 0X00240404\n", "class=ffffffff|appearance=404");
        for (const char *bad : {"0x100000000", "0x", "0x0x1", "+1", "1 2", "1g"})
            row("[General]\nClass=" + QByteArray(bad), "");
        // The device ID is decimal only.
        row("[DeviceID]\nVendor=76\nVendor=abc\nProduct=0x004c\n[General]\nVersion=5", "vendor=76");
        // A NUL does not end a line; a leading byte order mark is text like any other.
        row(QByteArray("[General]\nName=a\0b\n\xEF\xBB\xBF[DeviceID]\nVendor=7\n", 40),
            QByteArray("name=a\0b", 8));
    }
    void parseInfoText() {
        checkRule({{"info", [](const QString &text) {
                        StoredDevice device;
                        ks::parseInfoText(text.toUtf8(), device);
                        return describe(device);
                    }}});
    }

    void listStoredDevices() {
        plant(at("store"), {"A1/00:11:22:33:44:55/info=[General]\nName=alpha",
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
        for (const StoredDevice &d : ks::listStoredDevices(at("store")))
            got << d.name + ' ' + d.address + ' ' + (d.address[0] == 'A' ? "A?" : d.adapter);
        QCOMPARE(got, QStringList({"Linked 33:33:33:33:33:33 linked", "Zeta 22:22:22:22:22:22 A1",
                                   "Zeta AA:BB:CC:DD:EE:FF A?", "Zeta AA:BB:CC:DD:EE:FF A?",
                                   " 11:11:11:11:11:11 A1", "alpha 00:11:22:33:44:55 A1",
                                   "esc 00:11:22:33:44:66 A1"}));
        QVERIFY(ks::listStoredDevices(at("missing")).empty());
    }

    // Every piece of the way down from a world-writable root must be a real
    // directory of ours that nobody else may write; missing ones are made
    // with exactly the asked mode, whatever the umask.
    void trustedPieces_data() {
        QTest::addColumn<QStringList>("planted");
        QTest::addColumn<int>("state");
        QTest::addColumn<QString>("reached");
        const auto row = [](const char *name, QStringList planted, PieceState state,
                            const char *reached) {
            QTest::newRow(name) << planted << int(state) << QString(reached);
        };
        row("created", {}, PieceState::Trusted, "a/b");
        row("ours", {"root/a/b/x=1"}, PieceState::Trusted, "a/b");
        row("link", {"victim/x=1", "root/a@../victim"}, PieceState::Untrusted, "a");
        row("file", {"root/a/b=1"}, PieceState::NotDirectory, "a/b");
        row("writable by others", {"root/a/b", "chmod 0777 root/a"}, PieceState::Untrusted, "a");
        row("writable by group", {"root/a/b", "chmod 0775 root/a/b"}, PieceState::Untrusted, "a/b");
        row("sticky is no excuse below the root", {"root/a", "chmod 01777 root/a"},
            PieceState::Untrusted, "a");
        row("another owner", {"root/a", "chown"}, PieceState::Untrusted, "a");
        row("a root anyone may write, not sticky", {"chmod 0777 root"}, PieceState::Untrusted, "");
    }
    void trustedPieces() {
        QFETCH(QStringList, planted);
        QFETCH(int, state);
        QFETCH(QString, reached);
        if (planted.removeAll("chown") && ::geteuid() != 0)
            QSKIP("handing a directory to another owner needs root");
        plant(m_tmp->path(), QStringList{"root", "chmod 01777 root"} + planted);
        if (QTest::currentDataTag() == QByteArray("another owner"))
            QVERIFY(::chown(name(at("root/a")), 4242, 4242) == 0);
        const mode_t umask = ::umask(0);
        Piece piece = openTrustedRoot(at("root"));
        for (const char *child : {"a", "b"}) {
            if (piece.state == PieceState::Trusted)
                piece = openTrustedChild(piece, child, Create::IfAbsent, 0751);
        }
        ::umask(umask);
        QCOMPARE(int(piece.state), state);
        QCOMPARE(piece.path, QDir::cleanPath(at("root/" + reached)));
        if (QTest::currentDataTag() == QByteArray("created"))
            QCOMPARE(statOf(at("root/a")).st_mode & 07777, mode_t(0751));
    }

    // A save copies the store following links: plain files and directories
    // with the source's permission bits and times (else the next save would
    // find them changed). What has no finite or regular copy is left out:
    // hidden entries, pipes, dangling links, links back up. An unchanged store
    // is not copied again; after a change only what changed is, the rest is
    // linked from the previous copy.
    void saveCopiesOnlyChanges() {
        const BackupLocation backup{at("tmp"), {"config"}, "backup"};
        plant(m_tmp->path(),
              {"out/file=f", "out/dir/inner=i", "store/A/one=1", "store/A/two=2", "store/.hidden=h",
               "store/keys/linkkey=k", "store/filelink@../out/file", "store/dirlink@../out/dir",
               "store/dangling@../nowhere", "store/A/loop@..", "store/A/deep/up@../../A", "tmp",
               "chmod 0400 store/keys/linkkey", "chmod 0500 store/keys"});
        QVERIFY(::mkfifo(name(at("store/pipe")), 0600) == 0);
        const auto inode = [&](const char *path) { return statOf(backup.path() + path).st_ino; };
        QVERIFY(saveBackupTo(at("store"), backup));
        QCOMPARE(tree(backup.path()),
                 QStringList({"A", "A/deep", "A/one=1", "A/two=2", "dirlink", "dirlink/inner=i",
                              "filelink=f", "keys", "keys/linkkey=k"}));
        QCOMPARE(statOf(backup.path() + "/keys/linkkey").st_mode & 07777, mode_t(0400));
        QCOMPARE(statOf(backup.path() + "/keys").st_mode & 07777, mode_t(0500));
        const ino_t root = inode(""), one = inode("/A/one"), two = inode("/A/two");
        QVERIFY(saveBackupTo(at("store"), backup));
        QCOMPARE(inode(""), root);
        plant(at("store"), {"A/two=3", "C/four=4"}); // changed in place, at the same size
        QVERIFY(saveBackupTo(at("store"), backup));
        QVERIFY(inode("") != root && inode("/A/two") != two);
        QCOMPARE(inode("/A/one"), one);
        QCOMPARE(tree(backup.path()).filter(QRegularExpression("^(A/t|C)")),
                 QStringList({"A/two=3", "C", "C/four=4"}));
        plant(m_tmp->path(), {"chmod 0700 store/keys", "chmod 0700 tmp/config/backup/keys"});
    }

    // A store that is a link (to persistent storage, say) stays a link: the
    // restored tree goes where the store really lives.
    void restoreThroughALinkedStore() {
        plant(m_tmp->path(), {"tmp/config/backup/A/info=new", "real/A/info=old", "store@real"});
        QVERIFY(restoreBackupTo({at("tmp"), {"config"}, "backup"}, at("store")));
        QCOMPARE(tree(m_tmp->path()).filter(QRegularExpression("^(real|store)")),
                 QStringList({"real", "real/A", "real/A/info=new", "store@"}));
    }

    // One run at a time; a second one waits its bound, then gives up. A link
    // is no lock file.
    void lock() {
        kelvane::core::Expected<StoreLock> first =
            lockStore(at("lock"), std::chrono::milliseconds(0));
        QVERIFY(first);
        const auto second = lockStore(at("lock"), std::chrono::milliseconds(120));
        QCOMPARE(second ? QString() : second.error().message,
                 "another kelvane run is still busy (" + at("lock") + ")");
        first = kelvane::core::failure("released");
        QVERIFY(lockStore(at("lock"), std::chrono::milliseconds(0)));
        QVERIFY(QFile::link(at("elsewhere"), at("link")));
        QVERIFY(!lockStore(at("link"), std::chrono::milliseconds(0)));
        QVERIFY(!QFileInfo::exists(at("elsewhere")));
        QVERIFY(::link(name(at("lock")), name(at("hard"))) == 0);
        QVERIFY(!lockStore(at("hard"), std::chrono::milliseconds(0)));
    }

    // What a killed run left: before the point of no return the old tree
    // stays, after it the new one is completed; nothing of the work is left.
    void recover_data() {
        QTest::addColumn<QStringList>("left");
        QTest::addColumn<QStringList>("expected");
        const QStringList old{".hidden=h", "A", "A/info=old", "B", "B/info=old"};
        const QStringList fresh{".hidden=h", "A", "A/info=new", "C", "C/info=new"};
        const QStringList ready{"tree/.kelvane-ready/A/info=new", "tree/.kelvane-ready/C/info=new"};
        QTest::newRow("staging beside") << QStringList{".tree.kelvane-staging/A/info=half"} << old;
        QTest::newRow("staging inside") << QStringList{"tree/.kelvane-staging/A/info=half"} << old;
        QTest::newRow("ready, nothing moved") << ready << fresh;
        QTest::newRow("old half aside")
            << ready + QStringList{"tree/.kelvane-retiring", "move tree/B tree/.kelvane-retiring/B"}
            << fresh;
        QTest::newRow("new half in")
            << QStringList{"tree/.kelvane-ready/C/info=new", "tree/.kelvane-retired",
                           "move tree/A tree/.kelvane-retired/A",
                           "move tree/B tree/.kelvane-retired/B", "tree/A/info=new"}
            << fresh;
        QTest::newRow("only the old left to delete")
            << QStringList{"tree/.kelvane-retired/A/info=old"} << old;
    }
    void recover() {
        QFETCH(QStringList, left);
        QFETCH(QStringList, expected);
        plant(m_tmp->path(), {"tree/.hidden=h", "tree/A/info=old", "tree/B/info=old"});
        plant(m_tmp->path(), left);
        const Fd parent = open(".");
        recoverTree({parent.get(), m_tmp->path(), "tree"});
        QCOMPARE(tree(at("tree")), expected);
        QCOMPARE(tree(m_tmp->path()).filter("kelvane"), QStringList());
    }

    // Whatever sits at the name is replaced, never opened or followed, and
    // the mode is exact whatever the umask.
    void replaceFile() {
        plant(m_tmp->path(),
              {"victim=precious", "link@victim", ".events.0123=stale", ".events.4567=theirs"});
        QVERIFY(::mkfifo(name(at("pipe")), 0600) == 0);
        // Another user's file that only looks like a leftover of ours stays (as root).
        const bool foreign = ::chown(name(at(".events.4567")), 4242, 4242) == 0;
        const mode_t umask = ::umask(0);
        for (const char *entry : {"link", "pipe", "new"})
            QVERIFY(ks::replaceFile(m_tmp->path(), entry, "[]\n", 0644));
        ::umask(umask);
        QVERIFY(!ks::replaceFile(at("victim"), "x", "[]\n", 0644));
        removeStaleTemporaries(m_tmp->path(), "events");
        QCOMPARE(tree(m_tmp->path()),
                 (foreign ? QStringList{".events.4567=theirs"} : QStringList{}) +
                     QStringList({"link=[]\n", "new=[]\n", "pipe=[]\n", "victim=precious"}));
        QCOMPARE(statOf(at("new")).st_mode & 07777, mode_t(0644));
    }

    // Under every adapter, links to adapters included; a device link loses
    // the link, not its target, and so does a link inside a device; an adapter
    // another user may write is left alone.
    void forgetStoredDevice_data() {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QStringList>("gone");
        QTest::addColumn<QStringList>("records"); // either may be the last one deleted
        QTest::newRow("every adapter")
            << " aa-bb-cc-dd-ee-ff "
            << QStringList{"store/A1/AA:BB:CC:DD:EE:FF", R"(store/A2/aa\:bb\:cc\:dd\:ee\:ff)"}
            << QStringList{"A1 AA:BB:CC:DD:EE:FF name=One", "A2 aa:bb:cc:dd:ee:ff "};
        QTest::newRow("link, not its target") << "cc-cc-cc-cc-cc-cc" << QStringList{"store/A3/CC"}
                                              << QStringList{"A3 CC:CC:CC:CC:CC:CC name=Out"};
        QTest::newRow("through a linked adapter") << "DD:DD:DD:DD:DD:DD" << QStringList{"away/DD"}
                                                  << QStringList{"A4 DD:DD:DD:DD:DD:DD name=Away"};
        QTest::newRow("adapter of others") << "EE:EE:EE:EE:EE:EE" << QStringList{} << QStringList{};
        QTest::newRow("prefix only") << "aa:bb:cc:dd:ee:f" << QStringList{} << QStringList{};
    }
    void forgetStoredDevice() {
        QFETCH(QString, address);
        QFETCH(QStringList, gone);
        QFETCH(QStringList, records);
        plant(m_tmp->path(), {"store/A1/AA:BB:CC:DD:EE:FF/info=[General]\nName=One",
                              "store/A1/AA:BB:CC:DD:EE:FF/up@../../../outside",
                              "store/A1/11:22:33:44:55:66/info=[General]\nName=Other",
                              "store/A1/cache/AA:BB:CC:DD:EE:FF=c",
                              R"(store/A2/aa\:bb\:cc\:dd\:ee\:ff/attributes=a)",
                              "store/A3/CC:CC:CC:CC:CC:CC@../../outside", "store/A4@../away",
                              "outside/info=[General]\nName=Out",
                              "away/DD:DD:DD:DD:DD:DD/info=[General]\nName=Away",
                              "store/A5/EE:EE:EE:EE:EE:EE/info=x", "chmod 0777 store/A5"});
        QStringList expected = tree(m_tmp->path());
        for (const QString &dir : gone)
            expected =
                expected.filter(QRegularExpression("^(?!" + QRegularExpression::escape(dir) + ")"));
        StoredDevice record;
        record.name = "sentinel";
        QCOMPARE(ks::forgetStoredDevice(address, &record, at("store")), !gone.isEmpty());
        QCOMPARE(tree(m_tmp->path()), expected);
        const QString got = record.adapter + ' ' + record.address + ' ' + describe(record);
        QVERIFY2(records.isEmpty() ? got == "  name=sentinel" : records.contains(got),
                 qPrintable(got));
        QVERIFY(!ks::forgetStoredDevice(address, nullptr, at("missing")));
    }
};

QTEST_GUILESS_MAIN(TestStorage)
#include "test_storage.moc"
