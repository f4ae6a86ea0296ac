#include "app/RQResumeOffer.h"

#include "app/RQBatchJournal.h"
#include "app/RQImportController.h"
#include "engine/VXAudioGainList.h"

#include <QMessageBox>
#include <QPushButton>
#include <QWidget>

RQResumeOffer::RQResumeOffer(RQImportController *import, VXAudioGainList *list, QObject *parent)
    : QObject(parent), m_import(import), m_list(list)
{
}

void RQResumeOffer::offer(QWidget *window, RQImportController *import, VXAudioGainList *list)
{
    const QList<RQBatchJournal::Interrupted> batches = RQBatchJournal::takeInterrupted();
    if (batches.isEmpty())
        return;
    auto *self = new RQResumeOffer(import, list, window);
    int total = 0;
    for (const RQBatchJournal::Interrupted &batch : batches) {
        total += batch.total;
        for (const auto &[path, target] : batch.undone) {
            if (!self->m_targets.contains(path))
                self->m_paths << path;
            self->m_targets.insert(path, target);
        }
    }
    auto *box = new QMessageBox(window);
    box->setIcon(QMessageBox::Question);
    box->setWindowTitle(tr("Resume"));
    box->setText(tr("The last batch was stopped before it ended."));
    box->setInformativeText(tr("%1 of %2 files were not gained. Add them to the list to gain them again; "
                               "the files that were done stay as they are.")
                                .arg(self->m_targets.size())
                                .arg(total));
    QPushButton *add = box->addButton(tr("Add to List"), QMessageBox::AcceptRole);
    box->addButton(tr("Discard"), QMessageBox::RejectRole);
    box->setDefaultButton(add);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowModality(Qt::WindowModal);
    connect(box, &QMessageBox::finished, self, [self, box, add] {
        if (box->clickedButton() != add) {
            self->deleteLater();
            return;
        }
        connect(self->m_import, &RQImportController::importFinished, self, [self] {
            self->applyTargets();
            self->deleteLater();
        });
        self->m_import->openPaths(self->m_paths);
    });
    box->open();
}

void RQResumeOffer::applyTargets()
{
    for (const VXAudioGainPtr &item : m_list->items()) {
        const auto it = m_targets.constFind(item->inputFile());
        if (it != m_targets.constEnd())
            item->setTargetLoudness(*it);
    }
}
