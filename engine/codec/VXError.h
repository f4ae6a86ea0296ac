#pragma once

#include <QString>
#include <QVariantMap>
#include <optional>
#include <utility>

// The error object of a failed call: what went wrong, for a log line and the
// user, and a user-info map that callers query by key (VXTranscodingDRMProtected).
struct VXError {
    QString domain;
    int code = 0;
    QString description;
    QVariantMap userInfo;

    // The usual case: a reason in words and nothing else.
    static VXError because(QString why, int code = 0)
    {
        VXError e;
        e.code = code;
        e.description = std::move(why);
        return e;
    }
};

// What a call that can fail returns: its value, or the error that stopped
// it. The one shape for failures across the codec layer and the engine, so
// a reason travels to the row, the table and the JSON without being
// re-invented on the way.
template <class T = void>
class VXResult {
public:
    VXResult(T value) : m_value(std::move(value)) {}
    VXResult(VXError error) : m_error(std::move(error)) {}

    bool ok() const { return m_value.has_value(); }
    explicit operator bool() const { return ok(); }
    const T &value() const { return *m_value; }
    T &value() { return *m_value; }
    const T &operator*() const { return *m_value; }
    T &operator*() { return *m_value; }
    const T *operator->() const { return &*m_value; }
    T *operator->() { return &*m_value; }
    T valueOr(T fallback) const { return m_value ? *m_value : std::move(fallback); }
    const VXError &error() const { return m_error; }
    // The reason in words; empty on success.
    const QString &reason() const { return m_error.description; }

private:
    std::optional<T> m_value;
    VXError m_error;
};

template <>
class VXResult<void> {
public:
    VXResult() = default;
    VXResult(VXError error) : m_ok(false), m_error(std::move(error)) {}

    bool ok() const { return m_ok; }
    explicit operator bool() const { return m_ok; }
    const VXError &error() const { return m_error; }
    const QString &reason() const { return m_error.description; }

private:
    bool m_ok = true;
    VXError m_error;
};
