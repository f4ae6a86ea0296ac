#pragma once

#include "engine/VXAudioGainList.h"

// The list model as the window shows it: a screen reader hears each row's
// name, then its size, duration, target (position and LUFS), state,
// progress and outcome, the row's whole face in words.
class RQAudioGainRows : public VXAudioGainList {
    Q_OBJECT
public:
    using VXAudioGainList::VXAudioGainList;
    QVariant data(const QModelIndex &index, int role) const override;
    static QString describe(const VXAudioGain &item);
};
