#pragma once

// Album mode in the report: the engine's album batch groups the files and
// measures each album once; here its figures go into the results.

#include "cli/CliReport.h"
#include "engine/VXJobSettings.h"

#include <QList>

class VXAlbumBatch;
class VXCancel;

// --analyze --album, where no job runs: measures every album of the batch
// on the job pool, at most jobs at a time, until cancel stops it.
void cliMeasureAlbums(VXAlbumBatch &albums, int jobs, const VXCancel &cancel);

// For a result that is one of the batch's files: its album's name and
// figures, the gain the album's tracks share (unless the settings write
// tags, which carry their own), and why the file was left out of its album
// where nothing else has said why it failed.
void cliReportAlbum(CliFileResult &r, VXAlbumBatch &albums, const VXJobSettings &settings);
