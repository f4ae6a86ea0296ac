#include "engine/VXAudioGainList.h"

#include "engine/VXImport.h"

#include <algorithm>

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
    m_items.insert(index, item);
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
    watch(item);
    const QModelIndex changed = createIndex(index, 0);
    emit dataChanged(changed, changed);
}

int VXAudioGainList::indexOf(const VXAudioGain *item) const
{
    const auto it = std::find_if(m_items.cbegin(), m_items.cend(),
                                 [item](const VXAudioGainPtr &p) { return p.get() == item; });
    return it == m_items.cend() ? -1 : int(it - m_items.cbegin());
}

bool VXAudioGainList::containsInput(const QString &path) const
{
    const QString key = VXImport::inputKey(path);
    QMutexLocker locker(&m_inputKeysLock);
    return m_inputKeys.contains(key);
}

void VXAudioGainList::emitRowChanged(const VXAudioGain *item, const QList<int> &roles)
{
    const int row = indexOf(item);
    if (row < 0)
        return;
    const QModelIndex changed = createIndex(row, 0);
    emit dataChanged(changed, changed, roles);
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
        return connect(raw, signal, this, [this, raw, roles] { emitRowChanged(raw, roles); });
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
}
