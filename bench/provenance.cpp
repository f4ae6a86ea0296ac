// What reading the record of how a file was made costs, as a re-run of a
// finished library pays it once a file before anything else. Makes four
// three-minute files (FLAC, MP3, M4A, WAV) carrying a record, links them
// under COUNT names (default 20000), and reads every one as a skip would.
// The page cache is warm: on a cold disk, add a seek or two a file.
//   evenloud-provenance-read [COUNT]
#include "engine/VXLoudnessScale.h"
#include "engine/VXProvenance.h"
#include "tests/support/Fixtures.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <algorithm>
#include <map>
#include <cstdio>
#include <ctime>
#include <unistd.h>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int count = argc > 1 ? std::max(1, atoi(argv[1])) : 20000;
    QTemporaryDir dir;
    VXJobSettings settings;
    settings.targetLoudness = *VXLoudnessScale::positionForLufs(-16.0);
    settings.skipWithin = 0.5;
    VXProvenance made = VXProvenance::forJob(settings, -16.0, QStringLiteral("linear"));
    made.integrated = -16.01;
    made.truePeak = -2.5;
    made.range = 6.0;

    const QList<QStringList> kinds = {{"a.flac", "-c:a", "flac"},
                                      {"b.mp3", "-c:a", "libmp3lame", "-b:a", "192k"},
                                      {"c.m4a", "-c:a", "aac", "-b:a", "160k"},
                                      {"d.wav", "-c:a", "pcm_s16le"}};
    QStringList sources;
    for (const QStringList &k : kinds) {
        const QString path = fixtures::makeAudio(dir.path(), k[0], 180, k.mid(1));
        if (path.isEmpty() || !VXWriteProvenance(path, made)) {
            fprintf(stderr, "cannot make %s\n", qPrintable(k[0]));
            return 1;
        }
        sources << path;
    }
    QDir().mkpath(dir.filePath(QStringLiteral("library")));
    QStringList library;
    for (int i = 0; i < count; ++i) {
        const QString &source = sources[i % sources.size()];
        const QString name = dir.filePath(QStringLiteral("library/%1.%2").arg(i).arg(QFileInfo(source).suffix()));
        if (::link(QFile::encodeName(source).constData(), QFile::encodeName(name).constData()) != 0) {
            perror("link");
            return 1;
        }
        library << name;
    }

    std::map<QString, std::pair<qint64, int>> byFormat;  // ns, files
    QElapsedTimer clock, one;
    clock.start();
    const std::clock_t cpuStart = std::clock();
    int skipped = 0;
    for (const QString &path : std::as_const(library)) {
        one.start();
        skipped += VXProvenanceSkip(path, settings) ? 1 : 0;
        auto &[ns, files] = byFormat[QFileInfo(path).suffix()];
        ns += one.nsecsElapsed();
        ++files;
    }
    const double seconds = double(clock.nsecsElapsed()) / 1e9;
    const double cpu = double(std::clock() - cpuStart) / CLOCKS_PER_SEC;
    // CPU time too: on a shared machine the wall clock counts the others' work.
    printf("%d files, %d skipped, %.2f s (%.2f s CPU): %.0f files/s, %.1f us a file\n", count, skipped, seconds, cpu,
           count / seconds, seconds * 1e6 / count);
    for (const auto &[ext, cost] : byFormat)
        printf("  .%s: %.1f us a file\n", qPrintable(ext), double(cost.first) / 1e3 / cost.second);
    return skipped == count ? 0 : 1;
}
