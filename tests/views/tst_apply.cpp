#include "engine/VXAudioGainList.h"
#include "tests/views/ViewsTestUtil.h"
#include "views/RQPopupActions.h"
#include "views/RQPopupMenuWndCtrl.h"
#include "views/RQTableCellView.h"

#include <QListView>
#include <QPainter>
#include <QProcess>
#include <QSlider>
#include <QStandardItemModel>
#include <QTemporaryDir>
#include <QtTest>

namespace {
const QColor kViolet(123, 76, 188);
const QColor kUnselected(61, 57, 58);

QImage paintRow(RQTableCellView &cell, const QModelIndex &index, QSize size)
{
    QImage image(size, QImage::Format_ARGB32);
    image.fill(Qt::white);
    QPainter painter(&image);
    QStyleOptionViewItem option;
    option.rect = QRect(QPoint(0, 0), size);
    option.font = QApplication::font();
    option.fontMetrics = QFontMetrics(option.font);
    option.palette = QApplication::palette();
    option.state = QStyle::State_Enabled;
    cell.paint(&painter, option, index);
    return image;
}
}  // namespace

class TestApply : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup() { RQPopupMenuWndCtrl::sharePopupMenuWndCtrl()->window()->hide(); }
    void appliesToOneRowOrAllEditable();
    void staleRowChangesNothing();
    void popupOpensBelowTheRowsImageAndApplies();
    void rowShowsTheProgressWedge();
    void rowShowsTheFinishedMark();

private:
    QTemporaryDir m_dir;
    QStringList m_files;
    VXAudioGainList m_list;
};

void TestApply::initTestCase()
{
    QVERIFY(m_dir.isValid());
    for (int i = 0; i < 3; ++i) {
        const QString path = m_dir.filePath(QStringLiteral("tone%1.wav").arg(i));
        const int rc = QProcess::execute(QStringLiteral("ffmpeg"),
                                         {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y"),
                                          QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
                                          QStringLiteral("sine=frequency=440:duration=1"), path});
        QCOMPARE(rc, 0);
        m_files << path;
    }
}

void TestApply::init()
{
    QList<VXAudioGainPtr> items;
    for (const QString &file : m_files) {
        VXError error;
        VXAudioGainPtr item = VXAudioGain::initWithFile(file, QString(), &error);
        QVERIFY2(item, qPrintable(file));
        items << item;
    }
    m_list.setAudioGains(items);
}

void TestApply::appliesToOneRowOrAllEditable()
{
    RQPopupMenuWndCtrl &popup = *RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
    m_list.at(2)->setState(2);  // running: its target is frozen
    QVERIFY(!m_list.at(2)->allowedTargetLoudnessEdit());

    popup.setApplyToAll(false);
    popup.setRow(1);
    popup.setTargetLoudness(40.0f);
    applyPopupValue(m_list, popup);
    QCOMPARE(m_list.at(0)->targetLoudness(), VXAudioGain::kDefaultTargetLoudness);
    QCOMPARE(m_list.at(1)->targetLoudness(), 40.0f);

    popup.setRow(2);
    applyPopupValue(m_list, popup);
    QCOMPARE(m_list.at(2)->targetLoudness(), VXAudioGain::kDefaultTargetLoudness);

    popup.setApplyToAll(true);
    popup.setRow(-7);  // the row plays no part for "all"
    popup.setTargetLoudness(55.5f);
    applyPopupValue(m_list, popup);
    QCOMPARE(m_list.at(0)->targetLoudness(), 55.5f);
    QCOMPARE(m_list.at(1)->targetLoudness(), 55.5f);
    QCOMPARE(m_list.at(2)->targetLoudness(), VXAudioGain::kDefaultTargetLoudness);
}

void TestApply::staleRowChangesNothing()
{
    RQPopupMenuWndCtrl &popup = *RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
    popup.setApplyToAll(false);
    popup.setTargetLoudness(12.0f);
    for (qint64 row : {qint64(3), qint64(-1), qint64(1) << 40}) {
        popup.setRow(row);
        applyPopupValue(m_list, popup);
    }
    for (const VXAudioGainPtr &item : m_list.audioGains())
        QCOMPARE(item->targetLoudness(), VXAudioGain::kDefaultTargetLoudness);

    m_list.setAudioGains({});
    popup.setRow(0);
    applyPopupValue(m_list, popup);  // the list was emptied while the popup was open
    QCOMPARE(m_list.count(), 0);
}

void TestApply::popupOpensBelowTheRowsImageAndApplies()
{
    QListView view;
    RQTableCellView cell;
    view.setModel(&m_list);
    view.setItemDelegate(&cell);
    view.resize(640, 300);
    view.show();
    QVERIFY(QTest::qWaitForWindowExposed(&view));
    m_list.at(1)->setTargetLoudness(40.0f);

    RQPopupMenuWndCtrl &popup = *RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
    popup.setApplyToAll(true);
    QMetaObject::Connection applier = connect(RQNotificationCenter::defaultCenter(),
                                              &RQNotificationCenter::notificationPosted, this,
                                              [&](const QString &name) {
                                                  if (name == QLatin1String(kRQTargetLoudnessChaned))
                                                      applyPopupValue(m_list, popup);
                                              });
    connect(&cell, &RQTableCellView::targetLoudnessClicked, this,
            [&](int row, const QRect &anchor) { popupTargetLoudness(popup, &view, row, anchor); });

    const QRect anchor = RQTableCellView::layout(view.visualRect(m_list.index(1))).loudnessImgView;
    QTest::mouseClick(view.viewport(), Qt::LeftButton, {},
                      RQTableCellView::layout(view.visualRect(m_list.index(1))).edtTargetLoudness.center());
    QVERIFY(popup.window()->isVisible());
    QCOMPARE(popup.row(), qint64(1));
    QCOMPARE(popup.targetLoudness(), 40.0f);
    QVERIFY(!popup.applyToAll());
    QCOMPARE(popup.window()->frameGeometry().topLeft(),
             view.viewport()->mapToGlobal(QPoint(anchor.left(), anchor.bottom() + 1)));

    popup.window()->findChild<QSlider *>()->setValue(250);
    QCOMPARE(m_list.at(1)->targetLoudness(), 25.0f);
    QCOMPARE(m_list.data(m_list.index(1), VXAudioGainList::TargetTextRole).toString(), QStringLiteral("25.0"));
    QCOMPARE(m_list.at(0)->targetLoudness(), VXAudioGain::kDefaultTargetLoudness);
    disconnect(applier);
}

void TestApply::rowShowsTheProgressWedge()
{
    // The wedge grows clockwise from twelve o'clock; sample each quarter.
    struct Case {
        qint64 progress;
        bool upperRight, lowerRight, lowerLeft, upperLeft;
    };
    const Case cases[] = {
        {0, false, false, false, false},
        {25, true, false, false, false},
        {50, true, true, false, false},
        {100, true, true, true, true},
    };
    RQTableCellView cell;
    const QSize size(500, RQTableCellView::kRowHeight);
    const QRect square = RQTableCellView::layout(QRect(QPoint(), size)).state;
    const QPoint c = square.topLeft() + QPoint(16, 16);
    for (const Case &k : cases) {
        QStandardItemModel model;
        auto *item = new QStandardItem;
        item->setData(VXAudioGain::makeImageWithPrg(k.progress), VXAudioGainList::StateImageRole);
        model.appendRow(item);
        const QImage image = paintRow(cell, model.index(0, 0), size);
        const QPoint quarters[] = {c + QPoint(6, -7), c + QPoint(6, 6), c + QPoint(-7, 6), c + QPoint(-7, -7)};
        const bool expected[] = {k.upperRight, k.lowerRight, k.lowerLeft, k.upperLeft};
        for (int q = 0; q < 4; ++q) {
            const QColor pixel = image.pixelColor(quarters[q]);
            QVERIFY2(near(pixel, kViolet, 12) == expected[q],
                     qPrintable(QStringLiteral("progress %1, quarter %2: %3").arg(k.progress).arg(q).arg(describe(pixel))));
        }
        // The grey ring is there in every case, at the square's edge.
        QVERIFY(!near(image.pixelColor(c.x(), square.top() + 1), kUnselected, 8));
    }
}

void TestApply::rowShowsTheFinishedMark()
{
    RQTableCellView cell;
    const QSize size(500, RQTableCellView::kRowHeight);
    const QRect square = RQTableCellView::layout(QRect(QPoint(), size)).state;
    auto paintedInSquare = [&](int row) {
        const QImage image = paintRow(cell, m_list.index(row), size);
        int n = 0;
        for (int y = square.top(); y <= square.bottom(); ++y)
            for (int x = square.left(); x <= square.right(); ++x)
                n += near(image.pixelColor(x, y), kUnselected) ? 0 : 1;
        return n;
    };
    QCOMPARE(paintedInSquare(0), 0);  // idle
    m_list.at(1)->setState(3);
    m_list.at(1)->setRetCode(0);
    QVERIFY(paintedInSquare(1) > 50);
    m_list.at(2)->setState(3);
    m_list.at(2)->setRetCode(-2);  // cancelled: nothing
    QCOMPARE(paintedInSquare(2), 0);
}

QTEST_MAIN(TestApply)
#include "tst_apply.moc"
