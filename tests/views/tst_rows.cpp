#include "engine/VXAudioGain.h"
#include "engine/VXAudioGainList.h"
#include "tests/views/ViewsTestUtil.h"
#include "views/RQTableCellView.h"

#include <QItemSelectionModel>
#include <QListView>
#include <QSignalSpy>
#include <QStandardItemModel>
#include <QtTest>

namespace {
const QColor kUnselected(61, 57, 58);
const QColor kSelected(53, 51, 52);
const QColor kSeparator(47, 43, 44);

// Answers from a list view's selection, as the main window's controller does.
class SelectionAnswer : public RQTableCellViewDelegate {
public:
    QSet<int> selected;
    const QItemSelectionModel *model = nullptr;
    bool RQTableCellViewIsSelected(int row) const override
    {
        if (row < 0)
            return false;
        return model ? model->isRowSelected(row) : selected.contains(row);
    }
};

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

class TestRows : public QObject {
    Q_OBJECT
private slots:
    void backgroundFollowsTheControllersAnswer();
    void listViewShowsOnlyTheRowColours();
    void buttonClicksAndKeysReportTheAnchor();
    void stateImageFillsItsSquare();
};

void TestRows::backgroundFollowsTheControllersAnswer()
{
    QStandardItemModel model;
    addRow(model, QStringLiteral("a.wav"), true);
    addRow(model, QStringLiteral("b.wav"), true);
    RQTableCellView cell;
    const QSize size(600, RQTableCellView::kRowHeight);
    const QPoint free(62, 32);  // between the artwork and the texts

    // No controller: plain, even when the view thinks the row is selected.
    QImage image = paintRow(cell, model.index(0, 0), size, QStyle::State_Selected);
    QCOMPARE_PIXEL(image, free.x(), free.y(), kUnselected, 0);

    SelectionAnswer answer;
    answer.selected = {1};
    cell.setDelegate(&answer);
    image = paintRow(cell, model.index(0, 0), size, QStyle::State_Selected | QStyle::State_HasFocus);
    QCOMPARE_PIXEL(image, free.x(), free.y(), kUnselected, 0);
    image = paintRow(cell, model.index(1, 0), size);
    QCOMPARE_PIXEL(image, free.x(), free.y(), kSelected, 0);

    // The separator spans the whole width on the bottom row of points only.
    for (int x : {0, 300, 599})
        QCOMPARE_PIXEL(image, x, 63, kSeparator, 0);
    QCOMPARE_PIXEL(image, 0, 62, kSelected, 0);
    QCOMPARE_PIXEL(image, 599, 0, kSelected, 0);
}

void TestRows::listViewShowsOnlyTheRowColours()
{
    QStandardItemModel model;
    for (int i = 0; i < 3; ++i)
        addRow(model, QStringLiteral("file %1.flac").arg(i), true);
    QListView view;
    RQTableCellView cell;
    SelectionAnswer answer;
    view.setModel(&model);
    answer.model = view.selectionModel();
    cell.setDelegate(&answer);
    view.setItemDelegate(&cell);
    view.resize(640, 260);
    view.show();
    QVERIFY(QTest::qWaitForWindowExposed(&view));

    view.selectionModel()->select(model.index(1, 0), QItemSelectionModel::ClearAndSelect);
    view.setCurrentIndex(model.index(1, 0));
    const QImage image = view.viewport()->grab().toImage();
    for (int row = 0; row < 3; ++row) {
        const QRect r = view.visualRect(model.index(row, 0));
        QCOMPARE(r.height(), RQTableCellView::kRowHeight);
        // Rows span the viewport, so the background reaches its right edge.
        QCOMPARE(r.right(), view.viewport()->width() - 1);
        const QColor expected = row == 1 ? kSelected : kUnselected;
        QCOMPARE_PIXEL(image, r.left() + 62, r.top() + 32, expected, 0);
        QCOMPARE_PIXEL(image, r.right() - 4, r.top() + 4, expected, 0);
        QCOMPARE_PIXEL(image, r.left() + 2, r.top() + 2, expected, 0);
        QCOMPARE_PIXEL(image, r.left() + 100, r.bottom(), kSeparator, 0);
    }
}

void TestRows::buttonClicksAndKeysReportTheAnchor()
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

void TestRows::stateImageFillsItsSquare()
{
    QStandardItemModel model;
    addRow(model, QStringLiteral("idle.wav"), true);
    addRow(model, QStringLiteral("half.wav"), false, VXAudioGain::makeImageWithPrg(50));
    RQTableCellView cell;
    const QSize size(500, RQTableCellView::kRowHeight);
    const QRect square = RQTableCellView::layout(QRect(QPoint(), size)).state;
    QCOMPARE(square.size(), QSize(32, 32));
    const QImage idle = paintRow(cell, model.index(0, 0), size);
    const QImage half = paintRow(cell, model.index(1, 0), size);
    // The disc's right half is violet, its left half is not; nothing idle.
    const QPoint centre = square.center();
    QCOMPARE_PIXEL(half, centre.x() + 6, centre.y(), QColor(123, 76, 188), 12);
    QVERIFY(!near(half.pixelColor(centre.x() - 7, centre.y()), QColor(123, 76, 188), 12));
    QCOMPARE_PIXEL(idle, centre.x() + 6, centre.y(), kUnselected, 0);
}

QTEST_MAIN(TestRows)
#include "tst_rows.moc"
