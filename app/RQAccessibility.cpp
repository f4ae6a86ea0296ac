#include "app/RQAccessibility.h"

#include <QAccessibleWidget>
#include <QPointer>
#include <QWidget>

namespace {
QPointer<QWidget> s_window;
QPointer<QWidget> s_popup;

bool popupShown() { return s_window && s_popup && s_popup->isVisible(); }

// The main window, with the popup as its last child while shown.
class WindowInterface : public QAccessibleWidget {
public:
    explicit WindowInterface(QWidget *window) : QAccessibleWidget(window, QAccessible::Window) {}
    int childCount() const override { return QAccessibleWidget::childCount() + (popupShown() ? 1 : 0); }
    QAccessibleInterface *child(int index) const override
    {
        const int own = QAccessibleWidget::childCount();
        if (index == own && popupShown())
            return QAccessible::queryAccessibleInterface(s_popup.data());
        return QAccessibleWidget::child(index);
    }
    int indexOfChild(const QAccessibleInterface *child) const override
    {
        if (child && popupShown() && child->object() == s_popup)
            return QAccessibleWidget::childCount();
        return QAccessibleWidget::indexOfChild(child);
    }
};

// The popup, whose parent is the window it belongs to rather than the application.
class PopupInterface : public QAccessibleWidget {
public:
    explicit PopupInterface(QWidget *popup) : QAccessibleWidget(popup, QAccessible::Dialog) {}
    QAccessibleInterface *parent() const override
    {
        if (s_window)
            return QAccessible::queryAccessibleInterface(s_window.data());
        return QAccessibleWidget::parent();
    }
};

QAccessibleInterface *factory(const QString &, QObject *object)
{
    if (!object || !object->isWidgetType())
        return nullptr;
    if (object == s_window)
        return new WindowInterface(s_window);
    if (object == s_popup)
        return new PopupInterface(s_popup);
    return nullptr;
}
} // namespace

namespace RQAccessibility {

void attachPopup(QWidget *window, QWidget *popup)
{
    static const bool installed = [] {
        QAccessible::installFactory(factory);
        return true;
    }();
    Q_UNUSED(installed);
    s_window = window;
    s_popup = popup;
}

} // namespace RQAccessibility
