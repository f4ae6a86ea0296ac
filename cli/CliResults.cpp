#include "cli/CliResults.h"

#include "cli/CliRun.h"
#include "engine/VXTempDir.h"

#include <QDataStream>

#include <algorithm>

namespace {

QDataStream &operator<<(QDataStream &s, const CliFileResult &r)
{
    s << r.input << r.output << int(r.outcome) << r.reason << r.targetLufs << r.measurement << r.seconds << r.gainDb
      << r.outputI << r.outputTp << r.outputLra << r.normalization << r.corrections << r.warning << r.maxShortTerm
      << r.maxMomentary << r.outputMaxShortTerm << r.outputMaxMomentary << qint32(r.otherStreams.size());
    for (const VXGainResult::Stream &stream : r.otherStreams)
        s << stream.index << stream.gainDb << stream.normalization;
    s << r.album << r.albumI << r.albumTp << r.albumLra << r.albumGainDb << r.albumNormalization << r.tagTrackGain
      << r.tagTrackPeak << r.tagAlbumGain << r.tagAlbumPeak;
    const VXGainResult::Lossless &l = r.lossless;
    s << l.asked << l.steps << l.offsetDb << qint64(l.fields) << qint64(l.clamped) << l.fallback << l.restored << r.notes;
    return s;
}

QDataStream &operator>>(QDataStream &s, CliFileResult &r)
{
    int outcome = 0;
    qint32 streams = 0;
    s >> r.input >> r.output >> outcome >> r.reason >> r.targetLufs >> r.measurement >> r.seconds >> r.gainDb
        >> r.outputI >> r.outputTp >> r.outputLra >> r.normalization >> r.corrections >> r.warning >> r.maxShortTerm
        >> r.maxMomentary >> r.outputMaxShortTerm >> r.outputMaxMomentary >> streams;
    r.outcome = CliOutcome(outcome);
    for (qint32 i = 0; i < streams && s.status() == QDataStream::Ok; ++i) {
        VXGainResult::Stream stream;
        s >> stream.index >> stream.gainDb >> stream.normalization;
        r.otherStreams.append(stream);
    }
    s >> r.album >> r.albumI >> r.albumTp >> r.albumLra >> r.albumGainDb >> r.albumNormalization >> r.tagTrackGain
        >> r.tagTrackPeak >> r.tagAlbumGain >> r.tagAlbumPeak;
    VXGainResult::Lossless &l = r.lossless;
    qint64 fields = 0, clamped = 0;
    s >> l.asked >> l.steps >> l.offsetDb >> fields >> clamped >> l.fallback >> l.restored >> r.notes;
    l.fields = long(fields);
    l.clamped = long(clamped);
    return s;
}

} // namespace

CliResults::CliResults(bool jsonl) : m_jsonl(jsonl)
{
    // In the private temporary folder, so a killed run's spool is swept
    // with the rest of what it left.
    m_spoolPath = VXTempDir::reserveFile(QStringLiteral("results"), QStringLiteral("spool"));
    m_spool.setFileName(m_spoolPath);
    if (!m_spoolPath.isEmpty())
        m_spool.open(QIODevice::ReadWrite | QIODevice::Truncate);
}

CliResults::~CliResults()
{
    m_spool.close();
    if (!m_spoolPath.isEmpty())
        QFile::remove(m_spoolPath);
}

void CliResults::add(const CliFileResult &r, qint64 order)
{
    if (outcomeSucceeded(r.outcome))
        ++m_succeeded;
    if (m_jsonl)
        cliWriteOut(stdout, jsonLine(r));
    if (!m_index.empty() && order < m_index.back().order)
        m_sorted = false;
    if (!m_spool.isOpen()) {
        m_index.push_back({order, qint64(m_memory.size())});
        m_memory.push_back(r);
        return;
    }
    m_spool.seek(m_spool.size());
    m_index.push_back({order, m_spool.pos()});
    QDataStream out(&m_spool);
    out << r;
}

void CliResults::sortIndex()
{
    if (!m_sorted)
        std::stable_sort(m_index.begin(), m_index.end(), [](const Place &a, const Place &b) { return a.order < b.order; });
    m_sorted = true;
}

CliFileResult CliResults::read(qint64 offset)
{
    if (!m_spool.isOpen())
        return m_memory[size_t(offset)];
    m_spool.seek(offset);
    QDataStream in(&m_spool);
    CliFileResult r;
    in >> r;
    return r;
}

void CliResults::forEach(const std::function<void(const CliFileResult &)> &fn)
{
    sortIndex();
    for (const Place &place : m_index)
        fn(read(place.offset));
}

void CliResults::writeReport(FILE *out, bool json)
{
    // Buffered here, flushed in pieces: a million small writes would cost
    // more than the report is worth.
    QByteArray buffer;
    auto put = [&](const QByteArray &text, bool last = false) {
        buffer += text;
        if (last || buffer.size() > (1 << 16)) {
            cliWriteOut(out, buffer);
            buffer.clear();
        }
    };
    if (json) {
        put(jsonArrayOpen());
        bool first = true;
        forEach([&](const CliFileResult &r) {
            put(jsonArrayElement(r, first));
            first = false;
        });
        put(jsonArrayClose(first), true);
        return;
    }
    CliTable table;
    forEach([&](const CliFileResult &r) { table.measure(r); });
    put(table.header());
    forEach([&](const CliFileResult &r) { put(table.row(r)); });
    put(table.albums(), true);
}
