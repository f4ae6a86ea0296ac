#include "views/RQImportPrgView.h"

#include <QLabel>
#include <QPaintEvent>
#include <QPainter>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

namespace {
const QLatin1String kIndicatorName("importPI");
const QLatin1String kCancelName("btnCancelImport");
}  // namespace

RQImportPrgView::RQImportPrgView(QWidget *parent) : QWidget(parent)
{
    hide();
}

void RQImportPrgView::ensureContent()
{
    if (m_indicator)
        return;
    // A .ui file builds its children right after constructing us, so only
    // now can we tell whether it gave us any.
    if (!layout() && !findChild<QProgressBar *>(kIndicatorName)) {
        auto *indicator = new QProgressBar(this);
        indicator->setObjectName(kIndicatorName);
        indicator->setTextVisible(false);
        indicator->setFixedWidth(240);
        indicator->setRange(0, 1);

        auto *label = new QLabel(this);
        label->setObjectName(QStringLiteral("lblImporting"));
        label->setAlignment(Qt::AlignCenter);
        // Long names are elided by us; the label must not widen the veil.
        label->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
        QPalette palette = label->palette();
        palette.setColor(QPalette::WindowText, QColor(195, 195, 195));
        label->setPalette(palette);

        auto *cancel = new QPushButton(tr("Cancel"), this);
        cancel->setObjectName(kCancelName);

        auto *box = new QVBoxLayout(this);
        box->addStretch();
        box->addWidget(indicator, 0, Qt::AlignHCenter);
        box->addWidget(label);
        box->addWidget(cancel, 0, Qt::AlignHCenter);
        box->addStretch();
    }
    m_indicator = findChild<QProgressBar *>(kIndicatorName);
    m_label = findChild<QLabel *>();
    m_cancel = findChild<QPushButton *>(kCancelName);
    if (m_cancel)
        connect(m_cancel, &QPushButton::clicked, this, &RQImportPrgView::cancelRequested);
    if (m_indicator)
        m_indicator->setRange(0, m_busy ? 0 : 1);
    updateLabel();
}

QProgressBar *RQImportPrgView::importPI()
{
    ensureContent();
    return m_indicator;
}

QPushButton *RQImportPrgView::cancelButton()
{
    ensureContent();
    return m_cancel;
}

void RQImportPrgView::setImportingFileName(const QString &name)
{
    if (m_importingFileName == name)
        return;
    m_importingFileName = name;
    ensureContent();
    updateLabel();
    emit importingFileNameChanged();
}

void RQImportPrgView::setBusy(bool busy)
{
    if (m_busy == busy)
        return;
    m_busy = busy;
    ensureContent();
    // An empty range makes the bar an indeterminate "working" indicator.
    if (m_indicator)
        m_indicator->setRange(0, busy ? 0 : 1);
    setVisible(busy);
    if (busy)
        raise();
    emit busyChanged();
}

void RQImportPrgView::updateLabel()
{
    if (!m_label || m_importingFileName.isNull())
        return;
    const int room = qMax(0, width() - 40);
    m_label->setText(m_label->fontMetrics().elidedText(m_importingFileName, Qt::ElideMiddle, room));
    m_label->setToolTip(m_importingFileName);
}

void RQImportPrgView::resizeEvent(QResizeEvent *event)
{
    updateLabel();
    QWidget::resizeEvent(event);
}

void RQImportPrgView::showEvent(QShowEvent *event)
{
    ensureContent();
    QWidget::showEvent(event);
}

void RQImportPrgView::paintEvent(QPaintEvent *event)
{
    // White level 0.3 at half opacity, blended over the list so the rows
    // stay visible beneath the veil.
    QPainter painter(this);
    painter.fillRect(event->rect(), QColor::fromRgbF(0.3f, 0.3f, 0.3f, 0.5f));
}
