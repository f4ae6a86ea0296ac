#pragma once

#include <QFileDialog>

// The "Add Files" dialog: chooses files and folders together. Qt's own
// dialog (not the platform's) so it can carry an accessory widget below its
// controls; "Open" confirms whatever is selected, folders included, while a
// double click still walks into a folder.
class RQOpenPanel : public QFileDialog {
    Q_OBJECT
public:
    explicit RQOpenPanel(QWidget *parent, const QStringList &extensions);
    void setAccessoryView(QWidget *view);

    void accept() override;
};
