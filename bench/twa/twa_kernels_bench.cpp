// Kernel variants against plain scalar loops, in elements per second. Only
// variants this machine can run are registered; names read
// <family>/<operation>/<variant>/<elements>.

#include "Algorithms/BiquadBand.h"
#include "Algorithms/Blas1.h"
#include "Algorithms/CSquareMagnitude.h"
#include "Algorithms/FindMinMax.h"
#include "Algorithms/Func.h"
#include "Algorithms/Interleave.h"
#include "Algorithms/Polar2Rect.h"
#include "Algorithms/Rect2Polar.h"
#include "Algorithms/Vec.h"
#include "System/twa_aligned_allocator.h"
#include "System/twa_cpuinfo_x86.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace twa;
using namespace twa::numeric;

constexpr std::size_t kSizes[] = {64, 1024, 16384};

sample_vector randomVector(std::size_t n, float lo, float hi, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(lo, hi);
    sample_vector v(n);
    for (float& x : v)
        x = d(rng);
    return v;
}

// Registers fn(state, n) for every size; items are elements.
void add(const std::string& name, std::function<void(benchmark::State&, std::size_t)> fn)
{
    for (std::size_t n : kSizes) {
        benchmark::RegisterBenchmark((name + "/" + std::to_string(n)).c_str(),
                                     [fn, n](benchmark::State& s) {
                                         fn(s, n);
                                         s.SetItemsProcessed(static_cast<std::int64_t>(s.iterations() * n));
                                     });
    }
}

template <class Base, class... Args>
std::vector<std::shared_ptr<Base>> runnable(std::span<const KernelVariant<Base, Args...>> list, Args... args)
{
    std::vector<std::shared_ptr<Base>> out;
    // Judge only by this machine, not by what the dispatcher would prefer.
    const bool probe = SetUseProbe(false);
    CpuFeatures::Instance().settings.level = kIsaAVX2;
    CpuFeatures::Instance().settings.fma = true;
    for (const auto& v : list)
        if (MachineRuns(v.needs) && v.chosen(args...))
            out.emplace_back(v.create(args...));
    SetUseProbe(probe);
    return out;
}

using FuncOp = void (Func::*)(const float*, float*, std::size_t) const noexcept;

// The plain loop a caller would write, with the function inlined.
template <class F>
void addScalarFunc(const char* name, float lo, float hi, F f)
{
    add(std::string("Func/") + name + "/scalar_loop", [lo, hi, f](benchmark::State& s, std::size_t n) {
        const sample_vector in = randomVector(n, lo, hi, 1);
        sample_vector out(n);
        for (auto _ : s) {
            for (std::size_t i = 0; i < n; ++i)
                out[i] = f(in[i]);
            benchmark::DoNotOptimize(out.data());
            benchmark::ClobberMemory();
        }
    });
}

void registerFunc()
{
    struct Op {
        const char* name;
        FuncOp op;
        float lo, hi;
    };
    const Op ops[] = {
        {"Abs", &Func::Abs, -10, 10},
        {"Sqrt", &Func::Sqrt, 0, 100},
        {"Exp", &Func::Exp, -20, 20},
        {"Log10", &Func::Log10, 1e-6f, 1e6f},
        {"Pow10", &Func::Pow10, -6, 6},
    };
    addScalarFunc("Abs", -10, 10, [](float x) { return std::fabs(x); });
    addScalarFunc("Sqrt", 0, 100, [](float x) { return std::sqrt(x); });
    addScalarFunc("Exp", -20, 20, [](float x) { return std::exp(x); });
    addScalarFunc("Log10", 1e-6f, 1e6f, [](float x) { return std::log10(x); });
    addScalarFunc("Pow10", -6, 6, [](float x) { return std::pow(10.0f, x); });
    for (const Op& o : ops) {
        for (const auto& v : runnable(FuncVariants())) {
            add(std::string("Func/") + o.name + "/" + v->Name(), [o, v](benchmark::State& s, std::size_t n) {
                const sample_vector in = randomVector(n, o.lo, o.hi, 1);
                sample_vector out(n);
                for (auto _ : s) {
                    ((*v).*o.op)(in.data(), out.data(), n);
                    benchmark::DoNotOptimize(out.data());
                    benchmark::ClobberMemory();
                }
            });
        }
    }
}

void registerBlas1()
{
    add("Blas1/MulAdd/scalar_loop", [](benchmark::State& s, std::size_t n) {
        const sample_vector x = randomVector(n, -1, 1, 1), y = randomVector(n, -1, 1, 2), z = randomVector(n, -1, 1, 3);
        sample_vector out(n);
        for (auto _ : s) {
            for (std::size_t i = 0; i < n; ++i)
                out[i] = x[i] * y[i] + z[i];
            benchmark::DoNotOptimize(out.data());
            benchmark::ClobberMemory();
        }
    });
    add("Blas1/Dot/scalar_loop", [](benchmark::State& s, std::size_t n) {
        const sample_vector x = randomVector(n, -1, 1, 1), y = randomVector(n, -1, 1, 2);
        for (auto _ : s) {
            float acc = 0.0f;
            for (std::size_t i = 0; i < n; ++i)
                acc += x[i] * y[i];
            benchmark::DoNotOptimize(acc);
        }
    });
    for (const auto& v : runnable(Blas1Variants())) {
        add(std::string("Blas1/MulAdd/") + v->Name(), [v](benchmark::State& s, std::size_t n) {
            const sample_vector x = randomVector(n, -1, 1, 1), y = randomVector(n, -1, 1, 2), z = randomVector(n, -1, 1, 3);
            sample_vector out(n);
            for (auto _ : s) {
                v->MulAdd(x.data(), y.data(), z.data(), out.data(), n);
                benchmark::DoNotOptimize(out.data());
                benchmark::ClobberMemory();
            }
        });
        add(std::string("Blas1/Dot/") + v->Name(), [v](benchmark::State& s, std::size_t n) {
            const sample_vector x = randomVector(n, -1, 1, 1), y = randomVector(n, -1, 1, 2);
            for (auto _ : s)
                benchmark::DoNotOptimize(v->Dot(x.data(), y.data(), n));
        });
        add(std::string("Blas1/Scale/") + v->Name(), [v](benchmark::State& s, std::size_t n) {
            const sample_vector x = randomVector(n, -1, 1, 1);
            sample_vector out(n);
            for (auto _ : s) {
                v->Scale(x.data(), 0.5f, out.data(), n);
                benchmark::DoNotOptimize(out.data());
                benchmark::ClobberMemory();
            }
        });
    }
}

void registerVec()
{
    add("Vec/MaxIndex/scalar_loop", [](benchmark::State& s, std::size_t n) {
        const sample_vector x = randomVector(n, -1, 1, 4);
        for (auto _ : s) {
            std::size_t best = 0;
            for (std::size_t i = 1; i < n; ++i)
                if (x[i] > x[best])
                    best = i;
            benchmark::DoNotOptimize(best);
        }
    });
    add("Vec/Clamp/scalar_loop", [](benchmark::State& s, std::size_t n) {
        const sample_vector x = randomVector(n, -2, 2, 4);
        sample_vector out(n);
        for (auto _ : s) {
            for (std::size_t i = 0; i < n; ++i)
            {
                const float v = x[i] > -1.0f ? x[i] : -1.0f;
                out[i] = v < 1.0f ? v : 1.0f;
            }
            benchmark::DoNotOptimize(out.data());
            benchmark::ClobberMemory();
        }
    });
    for (const auto& v : runnable(VecVariants())) {
        add(std::string("Vec/MaxIndex/") + v->Name(), [v](benchmark::State& s, std::size_t n) {
            const sample_vector x = randomVector(n, -1, 1, 4);
            for (auto _ : s)
                benchmark::DoNotOptimize(v->MaxIndex(x.data(), n));
        });
        add(std::string("Vec/Clamp/") + v->Name(), [v](benchmark::State& s, std::size_t n) {
            const sample_vector x = randomVector(n, -2, 2, 4);
            sample_vector out(n);
            for (auto _ : s) {
                v->Clamp(x.data(), -1.0f, 1.0f, out.data(), n);
                benchmark::DoNotOptimize(out.data());
                benchmark::ClobberMemory();
            }
        });
    }
}

void registerComplex()
{
    add("Rect2Polar/scalar_loop", [](benchmark::State& s, std::size_t n) {
        const sample_vector re = randomVector(n, -1, 1, 5), im = randomVector(n, -1, 1, 6);
        sample_vector m(n), p(n);
        for (auto _ : s) {
            for (std::size_t i = 0; i < n; ++i) {
                m[i] = std::sqrt(re[i] * re[i] + im[i] * im[i]);
                p[i] = std::atan2(im[i], re[i]);
            }
            benchmark::DoNotOptimize(p.data());
            benchmark::ClobberMemory();
        }
    });
    for (const auto& v : runnable(Rect2PolarVariants())) {
        add(std::string("Rect2Polar/") + v->Name(), [v](benchmark::State& s, std::size_t n) {
            const sample_vector re = randomVector(n, -1, 1, 5), im = randomVector(n, -1, 1, 6);
            sample_vector m(n), p(n);
            for (auto _ : s) {
                v->Process(re.data(), im.data(), m.data(), p.data(), n);
                benchmark::DoNotOptimize(p.data());
                benchmark::ClobberMemory();
            }
        });
    }
    add("Polar2Rect/scalar_loop", [](benchmark::State& s, std::size_t n) {
        const sample_vector m = randomVector(n, 0, 1, 5), p = randomVector(n, -3, 3, 6);
        sample_vector re(n), im(n);
        for (auto _ : s) {
            for (std::size_t i = 0; i < n; ++i) {
                re[i] = m[i] * std::cos(p[i]);
                im[i] = m[i] * std::sin(p[i]);
            }
            benchmark::DoNotOptimize(im.data());
            benchmark::ClobberMemory();
        }
    });
    for (const auto& v : runnable(Polar2RectVariants())) {
        add(std::string("Polar2Rect/") + v->Name(), [v](benchmark::State& s, std::size_t n) {
            const sample_vector m = randomVector(n, 0, 1, 5), p = randomVector(n, -3, 3, 6);
            sample_vector re(n), im(n);
            for (auto _ : s) {
                v->Process(m.data(), p.data(), re.data(), im.data(), n);
                benchmark::DoNotOptimize(im.data());
                benchmark::ClobberMemory();
            }
        });
    }
    add("CSquareMagnitude/scalar_loop", [](benchmark::State& s, std::size_t n) {
        const sample_vector c = randomVector(2 * n, -1, 1, 7);
        sample_vector out(n);
        for (auto _ : s) {
            for (std::size_t i = 0; i < n; ++i)
                out[i] = c[2 * i] * c[2 * i] + c[2 * i + 1] * c[2 * i + 1];
            benchmark::DoNotOptimize(out.data());
            benchmark::ClobberMemory();
        }
    });
    for (const auto& v : runnable(CSquareMagnitudeVariants())) {
        add(std::string("CSquareMagnitude/") + v->Name(), [v](benchmark::State& s, std::size_t n) {
            const sample_vector c = randomVector(2 * n, -1, 1, 7);
            sample_vector out(n);
            for (auto _ : s) {
                v->Process(c.data(), out.data(), n);
                benchmark::DoNotOptimize(out.data());
                benchmark::ClobberMemory();
            }
        });
    }
}

// Elements are samples over all channels (frames x channels).
void registerFindMinMax()
{
    for (std::size_t c : {1, 2, 8}) {
        const std::string ch = "/c" + std::to_string(c) + "/";
        add("FindMinMax" + ch + "scalar_loop", [c](benchmark::State& s, std::size_t n) {
            const sample_vector x = randomVector(n, -1, 1, 8);
            std::vector<float> mm(2 * c);
            const std::size_t frames = n / c;
            for (auto _ : s) {
                for (std::size_t k = 0; k < c; ++k)
                    mm[2 * k] = mm[2 * k + 1] = x[k];
                for (std::size_t f = 0; f < frames; ++f)
                    for (std::size_t k = 0; k < c; ++k) {
                        const float v = x[f * c + k];
                        mm[2 * k] = v < mm[2 * k] ? v : mm[2 * k];
                        mm[2 * k + 1] = v > mm[2 * k + 1] ? v : mm[2 * k + 1];
                    }
                benchmark::DoNotOptimize(mm.data());
                benchmark::ClobberMemory();
            }
        });
        for (const auto& v : runnable<FindMinMax, std::size_t>(FindMinMaxVariants(), c)) {
            add(std::string("FindMinMax") + ch + v->Name(), [v, c](benchmark::State& s, std::size_t n) {
                const sample_vector x = randomVector(n, -1, 1, 8);
                sample_vector mm(2 * c);
                for (auto _ : s) {
                    benchmark::DoNotOptimize(v->Process(x.data(), n / c, mm.data(), true));
                    benchmark::ClobberMemory();
                }
            });
        }
    }
}

// Elements are samples over all bands (frames x bands).
void registerBiquad()
{
    using namespace twa::numeric::eq;
    for (std::size_t bands : {4, 8}) {
        for (BiquadForm form : {BiquadForm::DF2, BiquadForm::DF2T}) {
            const std::string tag = std::string("BiquadBand/b") + std::to_string(bands) +
                                    (form == BiquadForm::DF2 ? "_DF2/" : "_DF2T/");
            for (const auto& v : runnable<BiquadBand, std::size_t, BiquadForm>(BiquadBandVariants(), bands, form)) {
                for (std::size_t b = 0; b < bands; ++b)
                    v->SetCoefficients(b, BiquadCoeffs{0.2f, 0.4f, 0.2f, -0.3f, 0.1f});
                std::string name = v->Name();
                name = name.substr(0, name.find('<'));
                add(tag + name, [v, bands](benchmark::State& s, std::size_t n) {
                    sample_vector x = randomVector(n, -1, 1, 9);
                    for (auto _ : s) {
                        v->Process(x.data(), x.data(), n / bands);
                        benchmark::DoNotOptimize(x.data());
                        benchmark::ClobberMemory();
                    }
                });
            }
        }
    }
}

// Elements are samples over all channels.
void registerInterleave()
{
    struct Case {
        SampleFormat format;
        const char* tag;
        std::size_t channels;
    };
    const Case cases[] = {{SampleFormat::Float32, "f32", 2},  {SampleFormat::Int16, "i16", 2},
                          {SampleFormat::Int24, "i24", 2},    {SampleFormat::Float32, "f32", 16},
                          {SampleFormat::Int16, "i16", 16},   {SampleFormat::Int24, "i24", 16}};
    for (const Case& cs : cases) {
        const std::string tag = std::string("/") + cs.tag + "_c" + std::to_string(cs.channels) + "/";
        for (const auto& v : runnable<Deinterleave, std::size_t, SampleFormat>(DeinterleaveVariants(), cs.channels, cs.format)) {
            const std::size_t c = cs.channels;
            const std::size_t bytes = BytesPerSample(cs.format);
            add("Deinterleave" + tag + v->Name(), [v, c, bytes](benchmark::State& s, std::size_t n) {
                std::vector<unsigned char, memory::aligned_allocator<unsigned char, 32>> in(n * bytes, 0x11);
                std::vector<sample_vector> chans(c, sample_vector(n / c));
                std::vector<float*> ptrs;
                for (auto& ch : chans)
                    ptrs.push_back(ch.data());
                for (auto _ : s) {
                    v->Process(in.data(), ptrs.data(), n / c);
                    benchmark::ClobberMemory();
                }
            });
        }
        for (const auto& v : runnable<Interleave, std::size_t, SampleFormat>(InterleaveVariants(), cs.channels, cs.format)) {
            const std::size_t c = cs.channels;
            const std::size_t bytes = BytesPerSample(cs.format);
            add("Interleave" + tag + v->Name(), [v, c, bytes](benchmark::State& s, std::size_t n) {
                std::vector<unsigned char, memory::aligned_allocator<unsigned char, 32>> out(n * bytes);
                std::vector<sample_vector> chans;
                for (std::size_t k = 0; k < c; ++k)
                    chans.push_back(randomVector(n / c, -1, 1, static_cast<unsigned>(k)));
                std::vector<const float*> ptrs;
                for (auto& ch : chans)
                    ptrs.push_back(ch.data());
                for (auto _ : s) {
                    v->Process(ptrs.data(), out.data(), n / c);
                    benchmark::DoNotOptimize(out.data());
                    benchmark::ClobberMemory();
                }
            });
        }
    }
}

const bool kRegistered = [] {
    registerFunc();
    registerBlas1();
    registerVec();
    registerComplex();
    registerFindMinMax();
    registerBiquad();
    registerInterleave();
    return true;
}();

} // namespace
