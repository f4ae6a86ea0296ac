#include "cli/CliAlbums.h"

#include "cli/CliAnalyze.h"
#include "engine/VXAlbumBatch.h"
#include "engine/VXAnalysis.h"
#include "engine/codec/VXCancel.h"


void cliMeasureAlbums(VXAlbumBatch &albums, int jobs, const VXCancel &cancel)
{
    // One track asks for each album, so no pool thread waits for another.
    const QStringList leads = albums.leadTracks();
    cliRunOnPool(int(leads.size()), jobs, [&](int i) {
        albums.member(leads[i], &cancel);  // its reason is read back with the report
    }, [](int) {}, cancel);
}

void cliReportAlbum(CliFileResult &r, VXAlbumBatch &albums, const VXJobSettings &settings)
{
    const std::optional<VXAlbumBatch::Report> album = albums.report(r.input);
    if (!album)
        return;
    r.album = album->name;
    r.albumI = album->album.integrated;
    r.albumTp = album->album.truePeak;
    r.albumLra = album->album.range;
    const float targetLufs = VXLoudnessScale::lufsForPosition(settings.targetLoudness);
    const auto plan = album->album.measured()
        ? VXPlanGain(album->album, targetLufs, settings.truePeakCeiling, settings.limitPeaks)
        : std::nullopt;
    if (plan && !settings.tagsOnly) {
        r.albumGainDb = plan->gainDb;
        r.albumNormalization = VXNormalizationName(plan->kind);
    }
    if (r.reason.isEmpty() && r.outcome != CliOutcome::Cancelled)
        r.reason = album->why;
}
