// An independent loudness meter for the benchmark: libebur128 over PCM that
// the ffmpeg command-line tool decodes. Prints, per file:
//   <integrated LUFS> <true peak dBTP> <loudness range LU> <path>
#include <ebur128.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

struct PipeCloser {
    void operator()(FILE *f) const { pclose(f); }
};
using Pipe = std::unique_ptr<FILE, PipeCloser>;

struct MeterCloser {
    void operator()(ebur128_state *s) const { ebur128_destroy(&s); }
};
using Meter = std::unique_ptr<ebur128_state, MeterCloser>;

std::string quoted(const std::string &s)
{
    std::string out = "'";
    for (char c : s)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

bool probe(const std::string &path, unsigned &rate, unsigned &channels)
{
    const std::string cmd = "ffprobe -v error -select_streams a:0 -show_entries stream=sample_rate,channels "
                            "-of default=nw=1:nk=1 " + quoted(path);
    Pipe p(popen(cmd.c_str(), "r"));
    return p && fscanf(p.get(), "%u %u", &rate, &channels) == 2 && rate > 0 && channels > 0;
}

bool measure(const std::string &path)
{
    unsigned rate = 0, channels = 0;
    // ffprobe prints sample_rate before channels.
    if (!probe(path, rate, channels)) {
        fprintf(stderr, "meter: cannot probe %s\n", path.c_str());
        return false;
    }
    Meter meter(ebur128_init(channels, rate, EBUR128_MODE_I | EBUR128_MODE_LRA | EBUR128_MODE_TRUE_PEAK));
    if (!meter)
        return false;
    const std::string cmd = "ffmpeg -v error -nostdin -i " + quoted(path) +
                            " -map 0:a:0 -f f32le -acodec pcm_f32le -";
    Pipe p(popen(cmd.c_str(), "r"));
    if (!p)
        return false;
    std::vector<float> buf(size_t(4096) * channels);
    size_t n;
    while ((n = fread(buf.data(), sizeof(float) * channels, 4096, p.get())) > 0)
        ebur128_add_frames_float(meter.get(), buf.data(), n);
    double integrated = 0, range = 0, peak = 0;
    ebur128_loudness_global(meter.get(), &integrated);
    ebur128_loudness_range(meter.get(), &range);
    for (unsigned c = 0; c < channels; ++c) {
        double channelPeak = 0;
        ebur128_true_peak(meter.get(), c, &channelPeak);
        peak = std::max(peak, channelPeak);
    }
    printf("%.2f %.2f %.2f %s\n", integrated, 20.0 * std::log10(std::max(peak, 1e-10)), range, path.c_str());
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: %s FILE...\n", argv[0]);
        return 2;
    }
    int status = 0;
    for (int i = 1; i < argc; ++i)
        if (!measure(argv[i]))
            status = 1;
    return status;
}
