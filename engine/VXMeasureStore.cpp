#include "engine/VXMeasureStore.h"

#include "engine/codec/VXLog.h"
#include "engine/codec/VXWorkerProtocol.h"

#include <QCborMap>
#include <QCborValue>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sqlite3.h>
#include <sys/stat.h>
#include <cstdio>
#include <ctime>
#include <utility>

namespace vxcache {
namespace {

constexpr int kSchema = 1;
// Several programs write at once (the shards of a library); a store waits
// this long for the others' before it is passed over.
constexpr int kBusyMs = 10000;
// An entry unused this long is dropped; its last use is written at most
// weekly, so that a hit stays a read.
constexpr qint64 kKeepDays = 180;
constexpr qint64 kTouchDays = 7;

qint64 today() { return qint64(std::time(nullptr) / 86400); }

const char *const kCreate[] = {
    "CREATE TABLE measurement (id INTEGER PRIMARY KEY, dev INTEGER NOT NULL, ino INTEGER NOT NULL,"
    " size INTEGER NOT NULL, mtime INTEGER NOT NULL, meter TEXT NOT NULL, integrated REAL, true_peak REAL,"
    " range REAL, threshold REAL, max_short_term REAL, max_momentary REAL, streams BLOB, used INTEGER NOT NULL,"
    " UNIQUE (dev, ino, size, mtime, meter))",
    "CREATE TABLE steps (id INTEGER PRIMARY KEY, data BLOB NOT NULL)",
    "CREATE TRIGGER measurement_gone AFTER DELETE ON measurement BEGIN DELETE FROM steps WHERE id = old.id; END",
    "CREATE TABLE meta (key TEXT PRIMARY KEY, value INTEGER)",
};

const char kFind[] = "SELECT id, integrated, true_peak, range, threshold, max_short_term, max_momentary, streams, used"
                     " FROM measurement WHERE dev = ?1 AND ino = ?2 AND size = ?3 AND mtime = ?4 AND meter = ?5";
const char kFindSteps[] = "SELECT data FROM steps WHERE id = ?1";
const char kTouch[] = "UPDATE measurement SET used = ?2 WHERE id = ?1";
const char kUpsert[]
    = "INSERT INTO measurement (dev, ino, size, mtime, meter, integrated, true_peak, range, threshold,"
      " max_short_term, max_momentary, streams, used) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13)"
      " ON CONFLICT (dev, ino, size, mtime, meter) DO UPDATE SET integrated = excluded.integrated,"
      " true_peak = excluded.true_peak, range = excluded.range, threshold = excluded.threshold,"
      " max_short_term = excluded.max_short_term, max_momentary = excluded.max_momentary,"
      " streams = excluded.streams, used = excluded.used RETURNING id";
const char kPutSteps[] = "INSERT OR REPLACE INTO steps (id, data) VALUES (?1, ?2)";

bool ok(int rc) { return rc == SQLITE_OK || rc == SQLITE_ROW || rc == SQLITE_DONE; }

int exec(sqlite3 *db, const char *sql) { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr); }

// A statement's bindings and state are let go when the caller is done.
struct Use {
    sqlite3_stmt *s;
    ~Use()
    {
        sqlite3_reset(s);
        sqlite3_clear_bindings(s);
    }
};

void bindKey(sqlite3_stmt *s, const VXMeasureCache::Key &key, QByteArray &meter)
{
    meter = key.meter.toUtf8();
    sqlite3_bind_int64(s, 1, key.device);
    sqlite3_bind_int64(s, 2, key.inode);
    sqlite3_bind_int64(s, 3, key.size);
    sqlite3_bind_int64(s, 4, key.modifiedNs);
    sqlite3_bind_text(s, 5, meter.constData(), int(meter.size()), SQLITE_STATIC);
}

// SQLite keeps NaN as NULL; infinities as they are.
double number(sqlite3_stmt *s, int column)
{
    return sqlite3_column_type(s, column) == SQLITE_NULL ? NAN : sqlite3_column_double(s, column);
}

QByteArray blob(sqlite3_stmt *s, int column)
{
    return QByteArray(static_cast<const char *>(sqlite3_column_blob(s, column)), sqlite3_column_bytes(s, column));
}

QByteArray streamsBlob(const std::map<int, VXLoudness> &others)
{
    if (others.empty())
        return {};
    QCborMap map;
    for (const auto &[index, loudness] : others)
        map.insert(index, vx::loudnessToCbor(loudness, vx::kFigures | vx::kGate));
    return map.toCborValue().toCbor();
}

std::map<int, VXLoudness> streamsFrom(const QByteArray &bytes)
{
    std::map<int, VXLoudness> others;
    if (bytes.isEmpty())
        return others;
    const QCborMap map = QCborValue::fromCbor(bytes).toMap();
    for (auto it = map.begin(); it != map.end(); ++it)
        others[int(it.key().toInteger())] = vx::loudnessFromCbor(it.value().toMap());
    return others;
}

// The file as it stands at path, to tell whether it is still the one a
// connection opened.
std::pair<dev_t, ino_t> identity(const QString &path)
{
    struct stat st {};
    if (::stat(QFile::encodeName(path).constData(), &st) != 0)
        return {0, 0};
    return {st.st_dev, st.st_ino};
}

int schemaVersion(sqlite3 *db, int *version)
{
    sqlite3_stmt *s = nullptr;
    int rc = sqlite3_prepare_v2(db, "PRAGMA user_version", -1, &s, nullptr);
    if (rc == SQLITE_OK && (rc = sqlite3_step(s)) == SQLITE_ROW)
        *version = sqlite3_column_int(s, 0);
    sqlite3_finalize(s);
    return rc;
}

int createSchema(sqlite3 *db)
{
    int version = -1;
    int rc = schemaVersion(db, &version);
    if (!ok(rc) || version == kSchema)
        return ok(rc) ? SQLITE_OK : rc;
    // Another program may be making it at the same moment: the check is
    // made again under the write lock.
    if (ok(rc = exec(db, "BEGIN IMMEDIATE")))
        rc = schemaVersion(db, &version);
    if (ok(rc) && version != kSchema) {
        // A cache of another layout is of no use: it starts again empty.
        for (const char *drop : {"DROP TABLE IF EXISTS measurement", "DROP TABLE IF EXISTS steps",
                                 "DROP TABLE IF EXISTS meta"})
            if (ok(rc))
                rc = exec(db, drop);
        for (const char *create : kCreate)
            if (ok(rc))
                rc = exec(db, create);
        if (ok(rc))
            rc = exec(db, QByteArray("PRAGMA user_version = " + QByteArray::number(kSchema)).constData());
    }
    rc = ok(rc) ? exec(db, "COMMIT") : rc;
    if (!ok(rc))
        exec(db, "ROLLBACK");
    return ok(rc) ? SQLITE_OK : rc;
}

} // namespace

struct Connection {
    sqlite3 *db = nullptr;
    quint64 generation = 0;
    QString path;
    std::pair<dev_t, ino_t> file{0, 0};
    sqlite3_stmt *find = nullptr;
    sqlite3_stmt *findSteps = nullptr;
    sqlite3_stmt *touch = nullptr;
    sqlite3_stmt *upsert = nullptr;
    sqlite3_stmt *putSteps = nullptr;

    ~Connection()
    {
        for (sqlite3_stmt *s : {find, findSteps, touch, upsert, putSteps})
            sqlite3_finalize(s);
        sqlite3_close(db);
    }

    int prepare()
    {
        const std::pair<sqlite3_stmt **, const char *> all[]
            = {{&find, kFind}, {&findSteps, kFindSteps}, {&touch, kTouch}, {&upsert, kUpsert}, {&putSteps, kPutSteps}};
        for (const auto &[statement, sql] : all)
            if (const int rc = sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, statement, nullptr); rc != SQLITE_OK)
                return rc;
        return SQLITE_OK;
    }
};

Store &Store::instance()
{
    static Store *store = [] {
        auto *s = new Store;  // never destroyed: pool threads may still look up at exit
        s->m_path = VXMeasureCache::defaultPath();
        return s;
    }();
    return *store;
}

void Store::setPath(const QString &path)
{
    std::vector<std::unique_ptr<Connection>> dropped;
    std::lock_guard<std::mutex> guard(m_lock);
    m_path = path;
    ++m_generation;
    m_pruned = false;
    dropped.swap(m_idle);
}

QString Store::path()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_path;
}

std::unique_ptr<Connection> Store::take()
{
    QString path;
    quint64 generation = 0;
    bool prune = false;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_idle.empty()) {
            std::unique_ptr<Connection> c = std::move(m_idle.back());
            m_idle.pop_back();
            return c;
        }
        if (m_path.isEmpty())
            return nullptr;
        path = m_path;
        generation = m_generation;
        prune = !std::exchange(m_pruned, true);
    }
    std::unique_ptr<Connection> c = open(path, generation);
    if (c && prune)
        pruneOnce(*c);
    return c;
}

void Store::giveBack(std::unique_ptr<Connection> c)
{
    std::lock_guard<std::mutex> guard(m_lock);
    if (c->generation == m_generation)
        m_idle.push_back(std::move(c));
}  // one of an earlier file closes here, after the lock: closing may take a checkpoint

std::unique_ptr<Connection> Store::open(const QString &path, quint64 generation)
{
    auto c = std::make_unique<Connection>();
    c->generation = generation;
    c->path = path;
    if (!QDir().mkpath(QFileInfo(path).absolutePath())) {
        turnOff(QStringLiteral("its folder cannot be made"));
        return nullptr;
    }
    int rc = sqlite3_open_v2(QFile::encodeName(path).constData(), &c->db,
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc == SQLITE_OK) {
        c->file = identity(path);
        sqlite3_busy_timeout(c->db, kBusyMs);
        // WAL: readers never wait for a writer, and one fsync per checkpoint
        // rather than per entry; a lost entry after a power cut is measured again.
        rc = exec(c->db, "PRAGMA journal_mode = WAL");
    }
    if (rc == SQLITE_OK)
        rc = exec(c->db, "PRAGMA synchronous = NORMAL");
    // Each lookup is one indexed row: a small page cache per connection
    // does, and the kernel's keeps the rest, so a run of cache hits needs no
    // more memory than a run that measures.
    if (rc == SQLITE_OK)
        rc = exec(c->db, "PRAGMA cache_size = -256");
    if (rc == SQLITE_OK)
        rc = createSchema(c->db);
    if (rc == SQLITE_OK)
        rc = c->prepare();
    if (rc != SQLITE_OK) {
        failed(*c, rc);
        return nullptr;
    }
    return c;
}

void Store::failed(Connection &c, int code)
{
    switch (code & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return;  // others are writing: this entry waits for another run
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        setAside(c);
        return;
    default:
        turnOff(c.db ? QString::fromUtf8(sqlite3_errmsg(c.db)) : QString::fromUtf8(sqlite3_errstr(code)));
    }
}

void Store::setAside(Connection &c)
{
    std::vector<std::unique_ptr<Connection>> dropped;
    std::lock_guard<std::mutex> guard(m_lock);
    if (c.generation != m_generation || m_path != c.path)
        return;  // seen to already
    ++m_generation;
    m_pruned = false;
    dropped.swap(m_idle);
    // Another program may have set it aside and started afresh meanwhile:
    // the file there now is not the damaged one.
    if (c.file.second != 0 && identity(c.path) != c.file)
        return;
    const QString aside = c.path + QStringLiteral(".corrupt-")
        + QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    if (::rename(QFile::encodeName(c.path).constData(), QFile::encodeName(aside).constData()) != 0) {
        VXLog(QStringLiteral("The measurement cache %1 is damaged and cannot be set aside: measuring without it")
                  .arg(c.path));
        m_path.clear();
        return;
    }
    // Its journal belongs to it, not to the new one.
    QFile::remove(c.path + QStringLiteral("-wal"));
    QFile::remove(c.path + QStringLiteral("-shm"));
    if (!std::exchange(m_warnedDamage, true))
        VXLog(QStringLiteral("The measurement cache %1 was damaged: set aside as %2, a new one is started")
                  .arg(c.path, aside));
}

void Store::turnOff(const QString &why)
{
    std::vector<std::unique_ptr<Connection>> dropped;
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_path.isEmpty())
        return;
    VXLog(QStringLiteral("The measurement cache %1 cannot be used (%2): measuring without it").arg(m_path, why));
    m_path.clear();
    ++m_generation;
    dropped.swap(m_idle);
}

void Store::pruneOnce(Connection &c)
{
    // Once a day at most, by whichever program comes first.
    sqlite3_stmt *s = nullptr;
    qint64 last = 0;
    if (sqlite3_prepare_v2(c.db, "SELECT value FROM meta WHERE key = 'pruned'", -1, &s, nullptr) == SQLITE_OK
        && sqlite3_step(s) == SQLITE_ROW)
        last = sqlite3_column_int64(s, 0);
    sqlite3_finalize(s);
    const qint64 day = today();
    if (last >= day)
        return;
    const QByteArray prune = "BEGIN IMMEDIATE; DELETE FROM measurement WHERE used < " + QByteArray::number(day - kKeepDays)
        + "; INSERT OR REPLACE INTO meta (key, value) VALUES ('pruned', " + QByteArray::number(day) + "); COMMIT";
    if (exec(c.db, prune.constData()) != SQLITE_OK)
        exec(c.db, "ROLLBACK");  // another time
}

std::optional<vx::Measurement> Store::find(const VXMeasureCache::Key &key, bool withSteps)
{
    std::unique_ptr<Connection> c = take();
    if (!c)
        return std::nullopt;
    vx::Measurement m;
    qint64 id = 0, used = 0;
    QByteArray meter;
    int rc;
    {
        const Use use{c->find};
        bindKey(c->find, key, meter);
        if ((rc = sqlite3_step(c->find)) == SQLITE_ROW) {
            id = sqlite3_column_int64(c->find, 0);
            m.loudness.integrated = number(c->find, 1);
            m.loudness.truePeak = number(c->find, 2);
            m.loudness.range = number(c->find, 3);
            m.loudness.threshold = number(c->find, 4);
            m.loudness.maxShortTerm = number(c->find, 5);
            m.loudness.maxMomentary = number(c->find, 6);
            m.others = streamsFrom(blob(c->find, 7));
            used = sqlite3_column_int64(c->find, 8);
        }
    }
    bool found = rc == SQLITE_ROW && m.loudness.measured();
    if (found && withSteps) {
        const Use use{c->findSteps};
        sqlite3_bind_int64(c->findSteps, 1, id);
        std::optional<std::vector<qint16>> steps;
        if ((rc = sqlite3_step(c->findSteps)) == SQLITE_ROW)
            steps = unpackSteps(blob(c->findSteps, 0));
        found = steps.has_value();  // an entry whose steps are lost is measured again
        if (found) {
            m.loudness.steps = std::move(*steps);
            VXCurveFromSteps(m.loudness);
        }
    }
    if (found && used < today() - kTouchDays) {
        const Use use{c->touch};
        sqlite3_bind_int64(c->touch, 1, id);
        sqlite3_bind_int64(c->touch, 2, today());
        rc = sqlite3_step(c->touch);
    }
    if (!ok(rc) && (rc & 0xff) != SQLITE_BUSY) {
        failed(*c, rc);
        return std::nullopt;
    }
    giveBack(std::move(c));
    return found ? std::optional<vx::Measurement>(std::move(m)) : std::nullopt;
}

void Store::store(const VXMeasureCache::Key &key, const vx::Measurement &m)
{
    std::unique_ptr<Connection> c = take();
    if (!c)
        return;
    const QByteArray others = streamsBlob(m.others);
    const QByteArray steps = packSteps(m.loudness.steps);
    QByteArray meter;
    int rc = exec(c->db, "BEGIN IMMEDIATE");
    qint64 id = 0;
    if (rc == SQLITE_OK) {
        const Use use{c->upsert};
        bindKey(c->upsert, key, meter);
        const double figures[] = {m.loudness.integrated, m.loudness.truePeak, m.loudness.range,
                                  m.loudness.threshold, m.loudness.maxShortTerm, m.loudness.maxMomentary};
        for (int i = 0; i < 6; ++i)
            sqlite3_bind_double(c->upsert, 6 + i, figures[i]);
        sqlite3_bind_blob(c->upsert, 12, others.constData(), int(others.size()), SQLITE_STATIC);
        sqlite3_bind_int64(c->upsert, 13, today());
        if ((rc = sqlite3_step(c->upsert)) == SQLITE_ROW)
            id = sqlite3_column_int64(c->upsert, 0);
    }
    if (rc == SQLITE_ROW) {
        const Use use{c->putSteps};
        sqlite3_bind_int64(c->putSteps, 1, id);
        sqlite3_bind_blob(c->putSteps, 2, steps.constData(), int(steps.size()), SQLITE_STATIC);
        rc = sqlite3_step(c->putSteps);
    }
    if (rc == SQLITE_DONE)
        rc = exec(c->db, "COMMIT");
    if (rc != SQLITE_OK) {
        if (!sqlite3_get_autocommit(c->db))
            exec(c->db, "ROLLBACK");
        if ((rc & 0xff) != SQLITE_BUSY) {
            failed(*c, rc);
            return;
        }
    }
    giveBack(std::move(c));
}

// A 4-minute track has 2400 steps: 4.8 kB as they are. Music moves a few LU
// from one step to the next, so most deltas fit one or two varint bytes,
// and zlib takes off a little more; speech and silence pack far better.
QByteArray packSteps(const std::vector<qint16> &steps)
{
    if (steps.empty())
        return {};
    QByteArray deltas;
    deltas.reserve(qsizetype(steps.size() * 2));
    int previous = 0;
    for (const qint16 step : steps) {
        const int delta = step - previous;
        previous = step;
        quint32 zigzag = (quint32(delta) << 1) ^ quint32(delta >> 31);
        for (; zigzag >= 0x80; zigzag >>= 7)
            deltas.append(char(zigzag | 0x80));
        deltas.append(char(zigzag));
    }
    return qCompress(deltas, 9);
}

std::optional<std::vector<qint16>> unpackSteps(const QByteArray &blob)
{
    if (blob.isEmpty())
        return std::vector<qint16>();
    const QByteArray deltas = qUncompress(blob);
    if (deltas.isEmpty())
        return std::nullopt;  // damaged: no steps pack to nothing
    std::vector<qint16> steps;
    steps.reserve(size_t(deltas.size()));
    int previous = 0;
    quint32 zigzag = 0;
    int shift = 0;
    for (const char byte : deltas) {
        zigzag |= quint32(quint8(byte) & 0x7f) << shift;
        if (quint8(byte) & 0x80) {
            if ((shift += 7) > 21)
                return std::nullopt;
            continue;
        }
        const int step = previous + (int(zigzag >> 1) ^ -int(zigzag & 1));
        if (step < INT16_MIN || step > INT16_MAX)
            return std::nullopt;
        steps.push_back(qint16(previous = step));
        zigzag = 0;
        shift = 0;
    }
    if (shift != 0)
        return std::nullopt;
    return steps;
}

} // namespace vxcache
