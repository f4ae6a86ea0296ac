#include "engine/codec/VXFrame.h"

#include <QCborStreamReader>
#include <QCborValue>
#include <QtEndian>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace vx {
namespace {

VXError frameError(FrameError code, const QString &why) { return VXError::because(why, code); }

// Reads exactly size bytes; how many came before the end or an error.
qsizetype readFully(int fd, char *data, qsizetype size)
{
    qsizetype done = 0;
    while (done < size) {
        const ssize_t n = ::read(fd, data + done, size_t(size - done));
        if (n > 0)
            done += n;
        else if (n == 0 || errno != EINTR)
            break;
    }
    return done;
}

} // namespace

QByteArray encodeFrame(const QCborMap &message)
{
    const QByteArray payload = message.toCborValue().toCbor();
    QByteArray frame(kFrameHeaderBytes, '\0');
    qToBigEndian(quint32(payload.size()), frame.data());
    return frame + payload;
}

VXResult<qsizetype> frameLength(const QByteArray &header)
{
    if (header.size() < kFrameHeaderBytes)
        return frameError(kFrameTruncated, QStringLiteral("a frame's header was cut short"));
    const quint32 length = qFromBigEndian<quint32>(header.constData());
    if (qsizetype(length) > kMaxFrameBytes)
        return frameError(kFrameOversize, QStringLiteral("a frame of %1 bytes is over the limit of %2")
                                              .arg(length).arg(kMaxFrameBytes));
    return qsizetype(length);
}

VXResult<QCborMap> decodePayload(const QByteArray &payload)
{
    QCborStreamReader reader(payload);
    const QCborValue value = QCborValue::fromCbor(reader);
    if (reader.lastError() != QCborError::NoError)
        return frameError(kFrameMalformed, QStringLiteral("a frame is not valid CBOR: %1").arg(reader.lastError().toString()));
    if (!value.isMap())
        return frameError(kFrameMalformed, QStringLiteral("a frame holds no map"));
    if (reader.currentOffset() != payload.size())
        return frameError(kFrameMalformed, QStringLiteral("a frame has bytes after its map"));
    return value.toMap();
}

VXResult<QCborMap> decodeFrame(const QByteArray &bytes)
{
    const VXResult<qsizetype> length = frameLength(bytes.left(kFrameHeaderBytes));
    if (!length)
        return length.error();
    if (bytes.size() < kFrameHeaderBytes + *length)
        return frameError(kFrameTruncated, QStringLiteral("a frame of %1 bytes was cut short at %2")
                                               .arg(*length).arg(bytes.size() - kFrameHeaderBytes));
    if (bytes.size() > kFrameHeaderBytes + *length)
        return frameError(kFrameMalformed, QStringLiteral("a frame has bytes after its end"));
    return decodePayload(bytes.mid(kFrameHeaderBytes));
}

template <class Put>
VXResult<> putFrame(const QCborMap &message, Put put)
{
    const QByteArray frame = encodeFrame(message);
    if (frame.size() > kFrameHeaderBytes + kMaxFrameBytes)
        return frameError(kFrameOversize, QStringLiteral("a frame of %1 bytes is over the limit").arg(frame.size()));
    for (qsizetype done = 0; done < frame.size();) {
        const ssize_t n = put(frame.constData() + done, size_t(frame.size() - done));
        if (n > 0)
            done += n;
        else if (n == 0 || errno != EINTR)
            return frameError(kFrameIo, QString::fromLocal8Bit(strerror(errno)));
    }
    return {};
}

VXResult<> writeFrame(int fd, const QCborMap &message)
{
    return putFrame(message, [fd](const char *data, size_t size) { return ::write(fd, data, size); });
}

VXResult<> sendFrame(int sock, const QCborMap &message)
{
    return putFrame(message, [sock](const char *data, size_t size) { return ::send(sock, data, size, MSG_NOSIGNAL); });
}

VXResult<QCborMap> readFrame(int fd)
{
    QByteArray header(kFrameHeaderBytes, '\0');
    const qsizetype got = readFully(fd, header.data(), kFrameHeaderBytes);
    if (got == 0)
        return frameError(kFrameEnd, QStringLiteral("the stream has ended"));
    header.truncate(got);
    const VXResult<qsizetype> length = frameLength(header);
    if (!length)
        return length.error();
    QByteArray payload(*length, '\0');
    if (const qsizetype n = readFully(fd, payload.data(), *length); n != *length)
        return frameError(kFrameTruncated, QStringLiteral("a frame of %1 bytes was cut short at %2").arg(*length).arg(n));
    return decodePayload(payload);
}

} // namespace vx
