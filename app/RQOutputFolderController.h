#pragma once

#include <QObject>
#include <QString>
#include <functional>

// Where results go: the chosen output folder (remembered between runs) or
// the originals' place when replacing them, and showing that folder in the
// file manager. GUI thread only.
class RQOutputFolderController : public QObject {
    Q_OBJECT
public:
    // Shows the folder in the file manager.
    using FolderRevealer = std::function<void(const QString &folder)>;

    // Starts from no folder; the remembered one is userSelectOutFolder().
    explicit RQOutputFolderController(QObject *parent = nullptr);

    QString outFolder() const { return m_outFolder; }  // null: none chosen yet
    // For this run only; choose() also remembers it.
    void setOutFolder(const QString &folder);
    bool replaceOriginalFile() const { return m_replaceOriginalFile; }
    void setReplaceOriginalFile(bool replace);
    // The user's choice from the folder dialog: used from now on and remembered.
    void choose(const QString &folder);
    static void saveUserSelectedURL(const QString &folder);
    static QString userSelectOutFolder();

    // Shows the folder through the revealer; nothing without a folder.
    void reveal();
    void setFolderRevealer(FolderRevealer revealer) { m_reveal = std::move(revealer); }

signals:
    void outFolderChanged();
    void replaceOriginalFileChanged();
    // Nothing could show the folder.
    void alertRequested(const QString &message, const QString &informative);

private:
    void revealFolder(const QString &folder);

    QString m_outFolder;
    bool m_replaceOriginalFile = false;
    FolderRevealer m_reveal;
};
