#pragma once

#include <QByteArray>
#include <QImage>
#include <QString>
#include <memory>

#include "engine/codec/VXError.h"

// The cover art stored in a file, as its encoded bytes (JPEG, PNG, ...).
class VXAttachedPicture {
public:
    explicit VXAttachedPicture(QByteArray encoded) : m_encoded(std::move(encoded)) {}
    const QByteArray &encoded() const { return m_encoded; }
    // The decoded picture, or a null image when it cannot be decoded or is
    // absurd (over 50 MB encoded, or over 16384 px on a side). With maxSide,
    // a larger picture is decoded straight to that size on its longer side
    // (a JPEG decoder then skips most of the work).
    QImage cgImage(int maxSide = 0) const;

private:
    QByteArray m_encoded;
};

// Opens one media file and answers questions about its audio.
class VXDemuxerContext {
public:
    // nullptr and a filled error when the file has no decodable audio stream;
    // DRM-protected audio puts VXTranscodingDRMProtected into error->userInfo.
    // With a worker program set (vx::setWorkerProgram) the file is opened
    // there, and a demuxer that crashes or hangs on it refuses it with the
    // reason in error->description.
    static std::unique_ptr<VXDemuxerContext> initWithFilename(const QString &path, VXError *error);
    ~VXDemuxerContext();

    // Length of the audio stream in VXTimebase ticks; never 0 for a file
    // that holds audio, even when the header gives no duration.
    quint64 audioStreamLength() const;
    // nullptr when the file has no cover art.
    std::unique_ptr<VXAttachedPicture> attachPicture() const;

    VXDemuxerContext(const VXDemuxerContext &) = delete;
    VXDemuxerContext &operator=(const VXDemuxerContext &) = delete;

private:
    VXDemuxerContext();
    struct Private;
    std::unique_ptr<Private> d;
};
