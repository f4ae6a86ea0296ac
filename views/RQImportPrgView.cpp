#include "views/RQImportPrgView.h"

#include <QLabel>
#include <QPaintEvent>
#include <QPainter>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

RQImportPrgView::RQImportPrgView(QWidget *parent)
    : QWidget(parent), m_indicator(new QProgressBar(this)), m_label(new QLabel(this)), m_cancel(new QPushButton(this))
{
    m_indicator->setObjectName(QStringLiteral("importPI"));
    m_indicator->setTextVisible(false);
    m_indicator->setFixedWidth(220);
    m_indicator->setRange(0, 1);

    m_label->setObjectName(QStringLiteral("lblImportingFileName"));
    m_label->setAlignment(Qt::AlignCenter);
    // Long names are elided by us; the label must not widen the veil.
    m_label->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    QPalette palette = m_label->palette();
    palette.setColor(QPalette::WindowText, QColor(195, 195, 195));
    m_label->setPalette(palette);

    m_cancel->setObjectName(QStringLiteral("btnCancelImport"));
    m_cancel->setText(tr("Cancel"));
    connect(m_cancel, &QPushButton::clicked, this, &RQImportPrgView::cancelRequested);

    auto *layout = new QVBoxLayout(this);
    layout->addStretch();
    layout->addWidget(m_indicator, 0, Qt::AlignHCenter);
    layout->addWidget(m_label);
    layout->addWidget(m_cancel, 0, Qt::AlignHCenter);
    layout->addStretch();

    hide();
}

void RQImportPrgView::setImportingFileName(const QString &name)
{
    if (m_importingFileName == name)
        return;
    m_importingFileName = name;
    updateLabel();
    emit importingFileNameChanged();
}

void RQImportPrgView::setBusy(bool busy)
{
    if (m_busy == busy)
        return;
    m_busy = busy;
    // An empty range makes the bar an indeterminate "working" indicator.
    m_indicator->setRange(0, busy ? 0 : 1);
    setVisible(busy);
    if (busy)
        raise();
    emit busyChanged();
}

void RQImportPrgView::updateLabel()
{
    const int room = qMax(0, width() - 40);
    m_label->setText(m_label->fontMetrics().elidedText(m_importingFileName, Qt::ElideMiddle, room));
    m_label->setToolTip(m_importingFileName);
}

void RQImportPrgView::resizeEvent(QResizeEvent *event)
{
    updateLabel();
    QWidget::resizeEvent(event);
}

void RQImportPrgView::paintEvent(QPaintEvent *event)
{
    // White level 0.3 at half opacity, blended over the list so the rows
    // stay visible beneath the veil.
    QPainter painter(this);
    painter.fillRect(event->rect(), QColor::fromRgbF(0.3f, 0.3f, 0.3f, 0.5f));
}
