#pragma once

#include <QtGlobal>

// Names and values of the codec layer's public constants. Attribute keys are
// loudnorm's own option names, so a filter's attributes become its option
// string without a translation table.

inline constexpr const char VXALoudnormName[] = "loudnorm";

inline constexpr const char kVXAIntegratedLoudnessTarget[] = "I";
inline constexpr const char kVXPrintFormat[] = "print_format";
inline constexpr const char VXPrintFormatJSON[] = "json";
inline constexpr const char VXPrintFormatNone[] = "none";
inline constexpr const char kVXAMeasuredIntegratedLoudness[] = "measured_I";
inline constexpr const char kVXAMeasuredTruePeak[] = "measured_TP";
inline constexpr const char kVXAMeasuredLoudnessRange[] = "measured_LRA";
inline constexpr const char kVXAMeasuredThresh[] = "measured_thresh";
inline constexpr const char kVXAGainOffset[] = "offset";
inline constexpr const char kVXALinearGain[] = "linear";
// The true-peak ceiling in dBTP (-9..0, default -2), loudnorm's own option.
inline constexpr const char kVXATruePeakTarget[] = "TP";
// Linear mode only: reach the target through a true-peak limiter instead of
// capping the gain at the ceiling. The layer's own, never handed to loudnorm.
inline constexpr const char kVXALimitPeaks[] = "limit_peaks";
// Which meter pass 1 measures with. The BS.1770 reference meter (libebur128)
// at the file's own rate is the one that checks every result, so a plan made
// from its figures is judged by the same figures; it decodes only and writes
// nothing. FFmpeg's loudnorm (its own gating, at 192 kHz, writing a one-pass
// output as it goes) gives the figures of an ffmpeg two-pass script. The
// layer's own, never handed to loudnorm.
inline constexpr const char kVXAMeter[] = "meter";
inline constexpr const char VXMeterEbur128[] = "ebur128";
inline constexpr const char VXMeterLoudnorm[] = "loudnorm";
// A mono stream measured as if played on two speakers (+3 dB), as several
// platforms measure it. The layer's own, never handed to loudnorm.
inline constexpr const char kVXADualMono[] = "dual_mono";
inline constexpr float VXDefaultTruePeakTarget = -2.0f;
inline constexpr float VXMinTruePeakTarget = -9.0f;
inline constexpr float VXMaxTruePeakTarget = 0.0f;

// loudnorm's accepted range for I.
inline constexpr float VXMinIntegratedLoudnessTarget = -70.0f;
inline constexpr float VXMaxIntegratedLoudnessTarget = -5.0f;

// Our own tag: how a file was made (engine/VXProvenance.h). A TXXX frame's
// description in ID3v2, a Xiph comment's field, an MP4 freeform atom's name,
// an ASF attribute. Like loudness tags, it describes the audio it came with.
inline constexpr const char kVXProvenanceKey[] = "EVENLOUD";

// Durations are reported in microseconds (FFmpeg's AV_TIME_BASE).
inline constexpr quint64 VXTimebase = 1000000;

// Key of VXError::userInfo set when a file's audio is DRM-protected.
inline constexpr const char VXTranscodingDRMProtected[] = "VXTranscodingDRMProtected";

// The "not found" location of rangeOfDataFind.
inline constexpr qint64 VXNotFound = 0x7FFFFFFFFFFFFFFFLL;
