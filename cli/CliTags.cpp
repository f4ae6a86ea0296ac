#include "cli/CliTags.h"

#include "cli/CliAnalyze.h"
#include "engine/VXAlbum.h"
#include "engine/VXAnalysis.h"
#include "engine/VXReplayGain.h"
#include "engine/codec/VXCancel.h"

CliAlbums cliMeasureAlbums(QList<CliFileResult> &results, const QList<int> &indices, const CliOptions &opt,
                           float targetLufs, const VXCancel &cancel)
{
    CliAlbums albums(size_t(results.size()));
    QStringList paths;
    for (const int i : indices)
        paths << results[i].input;
    const QList<VXAlbumGroup> groups = VXGroupAlbums(paths);
    std::vector<VXAlbumLoudness> measured(size_t(groups.size()));
    std::vector<QString> why(size_t(groups.size()));
    cliRunOnPool(int(groups.size()), opt.jobs, [&](int g) {
        QStringList tracks;
        for (const int m : groups[g].members)
            tracks << paths[m];
        if (!VXMeasureAlbum(tracks, &measured[size_t(g)], &why[size_t(g)], &cancel,
                            opt.dualMono ? VXMeasureDualMono : 0) && cancel.isCancelled())
            why[size_t(g)].clear();  // not a failure of the album's
    }, [](int) {}, cancel);
    for (qsizetype g = 0; g < groups.size(); ++g) {
        const VXAlbumLoudness &a = measured[size_t(g)];
        const auto plan = a.album.measured() ? VXPlanGain(a.album, targetLufs, opt.truePeak, opt.limitPeaks)
                                             : std::nullopt;
        for (qsizetype k = 0; k < groups[g].members.size(); ++k) {
            const int i = indices[groups[g].members[k]];
            CliFileResult &r = results[i];
            r.album = groups[g].name;
            r.albumI = a.album.integrated;
            r.albumTp = a.album.truePeak;
            r.albumLra = a.album.range;
            if (plan && !opt.tagsOnly) {  // tags carry their own gains, to -18 LUFS
                r.albumGainDb = plan->gainDb;
                r.albumNormalization = VXNormalizationName(plan->kind);
            }
            if (size_t(k) < a.tracks.size() && a.tracks[size_t(k)].measured() && a.album.measured())
                albums[size_t(i)] = VXAlbumMember{groups[g].name, a.tracks[size_t(k)], a.album};
            else
                r.reason = size_t(k) < a.tracks.size() ? a.reasons.value(k) : why[size_t(g)];
        }
    }
    return albums;
}

void cliWriteTags(QList<CliFileResult> &results, const QList<int> &indices, const CliAlbums &albums,
                  const CliOptions &opt, const VXCancel &cancel, const std::function<void(const QString &)> &say)
{
    struct Done {
        bool ended = false;
        bool cancelled = false;  // stopped while measuring: nothing written
        VXLoudness track;
        VXReplayGain written;
        VXPlacement::Result placed = VXError();
    };
    std::vector<Done> done(size_t(indices.size()));
    cliRunOnPool(int(indices.size()), opt.jobs, [&](int k) {
        const int i = indices[k];
        const CliFileResult &r = std::as_const(results)[i];
        Done &d = done[size_t(k)];
        const std::optional<VXAlbumMember> &member = albums[size_t(i)];
        if (opt.album && !member) {
            d.placed = VXError::because(r.reason.isEmpty() ? QStringLiteral("the album could not be measured") : r.reason);
            return;
        }
        QString why;
        if (member)
            d.track = member->track;
        else if (!VXMeasureFile(r.input, VXMeasureTruePeak | (opt.dualMono ? VXMeasureDualMono : 0), &d.track,
                                &why, &cancel)) {
            d.placed = VXError::because(why);
            d.cancelled = cancel.isCancelled();
            return;
        }
        d.written = VXReplayGainFor(d.track, member ? &member->album : nullptr);
        d.placed = VXTagFile(r.input, opt.outputFolder, d.written, opt.preserveMtime);
    }, [&](int k) {
        Done &d = done[size_t(k)];
        CliFileResult &r = results[indices[k]];
        if (d.cancelled)
            return;
        d.ended = true;
        r.measurement = VXMeasurementRecord(d.track);
        r.measurement.remove(QStringLiteral("target_offset"));
        if (d.placed) {
            r.outcome = CliOutcome::Tagged;
            r.output = d.placed->path;
            r.warning = d.placed->warning;
            r.tagTrackGain = d.written.trackGainDb;
            r.tagTrackPeak = d.written.trackPeak;
            r.tagAlbumGain = d.written.albumGainDb;
            r.tagAlbumPeak = d.written.albumPeak;
        } else {
            r.outcome = CliOutcome::Failed;
            r.reason = d.placed.reason();
        }
        say(QStringLiteral("%1  %2%3").arg(outcomeName(r.outcome), -9).arg(r.input,
                                             r.reason.isEmpty() ? QString() : QStringLiteral(": ") + r.reason));
    }, cancel);
    for (qsizetype k = 0; k < indices.size(); ++k)
        if (!done[size_t(k)].ended)
            results[indices[k]].outcome = CliOutcome::Cancelled;
}
