#pragma once

// The SQLite file behind VXMeasureCache: one row of figures per file
// identity, the steps apart in a table of their own so that a lookup reads
// a hundred bytes and no blob. Private to the cache.

#include "engine/VXMeasureCache.h"

#include <QByteArray>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace vxcache {

// The steps as a blob: zigzag varint deltas, zlib'd.
QByteArray packSteps(const std::vector<qint16> &steps);
std::optional<std::vector<qint16>> unpackSteps(const QByteArray &blob);

struct Connection;

// Process-wide; every call may come from any thread. A failure of the file
// never reaches the caller: it is a miss, or a store not made.
class Store {
public:
    static Store &instance();

    // The database to use from now on; empty: none.
    void setPath(const QString &path);
    QString path();
    std::optional<vx::Measurement> find(const VXMeasureCache::Key &key, bool withSteps);
    void store(const VXMeasureCache::Key &key, const vx::Measurement &m);

private:
    // An open connection of the current database, or null when there is none.
    std::unique_ptr<Connection> take();
    void giveBack(std::unique_ptr<Connection> c);
    std::unique_ptr<Connection> open(const QString &path, quint64 generation);
    // What a failed SQLite call means for the file behind c, which the
    // caller then drops: busy is passed over; damage sets the file aside
    // for a fresh one; anything else turns the cache off for this process.
    void failed(Connection &c, int code);
    void setAside(Connection &c);
    void turnOff(const QString &why);
    void pruneOnce(Connection &c);

    std::mutex m_lock;
    QString m_path;
    quint64 m_generation = 0;  // raised at each change of file: older connections are dropped
    bool m_pruned = false;
    bool m_warnedDamage = false;
    std::vector<std::unique_ptr<Connection>> m_idle;
};

} // namespace vxcache
