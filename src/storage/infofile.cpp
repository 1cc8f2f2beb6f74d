#include "storage/infofile.h"

#include "core/utf8.h"
#include "storage/fd.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>

namespace kelvane::storage {

namespace {

int digitValue(QChar c) {
    const ushort u = c.unicode();
    if (u >= '0' && u <= '9')
        return u - '0';
    if (u >= 'a' && u <= 'f')
        return u - 'a' + 10;
    if (u >= 'A' && u <= 'F')
        return u - 'A' + 10;
    return -1;
}

// Strict digit-by-digit parse: QString::toUInt would also take signs and a
// second "0x", none of which BlueZ ever writes.
std::optional<quint32> parseUnsigned(const QString &text, int base) {
    if (text.isEmpty())
        return std::nullopt;
    quint64 value = 0;
    for (const QChar c : text) {
        const int digit = digitValue(c);
        if (digit < 0 || digit >= base)
            return std::nullopt;
        value = value * static_cast<quint64>(base) + static_cast<quint64>(digit);
        if (value > 0xFFFFFFFFull)
            return std::nullopt;
    }
    return static_cast<quint32>(value);
}

std::optional<quint16> low16(std::optional<quint32> value) {
    if (!value)
        return std::nullopt;
    return static_cast<quint16>(*value & 0xFFFFu);
}

void applyGeneral(const QString &key, const QString &value, StoredDevice &device) {
    if (key == QLatin1String("Name"))
        device.name = value;
    else if (key == QLatin1String("Appearance"))
        device.appearance = parseHex16(value);
    else if (key == QLatin1String("Class"))
        device.deviceClass = parseHex32(value);
    else if (key == QLatin1String("AddressType"))
        device.addressType = value;
    else if (key == QLatin1String("SupportedTechnologies"))
        device.supportedTechnologies = splitStoredList(value);
    else if (key == QLatin1String("Trusted"))
        parseStoredBool(value, device.trusted);
    else if (key == QLatin1String("Blocked"))
        parseStoredBool(value, device.blocked);
    else if (key == QLatin1String("WakeAllowed"))
        parseStoredBool(value, device.wakeAllowed);
    else if (key == QLatin1String("Services"))
        device.services = splitStoredList(value);
}

void applyDeviceId(const QString &key, const QString &value, StoredDevice &device) {
    std::optional<quint16> *field = nullptr;
    if (key == QLatin1String("Vendor"))
        field = &device.vendor;
    else if (key == QLatin1String("Product"))
        field = &device.product;
    else if (key == QLatin1String("Version"))
        field = &device.version;
    if (!field)
        return;
    // Unlike the hex fields, a bad number keeps the previous value.
    if (const auto number = low16(parseUnsigned(value, 10)))
        *field = number;
}

} // namespace

void parseInfoText(const QByteArray &text, StoredDevice &device) {
    QString section;
    for (qsizetype start = 0; start < text.size();) {
        qsizetype end = text.indexOf('\n', start);
        if (end < 0)
            end = text.size();
        // Decoded whole: a NUL does not end the line. Trimming drops a "\r".
        const QString line = core::fromUtf8(text.constData() + start, int(end - start)).trimmed();
        start = end + 1;
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')) ||
            line.startsWith(QLatin1Char(';')))
            continue;
        if (line.startsWith(QLatin1Char('[')) && line.endsWith(QLatin1Char(']'))) {
            section = line.mid(1, line.size() - 2);
            continue;
        }
        const int eq = line.indexOf(QLatin1Char('='));
        if (eq <= 0)
            continue;
        const QString key = line.left(eq).trimmed();
        const QString value = line.mid(eq + 1).trimmed();
        if (section == QLatin1String("General"))
            applyGeneral(key, value, device);
        else if (section == QLatin1String("DeviceID"))
            applyDeviceId(key, value, device);
    }
}

bool parseInfoAt(int deviceFd, StoredDevice &device) {
    // Opened without waiting, should something else than a file sit there.
    const Fd info(::openat(deviceFd, "info", O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat st {};
    QFile file;
    if (!info.valid() || ::fstat(info.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
        !file.open(info.get(), QIODevice::ReadOnly))
        return false;
    parseInfoText(file.readAll(), device);
    return true;
}

bool parseStoredBool(const QString &text, bool &flag) {
    const QString t = text.trimmed().toLower();
    if (t == QLatin1String("true") || t == QLatin1String("1") || t == QLatin1String("yes")) {
        flag = true;
        return true;
    }
    if (t == QLatin1String("false") || t == QLatin1String("0") || t == QLatin1String("no")) {
        flag = false;
        return true;
    }
    return false;
}

std::optional<quint32> parseHex32(const QString &text) {
    QString t = text.trimmed();
    if (t.startsWith(QLatin1String("0x"), Qt::CaseInsensitive))
        t.remove(0, 2);
    return parseUnsigned(t, 16);
}

std::optional<quint16> parseHex16(const QString &text) {
    return low16(parseHex32(text));
}

QStringList splitStoredList(const QString &text) {
    QStringList items;
    for (const QString &piece : text.split(QLatin1Char(';'), Qt::SkipEmptyParts)) {
        const QString item = piece.trimmed();
        if (!item.isEmpty())
            items.append(item);
    }
    return items;
}

} // namespace kelvane::storage
