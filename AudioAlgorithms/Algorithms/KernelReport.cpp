#include "Algorithms/KernelReport.h"

#include "Algorithms/BiquadBand.h"
#include "Algorithms/Blas1.h"
#include "Algorithms/CSquareMagnitude.h"
#include "Algorithms/FindMinMax.h"
#include "Algorithms/Func.h"
#include "Algorithms/Interleave.h"
#include "Algorithms/Lpfm16.h"
#include "Algorithms/Polar2Rect.h"
#include "Algorithms/Rect2Polar.h"
#include "Algorithms/Vec.h"

namespace twa::numeric {
namespace {
template <class Base, class... Args>
void note(std::vector<KernelChoice>& out, std::string family,
          std::span<const KernelVariant<Base, Args...>> list, Args... args)
{
    const auto* v = FirstChosen<Base, Args...>(list, args...);
    out.push_back({std::move(family), v ? v->name : "(none)"});
}

const char* formatName(SampleFormat f)
{
    return f == SampleFormat::Int16 ? "16-bit" : f == SampleFormat::Int24 ? "24-bit" : "float";
}
} // namespace

namespace {
struct Registered {
    const char* family;
    const char* (*chosen)();
};
std::vector<Registered>& registered()
{
    static std::vector<Registered> list;
    return list;
}
} // namespace

bool RegisterKernelFamily(const char* family, const char* (*chosen)())
{
    registered().push_back({family, chosen});
    return true;
}

std::vector<KernelChoice> ChosenKernels()
{
    std::vector<KernelChoice> out;
    note(out, "Func", FuncVariants());
    note(out, "Blas1", Blas1Variants());
    note(out, "Vec", VecVariants());
    note(out, "Rect2Polar", Rect2PolarVariants());
    note(out, "Polar2Rect", Polar2RectVariants());
    note(out, "CSquareMagnitude", CSquareMagnitudeVariants());
    for (std::size_t c : {1, 2})
        note<FindMinMax, std::size_t>(out, "FindMinMax(" + std::to_string(c) + " channels)",
                                      FindMinMaxVariants(), c);
    for (std::size_t b : {4, 8})
        note<eq::BiquadBand, std::size_t, eq::BiquadForm>(out, "BiquadBand(" + std::to_string(b) + " bands)",
                                                           eq::BiquadBandVariants(), b, eq::BiquadForm::DF2T);
    for (std::size_t c : {1, 2})
        note<Lpfm16, std::size_t>(out, "Lpfm16(" + std::to_string(c) + " channels)", Lpfm16Variants(), c);
    for (SampleFormat f : {SampleFormat::Int16, SampleFormat::Int24, SampleFormat::Float32})
        note<Deinterleave, std::size_t, SampleFormat>(
            out, std::string("Deinterleave(2 channels, ") + formatName(f) + ")", DeinterleaveVariants(), 2, f);
    for (SampleFormat f : {SampleFormat::Int16, SampleFormat::Int24, SampleFormat::Float32})
        note<Interleave, std::size_t, SampleFormat>(
            out, std::string("Interleave(2 channels, ") + formatName(f) + ")", InterleaveVariants(), 2, f);
    for (const Registered& r : registered())
        out.push_back({r.family, r.chosen()});
    return out;
}

} // namespace twa::numeric
