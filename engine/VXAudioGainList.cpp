#include "engine/VXAudioGainList.h"

#include "engine/VXImport.h"

#include <algorithm>
#include <vector>

namespace {
// Adds roles to into; an empty list stands for every role.
void mergeRoles(QList<int> &into, const QList<int> &roles)
{
    if (into.isEmpty())
        return;
    if (roles.isEmpty()) {
        into.clear();
        return;
    }
    for (int role : roles) {
        if (!into.contains(role))
            into.append(role);
    }
}
} // namespace

VXAudioGainList::VXAudioGainList(QObject *parent) : QAbstractListModel(parent)
{
    m_items.reserve(4);
}

VXAudioGainList::~VXAudioGainList()
{
    // Jobs may outlive the list (they hold their item); their later signals
    // must not reach a dead model.
    for (const VXAudioGainPtr &item : std::as_const(m_items))
        unwatch(item);
}

int VXAudioGainList::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_items.size());
}

QVariant VXAudioGainList::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() < 0 || index.row() >= m_items.size())
        return {};
    const VXAudioGain *item = m_items.at(index.row()).get();
    switch (role) {
    case Qt::DisplayRole:
    case NameRole: return item->inputFileName();
    case ItemRole: return QVariant::fromValue(const_cast<VXAudioGain *>(item));
    case FaceRole: return item->face();
    case SizeTextRole: return item->formatInputFileSize();
    case DurationTextRole: return item->formatDuration();
    case TargetTextRole: return item->formatTargetLoudness();
    case AllowedTargetEditRole: return item->allowedTargetLoudnessEdit();
    case StateImageRole: return item->stateImage();
    case StateRole: return item->state();
    case RetCodeRole: return item->retCode();
    case TargetLoudnessRole: return item->targetLoudness();
    // Screen readers hear how the job ended: its figures or its reason.
    case Qt::AccessibleDescriptionRole: return item->outcomeText();
    default: return {};
    }
}

QHash<int, QByteArray> VXAudioGainList::roleNames() const
{
    return {
        {Qt::DisplayRole, "display"},
        {ItemRole, "item"},
        {FaceRole, "face"},
        {NameRole, "inputFileName"},
        {SizeTextRole, "formatInputFileSize"},
        {DurationTextRole, "formatDuration"},
        {TargetTextRole, "formatTargetLoudness"},
        {AllowedTargetEditRole, "allowedTargetLoudnessEdit"},
        {StateImageRole, "stateImage"},
        {StateRole, "state"},
        {RetCodeRole, "retCode"},
        {TargetLoudnessRole, "targetLoudness"},
    };
}

int VXAudioGainList::count() const { return int(m_items.size()); }

QList<VXAudioGainPtr> VXAudioGainList::audioGains() const { return m_items; }

VXAudioGainPtr VXAudioGainList::at(int index) const
{
    return index >= 0 && index < m_items.size() ? m_items.at(index) : nullptr;
}

void VXAudioGainList::setAudioGains(const QList<VXAudioGainPtr> &items)
{
    beginResetModel();
    for (const VXAudioGainPtr &item : std::as_const(m_items))
        unwatch(item);
    m_items.clear();
    m_rowsStale = true;
    ++m_shape;
    for (const VXAudioGainPtr &item : items) {
        if (!item)
            continue;
        m_items.append(item);
        watch(item);
    }
    endResetModel();
    emit countChanged();
}

void VXAudioGainList::insertObject(const VXAudioGainPtr &item, int index)
{
    if (!item)
        return;
    index = std::clamp(index, 0, count());
    beginInsertRows({}, index, index);
    // An import appends: the rows before it keep their numbers.
    if (index == count() && !m_rowsStale) {
        if (!m_rows.contains(item.get()))
            m_rows.insert(item.get(), index);
    } else {
        m_rowsStale = true;
    }
    m_items.insert(index, item);
    ++m_shape;
    watch(item);
    endInsertRows();
    emit countChanged();
}

void VXAudioGainList::removeObjectFromAudioGainsAtIndex(int index)
{
    removeAudioGainsAtIndexes({index});
}

void VXAudioGainList::removeAudioGainsAtIndexes(const QList<int> &indexes)
{
    QList<int> rows;
    rows.reserve(indexes.size());
    for (int row : indexes) {
        if (row >= 0 && row < m_items.size())
            rows.append(row);
    }
    std::sort(rows.begin(), rows.end());
    rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
    if (rows.isEmpty())
        return;

    // From the back, so the rows still to be removed keep their numbers.
    qsizetype end = rows.size();
    while (end > 0) {
        qsizetype start = end - 1;
        while (start > 0 && rows.at(start - 1) == rows.at(start) - 1)
            --start;
        const int first = rows.at(start), last = rows.at(end - 1);
        beginRemoveRows({}, first, last);
        for (int row = first; row <= last; ++row)
            unwatch(m_items.at(row));
        m_items.remove(first, last - first + 1);
        m_rowsStale = true;
        ++m_shape;
        endRemoveRows();
        end = start;
    }
    emit countChanged();
}

void VXAudioGainList::replaceObject(int index, const VXAudioGainPtr &item)
{
    if (!item || index < 0 || index >= m_items.size())
        return;
    unwatch(m_items.at(index));
    m_items[index] = item;
    m_rowsStale = true;
    ++m_shape;
    watch(item);
    const QModelIndex changed = createIndex(index, 0);
    emit dataChanged(changed, changed);
}

int VXAudioGainList::indexOf(const VXAudioGain *item) const
{
    if (m_rowsStale) {
        m_rows.clear();
        m_rows.reserve(m_items.size());
        // From the back, so that an item standing twice keeps its first row.
        for (qsizetype row = m_items.size() - 1; row >= 0; --row)
            m_rows.insert(m_items.at(row).get(), int(row));
        m_rowsStale = false;
    }
    return m_rows.value(item, -1);
}

bool VXAudioGainList::containsInput(const QString &path) const
{
    const QString key = VXImport::inputKey(path);
    QMutexLocker locker(&m_inputKeysLock);
    return m_inputKeys.contains(key);
}

void VXAudioGainList::noteRowChanged(const VXAudioGain *item, const QList<int> &roles)
{
    if (!m_watches.contains(item))
        return;
    const auto it = m_changed.find(item);
    if (it == m_changed.end())
        m_changed.insert(item, roles);
    else
        mergeRoles(it.value(), roles);
    if (m_flushQueued)
        return;
    m_flushQueued = true;
    QMetaObject::invokeMethod(
        this,
        [this] {
            m_flushQueued = false;
            flushRowChanges();
        },
        Qt::QueuedConnection);
}

void VXAudioGainList::flushRowChanges()
{
    if (m_changed.isEmpty())
        return;
    struct Change {
        int row;
        const VXAudioGain *item;
        QList<int> roles;
    };
    std::vector<Change> changes;
    changes.reserve(m_changed.size());
    for (auto it = m_changed.cbegin(); it != m_changed.cend(); ++it) {
        if (const int row = indexOf(it.key()); row >= 0)
            changes.push_back({row, it.key(), it.value()});
    }
    m_changed.clear();
    std::sort(changes.begin(), changes.end(), [](const Change &a, const Change &b) { return a.row < b.row; });

    // A receiver may change the list; the rows still to announce are then
    // looked up again at the next flush.
    const quint64 shape = m_shape;
    for (size_t first = 0; first < changes.size();) {
        if (m_shape != shape) {
            for (size_t i = first; i < changes.size(); ++i)
                noteRowChanged(changes[i].item, changes[i].roles);
            return;
        }
        size_t last = first;
        while (last + 1 < changes.size() && changes[last + 1].row <= changes[last].row + 1)
            ++last;
        if (changes[last].row - changes[first].row < kRowsApart) {
            const Change &change = changes[first];
            emit dataChanged(createIndex(change.row, 0), createIndex(change.row, 0), change.roles);
            ++first;
            continue;
        }
        QList<int> roles = changes[first].roles;
        for (size_t i = first + 1; i <= last; ++i)
            mergeRoles(roles, changes[i].roles);
        emit dataChanged(createIndex(changes[first].row, 0), createIndex(changes[last].row, 0), roles);
        first = last + 1;
    }
}

void VXAudioGainList::watch(const VXAudioGainPtr &item)
{
    {
        const QString key = VXImport::inputKey(item->inputFile());
        QMutexLocker locker(&m_inputKeysLock);
        ++m_inputKeys[key];
    }
    const VXAudioGain *raw = item.get();
    Watch &watch = m_watches[raw];
    if (watch.refs++ > 0)
        return;
    auto on = [this, raw](auto signal, QList<int> roles) {
        return connect(raw, signal, this, [this, raw, roles] { noteRowChanged(raw, roles); });
    };
    watch.connections << on(&VXAudioGain::stateChanged, {StateRole, AllowedTargetEditRole})
                      << on(&VXAudioGain::retCodeChanged, {RetCodeRole})
                      << on(&VXAudioGain::stateImageChanged, {StateImageRole})
                      << on(&VXAudioGain::targetLoudnessChanged, {TargetLoudnessRole, TargetTextRole})
                      << on(&VXAudioGain::outcomeTextChanged, {Qt::AccessibleDescriptionRole});
}

void VXAudioGainList::unwatch(const VXAudioGainPtr &item)
{
    {
        const QString inputKey = VXImport::inputKey(item->inputFile());
        QMutexLocker locker(&m_inputKeysLock);
        auto key = m_inputKeys.find(inputKey);
        if (key != m_inputKeys.end() && --key.value() <= 0)
            m_inputKeys.erase(key);
    }
    auto watch = m_watches.find(item.get());
    if (watch == m_watches.end() || --watch->refs > 0)
        return;
    for (const QMetaObject::Connection &c : std::as_const(watch->connections))
        disconnect(c);
    m_watches.erase(watch);
    // Its address may come back with another item before the next flush.
    m_changed.remove(item.get());
}
