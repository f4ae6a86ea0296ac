#include "app/RQOpenPanel.h"

#include <QFileInfo>
#include <QGridLayout>

RQOpenPanel::RQOpenPanel(QWidget *parent, const QStringList &extensions) : QFileDialog(parent)
{
    setOption(QFileDialog::DontUseNativeDialog, true);
    setFileMode(QFileDialog::ExistingFiles);
    setAcceptMode(QFileDialog::AcceptOpen);
    setOption(QFileDialog::ReadOnly, true);  // no "new folder" in an open dialog
    // Name filters match case-sensitively on Linux; "Song.MP3" must show.
    QStringList patterns;
    for (const QString &ext : extensions)
        patterns << QStringLiteral("*.") + ext << QStringLiteral("*.") + ext.toUpper();
    setNameFilters({tr("Audio files (%1)").arg(patterns.join(QLatin1Char(' '))), tr("All files (*)")});
    setWindowTitle(tr("Add Audio Files"));
}

void RQOpenPanel::setAccessoryView(QWidget *view)
{
    if (auto *grid = qobject_cast<QGridLayout *>(layout()))
        grid->addWidget(view, grid->rowCount(), 0, 1, grid->columnCount());
    else if (layout())
        layout()->addWidget(view);
}

void RQOpenPanel::accept()
{
    const QStringList chosen = selectedFiles();
    bool allExist = !chosen.isEmpty();
    for (const QString &path : chosen)
        allExist = allExist && QFileInfo::exists(path);
    // QFileDialog would open a chosen folder instead of returning it.
    if (allExist)
        QDialog::accept();
    else
        QFileDialog::accept();
}
