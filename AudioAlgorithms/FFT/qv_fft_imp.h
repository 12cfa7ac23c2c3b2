#pragma once
// Real-signal transform objects behind qv_fft: one object per direction, bound
// at construction to a time array of size() floats and a half spectrum of
// nfreq() = size() / 2 + 1 complex slots.
//
// Spectrum layouts, identical on every back end:
// - ordered: slot k holds bin k, for k = 0 .. size() / 2 (the imaginary parts
//   of DC and Nyquist are zero on output and ignored on input);
// - packed: slot 0 holds (DC, Nyquist) side by side, slots 1 .. size() / 2 - 1
//   hold bins 1 .. size() / 2 - 1; the last slot is not read and its content
//   after a forward transform is unspecified.
//
// Transforms are unscaled: forward then inverse gives the input times size().

#include "System/twa_aligned_allocator.h"

#include <complex>
#include <cstddef>
#include <memory>
#include <vector>

namespace twa::fft {

using complex_t = std::complex<float>;
using spectrum_vector = std::vector<complex_t, memory::aligned_allocator<complex_t, 32>>;

enum class Direction : unsigned char { Forward, Inverse };

enum class Backend : unsigned char {
    // FFTW whenever the build has it; see ChooseBackend.
    Auto,
    Fftw,
    Kiss,
};

// How thoroughly FFTW plans a size the first time it is asked for. Measure is
// the default (0.1 to 2 s per size and direction); Estimate plans in
// milliseconds at most but may run slower; Patient plans for up to minutes
// and sometimes runs a little faster.
enum class PlannerRigor : unsigned char { Estimate, Measure, Patient };

// [control-thread] Rigor of plans made from now on; plans already made are
// kept and reused at the rigor they were made with.
void SetPlannerRigor(PlannerRigor rigor) noexcept;
PlannerRigor GetPlannerRigor() noexcept;

// True when this build carries the FFTW back end.
bool HasFftw() noexcept;

// True when KISS FFT is real-time safe and reasonably fast at this size: even,
// and size / 2 has no prime factor above 5. For any other factor KISS falls
// back to a quadratic butterfly that allocates scratch memory on every call.
bool KissServes(std::size_t size) noexcept;

// The back end a transform of `size` points gets when `requested` is asked for.
// FFTW plans every size and measured two to seven times faster than KISS at
// every size we tried from 16 to 65536, so Auto means FFTW. KISS is used when the build
// has no FFTW, or on request (its results do not depend on timing, unlike
// measured FFTW plans, so they repeat bit for bit from run to run). A request
// for KISS at a size it does not serve gets FFTW when the build has it.
Backend ChooseBackend(std::size_t size, Backend requested) noexcept;

class qv_fft_imp {
public:
    virtual ~qv_fft_imp();
    qv_fft_imp(const qv_fft_imp&) = delete;
    qv_fft_imp& operator=(const qv_fft_imp&) = delete;

    // [any-thread] "fftw" or "kiss".
    virtual const char* name() const noexcept = 0;
    virtual Backend backend() const noexcept = 0;

    std::size_t size() const noexcept { return m_Size; }
    std::size_t nfreq() const noexcept { return m_Size / 2 + 1; }
    bool ordered() const noexcept { return m_ordered; }
    Direction direction() const noexcept { return m_Direction; }

    // [audio-thread] Transforms the bound arrays in this object's direction.
    void execute() noexcept;

    // [audio-thread] Forward objects only: size() samples at `in` to nfreq()
    // slots at `out`. Any alignment; the arrays must not overlap.
    void forward(const float* in, complex_t* out) noexcept;
    // [audio-thread] Inverse objects only: nfreq() slots at `in` (left as they
    // are) to size() samples at `out`. Any alignment; no overlap.
    void inverse(const complex_t* in, float* out) noexcept;
    // [audio-thread] As inverse(), but `in` may serve as scratch and holds
    // unspecified values afterwards; saves a copy of the spectrum on back ends
    // whose inverse overwrites its input. execute() works this way.
    void inverse_consuming(complex_t* in, float* out) noexcept;

    // [audio-thread] b := b * a over the first nonzero_nfreq bins, in this
    // object's layout; the other bins of b are left as they are. In the packed
    // layout DC is always multiplied and Nyquist only when nonzero_nfreq ==
    // nfreq(). Caller guarantees nonzero_nfreq <= nfreq().
    virtual void multiply(const complex_t* a, complex_t* b, std::size_t nonzero_nfreq) const noexcept;

protected:
    qv_fft_imp(std::size_t size, Direction direction, bool ordered, float* time, complex_t* freq) noexcept;

    virtual void do_forward(const float* in, complex_t* out) noexcept = 0;
    virtual void do_inverse(const complex_t* in, float* out) noexcept = 0;
    virtual void do_inverse_consuming(complex_t* in, float* out) noexcept { do_inverse(in, out); }

    // The layout-aware product shared by the back ends.
    void spectral_product(const complex_t* a, complex_t* b, std::size_t nonzero_nfreq) const noexcept;

    std::size_t m_Size;
    Direction m_Direction;
    // Natural bin order (true) or packed (false).
    bool m_ordered;
    // The arrays execute() works on; owned by the caller.
    float* m_BoundTime;
    complex_t* m_BoundFreq;
};

// [audio-thread] b[k] := b[k] * a[k] for k < n; plain loop the compiler vectorises.
void ComplexMultiply(const complex_t* a, complex_t* b, std::size_t n) noexcept;

// [not while processing] A transform object on the back end ChooseBackend
// picks. `time` and `freq` are the arrays execute() works on; they must
// outlive the object. Throws std::bad_alloc when a plan or work area cannot be
// made.
std::unique_ptr<qv_fft_imp> CreateTransform(std::size_t size, Direction direction, bool ordered,
                                            float* time, complex_t* freq,
                                            Backend requested = Backend::Auto);

} // namespace twa::fft
