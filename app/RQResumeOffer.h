#pragma once

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

class QWidget;
class RQImportController;
class VXAudioGainList;

// At start-up: a batch that a dead program left unfinished is offered back,
// its files not done added to the list with their targets when the user
// agrees. Deletes itself once answered.
class RQResumeOffer : public QObject {
    Q_OBJECT
public:
    // Asks only when there is something to offer; the window, the import
    // and the list outlive the question.
    static void offer(QWidget *window, RQImportController *import, VXAudioGainList *list);

private:
    RQResumeOffer(RQImportController *import, VXAudioGainList *list, QObject *parent);
    void applyTargets();

    RQImportController *m_import;
    VXAudioGainList *m_list;
    QStringList m_paths;              // in the batch's order
    QHash<QString, float> m_targets;  // by path, for the rows as they arrive
};
