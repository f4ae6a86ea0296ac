#pragma once

// How a re-encoded audio stream is set up (VXPipeline's lanes).

#include "engine/codec/VXLibav.h"

#include <QString>

namespace vx {

// The encoder for a codec, the external one where FFmpeg's is weak.
const AVCodec *findEncoder(AVCodecID id);
AVSampleFormat chooseSampleFormat(const AVCodec *encoder, AVSampleFormat decoded);
int chooseSampleRate(const AVCodec *encoder, int rate);
// False when the encoder takes no layout of that many channels.
bool chooseLayout(const AVCodec *encoder, const AVChannelLayout &decoded, AVChannelLayout *out);
bool isLossless(AVCodecID id);
// The bit rate a lossy stream keeps; 0 when nothing tells it.
int64_t chooseBitRate(const AVFormatContext *input, int audioIndex, const QString &inPath, int64_t durationUs);
// Lossy encoders take float samples and assume they lie within full scale;
// a corrupt frame that decodes to +79 dBFS makes libmp3lame abort the
// process. What they get is clamped there, and NaN becomes silence.
void clampToFullScale(AVFrame *frame);

} // namespace vx
