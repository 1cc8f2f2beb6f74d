#include "storage/atomicfile.h"
#include "storage/backup.h"
#include "storage/forgetstored.h"
#include "storage/infofile.h"
#include "storage/lock.h"
#include "storage/replacetree.h"
#include "storage/storelisting.h"
#include "storage/tree.h"
#include "storage/trustedpath.h"

#include <QDirIterator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace kelvane::storage;
namespace ks = kelvane::storage;
namespace core = kelvane::core;

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

// The permission bits, as ls shows them.
mode_t modeOf(const QString &path) {
    struct stat st {};
    return ::lstat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_mode & 07777 : 0;
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

} // namespace

class TestStorage : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_tmp; // fresh for every test
    QString at(const QString &name) const { return m_tmp->filePath(name); }
    BackupLocation location() const { return {at("tmp"), {"config", "files"}, "var_bluetooth"}; }

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

    // A NUL does not end an info line, and a leading byte order mark is text
    // like any other (so that line is no section header).
    void infoLineBytes() {
        QFile file(at("info"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QByteArray("[General]\nName=a\0b\n\xEF\xBB\xBF[DeviceID]\nVendor=76\n", 42));
        file.close();
        StoredDevice device;
        QVERIFY(ks::parseInfoFile(at("info"), device));
        QCOMPARE(device.name, QString::fromUtf8("a\0b", 3));
        QVERIFY(!device.vendor);
    }

    // Links are followed: the copy holds plain files and directories, with
    // the source's permission bits and times. What has no finite or regular
    // copy is left out: hidden entries, pipes, dangling links, links back up.
    void copyVisibleEntries() {
        plant(m_tmp->path(),
              {"out/file=f", "out/dir/inner=i", "src/a=new", "src/sub/b=b", "src/.hidden=h",
               "src/keys/linkkey=k", "src/filelink@../out/file", "src/dirlink@../out/dir",
               "src/dangling@../nowhere", "src/sub/loop@..", "src/sub/deep/up@../../sub"});
        QVERIFY(::mkfifo(QFile::encodeName(at("src/pipe")).constData(), 0600) == 0);
        QVERIFY(QFile::setPermissions(at("src/keys/linkkey"), QFile::ReadOwner));
        QVERIFY(QFile::setPermissions(at("src/keys"), QFile::ReadOwner | QFile::ExeOwner));
        QVERIFY(QDir().mkdir(at("dst")));
        const Fd source(::open(QFile::encodeName(at("src")).constData(), O_RDONLY | O_DIRECTORY));
        const Fd target(::open(QFile::encodeName(at("dst")).constData(), O_RDONLY | O_DIRECTORY));

        QVERIFY(ks::copyVisibleEntries(source.get(), at("src"), target.get(), at("dst")));

        QCOMPARE(tree(at("dst")),
                 QStringList({"a=new", "dirlink", "dirlink/inner=i", "filelink=f", "keys",
                              "keys/linkkey=k", "sub", "sub/b=b", "sub/deep"}));
        QCOMPARE(modeOf(at("dst/keys/linkkey")), mode_t(0400));
        QCOMPARE(modeOf(at("dst/keys")), mode_t(0500));
        QCOMPARE(QFileInfo(at("dst/a")).lastModified(), QFileInfo(at("src/a")).lastModified());
        for (const char *keys : {"src/keys", "dst/keys"}) // so that the test's directory can go
            QVERIFY(::chmod(QFile::encodeName(at(keys)).constData(), 0700) == 0);
    }

    // Removing never follows a link, at the top or below it.
    void removeTreeAt() {
        plant(m_tmp->path(), {"out/file=f", "out/sub/inner=i", "dir/real/plain=p",
                              "dir/dirlink@../out", "dir/real/nested@../../out/sub", "top@out"});
        const Fd base(::open(QFile::encodeName(m_tmp->path()).constData(), O_RDONLY));
        QVERIFY(ks::removeTreeAt(base.get(), "dir"));
        QVERIFY(ks::removeTreeAt(base.get(), "top"));
        QVERIFY(ks::removeTreeAt(base.get(), "missing"));
        QCOMPARE(tree(m_tmp->path()),
                 QStringList({"out", "out/file=f", "out/sub", "out/sub/inner=i"}));
    }

    // Every piece of the way down from a world-writable root must be a real
    // directory of ours that nobody else may write; missing ones are made
    // with exactly the asked mode, whatever the umask.
    void trustedPieces_data() {
        QTest::addColumn<QStringList>("planted");
        QTest::addColumn<int>("state");
        QTest::addColumn<QString>("at");
        const auto row = [](const char *name, QStringList planted, PieceState state,
                            const char *at) {
            QTest::newRow(name) << planted << int(state) << QString(at);
        };
        row("created", {}, PieceState::Trusted, "a/b");
        row("ours", {"root/a/b/x=1"}, PieceState::Trusted, "a/b");
        row("link", {"victim/x=1", "root/a@../victim"}, PieceState::Untrusted, "a");
        row("file", {"root/a/b=1"}, PieceState::NotDirectory, "a/b");
        row("writable by others", {"root/a/b/", "chmod 0777 root/a"}, PieceState::Untrusted, "a");
        row("writable by group", {"root/a/b/", "chmod 0775 root/a/b"}, PieceState::Untrusted,
            "a/b");
        row("sticky is no excuse below the root", {"root/a/", "chmod 01777 root/a"},
            PieceState::Untrusted, "a");
        row("another owner", {"root/a/", "chown root/a"}, PieceState::Untrusted, "a");
    }
    void trustedPieces() {
        QFETCH(QStringList, planted);
        QFETCH(int, state);
        QFETCH(QString, at);
        QStringList entries;
        for (const QString &entry : planted) {
            const QStringList words = entry.split(' ');
            if (words[0] == "chmod")
                QVERIFY(::chmod(QFile::encodeName(this->at(words[2])).constData(),
                                words[1].toUInt(nullptr, 8)) == 0);
            else if (words[0] == "chown" && ::geteuid() != 0)
                QSKIP("handing a directory to another owner needs root");
            else if (words[0] == "chown")
                QVERIFY(::chown(QFile::encodeName(this->at(words[1])).constData(), 4242, 4242) ==
                        0);
            else
                plant(m_tmp->path(), {entry.endsWith('/') ? entry.chopped(1) : entry});
        }
        QVERIFY(QDir().mkpath(this->at("root")));
        QVERIFY(::chmod(QFile::encodeName(this->at("root")).constData(), 01777) == 0);
        const mode_t umask = ::umask(0);
        Piece piece = openTrustedRoot(this->at("root"));
        for (const QString &name : {QString("a"), QString("b")}) {
            if (piece.state != PieceState::Trusted)
                break;
            piece = openTrustedChild(piece, name, Create::IfAbsent, 0751);
        }
        ::umask(umask);
        QCOMPARE(int(piece.state), state);
        QCOMPARE(piece.path, this->at("root/") + at);
        if (QTest::currentDataTag() == QLatin1String("created"))
            QCOMPARE(modeOf(this->at("root/a")), mode_t(0751));
    }

    // A backup path through a link is refused before anything is written
    // through it; without the link the same save goes through, and the
    // backup keeps its own hidden entries.
    void saveRefusesPlantedLinks_data() {
        QTest::addColumn<QString>("linked");
        QTest::addColumn<QString>("message");
        QTest::newRow("backup") << "config/files/var_bluetooth"
                                << "failed to create directory: %1/config/files/var_bluetooth";
        for (const char *parent : {"config/files", "config"})
            QTest::newRow(parent) << parent << "failed to create parent directory: %1/config/files";
    }
    void saveRefusesPlantedLinks() {
        QFETCH(QString, linked);
        QFETCH(QString, message);
        const BackupLocation backup = location();
        plant(m_tmp->path(), {"store/A/info=i", "store/.mine=m", "victim/precious=p",
                              "tmp/" + linked + '@' + at("victim")});
        const core::Status refused = saveBackupTo(at("store"), backup);
        QVERIFY(!refused);
        QCOMPARE(refused.error().message, message.arg(backup.root));
        QCOMPARE(tree(at("victim")), QStringList{"precious=p"});
        QVERIFY(QFile::remove(at("tmp/" + linked)));
        plant(backup.path(), {".kept=k", "stale=s"});
        QVERIFY(saveBackupTo(at("store"), backup));
        QCOMPARE(tree(backup.path()), QStringList({".kept=k", "A", "A/info=i"}));
    }

    // An unchanged store is not copied again; after a change only what
    // changed is, the rest is linked from the previous copy.
    void saveCopiesOnlyChanges() {
        const BackupLocation backup = location();
        plant(m_tmp->path(), {"store/A/one=1", "store/A/two=2", "store/B/three=3", "tmp/"});
        const auto inode = [&](const QString &p) {
            struct stat st {};
            return ::lstat(QFile::encodeName(backup.path() + '/' + p).constData(), &st) == 0
                       ? st.st_ino
                       : 0;
        };
        QVERIFY(saveBackupTo(at("store"), backup));
        const ino_t root = inode("."), one = inode("A/one"), two = inode("A/two");
        QVERIFY(saveBackupTo(at("store"), backup));
        QCOMPARE(inode("."), root);
        QCOMPARE(inode("A/one"), one);

        plant(at("store"), {"A/two=changed", "C/four=4"});
        QVERIFY(saveBackupTo(at("store"), backup));
        QVERIFY(inode(".") != root);
        QCOMPARE(inode("A/one"), one);
        QVERIFY(inode("A/two") != two);
        QCOMPARE(tree(backup.path()), tree(at("store")));
    }

    // The restore leaves the store's hidden entries and reads nothing that is
    // not ours alone; no backup at all, or a file in its place, changes nothing.
    void restore_data() {
        QTest::addColumn<QStringList>("planted");
        QTest::addColumn<QString>("error");
        QTest::addColumn<QStringList>("store");
        const QStringList old{".hidden=h", "old", "old/info=o"};
        const QStringList restored{".hidden=h", "A", "A/info=new"};
        QTest::newRow("restored") << QStringList{"tmp/config/files/var_bluetooth/A/info=new"} << ""
                                  << restored;
        QTest::newRow("no backup") << QStringList{"tmp/config/files/"} << "" << old;
        QTest::newRow("a file") << QStringList{"tmp/config/files/var_bluetooth=x"} << "" << old;
        QTest::newRow("linked") << QStringList{"planted/A/info=theirs",
                                               "tmp/config/files/var_bluetooth@../../../planted"}
                                << "untrusted backup path: %1/config/files/var_bluetooth" << old;
    }
    void restore() {
        QFETCH(QStringList, planted);
        QFETCH(QString, error);
        QFETCH(QStringList, store);
        plant(m_tmp->path(), QStringList{"store/.hidden=h", "store/old/info=o"} + planted);
        const core::Status restored = restoreBackupTo(location(), at("store"));
        QCOMPARE(restored ? QString() : restored.error().message,
                 error.isEmpty() ? error : error.arg(at("tmp")));
        QCOMPARE(tree(at("store")), store);
    }

    // What a killed run leaves behind is cleaned, and a swap that had passed
    // its point of no return is completed: never a mix of old and new.
    void recover_data() {
        QTest::addColumn<QStringList>("left");
        QTest::addColumn<QStringList>("expected");
        const QStringList old{".hidden=h", "A", "A/info=old", "B", "B/info=old"};
        const QStringList fresh{".hidden=h", "A", "A/info=new", "C", "C/info=new"};
        QTest::newRow("staging beside") << QStringList{".tree.kelvane-staging/A/info=half"} << old;
        QTest::newRow("staging inside") << QStringList{"tree/.kelvane-staging/A/info=half"} << old;
        QTest::newRow("ready, nothing moved")
            << QStringList{"tree/.kelvane-ready/A/info=new", "tree/.kelvane-ready/C/info=new"}
            << fresh;
        QTest::newRow("old half aside")
            << QStringList{"tree/.kelvane-ready/A/info=new", "tree/.kelvane-ready/C/info=new",
                           "tree/.kelvane-retiring/", "move tree/B tree/.kelvane-retiring/B"}
            << fresh;
        QTest::newRow("new half in")
            << QStringList{"tree/.kelvane-ready/C/info=new", "tree/.kelvane-retired/",
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
        for (const QString &entry : left) {
            if (entry.startsWith("move "))
                QVERIFY(QDir().rename(at(entry.section(' ', 1, 1)), at(entry.section(' ', 2))));
            else
                plant(m_tmp->path(), {entry.endsWith('/') ? entry.chopped(1) : entry});
        }
        const Fd parent(::open(QFile::encodeName(m_tmp->path()).constData(), O_RDONLY));
        recoverTree({parent.get(), m_tmp->path(), "tree"});
        QCOMPARE(tree(at("tree")), expected);
        QCOMPARE(tree(m_tmp->path()).filter("kelvane"), QStringList());
    }

    // One run at a time; a second one waits its bound, then gives up.
    void lock() {
        const QString path = at("lock");
        core::Expected<StoreLock> first = lockStore(path, std::chrono::milliseconds(0));
        QVERIFY(first);
        const core::Expected<StoreLock> second = lockStore(path, std::chrono::milliseconds(120));
        QVERIFY(!second);
        QCOMPARE(second.error().message, "another kelvane run is still busy (" + path + ")");
        first = core::failure("released");
        QVERIFY(lockStore(path, std::chrono::milliseconds(0)));
        QVERIFY(QFile::link(at("elsewhere"), at("link")));
        QVERIFY(!lockStore(at("link"), std::chrono::milliseconds(0)));
        QVERIFY(!QFileInfo::exists(at("elsewhere")));
    }

    // Whatever sits at the name is replaced, never opened or followed, and
    // the mode is exact whatever the umask.
    void replaceFile() {
        plant(m_tmp->path(), {"victim=precious", "link@victim", ".events.0123=stale"});
        QVERIFY(::mkfifo(QFile::encodeName(at("pipe")).constData(), 0600) == 0);
        const mode_t umask = ::umask(0);
        for (const char *name : {"link", "pipe", "new"})
            QVERIFY(ks::replaceFile(m_tmp->path(), name, "[]\n", 0644));
        ::umask(umask);
        QVERIFY(!ks::replaceFile(at("victim"), "x", "[]\n", 0644));
        removeStaleTemporaries(m_tmp->path(), "events");
        QCOMPARE(tree(m_tmp->path()),
                 QStringList({"link=[]\n", "new=[]\n", "pipe=[]\n", "victim=precious"}));
        QCOMPARE(modeOf(at("new")), mode_t(0644));
    }

    // Under every adapter, links to adapters included; a device link loses
    // the link, not its target.
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
        QTest::newRow("prefix only") << "aa:bb:cc:dd:ee:f" << QStringList{} << QStringList{};
    }
    void forgetStoredDevice() {
        QFETCH(QString, address);
        QFETCH(QStringList, gone);
        QFETCH(QStringList, records);
        plant(m_tmp->path(), {"store/A1/AA:BB:CC:DD:EE:FF/info=[General]\nName=One",
                              "store/A1/11:22:33:44:55:66/info=[General]\nName=Other",
                              "store/A1/cache/AA:BB:CC:DD:EE:FF=c",
                              R"(store/A2/aa\:bb\:cc\:dd\:ee\:ff/attributes=a)",
                              "store/A3/CC:CC:CC:CC:CC:CC@../../outside", "store/A4@../away",
                              "outside/info=[General]\nName=Out",
                              "away/DD:DD:DD:DD:DD:DD/info=[General]\nName=Away"});
        QStringList expected;
        for (const QString &entry : tree(m_tmp->path())) {
            if (std::none_of(gone.begin(), gone.end(),
                             [&](const QString &dir) { return entry.startsWith(dir); }))
                expected << entry;
        }

        StoredDevice record;
        record.name = "sentinel";
        QCOMPARE(ks::forgetStoredDevice(address, &record, at("store")), !gone.isEmpty());
        QCOMPARE(tree(m_tmp->path()), expected);
        const QString got = record.adapter + ' ' + record.address + ' ' + describe(record);
        if (records.isEmpty())
            QCOMPARE(got, QString("  name=sentinel"));
        else
            QVERIFY2(records.contains(got), qPrintable(got));
        QVERIFY(!ks::forgetStoredDevice(address, nullptr, at("missing")));
    }

    // Nothing is deleted in an adapter directory another user could write into.
    void forgetSkipsForeignAdapters() {
        plant(m_tmp->path(), {"store/A1/AA:BB:CC:DD:EE:FF/info=x"});
        QVERIFY(::chmod(QFile::encodeName(at("store/A1")).constData(), 0777) == 0);
        QVERIFY(!ks::forgetStoredDevice("AA:BB:CC:DD:EE:FF", nullptr, at("store")));
        QVERIFY(QFileInfo::exists(at("store/A1/AA:BB:CC:DD:EE:FF/info")));
    }
};

QTEST_GUILESS_MAIN(TestStorage)
#include "test_storage.moc"
