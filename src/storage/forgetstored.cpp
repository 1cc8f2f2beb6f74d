#include "storage/forgetstored.h"

#include "storage/removal.h"
#include "storage/storelisting.h"

#include <QFileInfo>

namespace kelvane::storage {

namespace {

// An adapter directory may be a link to somewhere else: a device directory
// deleted through it would be deleted outside the store.
bool resolvesInside(const QFileInfo &dir, const QString &canonicalRoot) {
    const QString canonical = dir.canonicalFilePath();
    return canonical == canonicalRoot || canonical.startsWith(canonicalRoot + QLatin1Char('/'));
}

} // namespace

bool forgetStoredDevice(const QString &address, StoredDevice *removed, const QString &root) {
    const QString target = address.trimmed().toUpper().replace(QLatin1Char('-'), QLatin1Char(':'));
    if (!QFileInfo(root).isDir())
        return false;

    const QString canonicalRoot = QFileInfo(root).canonicalFilePath();
    bool removedAny = false;
    for (const QFileInfo &adapterDir : storeSubdirectories(root)) {
        if (!resolvesInside(adapterDir, canonicalRoot))
            continue;
        for (const QFileInfo &deviceDir : storeSubdirectories(adapterDir.filePath())) {
            const QString deviceAddress = unescapeStoreName(deviceDir.fileName());
            if (deviceAddress.toUpper() != target)
                continue;
            StoredDevice device;
            device.adapter = unescapeStoreName(adapterDir.fileName());
            device.address = deviceAddress;
            const QString infoPath = deviceDir.filePath() + QStringLiteral("/info");
            if (QFileInfo::exists(infoPath))
                parseInfoFile(infoPath, device);
            if (!removeTree(deviceDir.filePath()))
                continue;
            if (removed)
                *removed = device;
            removedAny = true;
        }
    }
    return removedAny;
}

} // namespace kelvane::storage
