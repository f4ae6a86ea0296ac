#include "tests/codec/CodecTestUtil.h"

#include "tests/support/Fixtures.h"

#include <QDir>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <chrono>

namespace codectest {

QString scratchDir()
{
    static QTemporaryDir dir;
    return dir.path();
}

QString corpusFile(const QString &variant)
{
    static QHash<QString, QString> made;
    auto it = made.find(variant);
    if (it == made.end())
        it = made.insert(variant, fixtures::makeFormat(scratchDir(), variant));
    return *it;
}

VXTranscodingBlock Reports::block()
{
    return [this](int32_t state, int64_t value) {
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_events.emplace_back(state, value);
        }
        if (state == VXTranscodingStateEnd)
            m_ended.release();
    };
}

bool Reports::waitForEnd()
{
    m_ended.acquire();
    m_ended.release(); // later callers return at once too
    return true;
}

std::vector<std::pair<int32_t, int64_t>> Reports::events() const
{
    std::unique_lock<std::mutex> guard(m_lock);
    return m_events;
}

int64_t Reports::endValue() const
{
    std::unique_lock<std::mutex> guard(m_lock);
    for (const auto &e : m_events)
        if (e.first == VXTranscodingStateEnd)
            return e.second;
    return -1;
}

int64_t runToEnd(VXTranscoding &t, Reports *reports)
{
    Reports local;
    Reports &r = reports ? *reports : local;
    t.transcodingWithBlock(r.block());
    return r.waitForEnd() ? r.endValue() : -1;
}

QJsonObject ffprobe(const QString &path)
{
    QString out;
    fixtures::run("ffprobe", {"-v", "error", "-show_streams", "-show_format", "-of", "json", path}, &out);
    return QJsonDocument::fromJson(out.toUtf8()).object();
}

QVariantMap allTags(const QJsonObject &probe)
{
    QVariantMap tags;
    const auto add = [&](const QJsonObject &t) {
        for (auto it = t.begin(); it != t.end(); ++it)
            tags.insert(it.key().toLower(), it.value().toString());
    };
    add(probe["format"].toObject()["tags"].toObject());
    const QJsonArray streams = probe["streams"].toArray();
    for (const QJsonValue &s : streams)
        add(s.toObject()["tags"].toObject());
    return tags;
}

} // namespace codectest
