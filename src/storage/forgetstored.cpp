#include "storage/forgetstored.h"

#include "storage/removal.h"
#include "storage/storelisting.h"

#include <QFileInfo>

namespace kelvane::storage {

bool forgetStoredDevice(const QString &address, StoredDevice *removed, const QString &root) {
    const QString target = address.trimmed().toUpper().replace(QLatin1Char('-'), QLatin1Char(':'));
    if (!QFileInfo(root).isDir())
        return false;

    bool removedAny = false;
    for (const QFileInfo &adapterDir : storeSubdirectories(root)) {
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
