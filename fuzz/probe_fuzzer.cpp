// libFuzzer target: what an import does to a file, on arbitrary bytes. The
// header scanners (DRM objects, MP4 box order), opening and stream-info
// probing from memory, the length from headers and from packets, cover art,
// then every packet read and the best audio stream decoded.
//
// FFmpeg here is the distribution's and not instrumented: coverage guides the
// fuzzer through our own code only (the wrappers above and the log routing
// that every libav error line passes), and a fault inside libav itself shows
// only when it crashes outright. scripts/fuzz.sh tells the two apart.

#include "engine/codec/VXLibav.h"
#include "engine/codec/VXLog.h"
#include "engine/codec/VXProbe.h"

#include <QBuffer>
#include <algorithm>
#include <cstring>

namespace {

struct Memory {
    const uint8_t *data;
    size_t size;
    size_t pos = 0;
};

int readMemory(void *opaque, uint8_t *buf, int size)
{
    auto *m = static_cast<Memory *>(opaque);
    const size_t n = std::min(size_t(std::max(size, 0)), m->size - m->pos);
    if (n == 0)
        return AVERROR_EOF;
    std::memcpy(buf, m->data + m->pos, n);
    m->pos += n;
    return int(n);
}

int64_t seekMemory(void *opaque, int64_t offset, int whence)
{
    auto *m = static_cast<Memory *>(opaque);
    if (whence & AVSEEK_SIZE)
        return int64_t(m->size);
    const int64_t base = (whence & ~AVSEEK_FORCE) == SEEK_CUR ? int64_t(m->pos)
                         : (whence & ~AVSEEK_FORCE) == SEEK_END ? int64_t(m->size)
                                                                 : 0;
    if (offset > int64_t(m->size) - base || base + offset < 0)
        return AVERROR(EINVAL);
    m->pos = size_t(base + offset);
    return int64_t(m->pos);
}

// Every packet read; those of the audio stream decoded, as a pass would.
void decodeAll(AVFormatContext *input, int index)
{
    const AVCodecParameters *par = input->streams[index]->codecpar;
    const AVCodec *codec = avcodec_find_decoder(par->codec_id);
    vx::CodecPtr decoder(codec ? avcodec_alloc_context3(codec) : nullptr);
    if (!decoder || avcodec_parameters_to_context(decoder.get(), par) < 0)
        return;
    decoder->thread_count = 1;
    if (avcodec_open2(decoder.get(), codec, nullptr) < 0)
        return;
    auto packet = vx::makePacket();
    auto frame = vx::makeFrame();
    auto drain = [&] {
        while (avcodec_receive_frame(decoder.get(), frame.get()) >= 0)
            av_frame_unref(frame.get());
    };
    while (av_read_frame(input, packet.get()) >= 0) {
        if (packet->stream_index == index && avcodec_send_packet(decoder.get(), packet.get()) >= 0)
            drain();
        av_packet_unref(packet.get());
    }
    if (avcodec_send_packet(decoder.get(), nullptr) >= 0)
        drain();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // Error lines go nowhere: they are routed, not printed.
    VXSetLogSink([](const QString &) {});
    // A header may ask for gigabytes; a real file's probing needs far less.
    av_max_alloc(256 * 1024 * 1024);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    QBuffer file(&bytes);
    file.open(QIODevice::ReadOnly);
    vx::hasDrmHeader(file);
    vx::indexFirst(file);

    Memory memory{data, size};
    constexpr int kBuffer = 4096;
    AVIOContext *io = avio_alloc_context(static_cast<unsigned char *>(av_malloc(kBuffer)), kBuffer, 0, &memory,
                                         readMemory, nullptr, seekMemory);
    if (!io)
        return 0;
    {
        QString why;
        int code = 0;
        const vx::InputPtr input = vx::openInput(io, &why, &code);
        if (input) {
            vx::hasDrmStream(input.get());
            vx::coverArt(input.get());
            const int index = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
            if (index >= 0) {
                vx::headerLength(input.get(), index);
                decodeAll(input.get(), index);
                // Read through again from the start for the packets' length.
                if (avformat_seek_file(input.get(), -1, INT64_MIN, 0, INT64_MAX, AVSEEK_FLAG_BYTE) >= 0)
                    vx::packetLength(input.get(), index);
            }
        }
    }
    av_freep(&io->buffer);
    avio_context_free(&io);
    return 0;
}
