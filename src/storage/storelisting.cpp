#include "storage/storelisting.h"

#include "classify/label.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>

namespace kelvane::storage {

QString unescapeStoreName(const QString &name) {
    QString result = name;
    return result.replace(QLatin1String("\\:"), QLatin1String(":"));
}

QFileInfoList storeSubdirectories(const QString &dir) {
    return QDir(dir).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::NoSort);
}

std::vector<StoredDevice> listStoredDevices(const QString &root) {
    std::vector<StoredDevice> devices;
    if (!QFileInfo(root).isDir())
        return devices;

    for (const QFileInfo &adapterDir : storeSubdirectories(root)) {
        // Besides device directories an adapter keeps e.g. "cache"; having
        // no info file is what tells those apart.
        for (const QFileInfo &deviceDir : storeSubdirectories(adapterDir.filePath())) {
            const QString infoPath = deviceDir.filePath() + QStringLiteral("/info");
            if (!QFileInfo::exists(infoPath))
                continue;
            StoredDevice device;
            device.adapter = unescapeStoreName(adapterDir.fileName());
            device.address = unescapeStoreName(deviceDir.fileName());
            if (parseInfoFile(infoPath, device))
                devices.push_back(std::move(device));
        }
    }

    std::sort(devices.begin(), devices.end(), [](const StoredDevice &a, const StoredDevice &b) {
        const QString labelA = classify::displayLabel(a.name, QString());
        const QString labelB = classify::displayLabel(b.name, QString());
        if (labelA != labelB)
            return labelA < labelB;
        return a.address < b.address;
    });
    return devices;
}

} // namespace kelvane::storage
