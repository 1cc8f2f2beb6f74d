#pragma once

#include <QString>

#include <optional>
#include <utility>
#include <variant>

namespace kelvane::core {

// Why a step failed: the text that ends up in the result document and, when
// the bus or BlueZ refused, the D-Bus error name (empty for the tool's own
// failures). Callers that must react to one particular refusal compare the
// name, never the text.
struct Error {
    QString message;
    QString name;
};

inline Error failure(const QString &message, const QString &name = QString()) {
    return Error{message, name};
}

// A value, or the Error that prevented it. The one way failures travel.
template <typename T> class [[nodiscard]] Expected {
public:
    Expected(T value) : m_state(std::in_place_index<0>, std::move(value)) {}
    Expected(Error error) : m_state(std::in_place_index<1>, std::move(error)) {}

    bool ok() const { return m_state.index() == 0; }
    explicit operator bool() const { return ok(); }

    T &value() & { return std::get<0>(m_state); }
    const T &value() const & { return std::get<0>(m_state); }
    T &&value() && { return std::get<0>(std::move(m_state)); }
    T &operator*() & { return value(); }
    const T &operator*() const & { return value(); }
    T *operator->() { return &value(); }
    const T *operator->() const { return &value(); }

    const Error &error() const { return std::get<1>(m_state); }

private:
    std::variant<T, Error> m_state;
};

// Success without a value, or the Error.
template <> class [[nodiscard]] Expected<void> {
public:
    Expected() = default;
    Expected(Error error) : m_error(std::move(error)) {}

    bool ok() const { return !m_error; }
    explicit operator bool() const { return ok(); }
    const Error &error() const { return *m_error; }

private:
    std::optional<Error> m_error;
};

using Status = Expected<void>;

} // namespace kelvane::core
