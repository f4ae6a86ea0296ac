// The figures that follow from a measurement's 100 ms steps: its curve and
// maxima, and the gated loudness of one stream or of an album's tracks.
// Kept apart from the meter, so that figures read back from a cache go
// through the same arithmetic as those just measured.

#include "engine/codec/VXLoudnessMeter.h"

#include <algorithm>

namespace {

// BS.1770's absolute gate, and libebur128's relative gates.
const double kAbsoluteGate = std::pow(10.0, (-70.0 + 0.691) / 10.0);
constexpr double kRelativeGate = 0.1;       // -10 LU, for the integrated loudness
constexpr double kRangeRelativeGate = 0.01;  // -20 LU, for the loudness range

constexpr int kMomentarySteps = 4;
constexpr int kShortTermSteps = int(kVXShortTermWindow / kVXShortTermStep + 0.5);
constexpr int kRangeHop = 10;  // a range block every second

double energyOf(qint16 step)
{
    return step == kVXSilentStep ? 0.0 : std::pow(10.0, (step / 100.0 + 0.691) / 10.0);
}

double lufsOf(double energy) { return energy > 0 ? 10.0 * std::log10(energy) - 0.691 : -HUGE_VAL; }

std::vector<double> energies(const std::vector<qint16> &steps)
{
    // The same 0.01 LU comes back for every step that has it: a table
    // would save little over a few thousand steps.
    std::vector<double> e(steps.size());
    std::transform(steps.begin(), steps.end(), e.begin(), energyOf);
    return e;
}

// The mean energy of the n steps ending at step k.
double window(const std::vector<double> &e, size_t k, int n)
{
    double sum = 0;
    for (int i = 0; i < n; ++i)
        sum += e[k - size_t(i)];
    return sum / n;
}

double mean(const std::vector<double> &values)
{
    double sum = 0;
    for (const double v : values)
        sum += v;
    return sum / double(values.size());
}

double range(std::vector<double> blocks)
{
    if (blocks.empty())
        return 0.0;
    const double gate = mean(blocks) * kRangeRelativeGate;
    std::sort(blocks.begin(), blocks.end());
    const auto first = std::lower_bound(blocks.begin(), blocks.end(), gate);
    const size_t n = size_t(blocks.end() - first);
    if (n == 0)
        return 0.0;
    // The 10th and 95th percentiles, indexed as libebur128 indexes them.
    const double low = first[size_t(double(n - 1) * 0.1 + 0.5)];
    const double high = first[size_t(double(n - 1) * 0.95 + 0.5)];
    return lufsOf(high) - lufsOf(low);
}

} // namespace

qint16 VXStepOf(double lufs)
{
    if (std::isnan(lufs) || lufs == -HUGE_VAL)
        return kVXSilentStep;
    return qint16(std::clamp(std::lround(lufs * 100.0), -32700L, 32767L));
}

void VXCurveFromSteps(VXLoudness &loudness)
{
    const std::vector<double> e = energies(loudness.steps);
    loudness.shortTerm.clear();
    loudness.shortTerm.reserve(e.size());
    loudness.maxShortTerm = -HUGE_VAL;
    loudness.maxMomentary = -HUGE_VAL;
    for (size_t k = 0; k < e.size(); ++k) {
        // Before the start is silence: a window that reaches past it sums
        // what there is over its whole length.
        double shortSum = 0, momentarySum = 0;
        for (size_t i = 0; i < size_t(kShortTermSteps) && i <= k; ++i) {
            shortSum += e[k - i];
            if (i < size_t(kMomentarySteps))
                momentarySum += e[k - i];
        }
        const double shortTerm = lufsOf(shortSum / kShortTermSteps);
        loudness.shortTerm.push_back(float(shortTerm));
        loudness.maxShortTerm = std::max(loudness.maxShortTerm, shortTerm);
        loudness.maxMomentary = std::max(loudness.maxMomentary, lufsOf(momentarySum / kMomentarySteps));
    }
}

VXGatedLoudness VXGateSteps(const std::vector<const std::vector<qint16> *> &streams)
{
    VXGatedLoudness out;
    std::vector<double> blocks, rangeBlocks;
    bool any = false;
    for (const std::vector<qint16> *steps : streams) {
        if (!steps)
            continue;
        any = true;
        const std::vector<double> e = energies(*steps);
        for (size_t k = kMomentarySteps - 1; k < e.size(); ++k) {
            const double block = window(e, k, kMomentarySteps);
            if (block >= kAbsoluteGate)
                blocks.push_back(block);
            if ((k + 1) % kRangeHop == 0 && k + 1 >= size_t(kShortTermSteps)) {
                const double shortTerm = window(e, k, kShortTermSteps);
                if (shortTerm >= kAbsoluteGate)
                    rangeBlocks.push_back(shortTerm);
            }
        }
    }
    if (!any)
        return out;
    out.range = range(std::move(rangeBlocks));
    if (blocks.empty()) {
        // libebur128's answers for audio that never passes the absolute gate.
        out.integrated = -HUGE_VAL;
        out.threshold = -70.0;
        return out;
    }
    const double gate = mean(blocks) * kRelativeGate;
    out.threshold = lufsOf(gate);
    double sum = 0;
    size_t n = 0;
    for (const double b : blocks)
        if (b >= gate)
            sum += b, ++n;
    out.integrated = n > 0 ? lufsOf(sum / double(n)) : -HUGE_VAL;
    return out;
}

VXLoudness VXAlbumOf(const std::vector<VXLoudness> &tracks)
{
    VXLoudness album;
    std::vector<const std::vector<qint16> *> steps;
    for (const VXLoudness &t : tracks) {
        if (!t.measured())
            continue;
        steps.push_back(&t.steps);
        album.truePeak = std::isnan(album.truePeak) ? t.truePeak : std::max(album.truePeak, t.truePeak);
    }
    const VXGatedLoudness gated = VXGateSteps(steps);
    album.integrated = gated.integrated;
    album.threshold = gated.threshold;
    album.range = gated.range;
    return album;
}
