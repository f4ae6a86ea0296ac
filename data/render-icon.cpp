// Renders the scalable application icon into the fixed-size PNGs that icon
// themes and docks without SVG support look for. Build-time tool only.
#include <QImage>
#include <QPainter>
#include <QSvgRenderer>
#include <cstdio>

int main(int argc, char *argv[])
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s ICON.svg SIZE OUT.png\n", argv[0]);
        return 2;
    }
    // No application object: the icon has no text, so no fonts are needed.
    QSvgRenderer svg(QString::fromLocal8Bit(argv[1]));
    const int size = QString::fromLocal8Bit(argv[2]).toInt();
    if (!svg.isValid() || size <= 0) {
        std::fprintf(stderr, "cannot render %s at %s px\n", argv[1], argv[2]);
        return 1;
    }
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    svg.render(&painter);
    painter.end();
    return image.save(QString::fromLocal8Bit(argv[3])) ? 0 : 1;
}
