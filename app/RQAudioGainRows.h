#pragma once

#include "engine/VXAudioGainList.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <QHash>

// The list model as the window shows it: a screen reader hears each row's
// name, then its size, duration, target (position and LUFS), measured
// loudness, state, progress and outcome, the row's whole face in words.
// It also keeps what Analyze measured of each row (and of its result after
// a run), which the tooltip and the loudness picture show.
class RQAudioGainRows : public VXAudioGainList {
    Q_OBJECT
public:
    struct Measured {
        VXLoudness input;   // with its short-term curve
        VXLoudness output;  // the result's, after a run; not measured otherwise
    };

    explicit RQAudioGainRows(QObject *parent = nullptr);
    QVariant data(const QModelIndex &index, int role) const override;
    static QString describe(const VXAudioGain &item, const Measured *measured = nullptr);
    // Nothing for a row never analysed. Do not keep it across a change of the list.
    const Measured *measured(const VXAudioGain *item) const;
    // Ignored for an item no longer in the list; its row's dataChanged
    // follows with the list's other changes of this turn.
    void setMeasured(const VXAudioGain *item, const VXLoudness &loudness, bool output);

private:
    QHash<const VXAudioGain *, Measured> m_measured;
};
