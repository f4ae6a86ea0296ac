#include "tests/views/ViewsTestUtil.h"
#include "views/RQBottomView.h"
#include "views/RQGuideView.h"
#include "views/RQImages.h"
#include "views/RQImportPrgView.h"

#include <QPainter>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

namespace {
const QColor kBar(70, 66, 67);
const QColor kTopLine(63, 57, 59);
const QColor kFolderFrame(132, 129, 128);
const QColor kDivider(47, 43, 44);

QImage renderAlone(QWidget &widget, QColor background = Qt::transparent)
{
    QImage image(widget.size(), QImage::Format_ARGB32);
    image.fill(background);
    // Children included, but no window background: what the widget paints.
    widget.render(&image, {}, {}, QWidget::DrawChildren);
    return image;
}

int countPixels(const QImage &image, QColor colour)
{
    int n = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            n += near(image.pixelColor(x, y), colour) ? 1 : 0;
    return n;
}
}  // namespace

class TestBars : public QObject {
    Q_OBJECT
private slots:
    void bottomBarLinesAndFolderFrame();
    void guideIsCentredAtNaturalSize();
    void guideResource();
    void veilBlendsAndReports();
};

void TestBars::bottomBarLinesAndFolderFrame()
{
    RQBottomView bar;
    bar.resize(800, 60);
    auto *folder = new QWidget(&bar);
    folder->setObjectName(QStringLiteral("folderView"));
    // 300 x 22 at 10 points above the bar's bottom edge.
    folder->setGeometry(100, 60 - 10 - 22, 300, 22);
    QCOMPARE(bar.frameOfFolderView(), QRect(100, 27, 300, 22));

    QImage image = renderAlone(bar);
    QCOMPARE_PIXEL(image, 20, 30, kBar, 0);
    QCOMPARE_PIXEL(image, 20, 0, kTopLine, 0);
    QCOMPARE_PIXEL(image, 799, 0, kTopLine, 0);
    QCOMPARE_PIXEL(image, 20, 1, kBar, 0);

    // The frame is one point higher than the field: its last row is the
    // field's second-to-last, and the field's own last row stays plain.
    for (int x : {100, 250, 399})
        QCOMPARE_PIXEL(image, x, 27, kFolderFrame, 0);
    QCOMPARE_PIXEL(image, 250, 48, kFolderFrame, 0);
    QCOMPARE_PIXEL(image, 250, 49, kBar, 0);
    QCOMPARE_PIXEL(image, 100, 40, kFolderFrame, 0);
    QCOMPARE_PIXEL(image, 399, 40, kFolderFrame, 0);
    QCOMPARE_PIXEL(image, 250, 38, kBar, 0);
    QCOMPARE_PIXEL(image, 400, 40, kBar, 0);

    // Dividers: in the gaps on either side of the folder field, from 16 to
    // 44 points above the bottom; they follow the field when the bar grows
    // and the field with it, and never cross it.
    for (QSize size : {QSize(800, 60), QSize(1000, 90)}) {
        bar.resize(size);
        folder->setGeometry(100, size.height() - 10 - 22, size.width() - 200, 22);
        image = renderAlone(bar);
        const int h = size.height();
        const QRect field = bar.frameOfFolderView();
        for (int x : {field.left() - 6, field.right() + 6}) {
            QCOMPARE_PIXEL(image, x, h - 44, kDivider, 0);
            QCOMPARE_PIXEL(image, x, h - 17, kDivider, 0);
            QCOMPARE_PIXEL(image, x, h - 45, kBar, 0);
            QCOMPARE_PIXEL(image, x, h - 16, kBar, 0);
            QCOMPARE_PIXEL(image, x + 1, h - 30, kBar, 0);
        }
        for (int x = field.left() + 1; x < field.right(); ++x)
            QVERIFY(image.pixelColor(x, field.center().y()) != kDivider);
        QCOMPARE_PIXEL(image, size.width() - 1, 0, kTopLine, 0);
    }
}

void TestBars::guideIsCentredAtNaturalSize()
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
    QImage image = renderAlone(guide);
    QCOMPARE_PIXEL(image, 100, 100, QColor(Qt::red), 0);
    QCOMPARE_PIXEL(image, 299, 199, QColor(Qt::blue), 0);
    QCOMPARE(image.pixelColor(99, 150).alpha(), 0);
    QCOMPARE(image.pixelColor(300, 150).alpha(), 0);
    QCOMPARE(image.pixelColor(200, 99).alpha(), 0);
    QCOMPARE(image.pixelColor(200, 200).alpha(), 0);

    // Missing or empty picture: nothing at all.
    QFile empty(dir.filePath(QStringLiteral("empty.png")));
    QVERIFY(empty.open(QIODevice::WriteOnly));
    empty.close();
    for (const QString &name : {dir.filePath(QStringLiteral("none.png")), empty.fileName()}) {
        guide.setImageName(name);
        QCOMPARE(countPixels(renderAlone(guide, QColor(1, 2, 3)), QColor(1, 2, 3)), 400 * 300);
    }
}

void TestBars::guideResource()
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

void TestBars::veilBlendsAndReports()
{
    RQImportPrgView veil;
    veil.resize(400, 300);
    QVERIFY(veil.isHidden());
    QSignalSpy busy(&veil, &RQImportPrgView::busyChanged);
    veil.setBusy(true);
    QVERIFY(!veil.isHidden());
    QCOMPARE(veil.importPI()->maximum(), 0);  // indeterminate while busy
    QCOMPARE(busy.count(), 1);

    // White level 0.3 at half opacity: over the row colour and over nothing.
    QImage image = renderAlone(veil, QColor(61, 57, 58));
    QCOMPARE_PIXEL(image, 3, 3, QColor(69, 67, 67), 1);
    image = renderAlone(veil);
    QCOMPARE_PIXEL(image, 3, 3, QColor(77, 77, 77), 1);
    QVERIFY(qAbs(image.pixelColor(3, 3).alpha() - 128) <= 1);

    QSignalSpy cancel(&veil, &RQImportPrgView::cancelRequested);
    veil.cancelButton()->click();
    QCOMPARE(cancel.count(), 1);
    veil.setBusy(false);
    QVERIFY(veil.isHidden());
    QCOMPARE(veil.importPI()->maximum(), 1);
}

QTEST_MAIN(TestBars)
#include "tst_bars.moc"
