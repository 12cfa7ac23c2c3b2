#pragma once
// KISS FFT back end. KISS keeps scratch space inside its configuration, so a
// configuration cannot be shared between threads: every object builds its own
// in memory it owns (cheap: O(size) twiddles), which is its plan and work area
// in one, and the audio path takes no lock.

#include "FFT/qv_fft_imp.h"

#include <cstddef>
#include <vector>

struct kiss_fftr_state;

namespace twa::fft {

class qv_fft_imp_kiss final : public qv_fft_imp {
public:
    // [not while processing] Throws std::bad_alloc when the configuration
    // cannot be made.
    qv_fft_imp_kiss(std::size_t size, Direction direction, bool ordered, float* time,
                    complex_t* freq);
    ~qv_fft_imp_kiss() override;

    const char* name() const noexcept override { return "kiss"; }
    Backend backend() const noexcept override { return Backend::Kiss; }

    // Only the full product is part of this back end's contract; a shorter one
    // is reported and still computed as the FFTW back end computes it.
    void multiply(const complex_t* a, complex_t* b, std::size_t nonzero_nfreq) const noexcept override;

private:
    void do_forward(const float* in, complex_t* out) noexcept override;
    void do_inverse(const complex_t* in, float* out) noexcept override;

    // The configuration's memory, with room for KISS's own scratch.
    std::vector<std::byte, memory::aligned_allocator<std::byte, 32>> m_PlanMemory;
    kiss_fftr_state* m_Plan = nullptr;
    // Natural-order copy of a packed spectrum for the inverse.
    spectrum_vector m_WorkFreq;
};

} // namespace twa::fft
