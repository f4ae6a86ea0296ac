#pragma once

// Measuring without writing (--analyze) and the loudness pictures (--plot):
// decode-only work, spread over the job pool like the batch's jobs.

#include "engine/VXLoudnessPicture.h"
#include "engine/codec/VXError.h"

#include <QString>
#include <functional>

class VXCancel;

// Runs work(i) for every i below count on the job pool, at most jobs at a
// time, and done(i) on this thread as each ends. This thread's event loop
// runs meanwhile, so a Ctrl-C is heard; once cancel is set nothing more
// starts (the work under way gets the cancel itself, to stop at once).
void cliRunOnPool(int count, int jobs, const std::function<void(int)> &work, const std::function<void(int)> &done,
                  const VXCancel &cancel);

// DIR/<file name>.png; false with a reason when it cannot be written.
VXResult<> cliWritePicture(const QString &folder, const QString &input, const VXLoudnessPictureData &data);
