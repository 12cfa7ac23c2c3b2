// Forward plus inverse transform through qv_fft against calling FFTW and KISS
// FFT directly on the same sizes, arrays and planner flags. Names read
// <path>/<back end>/<size>; the pairs to compare differ only in the path.

#include "FFT/qv_fft.h"

#include <benchmark/benchmark.h>
#include <fftw3.h>
#include <kiss_fftr.h>

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

namespace {

using namespace twa;
using namespace twa::fft;

sample_vector randomSignal(std::size_t n)
{
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> d(-1.0f, 1.0f);
    sample_vector x(n);
    for (float& v : x)
        v = d(rng);
    return x;
}

// The object's own pipeline with a whole-frame rectangular window: the
// spectrum stays in the object and synthesis may use it as scratch, which is
// what a direct FFTW caller does too.
void QvFftFrame(benchmark::State& state, Backend backend, SpectrumOrder order)
{
    const auto n = static_cast<std::size_t>(state.range(0));
    qv_fft f(n, n, kWindowRectangular, order, backend);
    const sample_vector x = randomSignal(n);
    sample_vector y(n);
    for (auto _ : state) {
        f.forward(x);
        f.inverse(y);
        benchmark::DoNotOptimize(y.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(n));
}

// The plain transforms on the caller's arrays; the inverse leaves its input
// spectrum intact, which costs FFTW a copy of it.
void QvFftRaw(benchmark::State& state, Backend backend)
{
    const auto n = static_cast<std::size_t>(state.range(0));
    qv_fft f(n, n, kWindowRectangular, SpectrumOrder::Ordered, backend);
    const sample_vector x = randomSignal(n);
    spectrum_vector spectrum(f.nfreq());
    sample_vector y(n);
    for (auto _ : state) {
        f.forward_raw(x, spectrum);
        f.inverse_raw(spectrum, y);
        benchmark::DoNotOptimize(y.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(n));
}

// The analysis/synthesis path: window, pad, transform, transform back, window.
void QvFftWindowed(benchmark::State& state, Backend backend)
{
    const auto n = static_cast<std::size_t>(state.range(0));
    qv_fft f(n, n, kWindowHann, SpectrumOrder::Ordered, backend);
    const sample_vector x = randomSignal(n);
    sample_vector y(n);
    for (auto _ : state) {
        f.forward(x);
        f.inverse(y);
        benchmark::DoNotOptimize(y.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(n));
}

void DirectFftw(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    // Same flags and array alignment as the wrapper's plans, so FFTW's wisdom
    // hands both the same algorithm.
    const sample_vector x = randomSignal(static_cast<std::size_t>(n));
    spectrum_vector spectrum(static_cast<std::size_t>(n / 2 + 1));
    sample_vector y(static_cast<std::size_t>(n));
    auto* freq = reinterpret_cast<fftwf_complex*>(spectrum.data());
    sample_vector scratch(x);
    fftwf_plan fwd = fftwf_plan_dft_r2c_1d(n, scratch.data(), freq, FFTW_MEASURE | FFTW_PRESERVE_INPUT);
    fftwf_plan inv = fftwf_plan_dft_c2r_1d(n, freq, y.data(), FFTW_MEASURE | FFTW_DESTROY_INPUT);
    for (auto _ : state) {
        fftwf_execute_dft_r2c(fwd, const_cast<float*>(x.data()), freq);
        fftwf_execute_dft_c2r(inv, freq, y.data());
        benchmark::DoNotOptimize(y.data());
        benchmark::ClobberMemory();
    }
    fftwf_destroy_plan(fwd);
    fftwf_destroy_plan(inv);
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(n));
}

void DirectKiss(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    const sample_vector x = randomSignal(static_cast<std::size_t>(n));
    spectrum_vector spectrum(static_cast<std::size_t>(n / 2 + 1));
    sample_vector y(static_cast<std::size_t>(n));
    kiss_fftr_cfg fwd = kiss_fftr_alloc(n, 0, nullptr, nullptr);
    kiss_fftr_cfg inv = kiss_fftr_alloc(n, 1, nullptr, nullptr);
    auto* freq = reinterpret_cast<kiss_fft_cpx*>(spectrum.data());
    for (auto _ : state) {
        kiss_fftr(fwd, x.data(), freq);
        kiss_fftri(inv, freq, y.data());
        benchmark::DoNotOptimize(y.data());
        benchmark::ClobberMemory();
    }
    kiss_fftr_free(fwd);
    kiss_fftr_free(inv);
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(n));
}

// The fastest repetition is the least disturbed by other work on the machine;
// run with --benchmark_repetitions to get it next to mean and median.
double Fastest(const std::vector<double>& v)
{
    return *std::min_element(v.begin(), v.end());
}

// Registered size by size, each wrapper path next to its direct call, so that
// load changes on a shared machine hit both sides of a comparison alike.
template <class... Args>
void Register(const char* name, std::int64_t n, Args&&... args)
{
    benchmark::RegisterBenchmark(name, std::forward<Args>(args)...)->Arg(n)->ComputeStatistics("min", Fastest);
}

const bool kRegistered = [] {
    for (std::int64_t n = 256; n <= 8192; n *= 2) {
        Register("direct/fftw", n, DirectFftw);
        Register("qv_fft/fftw", n, QvFftFrame, Backend::Fftw, SpectrumOrder::Ordered);
        Register("qv_fft_packed/fftw", n, QvFftFrame, Backend::Fftw, SpectrumOrder::Packed);
        Register("qv_fft_raw/fftw", n, QvFftRaw, Backend::Fftw);
        Register("qv_fft_windowed/fftw", n, QvFftWindowed, Backend::Fftw);
        Register("direct/kiss", n, DirectKiss);
        Register("qv_fft/kiss", n, QvFftFrame, Backend::Kiss, SpectrumOrder::Ordered);
        Register("qv_fft_packed/kiss", n, QvFftFrame, Backend::Kiss, SpectrumOrder::Packed);
        Register("qv_fft_raw/kiss", n, QvFftRaw, Backend::Kiss);
        Register("qv_fft_windowed/kiss", n, QvFftWindowed, Backend::Kiss);
    }
    return true;
}();

} // namespace
