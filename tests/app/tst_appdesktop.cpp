// The app as a desktop program: its command line, a second launch handing
// files over, what a screen reader finds, and closing with the popup open.
#include "AppTestUtil.h"

#include "app/RQCommandLine.h"
#include "app/RQSingleInstance.h"
#include "views/RQPopupMenuWndCtrl.h"
#include "views/RQTableCellView.h"

#include <QAccessible>
#include <QListView>
#include <QMimeData>
#include <QProcess>
#include <QSignalSpy>

using namespace apptest;

namespace {

// Every interface under root, depth first.
void collect(QAccessibleInterface *root, QList<QAccessibleInterface *> &out, int depth = 0)
{
    if (!root || depth > 30)
        return;
    out << root;
    for (int i = 0; i < root->childCount(); ++i)
        collect(root->child(i), out, depth + 1);
}

QAccessibleInterface *findNamed(const QList<QAccessibleInterface *> &all, QAccessible::Role role, const QString &name)
{
    for (QAccessibleInterface *iface : all) {
        if (iface->role() == role && iface->text(QAccessible::Name) == name)
            return iface;
    }
    return nullptr;
}

// Runs the real program and spins the event loop meanwhile, so a window in
// this process can answer it.
int runProgram(const QStringList &arguments, const QProcessEnvironment &environment, QByteArray *output = nullptr)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(EVENLOUD_GUI_PATH), arguments);
    if (!process.waitForStarted())
        return -1;
    if (!waitFor([&] { return process.state() == QProcess::NotRunning; })) {
        process.kill();
        process.waitForFinished();
        return -1;
    }
    if (output)
        *output = process.readAllStandardOutput();
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

} // namespace

class TestAppDesktop : public QObject {
    Q_OBJECT
    QTemporaryDir m_dir;
    QString m_tree;  // tree/{a.wav, notes.txt, sub/b.wav, sub/deeper/c.wav}

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        initApplication(m_dir.filePath(QStringLiteral("settings")));
        m_tree = m_dir.filePath(QStringLiteral("tree"));
        QVERIFY(QDir().mkpath(m_tree + QStringLiteral("/sub/deeper")));
        const QString wav = makeWav(m_tree, QStringLiteral("a.wav"), 0.5);
        QVERIFY(!wav.isEmpty());
        QVERIFY(QFile::copy(wav, m_tree + QStringLiteral("/sub/b.wav")));
        QVERIFY(QFile::copy(wav, m_tree + QStringLiteral("/sub/deeper/c.wav")));
        QVERIFY(fixtures::writeFile(m_tree + QStringLiteral("/notes.txt"), "not audio"));
    }

    void versionHelpAndArgumentsImportedAsADrop()
    {
        QByteArray out;
        QCOMPARE(runProgram({QStringLiteral("--version")}, QProcessEnvironment::systemEnvironment(), &out), 0);
        QVERIFY2(out.startsWith("evenloud "), out.constData());
        QCOMPARE(runProgram({QStringLiteral("--help")}, QProcessEnvironment::systemEnvironment(), &out), 0);
        QVERIFY(out.contains("--version"));
        // Debug flags stay accepted, and hidden.
        QVERIFY(!out.contains("--screenshot"));
        QCOMPARE(RQCommandLine::parse({QStringLiteral("evenloud"), QStringLiteral("--quit-after"),
                                       QStringLiteral("5")}, m_tree).outcome, RQCommandLine::Run);
        QCOMPARE(RQCommandLine::parse({QStringLiteral("evenloud"), QStringLiteral("--nonsense")}, m_tree).outcome,
                 RQCommandLine::Error);

        // Relative paths, a folder and a file: URL, from the folder the program started in.
        const RQCommandLine command = RQCommandLine::parse(
            {QStringLiteral("evenloud"), QStringLiteral("a.wav"), QStringLiteral("sub"), QStringLiteral("notes.txt"),
             QUrl::fromLocalFile(m_tree + QStringLiteral("/sub/deeper/c.wav")).toString()},
            m_tree);
        QCOMPARE(command.outcome, RQCommandLine::Run);
        QVERIFY(!command.scripted);
        const QStringList expectedPaths{m_tree + QStringLiteral("/a.wav"), m_tree + QStringLiteral("/sub"),
                                        m_tree + QStringLiteral("/notes.txt"),
                                        m_tree + QStringLiteral("/sub/deeper/c.wav")};
        QCOMPARE(command.paths, expectedPaths);

        Controller opened, dropped;
        QVERIFY(opened.importVia([&] { QVERIFY(opened->openPaths(command.paths)); }));
        QVERIFY(dropped.importVia([&] {
            QMimeData data;
            QList<QUrl> urls;
            for (const QString &path : command.paths)
                urls << QUrl::fromLocalFile(path);
            data.setUrls(urls);
            QVERIFY(dropped->acceptDropWithDragInfo(&data));
        }));
        QCOMPARE(opened.sortedNames(), dropped.sortedNames());
        QCOMPARE(opened.sortedNames(), (QStringList{QStringLiteral("a.wav"), QStringLiteral("b.wav"), QStringLiteral("c.wav")}));
    }

    void secondLaunchHandsItsFilesToTheOpenWindow()
    {
        const QString runtime = m_dir.filePath(QStringLiteral("runtime"));
        QVERIFY(QDir().mkpath(runtime));
        // A runtime folder others can read is refused for a private one.
        QVERIFY(QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        const QString name = runtime + QStringLiteral("/org.evenloud.Evenloud");
        // A socket file that a crashed window left behind is taken over.
        QVERIFY(fixtures::writeFile(name, {}));

        Controller c;
        RQSingleInstance first(name);
        QVERIFY(first.listen());
        QObject::connect(&first, &RQSingleInstance::pathsReceived, c.app.get(),
                         [&c](const QStringList &paths) { c->openPaths(paths); });
        QSignalSpy imported(c.app.get(), &AppDelegate::importFinished);

        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
        QCOMPARE(runProgram({m_tree + QStringLiteral("/a.wav"), m_tree + QStringLiteral("/sub")}, environment), 0);
        QVERIFY(waitFor([&] { return imported.count() > 0; }));
        QCOMPARE(c.sortedNames(), (QStringList{QStringLiteral("a.wav"), QStringLiteral("b.wav")}));

        // Once the window has gone, a launch finds nobody to hand over to.
        QObject::disconnect(&first, nullptr, nullptr, nullptr);
        RQSingleInstance later(m_dir.filePath(QStringLiteral("nobody")));
        QVERIFY(!later.handOver({m_tree + QStringLiteral("/a.wav")}, 1000));
    }

    void screenReaderFindsNamesRowsAndThePopupAltF4Closes()
    {
        Controller c;
        QVERIFY(c.import({m_tree + QStringLiteral("/a.wav")}));
        c->window()->show();
        c->window()->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(c->window()));

        QAccessibleInterface *root = QAccessible::queryAccessibleInterface(c->window());
        QVERIFY(root);
        QList<QAccessibleInterface *> all;
        collect(root, all);
        // Every control a user can act on says what it is and what it does.
        auto everyControlSaysWhatItDoes = [](const QList<QAccessibleInterface *> &interfaces) {
            const QList<QAccessible::Role> controls{QAccessible::PushButton, QAccessible::CheckBox,
                                                    QAccessible::List,       QAccessible::EditableText,
                                                    QAccessible::Slider,     QAccessible::SpinBox,
                                                    QAccessible::ButtonMenu};
            int checked = 0;
            for (QAccessibleInterface *iface : interfaces) {
                if (!controls.contains(iface->role()) || iface->state().invisible)
                    continue;
                const QString what = iface->object() ? iface->object()->objectName() : QString();
                if (iface->text(QAccessible::Name).isEmpty() || iface->text(QAccessible::Description).isEmpty())
                    return what;
                ++checked;
            }
            return checked > 0 ? QString() : QStringLiteral("no control at all");
        };
        QCOMPARE(everyControlSaysWhatItDoes(all), QString());
        QVERIFY(findNamed(all, QAccessible::PushButton, QStringLiteral("Add files")));
        // No folder chosen: said, not only shown as a placeholder.
        QAccessibleInterface *folder = findNamed(all, QAccessible::EditableText, QStringLiteral("Output folder"));
        QVERIFY(folder);
        QCOMPARE(folder->text(QAccessible::Value), QString());
        QCOMPARE(folder->text(QAccessible::Description), QStringLiteral("Please select a output folder"));
        c->folderSheetDidEnd(QDialog::Accepted, m_tree, false);
        QCOMPARE(folder->text(QAccessible::Description), QStringLiteral("Where the results are written"));
        QAccessibleInterface *list = findNamed(all, QAccessible::List, QStringLiteral("Files"));
        QVERIFY(list);

        // The row: its name, then what the row shows.
        QAccessibleInterface *row = findNamed(all, QAccessible::ListItem, QStringLiteral("a.wav"));
        QVERIFY(row);
        const VXAudioGainPtr item = c->audioGains()->at(0);
        const QString description = row->text(QAccessible::Description);
        for (const QString &part : {item->formatInputFileSize(), item->formatDuration(),
                                    QStringLiteral("target 70.8 (-24.0 LUFS)"), QStringLiteral("waiting")})
            QVERIFY2(description.contains(part), qPrintable(description + QStringLiteral(" lacks ") + part));

        // The popup hangs under the window in the tree while it is shown.
        QVERIFY(!findNamed(all, QAccessible::Slider, QStringLiteral("Target loudness")));
        QListView *view = c->tableView();
        c->popupTargetLoudnessAdjustMenu(
            0, RQTableCellView::layout(view->visualRect(view->model()->index(0, 0))).loudnessImgView);
        QWidget *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl()->window();
        QVERIFY(popup->isVisible());
        QList<QAccessibleInterface *> withPopup;
        collect(QAccessible::queryAccessibleInterface(qApp), withPopup);
        QVERIFY(findNamed(withPopup, QAccessible::Slider, QStringLiteral("Target loudness")));
        QVERIFY(findNamed(withPopup, QAccessible::SpinBox, QStringLiteral("Target position")));
        QVERIFY(findNamed(withPopup, QAccessible::CheckBox, QStringLiteral("Apply to all files")));
        QVERIFY(findNamed(withPopup, QAccessible::SpinBox, QStringLiteral("Skip within")));
        QCOMPARE(everyControlSaysWhatItDoes(withPopup), QString());
        QCOMPARE(QAccessible::queryAccessibleInterface(popup)->parent()->object(), c->window());

        // Alt+F4 in the popup closes it and the window, as in the window itself.
        QTest::keyClick(popup, Qt::Key_F4, Qt::AltModifier);
        QVERIFY(!popup->isVisible());
        QVERIFY(!c->window()->isVisible());
    }
};

QTEST_MAIN(TestAppDesktop)
#include "tst_appdesktop.moc"
