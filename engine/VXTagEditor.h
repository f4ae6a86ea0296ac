#pragma once

// A file's own tag, opened by its container: ID3v2 in MP3, MP2, WAV and
// AIFF, the Xiph comment in FLAC and Ogg (Vorbis, Opus, FLAC, Speex),
// freeform atoms in MP4 and QuickTime, attributes in ASF. Fields are free
// keys with one text value, as ReplayGain and our own record use them.
// Only the tag is read: no audio properties, no scan of the audio, so it
// is cheap enough to open for every file of a large library.

#include "engine/codec/VXError.h"

#include <QString>
#include <memory>

class VXTagEditor {
public:
    // open()'s error code for a container that has no tag (AC-3).
    static constexpr int kNoTagContainer = 1;

    // writable: save() may write the file; otherwise the file is opened read
    // only, which also reads files the user may not change.
    static VXResult<VXTagEditor> open(const QString &path, bool writable);

    VXTagEditor(VXTagEditor &&) noexcept;
    VXTagEditor &operator=(VXTagEditor &&) noexcept;
    ~VXTagEditor();

    // Opus keeps its loudness in R128_* fields, against its own reference.
    bool isOpus() const;
    // The field's first value; empty when it is absent.
    QString value(const QString &key) const;
    // Every earlier value of key is replaced.
    void set(const QString &key, const QString &value);
    // Every value of key goes; nothing happens when it has none.
    void remove(const QString &key);
    VXResult<> save();

    struct Impl;  // the open file and its tag, in the source

private:
    explicit VXTagEditor(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> d;
};
