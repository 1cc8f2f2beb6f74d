#include "storage/removal.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace kelvane::storage {

bool removeTree(const QString &path) {
    const QFileInfo info(path);
    // QDir::removeRecursively unlinks the links it finds inside, but given a
    // link itself it would empty and remove the directory it points to.
    if (info.isSymLink() || !info.isDir())
        return QFile::remove(path);
    return QDir(path).removeRecursively();
}

} // namespace kelvane::storage
