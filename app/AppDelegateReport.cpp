#include "app/AppDelegate.h"

#include "app/RQAudioGainRows.h"
#include "app/RQReportExport.h"

#include "ui_MainWindow.h"

#include <QFileDialog>
#include <QFileInfo>
#include <QStandardPaths>

// File > Export Report: the dialog here, the report RQReportExport's.

void AppDelegate::connectReport()
{
    QAction *action = m_ui->actionExportReport;
    action->setEnabled(false);
    auto enable = [this] { m_ui->actionExportReport->setEnabled(m_report->available() && !m_report->busy()); };
    connect(m_report, &RQReportExport::availableChanged, this, enable);
    connect(m_report, &RQReportExport::busyChanged, this, enable);
    connect(action, &QAction::triggered, this, &AppDelegate::exportReport);
    connect(m_report, &RQReportExport::finished, this, [this](const QString &, const QString &error) {
        if (!error.isEmpty())
            alert(tr("The report could not be written."), error);
    });
}

void AppDelegate::exportReport()
{
    if (m_dialog || !m_report->available() || m_report->busy())
        return;
    auto *dialog = new QFileDialog(m_window);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowTitle(tr("Export Report"));
    dialog->setAcceptMode(QFileDialog::AcceptSave);
    dialog->setFileMode(QFileDialog::AnyFile);
    // The first filter's extension goes on a name typed without one.
    dialog->setNameFilters({tr("Web page (*.html)"), tr("PDF document (*.pdf)"), tr("Spreadsheet (*.csv)")});
    dialog->setDefaultSuffix(QStringLiteral("html"));
    // The name follows the format picked: the extension, not the filter,
    // decides what is written.
    connect(dialog, &QFileDialog::filterSelected, dialog, [dialog](const QString &filter) {
        const QString suffix = filter.section(QStringLiteral("*."), 1).chopped(1);
        dialog->setDefaultSuffix(suffix);
        const QFileInfo chosen(dialog->selectedFiles().value(0));
        if (VXReportFormatOf(chosen.fileName()) != VXReportFormat::Unknown)
            dialog->selectFile(chosen.completeBaseName() + QLatin1Char('.') + suffix);
    });
    dialog->setDirectory(!outFolder().isEmpty() ? outFolder()
                                                : QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation));
    dialog->selectFile(tr("Loudness report.html"));
    connect(dialog, &QDialog::finished, this, [this, dialog](int result) {
        m_dialog = nullptr;
        const QStringList chosen = dialog->selectedFiles();
        if (result == QDialog::Accepted && !chosen.isEmpty())
            exportReportTo(chosen.first());
    });
    m_dialog = dialog;
    dialog->setWindowModality(Qt::WindowModal);
    dialog->open();
}

void AppDelegate::exportReportTo(const QString &path)
{
    // A name with another extension is written as a web page beside it.
    QString target = path;
    if (VXReportFormatOf(target) == VXReportFormat::Unknown)
        target += QStringLiteral(".html");
    m_report->exportTo(target);
}
