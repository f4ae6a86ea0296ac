#pragma once

// What the transcoding needs of a filter beyond its public interface: an
// instance in a graph, and the sink its print-out is routed to.

#include "engine/codec/VXError.h"
#include "engine/codec/VXFilter.h"
#include "engine/codec/VXLibav.h"
#include "engine/codec/VXLoudnessMeter.h"

#include <QByteArray>
#include <cstdio>
#include <memory>
#include <mutex>

// Where one filter's libav messages go: a file while a redirect is in force,
// else a memory buffer that the next redirect writes out first. Shared with
// the log registry so a late message never reaches a destroyed filter.
struct VXFilterLogState {
    std::mutex lock;
    QByteArray pending;
    std::FILE *sink = nullptr;

    void append(const char *data, size_t size);
    bool redirect(const QString &path);
    void cancelRedirect();
    void clearPending();
    QByteArray takePending();
    ~VXFilterLogState();
};

struct VXFilterAccess {
    // Creates and initialises the filter's instances in graph after
    // upstream, linked to it; returns the last one. Linear mode is a gain
    // (and a limiter) at the input's rate; when the attributes carry
    // measurements that cannot be used (a silent first pass prints "-inf"),
    // it is a pass-through so the level stays as it is. The reason when the
    // attributes are refused.
    static VXResult<AVFilterContext *> instantiate(const VXFilter &filter, AVFilterGraph *graph,
                                                   AVFilterContext *upstream, int sampleRate, bool highPrecision,
                                                   const char *instanceName);
    static std::shared_ptr<VXFilterLogState> logState(const VXFilter &filter);
    // An attribute's value as the filter's option string spells it.
    static QByteArray optionText(const QVariant &value);
    // The loudness filter printing its record with the reference meter:
    // the transcoding that runs it only measures, decoding, and writes nothing.
    static bool measuresOnly(const VXFilter &filter);
    // VXMeasureFlag bits for what such a filter measures.
    static int measureFlags(const VXFilter &filter);
};

namespace vx {
// Routes every libav message whose context is ctx into state.
void registerLogContext(const void *ctx, std::shared_ptr<VXFilterLogState> state);
// Undoes registerLogContext, unless ctx has since been taken by another state.
void unregisterLogContext(const void *ctx, const VXFilterLogState *state);
} // namespace vx
