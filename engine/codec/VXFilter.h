#pragma once

#include <QMap>
#include <QString>
#include <QVariant>
#include <memory>
#include <mutex>

// One audio filter with named attributes. Attributes persist across the
// transcodings the filter is added to (pass 1, then pass 2).
class VXFilter : public std::enable_shared_from_this<VXFilter> {
public:
    static std::shared_ptr<VXFilter> filterWithName(const QString &name);
    ~VXFilter();

    QString name() const;
    // A null QVariant removes the attribute (the filter's default applies).
    void setValue(const QVariant &value, const QString &attribute);
    QVariant valueForAttribute(const QString &attribute) const;
    QMap<QString, QVariant> attributes() const;

    // Where this filter's print-out is captured; the same path on every call.
    QString logFile() const;
    // From now on this filter's print-out goes to path (truncated first).
    // Only this filter's own messages are routed: concurrent filters never
    // mix, and the process's file descriptor 2 is not touched.
    void redirectStdErrToFile(const QString &path);
    // Stops the routing; everything printed before the call is in the file.
    void cancelRedirectStdErr();

    VXFilter(const VXFilter &) = delete;
    VXFilter &operator=(const VXFilter &) = delete;

private:
    explicit VXFilter(const QString &name);
    struct Private;
    std::unique_ptr<Private> d;
    friend class VXTranscoding;
    friend struct VXFilterAccess;
};
