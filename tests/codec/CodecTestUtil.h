#pragma once

#include "engine/codec/VXTranscoding.h"

#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <mutex>
#include <semaphore>
#include <vector>

#include "tests/support/Fixtures.h"

#include <gtest/gtest.h>

namespace codectest {

// Test-name suffix of a corpus entry ("m4a-aac" -> "m4a_aac").
inline std::string variantName(const ::testing::TestParamInfo<fixtures::Format> &info)
{
    return QString(info.param.variant).replace('-', '_').toStdString();
}

// A folder that lives as long as the test program, with the corpus made once.
QString scratchDir();
// The fixture of a corpus variant (see fixtures::formats()), made on first use.
QString corpusFile(const QString &variant);

// Everything a transcoding reported, in order, from whichever thread.
class Reports {
public:
    VXTranscodingBlock block();
    // Waits for the end report. Untimed: ctest's per-test timeout bounds it,
    // and condition-variable waits are opaque to ThreadSanitizer with this
    // libstdc++, which then reports races that are not there.
    bool waitForEnd();
    std::vector<std::pair<int32_t, int64_t>> events() const;
    int64_t endValue() const;

private:
    mutable std::mutex m_lock;
    std::binary_semaphore m_ended{0};
    std::vector<std::pair<int32_t, int64_t>> m_events;
};

// Starts t, waits for its end report and returns its value; -1 when none.
int64_t runToEnd(VXTranscoding &t, Reports *reports = nullptr);

// ffprobe's view of a file: "streams" and "format" as JSON.
QJsonObject ffprobe(const QString &path);
// Container and stream tags, keys lower-cased (Ogg keeps them per stream).
QVariantMap allTags(const QJsonObject &probe);

} // namespace codectest
