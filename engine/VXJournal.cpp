#include "engine/VXJournal.h"

#include "engine/VXJobSettings.h"
#include "engine/VXLoudnessScale.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <sys/file.h>
#include <system_error>
#include <unistd.h>

namespace {

QString errnoText(int err) { return QString::fromStdString(std::generic_category().message(err)); }

// Inodes and nanosecond times exceed what a JSON number holds exactly.
QString idText(const VXFileId &id)
{
    return QStringLiteral("%1:%2:%3:%4").arg(id.device).arg(id.inode).arg(id.size).arg(id.mtimeNs);
}

VXFileId idFrom(const QString &text)
{
    const QStringList parts = text.split(QLatin1Char(':'));
    VXFileId id;
    if (parts.size() != 4)
        return id;
    id.device = parts[0].toULongLong();
    id.inode = parts[1].toULongLong();
    id.size = parts[2].toLongLong();
    id.mtimeNs = parts[3].toLongLong();
    return id;
}

} // namespace

QString VXJournal::settingsKey(const VXJobSettings &s, const QString &mode, const QString &destination)
{
    return QStringLiteral("%1;target=%2;ceiling=%3;limit=%4;meter=%5;dual=%6;album=%7;skip=%8;dest=%9")
        .arg(mode)
        .arg(double(VXLoudnessScale::lufsForPosition(s.targetLoudness)), 0, 'f', 2)
        .arg(double(s.truePeakCeiling), 0, 'f', 2)
        .arg(int(s.limitPeaks))
        .arg(s.measureWithLoudnorm ? QStringLiteral("loudnorm") : QStringLiteral("ebur128"))
        .arg(int(s.dualMono))
        .arg(int(s.treatAsAlbums))
        .arg(std::isnan(s.skipWithin) ? QStringLiteral("-") : QString::number(s.skipWithin, 'f', 2))
        .arg(destination.isEmpty() ? QStringLiteral("in-place") : destination);
}

VXResult<std::shared_ptr<VXJournal>> VXJournal::open(const QString &path, const QString &settingsKey)
{
    const QFileInfo info(path);
    if (!QDir().mkpath(info.absolutePath()))
        return VXError::because(QStringLiteral("cannot create the folder of %1").arg(path));
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return VXError::because(QStringLiteral("cannot open %1: %2").arg(path, errnoText(errno)));
    // Two runs on one journal would both take the files neither has done.
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return VXError::because(QStringLiteral("%1 is in use by another run").arg(path));
    }
    QFile file;
    if (!file.open(fd, QIODevice::ReadOnly, QFileDevice::DontCloseHandle)) {
        ::close(fd);
        return VXError::because(QStringLiteral("cannot read %1").arg(path));
    }
    const QByteArray content = file.readAll();
    file.close();
    std::shared_ptr<VXJournal> journal(new VXJournal(info.absoluteFilePath(), settingsKey, fd));
    journal->read(content);
    // A line cut by a kill would run into the next record.
    if (!content.isEmpty() && !content.endsWith('\n'))
        journal->append(QByteArray());
    return journal;
}

VXJournal::VXJournal(QString path, QString key, int fd) : m_path(std::move(path)), m_settingsKey(std::move(key)), m_fd(fd)
{
}

VXJournal::~VXJournal()
{
    ::fdatasync(m_fd);
    ::close(m_fd);
}

QString VXJournal::keyOf(const QString &input) { return QDir::cleanPath(QFileInfo(input).absoluteFilePath()); }

void VXJournal::read(const QByteArray &content)
{
    for (const QByteArray &line : content.split('\n')) {
        const QJsonObject o = QJsonDocument::fromJson(line).object();
        if (o.value(QLatin1String("s")).toString() != m_settingsKey)
            continue;
        const QString event = o.value(QLatin1String("e")).toString();
        if (event != QLatin1String("placing") && event != QLatin1String("done")) {
            m_notes.append(o);
            continue;
        }
        Entry &e = m_entries[o.value(QLatin1String("in")).toString()];
        if (event == QLatin1String("placing")) {
            e.intents.append({o.value(QLatin1String("dest")).toString(), idFrom(o.value(QLatin1String("staged")).toString()),
                              idFrom(o.value(QLatin1String("id")).toString())});
        } else if (event == QLatin1String("done")) {
            e.done = true;
            e.input = idFrom(o.value(QLatin1String("id")).toString());
            e.output = idFrom(o.value(QLatin1String("out_id")).toString());
            e.intents.clear();
        }
    }
}

void VXJournal::append(const QByteArray &line)
{
    // One write() a record: appends from one descriptor never interleave.
    const QByteArray record = line + '\n';
    qsizetype written = 0;
    while (written < record.size()) {
        const ssize_t n = ::write(m_fd, record.constData() + written, size_t(record.size() - written));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;  // a full disk: the run goes on; what is lost is done again next time
        written += n;
    }
}

bool VXJournal::wasDone(const QString &input)
{
    const QString key = keyOf(input);
    const VXFileId now = VXFileId::of(input);
    QMutexLocker locker(&m_lock);
    const auto it = m_entries.constFind(key);
    if (it == m_entries.constEnd() || !now.exists())
        return false;
    if (it->done && (now == it->input || now == it->output))
        return true;
    // Killed between a publish and its record: the staged inode tells.
    for (const Intent &intent : it->intents) {
        if (VXFileId::of(intent.dest).sameFile(intent.staged)) {
            doneLocked(key, intent.input, intent.dest, QStringLiteral("placed"));
            return true;
        }
    }
    return false;
}

VXResult<> VXJournal::placing(const QString &input, const VXFileId &inputId, const QString &dest, const VXFileId &staged)
{
    const QString key = keyOf(input);
    const QJsonObject o{{QStringLiteral("e"), QStringLiteral("placing")},
                        {QStringLiteral("in"), key},
                        {QStringLiteral("id"), idText(inputId)},
                        {QStringLiteral("dest"), keyOf(dest)},
                        {QStringLiteral("staged"), idText(staged)},
                        {QStringLiteral("s"), m_settingsKey}};
    QMutexLocker locker(&m_lock);
    m_entries[key].intents.append({keyOf(dest), staged, inputId});
    append(QJsonDocument(o).toJson(QJsonDocument::Compact));
    if (::fdatasync(m_fd) != 0 && errno != EINVAL)
        return VXError::because(QStringLiteral("cannot write the journal %1: %2").arg(m_path, errnoText(errno)));
    return {};
}

void VXJournal::done(const QString &input, const VXFileId &inputId, const QString &output, const QString &result)
{
    QMutexLocker locker(&m_lock);
    doneLocked(keyOf(input), inputId, output.isEmpty() ? QString() : keyOf(output), result);
}

void VXJournal::doneLocked(const QString &key, const VXFileId &inputId, const QString &output, const QString &result)
{
    Entry &e = m_entries[key];
    e.done = true;
    e.input = inputId;
    e.output = output.isEmpty() ? VXFileId() : VXFileId::of(output);
    e.intents.clear();
    const QJsonObject o{{QStringLiteral("e"), QStringLiteral("done")},
                        {QStringLiteral("in"), key},
                        {QStringLiteral("id"), idText(inputId)},
                        {QStringLiteral("out"), output},
                        {QStringLiteral("out_id"), idText(e.output)},
                        {QStringLiteral("result"), result},
                        {QStringLiteral("s"), m_settingsKey}};
    append(QJsonDocument(o).toJson(QJsonDocument::Compact));
}

void VXJournal::sync() { ::fdatasync(m_fd); }

void VXJournal::note(const QJsonObject &record)
{
    QJsonObject o = record;
    o[QStringLiteral("s")] = m_settingsKey;
    QMutexLocker locker(&m_lock);
    m_notes.append(o);
    append(QJsonDocument(o).toJson(QJsonDocument::Compact));
}

QList<QJsonObject> VXJournal::notes() const
{
    QMutexLocker locker(&m_lock);
    return m_notes;
}

qsizetype VXJournal::doneCount() const
{
    QMutexLocker locker(&m_lock);
    return std::count_if(m_entries.cbegin(), m_entries.cend(), [](const Entry &e) { return e.done; });
}
