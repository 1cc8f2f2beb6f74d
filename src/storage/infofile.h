#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

namespace kelvane::storage {

// One device as BlueZ's store records it: the two directory names it lives
// under plus what its info file says.
struct StoredDevice {
    QString adapter;
    QString address;
    QString name;
    QString addressType;
    QStringList supportedTechnologies;
    bool trusted = false;
    bool blocked = false;
    bool wakeAllowed = false;
    std::optional<quint32> deviceClass;
    std::optional<quint16> appearance;
    QStringList services;
    std::optional<quint16> vendor;
    std::optional<quint16> product;
    std::optional<quint16> version;
};

// Fills the fields the "info" file of the device directory mentions; the
// others keep the caller's values. False (record untouched) when there is no
// regular file to read: an adapter also keeps e.g. "cache", and having no
// info file is what tells those apart.
bool parseInfoAt(int deviceFd, StoredDevice &device);

// The same for the content of an info file.
void parseInfoText(const QByteArray &text, StoredDevice &device);

// true/1/yes and false/0/no in any letter case set flag; anything else
// leaves it alone and returns false.
bool parseStoredBool(const QString &text, bool &flag);

// A hexadecimal number with an optional "0x" prefix, at most 32 bits wide;
// the 16-bit form keeps the low bits.
std::optional<quint16> parseHex16(const QString &text);
std::optional<quint32> parseHex32(const QString &text);

// The non-blank, trimmed items of a ';'-separated list, in order.
QStringList splitStoredList(const QString &text);

} // namespace kelvane::storage
