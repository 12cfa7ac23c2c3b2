#include "FFT/qv_fft_imp_fftw.h"

#include "System/twa_assert.h"

#include <fftw3.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <map>
#include <mutex>
#include <new>
#include <tuple>

namespace twa::fft {

struct FftwPlan {
    fftwf_plan plan = nullptr;
    // An array p suits the plan when (p & alignMask) == 0.
    std::uintptr_t alignMask = 0;
};

namespace {

using PlanKey = std::tuple<std::size_t, Direction, PlannerRigor>;

struct PlanCache {
    std::map<PlanKey, std::shared_ptr<const FftwPlan>> plans;
    std::uintptr_t alignMask = 0;
    bool probed = false;
};

// Never destroyed: objects in other static storage may still hold plans at exit.
PlanCache& Cache()
{
    static PlanCache* cache = new PlanCache;
    return *cache;
}

unsigned RigorFlag(PlannerRigor rigor)
{
    switch (rigor) {
    case PlannerRigor::Estimate:
        return FFTW_ESTIMATE;
    case PlannerRigor::Patient:
        return FFTW_PATIENT;
    case PlannerRigor::Measure:
        break;
    }
    return FFTW_MEASURE;
}

// fftwf_alignment_of(p) is p modulo FFTW's SIMD alignment; learning that
// modulus once keeps a library call per array off the audio path.
std::uintptr_t ProbeAlignmentMask()
{
    float* base = fftwf_alloc_real(64);
    if (!base)
        throw std::bad_alloc();
    std::uintptr_t mask = 63;
    for (std::size_t floats = 1; floats <= 16; floats *= 2)
        if (fftwf_alignment_of(base + floats) == 0) {
            mask = floats * sizeof(float) - 1;
            break;
        }
    fftwf_free(base);
    return mask;
}

std::shared_ptr<const FftwPlan> AcquirePlan(std::size_t size, Direction direction)
{
    if (size > static_cast<std::size_t>(INT_MAX))
        throw std::bad_alloc();
    const PlannerRigor rigor = GetPlannerRigor();
    const PlanKey key{size, direction, rigor};
    PlanCache& cache = Cache();
    std::lock_guard<std::mutex> lock(FftwPlannerMutex());
    if (const auto found = cache.plans.find(key); found != cache.plans.end())
        return found->second;

    if (!cache.probed) {
        cache.alignMask = ProbeAlignmentMask();
        cache.probed = true;
    }
    auto made = std::make_shared<FftwPlan>();
    made->alignMask = cache.alignMask;
    // Measuring overwrites the arrays, so plan on arrays of our own; they have
    // the SIMD alignment of every 32-byte aligned array.
    const int n = static_cast<int>(size);
    float* time = fftwf_alloc_real(size);
    fftwf_complex* freq = fftwf_alloc_complex(size / 2 + 1);
    if (time && freq) {
        // Forward plans must leave the caller's samples alone. Inverse plans
        // may overwrite their input: a work area, or a spectrum handed over
        // for consumption.
        const unsigned flags = RigorFlag(rigor);
        made->plan = direction == Direction::Forward
                         ? fftwf_plan_dft_r2c_1d(n, time, freq, flags | FFTW_PRESERVE_INPUT)
                         : fftwf_plan_dft_c2r_1d(n, freq, time, flags | FFTW_DESTROY_INPUT);
    }
    fftwf_free(time);
    fftwf_free(freq);
    if (!made->plan)
        throw std::bad_alloc();
    cache.plans.emplace(key, made);
    return made;
}

// A real signal has none; FFTW's complex-to-real codelets happen to skip them,
// but nothing promises that for every algorithm it may pick.
void ClearDcNyquistImag(complex_t* s, std::size_t half) noexcept
{
    s[0].imag(0.0f);
    s[half].imag(0.0f);
}

} // namespace

std::mutex& FftwPlannerMutex()
{
    // Never destroyed, like the plans it guards.
    static std::mutex* mutex = new std::mutex;
    return *mutex;
}

qv_fft_imp_fftw::qv_fft_imp_fftw(std::size_t size, Direction direction, bool ordered, float* time,
                                 complex_t* freq)
    : qv_fft_imp(size, direction, ordered, time, freq), m_Plan(AcquirePlan(size, direction)),
      m_WorkTime(size), m_WorkFreq(size / 2 + 1)
{
}

qv_fft_imp_fftw::~qv_fft_imp_fftw() = default;

std::size_t qv_fft_imp_fftw::cached_plan_count()
{
    std::lock_guard<std::mutex> lock(FftwPlannerMutex());
    return Cache().plans.size();
}

bool qv_fft_imp_fftw::aligned(const void* p) const noexcept
{
    return (reinterpret_cast<std::uintptr_t>(p) & m_Plan->alignMask) == 0;
}

void qv_fft_imp_fftw::r2c(const float* in, complex_t* out) noexcept
{
    const bool inAligned = aligned(in);
    const bool outAligned = aligned(out);
    if (!inAligned)
        std::copy_n(in, m_Size, m_WorkTime.data());
    float* src = inAligned ? const_cast<float*>(in) : m_WorkTime.data();
    complex_t* dst = outAligned ? out : m_WorkFreq.data();
    fftwf_execute_dft_r2c(m_Plan->plan, src, reinterpret_cast<fftwf_complex*>(dst));
    if (!outAligned)
        std::copy_n(m_WorkFreq.data(), nfreq(), out);
}

void qv_fft_imp_fftw::c2r_from_work(float* out) noexcept
{
    const bool outAligned = aligned(out);
    float* dst = outAligned ? out : m_WorkTime.data();
    fftwf_execute_dft_c2r(m_Plan->plan, reinterpret_cast<fftwf_complex*>(m_WorkFreq.data()), dst);
    if (!outAligned)
        std::copy_n(m_WorkTime.data(), m_Size, out);
}

void qv_fft_imp_fftw::forward_ordered(const float* in, complex_t* out) noexcept
{
    QVD_ASSERT(m_ordered);
    QVD_ASSERT(m_Direction == Direction::Forward);
    if (m_Direction == Direction::Forward)
        r2c(in, out);
}

void qv_fft_imp_fftw::inverse_ordered(const complex_t* in, float* out) noexcept
{
    QVD_ASSERT(m_ordered);
    QVD_ASSERT(m_Direction == Direction::Inverse);
    if (m_Direction != Direction::Inverse)
        return;
    std::copy_n(in, nfreq(), m_WorkFreq.data());
    ClearDcNyquistImag(m_WorkFreq.data(), m_Size / 2);
    c2r_from_work(out);
}

void qv_fft_imp_fftw::do_forward(const float* in, complex_t* out) noexcept
{
    r2c(in, out);
    if (!m_ordered)
        out[0].imag(out[m_Size / 2].real());
}

void qv_fft_imp_fftw::do_inverse(const complex_t* in, float* out) noexcept
{
    const std::size_t half = m_Size / 2;
    if (m_ordered) {
        std::copy_n(in, half + 1, m_WorkFreq.data());
    } else {
        std::copy_n(in, half, m_WorkFreq.data());
        m_WorkFreq[half] = complex_t(in[0].imag(), 0.0f);
    }
    ClearDcNyquistImag(m_WorkFreq.data(), half);
    c2r_from_work(out);
}

void qv_fft_imp_fftw::do_inverse_consuming(complex_t* in, float* out) noexcept
{
    if (!aligned(in) || !aligned(out)) {
        do_inverse(in, out);
        return;
    }
    const std::size_t half = m_Size / 2;
    if (!m_ordered)
        in[half] = complex_t(in[0].imag(), 0.0f);
    ClearDcNyquistImag(in, half);
    fftwf_execute_dft_c2r(m_Plan->plan, reinterpret_cast<fftwf_complex*>(in), out);
}

} // namespace twa::fft
