#include "app/RQPalette.h"

#include <QApplication>
#include <QPalette>
#include <QStyleFactory>
#include <QWidget>

namespace RQPalette {

void applyDarkPalette(QApplication &app)
{
    // Fusion draws every control from the palette, so the dark colours hold
    // whatever desktop theme the user runs.
    if (QStyle *fusion = QStyleFactory::create(QStringLiteral("Fusion")))
        app.setStyle(fusion);
    QPalette p;
    const QColor base = background();
    const QColor text = lightTitle();
    for (auto group : {QPalette::Active, QPalette::Inactive}) {
        p.setColor(group, QPalette::Window, base);
        p.setColor(group, QPalette::Base, base);
        p.setColor(group, QPalette::AlternateBase, QColor(70, 66, 67));
        p.setColor(group, QPalette::Button, QColor(70, 66, 67));
        p.setColor(group, QPalette::WindowText, text);
        p.setColor(group, QPalette::Text, text);
        p.setColor(group, QPalette::ButtonText, text);
        p.setColor(group, QPalette::BrightText, Qt::white);
        p.setColor(group, QPalette::Highlight, selectedRow());
        p.setColor(group, QPalette::HighlightedText, text);
        p.setColor(group, QPalette::ToolTipBase, QColor(47, 43, 44));
        p.setColor(group, QPalette::ToolTipText, text);
        p.setColor(group, QPalette::PlaceholderText, dimmedText());
        p.setColor(group, QPalette::Light, QColor(90, 86, 87));
        p.setColor(group, QPalette::Midlight, QColor(76, 72, 73));
        p.setColor(group, QPalette::Mid, QColor(56, 52, 53));
        p.setColor(group, QPalette::Dark, QColor(47, 43, 44));
        p.setColor(group, QPalette::Shadow, QColor(30, 28, 28));
        p.setColor(group, QPalette::Link, QColor(150, 120, 220));
    }
    p.setColor(QPalette::Disabled, QPalette::Window, base);
    p.setColor(QPalette::Disabled, QPalette::Base, base);
    p.setColor(QPalette::Disabled, QPalette::Button, QColor(66, 62, 63));
    for (auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        p.setColor(QPalette::Disabled, role, QColor(110, 106, 107));
    app.setPalette(p);
}

void setTitleColor(QWidget *widget, const QColor &color)
{
    QPalette p = widget->palette();
    for (auto group : {QPalette::Active, QPalette::Inactive}) {
        p.setColor(group, QPalette::ButtonText, color);
        p.setColor(group, QPalette::WindowText, color);
    }
    widget->setPalette(p);
}

void setTextColor(QWidget *widget, const QColor &color)
{
    QPalette p = widget->palette();
    for (auto group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled})
        p.setColor(group, QPalette::Text, color);
    widget->setPalette(p);
}

} // namespace RQPalette
