#include "storage/storelisting.h"

#include "classify/label.h"
#include "storage/fd.h"
#include "storage/tree.h"

#include <QFile>

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>

namespace kelvane::storage {

namespace {

QString storeName(const std::string &name) {
    return unescapeStoreName(QFile::decodeName(QByteArray::fromStdString(name)));
}

// The visible entries of dir that are directories, links to them included.
template <typename Visit> void forEachSubdirectory(int dirFd, Visit visit) {
    for (const std::string &name : entryNames(dirFd)) {
        if (isHidden(name))
            continue;
        const Fd sub(::openat(dirFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (sub.valid())
            visit(name, sub.get());
    }
}

// By label, then address, as QString orders them; the labels worked out once.
void sortByLabel(std::vector<StoredDevice> &devices) {
    std::vector<std::pair<QString, size_t>> keys;
    keys.reserve(devices.size());
    for (size_t i = 0; i < devices.size(); ++i)
        keys.emplace_back(classify::displayLabel(devices[i].name, QString()), i);
    std::sort(keys.begin(), keys.end(), [&](const auto &a, const auto &b) {
        if (a.first != b.first)
            return a.first < b.first;
        return devices[a.second].address < devices[b.second].address;
    });
    std::vector<StoredDevice> sorted;
    sorted.reserve(devices.size());
    for (const auto &key : keys)
        sorted.push_back(std::move(devices[key.second]));
    devices = std::move(sorted);
}

} // namespace

QString unescapeStoreName(const QString &name) {
    QString result = name;
    return result.replace(QLatin1String("\\:"), QLatin1String(":"));
}

std::vector<StoredDevice> listStoredDevices(const QString &root) {
    std::vector<StoredDevice> devices;
    const Fd store(::open(QFile::encodeName(root).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!store.valid())
        return devices;
    forEachSubdirectory(store.get(), [&](const std::string &adapterName, int adapterFd) {
        const QString adapter = storeName(adapterName);
        forEachSubdirectory(adapterFd, [&](const std::string &deviceName, int deviceFd) {
            StoredDevice device;
            device.adapter = adapter;
            device.address = storeName(deviceName);
            if (parseInfoAt(deviceFd, device))
                devices.push_back(std::move(device));
        });
    });
    sortByLabel(devices);
    return devices;
}

} // namespace kelvane::storage
