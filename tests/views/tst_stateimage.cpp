#include "engine/VXAudioGainList.h"
#include "tests/views/ViewsTestUtil.h"
#include "views/RQTableCellView.h"

#include <QProcess>
#include <QStandardItemModel>
#include <QTemporaryDir>
#include <QtTest>

namespace {
const QColor kViolet(123, 76, 188);
const QColor kUnselected(61, 57, 58);
}  // namespace

class TestStateImage : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void rowShowsTheProgressWedge();
    void rowShowsTheFinishedMark();

private:
    QTemporaryDir m_dir;
    QStringList m_files;
    VXAudioGainList m_list;
};

void TestStateImage::initTestCase()
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

void TestStateImage::init()
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

void TestStateImage::rowShowsTheProgressWedge()
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

void TestStateImage::rowShowsTheFinishedMark()
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

QTEST_MAIN(TestStateImage)
#include "tst_stateimage.moc"
