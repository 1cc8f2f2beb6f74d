#pragma once

#include <QString>

#include <string>

// Records carry UTF-8 byte strings; Qt strings live at the bus and file-system
// boundaries. These are the only two conversions between them.
namespace kelvane::result {

inline QString fromUtf8(const std::string &text) {
    return QString::fromUtf8(text.data(), static_cast<int>(text.size()));
}

inline std::string toUtf8(const QString &text) {
    const QByteArray bytes = text.toUtf8();
    return std::string(bytes.constData(), static_cast<size_t>(bytes.size()));
}

} // namespace kelvane::result
