#pragma once

#include <QCoreApplication>
#include <QGuiApplication>
#include <QDir>
#include <QItemSelectionModel>
#include <QListView>
#include <QSettings>
#include <QStandardPaths>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>
#include <functional>
#include <memory>

#include "app/AppDelegate.h"
#include "engine/VXMeasureCache.h"
#include "engine/VXMainThread.h"
#include "tests/support/Fixtures.h"

namespace apptest {

using fixtures::makeWav;
using fixtures::waitFor;

// One process-wide setup: the app's identity and settings in a private place.
inline void initApplication(const QString &settingsDir)
{
    QCoreApplication::setApplicationName(QStringLiteral("Evenloud"));
    QCoreApplication::setOrganizationName(QStringLiteral("EvenloudTests"));
    QStandardPaths::setTestModeEnabled(true);
    QSettings::setDefaultFormat(QSettings::IniFormat);
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, settingsDir);
    QSettings().clear();
    // Measurements too: test mode would put them in ~/.qttest otherwise.
    VXMeasureCache::configure({VXMeasureCache::Location::File, settingsDir + QStringLiteral("/measurements.sqlite")});
    // Closing a test's window must not end the test run.
    QGuiApplication::setQuitOnLastWindowClosed(false);
}

struct Alert {
    QString message;
    QString informative;
};

// A started controller whose alerts are recorded instead of shown.
struct Controller {
    std::unique_ptr<AppDelegate> app;
    std::shared_ptr<QList<Alert>> alerts = std::make_shared<QList<Alert>>();
    std::shared_ptr<QStringList> revealed = std::make_shared<QStringList>();

    Controller()
    {
        // A previous controller's shutdown stops the hops; this one needs them.
        VXMainThread::resume();
        app = std::make_unique<AppDelegate>();
        auto alerts_ = alerts;
        app->setAlertPresenter([alerts_](const QString &m, const QString &i) { alerts_->append({m, i}); });
        auto revealed_ = revealed;
        app->setFolderRevealer([revealed_](const QString &f) { revealed_->append(f); });
        app->applicationDidFinishLaunching();
    }
    AppDelegate *operator->() const { return app.get(); }

    // Starts an import the way given and waits for the walk's end.
    bool importVia(const std::function<void()> &start)
    {
        bool done = false;
        auto c = QObject::connect(app.get(), &AppDelegate::importFinished, [&done] { done = true; });
        start();
        const bool ok = waitFor([&] { return done; });
        QObject::disconnect(c);
        return ok;
    }
    bool import(const QStringList &paths, bool recursive = false)
    {
        return importVia([&] { app->importAudioWithPaths(paths, recursive); });
    }
    // Selects exactly these rows of the list view.
    void select(const QList<int> &rows)
    {
        QItemSelectionModel *selection = app->tableView()->selectionModel();
        selection->clearSelection();
        for (int row : rows)
            selection->select(app->audioGains()->index(row), QItemSelectionModel::Select);
    }
    QStringList names() const
    {
        QStringList names;
        for (const VXAudioGainPtr &item : app->audioGains()->items())
            names << item->inputFileName();
        return names;
    }
    QStringList sortedNames() const
    {
        QStringList sorted = names();
        sorted.sort();
        return sorted;
    }
};

} // namespace apptest
