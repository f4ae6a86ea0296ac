#include "app/AppDelegate.h"

#include "app/RQAudioGainRows.h"
#include "app/RQAuditionController.h"
#include "app/RQSettingsController.h"
#include "engine/VXGainState.h"
#include "engine/VXJobPlan.h"

#include "ui_MainWindow.h"

#include <QItemSelectionModel>
#include <QJsonObject>
#include <QMenu>
#include <QMenuBar>

VXAudioGainPtr AppDelegate::shownItem() const
{
    const QList<int> selected = selectedRows();
    const int current = tableView()->currentIndex().row();
    return m_audioGains->at(selected.contains(current) ? current : selected.value(0, -1));
}

// Audition: the Play menu and its keys, the picture's buttons, playhead and
// seeking; a row's figures, target and result tell the controller what A
// and B are.
void AppDelegate::connectAudition()
{
    RQAuditionController::Sources sources;
    sources.currentItem = [this] { return shownItem(); };
    sources.facts = [this](const VXAudioGain &item) {
        VXAuditionFacts facts;
        facts.input = item.inputFile();
        if (const RQAudioGainRows::Measured *m = rows()->measured(&item))
            facts.measured = m->input;
        else if (const QVariantMap record = item.measurement(); !record.isEmpty())
            facts.measured = VXLoudnessFromRecord(QJsonObject::fromVariantMap(record));
        facts.settings = m_settings->settings();
        facts.settings.targetLoudness = item.targetLoudness();
        if (item.state() == VXGainFinished && item.retCode() == VXGainSucceeded && !item.gainResult().tagged) {
            facts.result = item.gainResult();
            facts.output = item.outPathFile();
            facts.replaced = item.replaceOriginalFile();
        }
        return facts;
    };
    m_audition = new RQAuditionController(std::move(sources), this);

    Ui::MainWindow &ui = *m_ui;
    auto *menu = new QMenu(tr("&Play"), ui.menuBar);
    menu->addActions(m_audition->actions());
    ui.menuBar->insertMenu(ui.menuHelp->menuAction(), menu);
    m_window->addActions(m_audition->actions());
    ui.loudnessView->setControls(m_audition->actions());

    connect(ui.loudnessView, &RQLoudnessView::seekRequested, this, [this](double seconds) {
        if (const VXAudioGainPtr item = shownItem())
            m_audition->playFrom(item, seconds);
    });
    // The playhead is drawn over the picture of the row heard only.
    auto placePlayhead = [this] {
        const bool shown = m_audition->item() && m_audition->item() == shownItem();
        m_ui->loudnessView->setPlayhead(shown ? m_audition->position() : NAN);
    };
    connect(m_audition, &RQAuditionController::positionChanged, this, placePlayhead);
    connect(tableView()->selectionModel(), &QItemSelectionModel::selectionChanged, this, placePlayhead);
    connect(tableView()->selectionModel(), &QItemSelectionModel::currentChanged, this, placePlayhead);
    connect(m_audition, &RQAuditionController::messageRequested, this, &AppDelegate::alert);
    connect(m_audition, &RQAuditionController::measureRequested, this, [this](const VXAudioGainPtr &item) {
        if (!item->isRunning() && !rows()->measured(item.get()))
            analyze(item, item->inputFile(), false);
    });
    connect(m_audioGains, &QAbstractItemModel::dataChanged, this, [this](const QModelIndex &from, const QModelIndex &to) {
        const VXAudioGainPtr heard = m_audition->item();
        for (int row = from.row(); heard && row <= to.row(); ++row)
            if (m_audioGains->at(row) == heard)
                m_audition->itemChanged(heard.get());
    });
    connect(m_settings, &RQSettingsController::settingsChanged, this, [this] {
        if (const VXAudioGainPtr heard = m_audition->item())
            m_audition->itemChanged(heard.get());
    });
    // A row that leaves the list is no longer heard.
    auto forgetGone = [this] {
        if (const VXAudioGainPtr heard = m_audition->item(); heard && !m_audioGains->items().contains(heard))
            m_audition->stop();
    };
    connect(m_audioGains, &QAbstractItemModel::rowsRemoved, this, forgetGone);
    connect(m_audioGains, &QAbstractItemModel::modelReset, this, forgetGone);
}
