#include "FFT/qv_fft_imp_fftw.h"

#include "System/twa_assert.h"

#include <fftw3.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <new>
#include <tuple>

namespace twa::fft {

struct FftwPlan {
    fftwf_plan plan = nullptr;
};

namespace {

using PlanKey = std::tuple<std::size_t, Direction, PlannerRigor>;

struct PlanCache {
    std::map<PlanKey, std::shared_ptr<const FftwPlan>> plans;
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

std::shared_ptr<const FftwPlan> AcquirePlan(std::size_t size, Direction direction)
{
    const PlannerRigor rigor = GetPlannerRigor();
    PlanCache& cache = Cache();
    std::lock_guard<std::mutex> lock(FftwPlannerMutex());
    auto& slot = cache.plans[PlanKey{size, direction, rigor}];
    if (slot)
        return slot;

    // Measuring overwrites the arrays, so plan on arrays of our own; they have
    // the SIMD alignment of every 32-byte aligned array.
    const int n = static_cast<int>(size);
    float* time = fftwf_alloc_real(size);
    fftwf_complex* freq = fftwf_alloc_complex(size / 2 + 1);
    fftwf_plan plan = nullptr;
    if (time && freq) {
        // Forward plans must leave the caller's samples alone. Inverse plans
        // may overwrite their input: it is always our own work area.
        const unsigned flags = RigorFlag(rigor);
        plan = direction == Direction::Forward
                   ? fftwf_plan_dft_r2c_1d(n, time, freq, flags | FFTW_PRESERVE_INPUT)
                   : fftwf_plan_dft_c2r_1d(n, freq, time, flags | FFTW_DESTROY_INPUT);
    }
    fftwf_free(time);
    fftwf_free(freq);
    if (!plan) {
        cache.plans.erase(PlanKey{size, direction, rigor});
        throw std::bad_alloc();
    }
    auto made = std::make_shared<FftwPlan>();
    made->plan = plan;
    slot = std::move(made);
    return slot;
}

// A real signal has none; FFTW's complex-to-real codelets happen to skip them,
// but nothing promises that for every algorithm it may pick.
void ClearDcNyquistImag(complex_t* s, std::size_t half) noexcept
{
    s[0].imag(0.0f);
    s[half].imag(0.0f);
}

bool FftwAligned(const void* p) noexcept
{
    return fftwf_alignment_of(static_cast<float*>(const_cast<void*>(p))) == 0;
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

void qv_fft_imp_fftw::r2c(const float* in, complex_t* out) noexcept
{
    const bool inAligned = FftwAligned(in);
    const bool outAligned = FftwAligned(out);
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
    const bool outAligned = FftwAligned(out);
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
    if (!FftwAligned(in) || !FftwAligned(out)) {
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
