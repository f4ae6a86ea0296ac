#pragma once

#include "engine/VXReport.h"

#include <QList>
#include <QObject>

class RQAudioGainRows;
class RQSettingsController;
class VXAudioGain;

// File > Export Report: the rows' figures, as the command line's --json
// would give them, written by the engine's report on a pool thread. Only
// rows with figures (analysed, or measured by a job) are in it. GUI thread.
class RQReportExport : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool available READ available NOTIFY availableChanged)
    Q_PROPERTY(bool busy READ busy NOTIFY busyChanged)
public:
    RQReportExport(RQAudioGainRows *rows, const RQSettingsController *settings, QObject *parent = nullptr);

    // Some row has figures to report.
    bool available() const { return m_available; }
    bool busy() const { return m_busy; }
    // What a report of the list holds now, in the list's order.
    QList<VXReportFile> files() const;
    // One row's record, in --json's keys; empty when it has no figures.
    static QJsonObject record(const VXAudioGain &item, const RQAudioGainRows &rows);
    // Starts writing; ignored while a report is being written.
    void exportTo(const QString &path);

signals:
    void availableChanged();
    void busyChanged();
    // error is empty when the report was written.
    void finished(const QString &path, const QString &error, const VXReportCounts &counts);

private:
    void updateAvailable(int first, int last);
    void setAvailable(bool available);

    RQAudioGainRows *m_rows;
    const RQSettingsController *m_settings;
    bool m_available = false;
    bool m_busy = false;
};
