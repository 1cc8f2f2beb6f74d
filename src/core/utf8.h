#pragma once

#include <QByteArray>
#include <QString>

#include <cstring>
#include <string>

// Records carry UTF-8 byte strings; Qt strings live at the bus and file-system
// boundaries. These are the only conversions between them.
namespace kelvane::core {

// Every byte counts: a NUL does not end the text, and a leading byte order
// mark is kept (Qt's decoder would drop the first one as a mere header).
inline QString fromUtf8(const char *data, int size) {
    static const char bom[] = "\xEF\xBB\xBF";
    QString text;
    int start = 0;
    while (size - start >= 3 && std::memcmp(data + start, bom, 3) == 0) {
        text += QChar(0xFEFF);
        start += 3;
    }
    return text + QString::fromUtf8(data + start, size - start);
}

inline QString fromUtf8(const QByteArray &bytes) {
    return fromUtf8(bytes.constData(), bytes.size());
}

inline QString fromUtf8(const std::string &text) {
    return fromUtf8(text.data(), static_cast<int>(text.size()));
}

inline std::string toUtf8(const QString &text) {
    const QByteArray bytes = text.toUtf8();
    return std::string(bytes.constData(), static_cast<size_t>(bytes.size()));
}

} // namespace kelvane::core
