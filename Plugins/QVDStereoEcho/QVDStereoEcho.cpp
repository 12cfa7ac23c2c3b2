#include "QVDStereoEcho.h"

#include <algorithm>
#include <cmath>
#include <string>

#include <Algorithms/Glide.h>
#include <Algorithms/LFO.h>
#include <Algorithms/NoteValue.h>
#include <Algorithms/SoftLimit.h>
#include <Algorithms/StereoPorts.h>
#include <Algorithms/WaveTable.h>
#include <SmoothingCoefficient.h>

QVD_REGISTER_AUDIO_PLUGIN(QVDStereoEcho)

namespace {

// A changed time slides over about 100 ms, like a tape's speed, instead of jumping.
constexpr double kGlideSeconds = 0.100;
// Wow and flutter at full amount: a slow drift and a fast shiver of the read.
constexpr double kWowHz = 0.7, kWowMs = 1.5;
constexpr double kFlutterHz = 6.5, kFlutterMs = 0.12;

} // namespace

std::vector<QVDParam> QVDStereoEcho::parameterRows()
{
    std::vector<QVDParam> rows{
        qvdListParam("MODE", "Mode", {"Digital", "Tape"}, 0),
        {.name = "TAPS", .label = "Taps", .minimum = 1.0f, .maximum = float(kMaxTaps), .defaultValue = 2.0f,
         .step = 1.0f},
        {.name = "FEEDBACK", .label = "Feedback", .maximum = 100.0f, .defaultValue = 30.0f, .step = 0.1f, .unit = "%"},
        {.name = "MIX", .label = "Mix", .maximum = 100.0f, .defaultValue = 35.0f, .step = 1.0f, .unit = "%"},
        {.name = "WOW_FLUTTER", .label = "Wow & Flutter", .maximum = 100.0f, .defaultValue = 30.0f, .step = 1.0f,
         .unit = "%"},
        {.name = "SATURATION", .label = "Saturation", .maximum = 24.0f, .defaultValue = 6.0f, .step = 0.1f,
         .unit = "dB"},
    };
    for (int k = 0; k < kMaxTaps; ++k) {
        const std::string n = std::to_string(k + 1);
        // Two taps to start: a quarter second left, half a second right; the rest on a 125 ms grid.
        const float time = 125.0f * static_cast<float>(k + 1) * (k < 2 ? 2.0f : 1.0f);
        const float pan = k == 0 ? -50.0f : k == 1 ? 50.0f : 0.0f;
        rows.push_back({.name = "TIME_" + n, .label = "Time " + n, .minimum = 1.0f, .maximum = kMaxTimeMs,
                        .defaultValue = time, .step = 0.1f, .unit = "ms", .scale = qvd::kLogarithmic});
        rows.push_back(qvdListParam("NOTE_" + n, "Note " + n, qvd::notes::syncLabels(), 0));
        rows.push_back({.name = "LEVEL_" + n, .label = "Level " + n, .minimum = -60.0f,
                        .defaultValue = -3.0f * static_cast<float>(k), .step = 0.1f, .unit = "dB"});
        rows.push_back({.name = "PAN_" + n, .label = "Pan " + n, .minimum = -100.0f, .maximum = 100.0f,
                        .defaultValue = pan, .step = 1.0f, .unit = "%"});
    }
    return rows;
}

void QVDStereoEcho::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    const auto relaxed = std::memory_order_relaxed;
    switch (index) {
    case MODE: m_tape.store(qvdSwitchOn(value), relaxed); return;
    case TAPS: m_tapCount.store(std::clamp(qvdListIndex(value), 1, kMaxTaps), relaxed); return;
    case FEEDBACK: m_feedback.store(std::clamp(value, 0.0f, 100.0f) / 100.0f, relaxed); return;
    case MIX: m_mix.store(std::clamp(value, 0.0f, 100.0f) / 100.0f, relaxed); return;
    case WOW_FLUTTER: m_wowFlutter.store(std::clamp(value, 0.0f, 100.0f) / 100.0f, relaxed); return;
    case SATURATION: m_drive.store(std::pow(10.0f, std::clamp(value, 0.0f, 24.0f) / 20.0f), relaxed); return;
    default: break;
    }
    if (index < FIRST_TAP || index >= FIRST_TAP + kMaxTaps * kRowsPerTap)
        return;
    TapSetting& tap = m_taps[(index - FIRST_TAP) / kRowsPerTap];
    switch ((index - FIRST_TAP) % kRowsPerTap) {
    case TAP_TIME: tap.timeMs.store(std::clamp(value, 1.0f, kMaxTimeMs), relaxed); break;
    case TAP_NOTE:
        tap.note.store(qvdListIndex(std::clamp(value, 0.0f, float(qvd::notes::kCount))), relaxed);
        break;
    case TAP_LEVEL: tap.gain.store(std::pow(10.0f, std::clamp(value, -60.0f, 0.0f) / 20.0f), relaxed); break;
    case TAP_PAN: tap.pan.store(std::clamp(value, -100.0f, 100.0f) / 100.0f, relaxed); break;
    default: break;
    }
}

bool QVDStereoEcho::prepareProcessing()
{
    const double rate = sampleRate();
    // The longest time plus the deepest wow and flutter below it and above.
    m_line.prepare(rate, static_cast<std::int32_t>(std::ceil((kMaxTimeMs + kWowMs + kFlutterMs) * 1e-3 * rate)) + 4);
    m_glide = std::exp(-1.0 / (kGlideSeconds * rate));
    resetState();
    return true;
}

void QVDStereoEcho::resetState() noexcept
{
    m_line.clear();
    m_fresh = true;
    m_wowPhase = m_flutterPhase = 0.0;
}

double QVDStereoEcho::tapTarget(const TapSetting& tap, bool haveTempo, double bpm) const noexcept
{
    const auto relaxed = std::memory_order_relaxed;
    const int note = tap.note.load(relaxed);
    const double seconds = note > 0 && haveTempo ? qvd::notes::seconds(note - 1, bpm) : tap.timeMs.load(relaxed) * 1e-3;
    // Whole samples, so a settled tap reads stored samples exactly.
    return std::round(std::min(seconds, kMaxTimeMs * 1e-3) * sampleRate());
}

void QVDStereoEcho::render(const QVDBlock& block) noexcept
{
    if (block.channels < 1)
        return;
    const auto relaxed = std::memory_order_relaxed;
    const double rate = sampleRate();
    double bpm = 0.0;
    std::int32_t numerator = 4, denominator = 4;
    const bool haveTempo = hostTempo(block.record, bpm, numerator, denominator);
    const int taps = m_tapCount.load(relaxed);
    double time[kMaxTaps], left[kMaxTaps], right[kMaxTaps];
    int longest = 0;
    for (int k = 0; k < kMaxTaps; ++k) {
        const TapSetting& tap = m_taps[k];
        time[k] = tapTarget(tap, haveTempo, bpm);
        // Switched-off taps fade out; silent ones wait at their time to fade in.
        const double gain = k < taps ? tap.gain.load(relaxed) : 0.0, pan = tap.pan.load(relaxed);
        // Balance: the far side fades out, the near side stays at the tap's level.
        left[k] = gain * std::min(1.0, 1.0 - pan);
        right[k] = gain * std::min(1.0, 1.0 + pan);
        if (k < taps && time[k] > time[longest])
            longest = k;
        TapState& state = m_state[k];
        if (m_fresh || (state.left == 0.0 && state.right == 0.0))
            state.time = time[k];
        if (m_fresh) {
            state.left = left[k];
            state.right = right[k];
        }
    }
    const double mixTarget = m_mix.load(relaxed);
    if (m_fresh) {
        m_mixState = mixTarget;
        m_fresh = false;
    }
    const bool tape = m_tape.load(relaxed);
    const float feedback = m_feedback.load(relaxed);
    const float drive = m_drive.load(relaxed);
    const double wow = tape ? m_wowFlutter.load(relaxed) * kWowMs * 1e-3 * rate : 0.0;
    const double flutter = tape ? m_wowFlutter.load(relaxed) * kFlutterMs * 1e-3 * rate : 0.0;
    const double wowStep = kWowHz / rate, flutterStep = kFlutterHz / rate;
    const float* sine = LFO::table(LFO::kSine);
    const double g = m_glide;
    const double a = SmoothingCoefficient::shared200ms().a();
    const double top = static_cast<double>(m_line.capacity());

    const auto [inL, inR, outL, outR] = StereoPorts(block);
    double mix = m_mixState;
    for (std::int32_t n = 0; n < block.frames; ++n) {
        double shift = 0.0;
        if (tape) {
            // Centred on the set time: the drift reads both earlier and later.
            shift = wow * waveAt(sine, m_wowPhase) + flutter * waveAt(sine, m_flutterPhase);
            m_wowPhase += wowStep;
            m_flutterPhase += flutterStep;
            m_wowPhase -= m_wowPhase >= 1.0 ? 1.0 : 0.0;
            m_flutterPhase -= m_flutterPhase >= 1.0 ? 1.0 : 0.0;
        }
        float sumL = 0.0f, sumR = 0.0f, backL = 0.0f, backR = 0.0f;
        for (int k = 0; k < kMaxTaps; ++k) {
            TapState& s = m_state[k];
            if (k >= taps && s.left == 0.0 && s.right == 0.0)
                continue;
            if (s.time != time[k] || s.left != left[k] || s.right != right[k]) {
                s.time = glideTo(s.time, time[k], g);
                s.left = glideTo(s.left, left[k], a);
                s.right = glideTo(s.right, right[k], a);
            }
            const double at = std::clamp(s.time + shift, 2.0, top);
            const float l = m_line.tap(0, at), r = m_line.tap(1, at);
            sumL += static_cast<float>(s.left) * l;
            sumR += static_cast<float>(s.right) * r;
            if (k == longest) {
                backL = feedback * l;
                backR = feedback * r;
            }
        }
        const float dryL = inL[n], dryR = inR[n];
        if (tape) {
            // Tape squashes what it records, repeats and new input alike.
            m_line.write(std::tanh(drive * (dryL + backL)) / drive, std::tanh(drive * (dryR + backR)) / drive);
        } else {
            m_line.write(dryL + softLimit(backL, 0.5f, 0.98f), dryR + softLimit(backR, 0.5f, 0.98f));
        }
        mix = glideTo(mix, mixTarget, a);
        // Eight taps at full level can pile up: the wet bus bends over above
        // full scale and never passes +6 dBFS.
        const auto dryGain = static_cast<float>(1.0 - mix);
        const auto wetGain = static_cast<float>(mix);
        outL[n] = dryGain * dryL + wetGain * softLimit(sumL, 1.0f, 2.0f);
        if (outR)
            outR[n] = dryGain * dryR + wetGain * softLimit(sumR, 1.0f, 2.0f);
    }
    m_mixState = mix;
}
