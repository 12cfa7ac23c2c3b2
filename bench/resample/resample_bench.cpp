// Polyphase converters and the true-peak meter, against the libraries a user
// would otherwise pick (libsoxr, libebur128) and a plain scalar loop.
// Counter ns_per_frame: time per input frame. Names read
// <what>/<variant>/<channels>ch.

#include "Algorithms/Resample/ResampleTables.h"
#include "Algorithms/Resample/TruePeak_ref.h"
#include "Algorithms/Resample/Upsampler.h"
#include "System/twa_aligned_allocator.h"

#include <benchmark/benchmark.h>
#include <ebur128.h>
#include <soxr.h>

#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace twa;
using namespace twa::numeric;

constexpr std::size_t kChunk = 512; // frames per call, as a host would hand them

sample_vector noise(std::size_t n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(-0.9f, 0.9f);
    sample_vector v(n);
    for (float& x : v)
        x = d(rng);
    return v;
}

void perFrame(benchmark::State& s, std::size_t frames)
{
    s.SetItemsProcessed(static_cast<std::int64_t>(s.iterations() * frames));
    s.counters["ns_per_frame"] = benchmark::Counter(static_cast<double>(frames),
                                                    benchmark::Counter::kIsIterationInvariantRate |
                                                        benchmark::Counter::kInvert);
}

struct FamilyInfo {
    PolyphaseFamily id;
    const char* name;
    const float* table;
    std::size_t count;
    std::size_t factor;
    bool down;
};

const FamilyInfo kFamilies[] = {
    {PolyphaseFamily::Up2, "Upsampler_x2", tables::kUpsampler_x2, 96, 2, false},
    {PolyphaseFamily::Up4, "Upsampler_x4", tables::kUpsampler_x4, 192, 4, false},
    {PolyphaseFamily::Up8, "Upsampler_x8", tables::kUpsampler_x8, 384, 8, false},
    {PolyphaseFamily::Down2, "Downsampler_x2", tables::kDownsampler_x2, 192, 2, true},
    {PolyphaseFamily::Down4, "Downsampler_x4", tables::kDownsampler_x4, 384, 4, true},
};

// One kernel call over a chunk already staged behind its history.
void kernelBench(benchmark::State& s, const FamilyInfo& f, std::shared_ptr<AlgoPolyphase> algo)
{
    const std::size_t c = algo->ChannelCount();
    CoefficientBlock coefs(32, f.table, f.count, f.factor);
    const std::size_t steps = kChunk; // input frames consumed
    const std::size_t read = f.down ? steps + f.count : steps + f.count / f.factor;
    const sample_vector in = noise(read * c, 1);
    sample_vector out((f.down ? steps / f.factor : steps * f.factor) * c);
    for (auto _ : s) {
        benchmark::DoNotOptimize(algo->Process(coefs, in.data(), out.data(), steps));
        benchmark::ClobberMemory();
    }
    perFrame(s, steps);
}

void registerKernels()
{
    for (const FamilyInfo& f : kFamilies) {
        for (const PolyphaseVariant& v : PolyphaseVariants(f.id)) {
            if (!MachineRuns(v.info.Needs()))
                continue;
            std::shared_ptr<AlgoPolyphase> algo(v.create());
            benchmark::RegisterBenchmark((std::string("kernel/") + v.info.Name()).c_str(),
                                         [f, algo](benchmark::State& s) { kernelBench(s, f, algo); });
        }
        for (std::size_t c : {1u, 2u}) {
            std::shared_ptr<AlgoPolyphase> ref(CreatePolyphaseRef(f.id, c).release());
            benchmark::RegisterBenchmark(
                (std::string("kernel/") + ref->Name() + "/" + std::to_string(c) + "ch").c_str(),
                [f, ref](benchmark::State& s) { kernelBench(s, f, ref); });
        }
    }
}

// ---------------------------------------------------------------------------
// Stereo float at 48 kHz in 512-frame chunks, ours and libsoxr HQ.

// The short x2 upsampler: 32 taps per phase.
struct ShortUpsampler_x2 {
    static std::unique_ptr<PolyphaseResampler> make(std::size_t c) { return std::make_unique<Upsampler_x2>(c, 512, true); }
};
template <class Conv>
struct Plain {
    static std::unique_ptr<PolyphaseResampler> make(std::size_t c) { return std::make_unique<Conv>(c); }
};

template <class Maker>
void converterBench(benchmark::State& s, std::size_t channels, bool forceRef)
{
    const bool probe = SetUseProbe(!forceRef);
    auto owned = Maker::make(channels);
    PolyphaseResampler& conv = *owned;
    SetUseProbe(probe);
    const sample_vector in = noise(kChunk * channels, 2);
    sample_vector out(conv.OutputFrames(kChunk) * channels + 8 * channels);
    for (auto _ : s) {
        benchmark::DoNotOptimize(conv.Process(in.data(), kChunk, out.data()));
        benchmark::ClobberMemory();
    }
    s.SetLabel(conv.Algo().Name());
    perFrame(s, kChunk);
}

void soxrBench(benchmark::State& s, double inRate, double outRate, std::size_t channels)
{
    soxr_error_t err = nullptr;
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    const soxr_quality_spec_t q = soxr_quality_spec(SOXR_HQ, 0);
    const soxr_runtime_spec_t rt = soxr_runtime_spec(1);
    soxr_t soxr = soxr_create(inRate, outRate, static_cast<unsigned>(channels), &err, &io, &q, &rt);
    if (err) {
        s.SkipWithError(err);
        return;
    }
    const sample_vector in = noise(kChunk * channels, 2);
    sample_vector out(kChunk * 4 * channels);
    for (auto _ : s) {
        std::size_t idone = 0, odone = 0;
        soxr_process(soxr, in.data(), kChunk, &idone, out.data(), kChunk * 4, &odone);
        benchmark::DoNotOptimize(odone);
    }
    s.SetLabel(soxr_engine(soxr));
    soxr_delete(soxr);
    perFrame(s, kChunk);
}

// ---------------------------------------------------------------------------
// True peak of stereo blocks, ours, libebur128 and a plain 4x FIR loop.

void truePeakBench(benchmark::State& s, bool forceRef)
{
    const bool probe = SetUseProbe(!forceRef);
    auto tp = CreateTruePeak(2);
    SetUseProbe(probe);
    const sample_vector in = noise(kChunk * 2, 3);
    for (auto _ : s)
        benchmark::DoNotOptimize(tp->Process(kChunk, in.data()));
    perFrame(s, kChunk);
}

void ebur128Bench(benchmark::State& s)
{
    ebur128_state* st = ebur128_init(2, 48000, EBUR128_MODE_TRUE_PEAK);
    const sample_vector in = noise(kChunk * 2, 3);
    for (auto _ : s) {
        ebur128_add_frames_float(st, in.data(), kChunk);
        double peak = 0.0;
        ebur128_prev_true_peak(st, 0, &peak);
        benchmark::DoNotOptimize(peak);
    }
    ebur128_destroy(&st);
    perFrame(s, kChunk);
}

// What one would write by hand: per channel, 12 taps for each of 4 phases.
void scalarTruePeakBench(benchmark::State& s)
{
    constexpr std::size_t kTaps = 12;
    const float* h = tables::kUpsamplerTruePeak_x4;
    const sample_vector in = noise(kChunk * 2, 3);
    std::vector<float> hist((kChunk + kTaps) * 2, 0.0f);
    for (auto _ : s) {
        std::copy(hist.end() - (kTaps - 1) * 2, hist.end(), hist.begin());
        std::copy(in.begin(), in.end(), hist.begin() + (kTaps - 1) * 2);
        float peak = 0.0f;
        for (std::size_t n = 0; n < kChunk; ++n)
            for (std::size_t c = 0; c < 2; ++c)
                for (std::size_t p = 0; p < 4; ++p) {
                    float acc = 0.0f;
                    for (std::size_t k = 0; k < kTaps; ++k)
                        acc += hist[(n + k) * 2 + c] * h[4 * k + p];
                    peak = std::max(peak, std::fabs(acc));
                }
        benchmark::DoNotOptimize(peak);
    }
    perFrame(s, kChunk);
}

void registerAll()
{
    registerKernels();
    for (bool ref : {false, true}) {
        const std::string v = ref ? "/ref" : "/dispatch";
        benchmark::RegisterBenchmark(("Upsampler_x2/48k_to_96k" + v + "/2ch").c_str(),
                                     [ref](benchmark::State& s) { converterBench<Plain<Upsampler_x2>>(s, 2, ref); });
        benchmark::RegisterBenchmark(("Downsampler_x2/96k_to_48k" + v + "/2ch").c_str(),
                                     [ref](benchmark::State& s) { converterBench<Plain<Downsampler_x2>>(s, 2, ref); });
        benchmark::RegisterBenchmark(("Upsampler_x2/48k_to_96k" + v + "/1ch").c_str(),
                                     [ref](benchmark::State& s) { converterBench<Plain<Upsampler_x2>>(s, 1, ref); });
        benchmark::RegisterBenchmark(("Downsampler_x2/96k_to_48k" + v + "/1ch").c_str(),
                                     [ref](benchmark::State& s) { converterBench<Plain<Downsampler_x2>>(s, 1, ref); });
        benchmark::RegisterBenchmark(("Upsampler_x2_short/48k_to_96k" + v + "/2ch").c_str(),
                                     [ref](benchmark::State& s) { converterBench<ShortUpsampler_x2>(s, 2, ref); });
        benchmark::RegisterBenchmark(("Upsampler_x4" + v + "/2ch").c_str(),
                                     [ref](benchmark::State& s) { converterBench<Plain<Upsampler_x4>>(s, 2, ref); });
        benchmark::RegisterBenchmark(("Upsampler_x8" + v + "/2ch").c_str(),
                                     [ref](benchmark::State& s) { converterBench<Plain<Upsampler_x8>>(s, 2, ref); });
        benchmark::RegisterBenchmark(("Downsampler_x4" + v + "/1ch").c_str(),
                                     [ref](benchmark::State& s) { converterBench<Plain<Downsampler_x4>>(s, 1, ref); });
        benchmark::RegisterBenchmark(("TruePeak" + v + "/2ch").c_str(),
                                     [ref](benchmark::State& s) { truePeakBench(s, ref); });
    }
    benchmark::RegisterBenchmark("libsoxr_HQ/48k_to_96k/2ch", [](benchmark::State& s) { soxrBench(s, 48000, 96000, 2); });
    benchmark::RegisterBenchmark("libsoxr_HQ/96k_to_48k/2ch", [](benchmark::State& s) { soxrBench(s, 96000, 48000, 2); });
    benchmark::RegisterBenchmark("libsoxr_HQ/48k_to_96k/1ch", [](benchmark::State& s) { soxrBench(s, 48000, 96000, 1); });
    benchmark::RegisterBenchmark("libsoxr_HQ/96k_to_48k/1ch", [](benchmark::State& s) { soxrBench(s, 96000, 48000, 1); });
    benchmark::RegisterBenchmark("libebur128_true_peak/2ch", ebur128Bench);
    benchmark::RegisterBenchmark("scalar_fir_true_peak/2ch", scalarTruePeakBench);
}

const int kRegistered = (registerAll(), 0);

} // namespace
