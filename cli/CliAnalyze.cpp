#include "cli/CliAnalyze.h"

#include "engine/VXAudioGain.h"
#include "engine/VXMainThread.h"
#include "engine/codec/VXCancel.h"

#include <QEventLoop>
#include <QFileInfo>
#include <QSaveFile>
#include <QThreadPool>
#include <QTimer>

void cliRunOnPool(int count, int jobs, const std::function<void(int)> &work, const std::function<void(int)> &done,
                  const VXCancel &cancel)
{
    QEventLoop loop;
    QObject context;
    int next = 0, running = 0;
    std::function<void()> startMore = [&] {
        while (running < jobs && next < count && !cancel.isCancelled()) {
            const int i = next++;
            ++running;
            VXStartOnPool(VXAudioGain::jobPool(), [&, i] {
                work(i);
                VXPostTo(&context, [&, i] {
                    --running;
                    done(i);
                    startMore();
                });
            });
        }
        if (running == 0)
            QTimer::singleShot(0, &loop, &QEventLoop::quit);
    };
    startMore();
    loop.exec();
}

VXResult<> cliWritePicture(const QString &folder, const QString &input, const VXLoudnessPictureData &data)
{
    const QString path = folder + QLatin1Char('/') + QFileInfo(input).fileName() + QStringLiteral(".png");
    // Written whole or not at all: a picture cut short by a full disk is not left behind.
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || !VXLoudnessPicture(data).save(&file, "PNG") || !file.commit())
        return VXError::because(QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
    return {};
}
