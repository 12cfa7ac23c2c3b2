#pragma once
// FFTW (single precision) back end. Plans come from a process-wide cache: the
// first object of a size and direction plans it under the planner mutex (FFTW's
// planner is not thread-safe) and every later object shares that plan. Plans
// live until the process ends. Transforms run through FFTW's new-array execute
// functions, which are thread-safe, on this object's own work areas, so the
// audio path takes no lock.
//
// Plans are made on 32-byte aligned arrays. FFTW requires arrays handed to a
// plan to share the planning arrays' SIMD alignment; a caller's array that does
// not is routed through the work areas (one extra copy) instead of planning
// with FFTW_UNALIGNED, which would slow every call down for the rare caller.

#include "FFT/qv_fft_imp.h"

#include <memory>
#include <mutex>

namespace twa::fft {

struct FftwPlan;

// [control-thread] The lock that serialises FFTW planning in this process.
// Code elsewhere that plans or destroys FFTW plans of its own must hold it.
std::mutex& FftwPlannerMutex();

class qv_fft_imp_fftw final : public qv_fft_imp {
public:
    // [not while processing] Throws std::bad_alloc when FFTW cannot plan the size.
    qv_fft_imp_fftw(std::size_t size, Direction direction, bool ordered, float* time,
                    complex_t* freq);
    ~qv_fft_imp_fftw() override;

    const char* name() const noexcept override { return "fftw"; }
    Backend backend() const noexcept override { return Backend::Fftw; }

    // [audio-thread] Natural-order transforms; only for objects made ordered.
    void forward_ordered(const float* in, complex_t* out) noexcept;
    void inverse_ordered(const complex_t* in, float* out) noexcept;

    // [control-thread] How many plans the cache holds (for tests and reports).
    static std::size_t cached_plan_count();

private:
    void do_forward(const float* in, complex_t* out) noexcept override;
    void do_inverse(const complex_t* in, float* out) noexcept override;
    void do_inverse_consuming(complex_t* in, float* out) noexcept override;
    bool aligned(const void* p) const noexcept;
    void r2c(const float* in, complex_t* out) noexcept;
    void c2r_from_work(float* out) noexcept;

    std::shared_ptr<const FftwPlan> m_Plan;
    // Work areas: size() floats and nfreq() slots, 32-byte aligned. The
    // inverse always copies its input here, since FFTW's complex-to-real
    // transforms overwrite their input.
    sample_vector m_WorkTime;
    spectrum_vector m_WorkFreq;
};

} // namespace twa::fft
