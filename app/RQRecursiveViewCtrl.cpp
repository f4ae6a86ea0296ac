#include "app/RQRecursiveViewCtrl.h"

#include "ui_RQRecursiveViewCtrl.h"

#include <QCheckBox>

RQRecursiveViewCtrl *RQRecursiveViewCtrl::shareRecursiveViewCtrl()
{
    static RQRecursiveViewCtrl *instance = new RQRecursiveViewCtrl;  // never released
    return instance;
}

void RQRecursiveViewCtrl::setRecursive(bool recursive)
{
    if (m_recursive == recursive)
        return;
    m_recursive = recursive;
    emit recursiveChanged();
}

QWidget *RQRecursiveViewCtrl::view()
{
    if (m_view)
        return m_view;
    auto *view = new QWidget;
    Ui::RQRecursiveView ui;
    ui.setupUi(view);
    QCheckBox *box = ui.chkRecursive;
    box->setChecked(m_recursive);
    connect(box, &QCheckBox::toggled, this, &RQRecursiveViewCtrl::setRecursive);
    connect(this, &RQRecursiveViewCtrl::recursiveChanged, box, [this, box] { box->setChecked(m_recursive); });
    m_view = view;
    return view;
}
