// The views, painted offscreen: each paints, the row follows the controller
// and its state, the bottom bar's dividers follow the folder field, and the
// controls report what the user did.
#include "engine/VXAudioGain.h"
#include "engine/VXAudioGainList.h"
#include "views/RQBottomView.h"
#include "views/RQGuideView.h"
#include "views/RQImages.h"
#include "views/RQImportPrgView.h"
#include "views/RQMenuView.h"
#include "views/RQTableCellView.h"

#include <QItemSelectionModel>
#include <QListView>
#include <QPainter>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalSpy>
#include <QStandardItemModel>
#include <QStyleOptionViewItem>
#include <QTemporaryDir>
#include <QtTest>

namespace {

// What the widget paints, children included, over background and without
// the window's own background.
QImage renderAlone(QWidget &widget, QColor background = Qt::transparent)
{
    QImage image(widget.size(), QImage::Format_ARGB32);
    image.fill(background);
    widget.render(&image, {}, {}, QWidget::DrawChildren);
    return image;
}

// True when nothing was painted over a one-colour background.
bool isBlank(const QImage &image, QColor background)
{
    QImage plain(image.size(), image.format());
    plain.fill(background);
    return image == plain;
}

// One row painted by the delegate alone, over white, at the given size.
QImage paintRow(RQTableCellView &cell, const QModelIndex &index, QSize size, QStyle::State extra = {})
{
    QImage image(size, QImage::Format_ARGB32);
    image.fill(Qt::white);
    QPainter painter(&image);
    QStyleOptionViewItem option;
    option.rect = QRect(QPoint(0, 0), size);
    option.font = QApplication::font();
    option.fontMetrics = QFontMetrics(option.font);
    option.palette = QApplication::palette();
    option.state = QStyle::State_Enabled | extra;
    cell.paint(&painter, option, index);
    return image;
}

void addRow(QStandardItemModel &model, const QString &name, bool editable, const QImage &state = {})
{
    auto *item = new QStandardItem;
    item->setData(name, VXAudioGainList::NameRole);
    item->setData(QStringLiteral("1.2 MB"), VXAudioGainList::SizeTextRole);
    item->setData(QStringLiteral("00:00:03"), VXAudioGainList::DurationTextRole);
    item->setData(QStringLiteral("70.8"), VXAudioGainList::TargetTextRole);
    item->setData(editable, VXAudioGainList::AllowedTargetEditRole);
    item->setData(70.77f, VXAudioGainList::TargetLoudnessRole);
    item->setData(state, VXAudioGainList::StateImageRole);
    model.appendRow(item);
}

}  // namespace

class TestViews : public QObject {
    Q_OBJECT
private slots:
    void barsPaintAndDividersFollowTheFolderField();
    void guideIsCentredAtNaturalSize();
    void guideResource();
    void veilReports();
    void rowPaintsFollowTheSelectionAndTheState();
    void listViewRowsSpanTheViewport();
    void buttonClicksAndKeysReportTheAnchor();
};

void TestViews::barsPaintAndDividersFollowTheFolderField()
{
    RQMenuView menu;
    RQImportPrgView veil;
    veil.setBusy(true);
    for (QWidget *widget : {static_cast<QWidget *>(&menu), static_cast<QWidget *>(&veil)}) {
        widget->resize(300, 80);
        QVERIFY2(!isBlank(renderAlone(*widget), Qt::transparent), widget->metaObject()->className());
    }

    RQBottomView bar;
    auto *folder = new QWidget(&bar);
    folder->setObjectName(QStringLiteral("folderView"));
    // The dividers sit in the gaps either side of the folder field, follow it
    // when the bar grows and the field with it, and never cross it.
    for (QSize size : {QSize(800, 60), QSize(1000, 90)}) {
        bar.resize(size);
        folder->setGeometry(100, size.height() - 10 - 22, size.width() - 200, 22);
        const QRect field = bar.frameOfFolderView();
        QCOMPARE(field, folder->geometry().translated(0, -1));
        const QImage image = renderAlone(bar);
        QVERIFY(!isBlank(image, Qt::transparent));
        const int y = size.height() - 30;
        const QColor plain = image.pixelColor(field.left() - 20, y);
        for (int x : {field.left() - 6, field.right() + 6}) {
            QVERIFY2(image.pixelColor(x, y) != plain, qPrintable(QString::number(x)));
            QCOMPARE(image.pixelColor(x + 1, y), plain);
        }
        for (int x = field.left() + 1; x < field.right(); ++x)
            QCOMPARE(image.pixelColor(x, field.center().y()), image.pixelColor(field.center()));
    }
}

void TestViews::guideIsCentredAtNaturalSize()
{
    // 200 x 100, red on the left half and blue on the right.
    QTemporaryDir dir;
    QImage picture(200, 100, QImage::Format_ARGB32);
    picture.fill(Qt::red);
    QPainter(&picture).fillRect(100, 0, 100, 100, Qt::blue);
    const QString path = dir.filePath(QStringLiteral("guide.png"));
    QVERIFY(picture.save(path));

    RQGuideView guide;
    guide.setImageName(path);
    guide.resize(400, 300);
    const QImage image = renderAlone(guide);
    QCOMPARE(image.pixelColor(100, 100), QColor(Qt::red));
    QCOMPARE(image.pixelColor(299, 199), QColor(Qt::blue));
    QCOMPARE(image.pixelColor(99, 150).alpha() + image.pixelColor(300, 150).alpha(), 0);
    QCOMPARE(image.pixelColor(200, 99).alpha() + image.pixelColor(200, 200).alpha(), 0);

    // Missing or empty picture: nothing at all.
    QFile empty(dir.filePath(QStringLiteral("empty.png")));
    QVERIFY(empty.open(QIODevice::WriteOnly));
    empty.close();
    for (const QString &name : {dir.filePath(QStringLiteral("none.png")), empty.fileName()}) {
        guide.setImageName(name);
        QVERIFY(isBlank(renderAlone(guide, QColor(1, 2, 3)), QColor(1, 2, 3)));
    }
}

void TestViews::guideResource()
{
    // Our own picture, drawn from vectors: sharp at twice the resolution.
    const QImage oneX = rqImageNamed(QString::fromLatin1(kRQGuideImage), 1.0);
    const QImage twoX = rqImageNamed(QString::fromLatin1(kRQGuideImage), 2.0);
    QVERIFY(!oneX.isNull());
    QCOMPARE(twoX.size(), oneX.size() * 2);
    QCOMPARE(twoX.deviceIndependentSize(), QSizeF(oneX.size()));
    for (const char *name : {kRQLoudnessImage, kRQAppIcon})
        QVERIFY2(!rqImageNamed(QString::fromLatin1(name), 2.0).isNull(), name);
}

void TestViews::veilReports()
{
    RQImportPrgView veil;
    veil.resize(400, 300);
    QVERIFY(veil.isHidden());
    QSignalSpy busy(&veil, &RQImportPrgView::busyChanged);
    veil.setBusy(true);
    QVERIFY(!veil.isHidden());
    QCOMPARE(veil.importPI()->maximum(), 0);  // indeterminate while busy
    QCOMPARE(busy.count(), 1);

    QSignalSpy cancel(&veil, &RQImportPrgView::cancelRequested);
    veil.cancelButton()->click();
    QCOMPARE(cancel.count(), 1);
    veil.setBusy(false);
    QVERIFY(veil.isHidden());
    QCOMPARE(veil.importPI()->maximum(), 1);
}

// Selected is what the view's option says, focus or not; a running row
// shows its progress in the state square and nowhere else.
void TestViews::rowPaintsFollowTheSelectionAndTheState()
{
    QStandardItemModel model;
    addRow(model, QStringLiteral("a.wav"), true);
    addRow(model, QStringLiteral("b.wav"), true);
    addRow(model, QStringLiteral("half.wav"), false, VXAudioGain::makeImageWithPrg(50));
    RQTableCellView cell;
    const QSize size(600, RQTableCellView::kRowHeight);
    const QImage plain = paintRow(cell, model.index(0, 0), size);
    QVERIFY(plain.pixelColor(62, 32) != QColor(Qt::white));
    const QColor selected = paintRow(cell, model.index(0, 0), size, QStyle::State_Selected).pixelColor(62, 32);
    QVERIFY(selected != plain.pixelColor(62, 32));
    QCOMPARE(paintRow(cell, model.index(1, 0), size, QStyle::State_Selected | QStyle::State_HasFocus).pixelColor(62, 32),
             selected);
    QCOMPARE(paintRow(cell, model.index(1, 0), size, QStyle::State_HasFocus).pixelColor(62, 32), plain.pixelColor(62, 32));

    const QRect square = RQTableCellView::layout(QRect(QPoint(), size)).state;
    QCOMPARE(square.size(), QSize(32, 32));
    const QImage half = paintRow(cell, model.index(2, 0), size);
    QVERIFY(half.copy(square) != plain.copy(square));
    QCOMPARE(half.pixelColor(62, 32), plain.pixelColor(62, 32));
}

void TestViews::listViewRowsSpanTheViewport()
{
    QStandardItemModel model;
    for (int i = 0; i < 3; ++i)
        addRow(model, QStringLiteral("file %1.flac").arg(i), true);
    QListView view;
    RQTableCellView cell;
    view.setModel(&model);
    view.setItemDelegate(&cell);
    view.resize(640, 260);
    view.show();
    QVERIFY(QTest::qWaitForWindowExposed(&view));

    view.selectionModel()->select(model.index(1, 0), QItemSelectionModel::ClearAndSelect);
    view.setCurrentIndex(model.index(1, 0));
    const QImage image = view.viewport()->grab().toImage();
    QList<QColor> backgrounds;
    for (int row = 0; row < 3; ++row) {
        const QRect r = view.visualRect(model.index(row, 0));
        QCOMPARE(r.height(), RQTableCellView::kRowHeight);
        QCOMPARE(r.right(), view.viewport()->width() - 1);
        backgrounds << image.pixelColor(r.right() - 4, r.top() + 4);
    }
    // The view adds no highlight of its own: only the row's colour changes.
    QCOMPARE(backgrounds[0], backgrounds[2]);
    QVERIFY(backgrounds[1] != backgrounds[0]);
}

void TestViews::buttonClicksAndKeysReportTheAnchor()
{
    QStandardItemModel model;
    addRow(model, QStringLiteral("a.wav"), true);
    addRow(model, QStringLiteral("running.wav"), false);
    addRow(model, QStringLiteral("c.wav"), true);
    QListView view;
    RQTableCellView cell;
    view.setModel(&model);
    view.setItemDelegate(&cell);
    view.resize(640, 260);
    view.show();
    QVERIFY(QTest::qWaitForWindowExposed(&view));
    QSignalSpy clicked(&cell, &RQTableCellView::targetLoudnessClicked);

    auto parts = [&](int row) { return RQTableCellView::layout(view.visualRect(model.index(row, 0))); };
    QTest::mouseClick(view.viewport(), Qt::LeftButton, {}, parts(0).edtTargetLoudness.center());
    QCOMPARE(clicked.count(), 1);
    QCOMPARE(clicked.at(0).at(0).toInt(), 0);
    QCOMPARE(clicked.at(0).at(1).toRect(), parts(0).loudnessImgView);

    // A disabled button, a click beside the button, and a press that leaves
    // the button before release do nothing.
    QTest::mouseClick(view.viewport(), Qt::LeftButton, {}, parts(1).edtTargetLoudness.center());
    QTest::mouseClick(view.viewport(), Qt::LeftButton, {}, parts(2).name.center());
    QTest::mousePress(view.viewport(), Qt::LeftButton, {}, parts(2).edtTargetLoudness.center());
    QTest::mouseRelease(view.viewport(), Qt::LeftButton, {}, parts(0).name.center());
    QCOMPARE(clicked.count(), 1);

    // Keyboard: Return and Space on the current row, not on a running one.
    view.setFocus();
    view.setCurrentIndex(model.index(2, 0));
    QTest::keyClick(&view, Qt::Key_Return);
    QTest::keyClick(&view, Qt::Key_Space);
    view.setCurrentIndex(model.index(1, 0));
    QTest::keyClick(&view, Qt::Key_Return);
    QCOMPARE(clicked.count(), 3);
    QCOMPARE(clicked.at(1).at(0).toInt(), 2);
    QCOMPARE(clicked.at(2).at(1).toRect(), parts(2).loudnessImgView);
}

QTEST_MAIN(TestViews)
#include "tst_views.moc"
