#pragma once

#include <QMap>
#include <QString>
#include <QVariant>
#include <memory>
#include <mutex>
#include <optional>

struct VXLoudness;

// How a file was brought to its level.
enum class VXNormalization {
    Linear,      // one gain, the whole way to the target
    PeakCapped,  // one gain, stopped where the true peak meets the ceiling
    Limited,     // the whole gain, then a true-peak limiter on the peaks
    OnePass,     // loudnorm's own single pass (no usable measurement)
};
QString VXNormalizationName(VXNormalization kind);

// What linear mode applies, decided from the target, the ceiling and the
// first pass's measurement.
struct VXGainPlan {
    double gainDb = 0;
    VXNormalization kind = VXNormalization::Linear;
    double expectedLoudness = 0;  // LUFS the output should measure
};

// One audio filter with named attributes. Attributes persist across the
// transcodings the filter is added to (pass 1, then pass 2).
class VXFilter {
public:
    static std::shared_ptr<VXFilter> filterWithName(const QString &name);
    ~VXFilter();

    QString name() const;
    // A null QVariant removes the attribute (the filter's default applies).
    void setValue(const QVariant &value, const QString &attribute);
    QVariant valueForAttribute(const QString &attribute) const;
    QMap<QString, QVariant> attributes() const;
    // With linear gain switched on and a usable measurement: the gain this
    // filter applies (target - measured I, capped or limited at the true-peak
    // ceiling). Linear mode works at the file's own rate, with no dynamics.
    std::optional<VXGainPlan> linearPlan() const;
    // What the loudness filter prints when it has measured input with the
    // reference meter: loudnorm's record, keys and layout, with the output
    // figures that its plan would reach.
    QByteArray measurementRecord(const VXLoudness &input) const;

    // Where this filter's print-out is captured; the same path on every call.
    QString logFile() const;
    // The folder (mode 0700, this user's) where filters made from now on
    // capture their print-outs; set once by the program, to a folder that
    // is swept when the program dies.
    static void setLogFolder(const QString &folder);
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
    friend struct VXFilterAccess;
};
