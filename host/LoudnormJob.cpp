#include "LoudnormJob.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AudioFile.h"
#include "MeasureJob.h"
#include "OutputFile.h"
#include "PluginChain.h"
#include "Progress.h"

namespace qvdfx {

namespace {

constexpr int kBlock = 8192;
// Well inside the ±0.2 LU that delivery standards allow.
constexpr double kTolerance = 0.1; // LU
constexpr int kMaxPasses = 6;
constexpr double kCeilingStep = 0.05; // dB the limiter goes below an overshoot
constexpr double kLowestCeiling = -20.0;

struct Plan {
    double gainDb = 0.0;
    bool limit = false;
    double limiterCeiling = 0.0; // dBTP
    std::uint64_t latency = 0;
};

std::string decibels(double v)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%+.2f dB", v);
    return buffer;
}

// Renders `in` with the plan's gain and limiter into `writer`, measuring
// what is written.
LoudnessFigures render(qvd::PluginInterface& registry, const std::string& in, AudioWriter& writer, Plan& plan,
                       bool quiet, const std::string& label)
{
    AudioReader reader(in);
    const int channels = reader.channels(), rate = reader.rate();
    std::optional<PluginChain> limiter;
    if (plan.limit) {
        char ceiling[32];
        std::snprintf(ceiling, sizeof ceiling, "%.4f", plan.limiterCeiling);
        limiter.emplace(registry, std::vector<StepSpec>{{"Limiter", {{"MODE", "True Peak"}, {"CEILING", ceiling}}}},
                        false);
        limiter->prepare(rate, channels, kBlock, true, false);
    }
    plan.latency = limiter ? limiter->latency() : 0;
    const auto latency = static_cast<std::int64_t>(plan.latency);
    LoudnessAnalyzer meter(registry, rate, channels);

    const auto c = static_cast<std::size_t>(channels);
    std::vector<float> interleaved(c * kBlock);
    std::vector<std::vector<float>> planar(c, std::vector<float>(kBlock));
    std::vector<float*> pointers;
    for (auto& ch : planar)
        pointers.push_back(ch.data());
    std::vector<const float*> from(c);
    const auto gain = static_cast<float>(std::pow(10.0, plan.gainDb / 20.0));
    Progress progress(label, reader.frames() + latency, quiet);

    std::int64_t fed = 0, skipped = 0, inFrames = -1;
    for (;;) {
        std::int64_t n = 0;
        if (inFrames < 0) {
            n = reader.read(interleaved.data(), kBlock);
            if (n == 0) {
                if (fed < reader.frames())
                    fail(kExitFile, "'" + in + "' ends after " + std::to_string(fed) + " of " +
                                        std::to_string(reader.frames()) + " frames");
                inFrames = fed;
                continue;
            }
            for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i)
                for (std::size_t k = 0; k < c; ++k)
                    planar[k][i] = interleaved[i * c + k] * gain;
        } else {
            // Silence pushes the limiter's delayed last frames out.
            n = std::min<std::int64_t>(kBlock, inFrames + latency - fed);
            if (n <= 0)
                break;
            for (auto& ch : planar)
                std::fill(ch.begin(), ch.begin() + n, 0.0f);
        }
        if (limiter)
            limiter->process(pointers.data(), static_cast<std::int32_t>(n));
        fed += n;
        const std::int64_t drop = std::min(n, latency - skipped);
        skipped += drop;
        if (n > drop) {
            for (std::size_t k = 0; k < c; ++k)
                from[k] = planar[k].data() + drop;
            meter.feed(from.data(), n - drop);
            for (std::size_t i = 0; i < static_cast<std::size_t>(n - drop); ++i)
                for (std::size_t k = 0; k < c; ++k)
                    interleaved[i * c + k] = planar[k][i + static_cast<std::size_t>(drop)];
            writer.write(interleaved.data(), n - drop);
        }
        progress.update(fed);
    }
    return meter.figures();
}

} // namespace

int commandLoudnorm(qvd::PluginInterface& registry, Arguments args)
{
    std::vector<std::string> files;
    double target = -16.0, ceiling = -1.0, lra = 0.0;
    bool quiet = false, json = false;
    SampleFormat format = SampleFormat::Float;
    while (!args.done()) {
        const std::string a = args.take();
        if (a == "--target" || a == "-I")
            target = parseReal(args.value(a), -70.0, -5.0, "--target (LUFS)");
        else if (a == "--true-peak" || a == "--tp")
            ceiling = parseReal(args.value(a), kLowestCeiling, 0.0, "--true-peak (dBTP)");
        else if (a == "--lra")
            lra = parseReal(args.value(a), 1.0, 50.0, "--lra (LU)");
        else if (a == "--format")
            format = parseSampleFormat(args.value(a));
        else if (a == "--json")
            json = true;
        else if (a == "--quiet" || a == "-q")
            quiet = true;
        else if (a.rfind("-", 0) == 0 && a.size() > 1)
            args.unexpected(a);
        else
            files.push_back(a);
    }
    if (files.size() != 2)
        fail(kExitUsage, "loudnorm: give an input and an output file (qvdfx loudnorm IN OUT --target -16 --true-peak -1)");
    const std::string& inPath = files[0];
    const std::string& outPath = files[1];
    if (inPath == "-")
        fail(kExitUsage, "loudnorm: the input is read twice (measured, then normalised); give a file, not '-'");
    if (outPath == "-")
        fail(kExitUsage, "loudnorm: the output is measured before it is put in place; give a file, not '-'");
    checkDistinct({{"input", inPath, false}, {"output", outPath, true}});

    // Opened first, so an unreadable input or an unwritable output fails
    // before the measuring pass.
    std::int64_t frames = 0;
    int rate = 0, channels = 0;
    {
        AudioReader probe(inPath);
        frames = probe.frames();
        rate = probe.rate();
        channels = probe.channels();
    }
    if (frames < 0)
        fail(kExitUsage, "loudnorm: the input is read twice (measured, then normalised); '" + inPath +
                             "' is a stream, give a regular file");
    auto writer = std::make_unique<AudioWriter>(outPath, rate, channels, format, frames);

    const LoudnessFigures input = measureFile(registry, inPath, quiet, "measuring  ");
    if (!std::isfinite(input.integrated))
        fail(kExitProcess, "loudnorm: '" + inPath + "' has no loudness to normalise: nothing in it passes the " +
                               "-70 LUFS gate (silent, or shorter than 400 ms)");
    if (lra > 0.0 && input.range > lra)
        std::fprintf(stderr,
                     "qvdfx: warning: the input's loudness range %.1f LU is wider than --lra %.1f LU; loudnorm "
                     "does not compress the range, only shifts the level and limits the peaks\n",
                     input.range, lra);

    // Integer samples are rounded after the measurement, by at most one step;
    // interpolation can gather a few steps into a true peak. Held that far
    // under the ceiling, the file still measures under it.
    const int bits = format == SampleFormat::Pcm16 ? 16 : format == SampleFormat::Pcm24 ? 24 : 0;
    const double guard =
        bits ? 20.0 * std::log10(1.0 + 4.0 * std::ldexp(1.0, 1 - bits) / std::pow(10.0, ceiling / 20.0)) : 0.0;

    Plan plan;
    plan.gainDb = target - input.integrated;
    // A gain scales every peak by itself, so this is exact.
    plan.limit = std::max(input.truePeak, input.samplePeak) + plan.gainDb > ceiling - guard;
    plan.limiterCeiling = ceiling;
    LoudnessFigures output;
    int pass = 0;
    for (;;) {
        ++pass;
        output = render(registry, inPath, *writer, plan, quiet, pass == 1 ? "normalising" : "normalising again");
        const double miss = target - output.integrated;
        // The interpolated peaks can read under the samples themselves on a
        // click; neither may pass the ceiling.
        const double over = std::max(output.truePeak, output.samplePeak) - (ceiling - guard);
        const bool onTarget = std::fabs(miss) <= kTolerance, underCeiling = !(over > 0.0);
        if (onTarget && underCeiling)
            break;
        if (pass == kMaxPasses || plan.limiterCeiling - over - kCeilingStep < kLowestCeiling) {
            if (!underCeiling)
                fail(kExitProcess, "loudnorm: the output's true peak stays " + decibels(over) + " over the " +
                                       decibels(ceiling) + "TP ceiling after " + std::to_string(pass) +
                                       " passes; nothing written");
            std::fprintf(stderr,
                         "qvdfx: warning: the output measures %.2f LUFS, %.2f LU from the %.1f LUFS target: the "
                         "limiter holding %.1f dBTP takes away what more gain adds\n",
                         output.integrated, -miss, target, ceiling);
            break;
        }
        // Limiting takes loudness away, so the gain grows to make it up; an
        // overshoot of the ceiling lowers the limiter's own ceiling.
        if (!underCeiling) {
            if (plan.limit)
                plan.limiterCeiling -= over + kCeilingStep;
            plan.limit = true;
        }
        plan.gainDb += std::isfinite(miss) ? miss : 0.0;
        // The temporary name is per output: the old one goes first.
        writer.reset();
        writer = std::make_unique<AudioWriter>(outPath, rate, channels, format, frames);
    }
    writer->commit();

    std::string report;
    if (json) {
        report = "{\n  \"file\": \"" + jsonEscape(inPath) + "\",\n  \"output\": \"" + jsonEscape(outPath) +
                 "\",\n  \"target_lufs\": " + jsonNumber(target) + ",\n  \"true_peak_ceiling_dbtp\": " +
                 jsonNumber(ceiling) + ",\n  \"lra_lu\": " + (lra > 0.0 ? jsonNumber(lra) : "null") +
                 ",\n  \"gain_db\": " + jsonNumber(plan.gainDb) + ",\n  \"limiter\": " +
                 (plan.limit ? "{\"ceiling_dbtp\": " + jsonNumber(plan.limiterCeiling) + ", \"latency_frames\": " +
                                   std::to_string(plan.latency) + "}"
                             : std::string("null")) +
                 ",\n  \"passes\": " + std::to_string(pass + 1) + ",\n  \"input_loudness\": {\n" +
                 loudnessJson(input, "    ") + "\n  },\n  \"output_loudness\": {\n" + loudnessJson(output, "    ") +
                 "\n  }\n}\n";
    } else {
        report = "input " + inPath + ":\n" + loudnessText(input, "  ") + "gain " + decibels(plan.gainDb);
        if (plan.limit) {
            char limit[160];
            std::snprintf(limit, sizeof limit, ", true-peak limiter at %.2f dBTP (latency %llu frames compensated)",
                          plan.limiterCeiling, static_cast<unsigned long long>(plan.latency));
            report += limit;
        } else {
            report += ", no limiting needed";
        }
        report += "\noutput " + outPath + ":\n" + loudnessText(output, "  ");
        if (lra > 0.0 && output.range > lra) {
            char note[160];
            std::snprintf(note, sizeof note, "  note: loudness range %.1f LU is over --lra %.1f LU (reported, not enforced)\n",
                          output.range, lra);
            report += note;
        }
    }
    std::fputs(report.c_str(), stdout);
    if (!quiet)
        std::fprintf(stderr, "wrote %s: %lld frames, %d channels, %d Hz in %d passes\n", writer->name().c_str(),
                     static_cast<long long>(output.frames), channels, rate, pass + 1);
    return kExitOk;
}

} // namespace qvdfx
