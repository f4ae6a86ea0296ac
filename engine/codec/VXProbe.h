#pragma once

// Opening and inspecting inputs, shared by probing and transcoding.

#include "engine/codec/VXLibav.h"

#include <QByteArray>
#include <QString>

class QIODevice;

namespace vx {

// avformat_open_input + avformat_find_stream_info; nullptr with a reason and
// libav's error code when the file cannot be read as media.
InputPtr openInput(const QString &path, QString *why, int *code);
// The same from the caller's I/O (bytes in memory), which must outlive the input.
InputPtr openInput(AVIOContext *io, QString *why, int *code);

// ASF/WMA content-encryption objects in the file's header.
bool hasDrmHeader(const QString &path);
bool hasDrmHeader(QIODevice &file);
// FairPlay or other encrypted sample entries among the opened streams.
bool hasDrmStream(const AVFormatContext *input);

// The stream's duration in VXTimebase ticks from the headers (stream, then
// container); 0 when neither knows.
quint64 headerLength(const AVFormatContext *input, int audioIndex);
// The same from the packets' own timestamps, for the raw streams and broken
// files whose headers give none: reads the input through. 0 when the
// packets carry none either.
quint64 packetLength(AVFormatContext *input, int audioIndex);

// True when an MP4/MOV file's index ("moov") comes before its media data
// ("mdat"), as files prepared for streaming have it.
bool indexFirst(const QString &path);
bool indexFirst(QIODevice &file);

// The encoded bytes of the first attached picture, or empty.
QByteArray coverArt(const AVFormatContext *input);

} // namespace vx
