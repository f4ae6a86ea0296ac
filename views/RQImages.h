#pragma once

#include <QImage>
#include <QString>

// Loads an image resource (SVG or raster) at its natural size in points,
// rendered for the given device pixel ratio so it stays sharp on HiDPI
// screens. A missing or empty resource gives a null image. GUI thread only:
// results are cached per name and ratio.
QImage rqImageNamed(const QString &path, qreal devicePixelRatio);

// Resource paths of the views' own pictures.
inline constexpr char kRQGuideImage[] = ":/images/gainGuide.png";
inline constexpr char kRQLoudnessImage[] = ":/images/loudness.svg";
inline constexpr char kRQAppIcon[] = ":/images/evenloud.svg";
