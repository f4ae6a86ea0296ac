// Shows the views with made-up rows. With --shots DIR it saves screenshots
// (rows, popup, veil, guide) into DIR and quits, for docs/screenshots.md.
#include "engine/VXAudioGain.h"
#include "engine/VXAudioGainList.h"
#include "views/RQBottomView.h"
#include "views/RQGuideView.h"
#include "views/RQImages.h"
#include "views/RQImportPrgView.h"
#include "views/RQPopupMenuWndCtrl.h"
#include "views/RQTableCellView.h"

#include <QApplication>
#include <QCheckBox>
#include <QCommandLineParser>
#include <QDir>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QIcon>
#include <QLineEdit>
#include <QListView>
#include <QPainter>
#include <QPushButton>
#include <QStandardItemModel>
#include <QStyleFactory>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

namespace {
struct FakeRow {
    const char *name, *size, *duration;
    float target;
    QImage state;
    bool running;
};

QImage cover(QColor a, QColor b)
{
    QImage image(96, 96, QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(2.0);
    QPainter painter(&image);
    QLinearGradient gradient(0, 0, 48, 48);
    gradient.setColorAt(0, a);
    gradient.setColorAt(1, b);
    painter.fillRect(QRect(0, 0, 48, 48), gradient);
    return image;
}

void addRow(QStandardItemModel &model, const FakeRow &row, const QImage &face)
{
    auto *item = new QStandardItem;
    item->setData(face, VXAudioGainList::FaceRole);
    item->setData(QString::fromUtf8(row.name), VXAudioGainList::NameRole);
    item->setData(QString::fromUtf8(row.size), VXAudioGainList::SizeTextRole);
    item->setData(QString::fromUtf8(row.duration), VXAudioGainList::DurationTextRole);
    item->setData(QString::number(row.target, 'f', 1), VXAudioGainList::TargetTextRole);
    item->setData(row.target, VXAudioGainList::TargetLoudnessRole);
    item->setData(!row.running, VXAudioGainList::AllowedTargetEditRole);
    item->setData(row.state, VXAudioGainList::StateImageRole);
    model.appendRow(item);
}

void darkPalette(QApplication &app)
{
    app.setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    QPalette p;
    p.setColor(QPalette::Window, QColor(61, 57, 58));
    p.setColor(QPalette::Base, QColor(61, 57, 58));
    p.setColor(QPalette::Button, QColor(83, 79, 80));
    p.setColor(QPalette::WindowText, QColor(195, 195, 195));
    p.setColor(QPalette::Text, QColor(195, 195, 195));
    p.setColor(QPalette::ButtonText, QColor(195, 195, 195));
    p.setColor(QPalette::Highlight, QColor(123, 76, 188));
    p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(120, 116, 117));
    app.setPalette(p);
}

QWidget *bottomBar()
{
    auto *bar = new RQBottomView;
    bar->setFixedHeight(60);
    auto *layout = new QHBoxLayout(bar);
    layout->setContentsMargins(10, 14, 14, 14);
    layout->setSpacing(12);
    auto *add = new QToolButton;
    add->setText(QStringLiteral("+"));
    add->setAutoRaise(true);
    add->setFixedSize(32, 28);
    layout->addWidget(add);
    auto *folder = new QWidget;
    folder->setObjectName(QStringLiteral("folderView"));
    auto *folderLayout = new QHBoxLayout(folder);
    folderLayout->setContentsMargins(6, 1, 2, 1);
    auto *path = new QLineEdit(QStringLiteral("/home/alex/Music/Evenloud"));
    path->setFrame(false);
    path->setReadOnly(true);
    path->setStyleSheet(QStringLiteral("background: transparent; color: rgb(195,195,195)"));
    folderLayout->addWidget(path);
    layout->addWidget(folder, 1);
    layout->addWidget(new QCheckBox(QStringLiteral("Replace original files")));
    layout->addWidget(new QPushButton(QStringLiteral("Gain")));
    return bar;
}

// The list area: rows, the guide over an empty list, and the veil.
struct ListArea {
    QWidget *widget;
    QListView *list;
    RQGuideView *guide;
    RQImportPrgView *veil;
};

ListArea listArea(QAbstractItemModel *model, RQTableCellView *cell)
{
    auto *area = new QWidget;
    auto *grid = new QGridLayout(area);
    grid->setContentsMargins(0, 0, 0, 0);
    auto *list = new QListView;
    list->setFrameShape(QFrame::NoFrame);
    list->setSelectionMode(QAbstractItemView::ExtendedSelection);
    list->setUniformItemSizes(true);
    list->setModel(model);
    list->setItemDelegate(cell);
    auto *guide = new RQGuideView;
    auto *veil = new RQImportPrgView;
    grid->addWidget(list, 0, 0);
    grid->addWidget(guide, 0, 0);
    grid->addWidget(veil, 0, 0);
    guide->setListEmpty(model->rowCount() == 0);
    return {area, list, guide, veil};
}

QWidget *window(const ListArea &area)
{
    auto *w = new QWidget;
    w->setWindowTitle(QStringLiteral("Evenloud"));
    auto *box = new QVBoxLayout(w);
    box->setContentsMargins(0, 0, 0, 0);
    box->setSpacing(0);
    box->addWidget(area.widget, 1);
    box->addWidget(bottomBar());
    w->resize(960, 420);
    return w;
}

bool saveShots(const QString &dir, QWidget *main, const ListArea &rows, QWidget *emptyWindow)
{
    QDir().mkpath(dir);
    bool ok = main->grab().save(dir + QStringLiteral("/views-rows.png"));

    // The popup is its own window and hangs past the list's right edge:
    // compose both on one canvas, where they would be on screen.
    const QModelIndex first = rows.list->model()->index(0, 0);
    const QRect anchor = RQTableCellView::layout(rows.list->visualRect(first)).loudnessImgView;
    RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
    popup->setTargetLoudness(first.data(VXAudioGainList::TargetLoudnessRole).toFloat());
    popup->setRow(0);
    popup->popupMenuWndWithLocation(rows.list->viewport()->mapToGlobal(anchor.bottomLeft() + QPoint(0, 1)));
    const QRect mainRect(QPoint(0, 0), main->size());
    const QRect popupRect(main->mapFromGlobal(popup->window()->pos()), popup->window()->size());
    QPixmap composed(mainRect.united(popupRect).size());
    composed.fill(QColor(30, 28, 29));
    {
        QPainter painter(&composed);
        painter.drawPixmap(0, 0, main->grab());
        painter.drawPixmap(popupRect.topLeft(), popup->window()->grab());
    }
    ok &= composed.save(dir + QStringLiteral("/views-popup.png"));
    popup->window()->hide();

    rows.veil->setImportingFileName(QStringLiteral("Import, please wait..."));
    rows.veil->setBusy(true);
    ok &= main->grab().save(dir + QStringLiteral("/views-veil.png"));
    rows.veil->setBusy(false);

    ok &= emptyWindow->grab().save(dir + QStringLiteral("/views-guide.png"));
    return ok;
}
}  // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    darkPalette(app);
    app.setWindowIcon(QIcon(QPixmap::fromImage(rqImageNamed(QString::fromLatin1(kRQAppIcon), 2.0))));
    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addOption({QStringLiteral("shots"), QStringLiteral("Save screenshots into <dir> and quit."),
                      QStringLiteral("dir")});
    parser.process(app);

    QStandardItemModel model;
    const FakeRow rows[] = {
        {"Episode 41 - Interview.mp3", "48.2 MB", "00:52:31", 70.77f, {}, false},
        {"Field recording, harbour at dawn.flac", "112.9 MB", "00:11:04", 64.6f,
         VXAudioGain::makeImageWithPrg(35), true},
        {"Track 03 - Slow Burn.m4a", "8.7 MB", "00:04:12", 78.5f, VXAudioGain::successImage(), false},
        {"Interview raw (broken header).wav", "1.1 GB", "01:40:00", 70.77f, VXAudioGain::failureImage(), false},
        {"Trailer cut v2.mov", "356.0 MB", "00:02:30", 75.4f, VXAudioGain::makeImageWithPrg(80), true},
    };
    const QImage faces[] = {VXAudioGain::defaultArtwork(), cover(QColor(123, 76, 188), QColor(40, 30, 60)),
                            cover(QColor(210, 120, 60), QColor(80, 30, 20)), VXAudioGain::defaultArtwork(),
                            cover(QColor(60, 140, 170), QColor(20, 40, 60))};
    for (int i = 0; i < 5; ++i)
        addRow(model, rows[i], faces[i]);

    RQTableCellView cell;
    ListArea area = listArea(&model, &cell);
    area.list->selectionModel()->select(model.index(2, 0), QItemSelectionModel::Select);
    QObject::connect(&cell, &RQTableCellView::targetLoudnessClicked, &app, [&](int row, const QRect &anchor) {
        RQPopupMenuWndCtrl *popup = RQPopupMenuWndCtrl::sharePopupMenuWndCtrl();
        popup->setTargetLoudness(model.index(row, 0).data(VXAudioGainList::TargetLoudnessRole).toFloat());
        popup->setRow(row);
        popup->popupMenuWndWithLocation(area.list->viewport()->mapToGlobal(anchor.bottomLeft() + QPoint(0, 1)));
    });
    QWidget *main = window(area);

    QStandardItemModel emptyModel;
    RQTableCellView emptyCell;
    QWidget *empty = window(listArea(&emptyModel, &emptyCell));

    main->show();
    if (!parser.isSet(QStringLiteral("shots"))) {
        empty->move(main->pos() + QPoint(40, 40));
        empty->show();
        return app.exec();
    }
    empty->show();
    int rc = 1;
    QTimer::singleShot(300, &app, [&] {
        rc = saveShots(parser.value(QStringLiteral("shots")), main, area, empty) ? 0 : 1;
        app.quit();
    });
    app.exec();
    delete main;
    delete empty;
    return rc;
}
