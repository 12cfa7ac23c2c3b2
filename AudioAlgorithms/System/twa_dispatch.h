#pragma once
// Variant tables shared by the kernel factories. A family lists its variants
// in order of preference; the factory installs the first whose condition holds.

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

namespace twa {

// What a variant's code needs from the processor to run at all; independent of
// the dispatch queries, which may be forced. AVX512 is F, DQ, BW and VL with
// the OS saving the 512-bit state.
enum class IsaNeed : unsigned char { None, SSE2, SSE41, AVX, FMA, AVX2, AVX512 };

// [any-thread] True when this processor and OS can run code built for `need`.
bool MachineRuns(IsaNeed need);

// The plugins' own kernels have a level above the instruction-set levels of
// the feature queries: 512-bit code. It is chosen when the probe is in use and
// the machine runs it, or when forced on over an AVX2 override; a forced
// override leaves it off unless asked for.
// [any-thread] Whether the dispatch may choose 512-bit plugin kernels now.
bool WideKernelsChosen();
// [not while processing] Asks for 512-bit kernels while the override is in
// use (the probe decides by itself). Returns the previous value.
bool ForceWideKernels(bool on);

template <class Base, class... Args>
struct KernelVariant {
    const char* name;
    IsaNeed needs;
    // The dispatch condition: instruction-set queries and the arguments.
    bool (*chosen)(Args...);
    // Builds the variant; only called when the processor can run it.
    Base* (*create)(Args...);
};

template <class Base, class... Args>
const KernelVariant<Base, Args...>* FirstChosen(std::span<const KernelVariant<Base, Args...>> list,
                                                Args... args)
{
    for (const auto& v : list)
        if (v.chosen(args...))
            return &v;
    return nullptr;
}

// A kernel family made of one plain function per instruction set (the
// plugins' kernels). Lists end with the reference, whose condition always holds.
template <class Fn>
struct FunctionVariant {
    const char* name;
    IsaNeed needs;
    bool (*chosen)();
    Fn fn;
};

// [any-thread] The first variant whose condition holds and that this
// processor runs: a forced level never picks code the machine cannot run,
// and the reference is the floor, so the answer is never empty.
template <class Fn>
const FunctionVariant<Fn>& ChooseVariant(std::span<const FunctionVariant<Fn>> list)
{
    for (const auto& v : list)
        if (v.chosen() && MachineRuns(v.needs))
            return v;
    return list.back();
}

inline bool Always() { return true; }

// [any-thread] Every variant this processor runs, the reference first (for
// tests and benchmarks that compare them).
template <class Fn>
std::vector<FunctionVariant<Fn>> RunnableVariants(std::span<const FunctionVariant<Fn>> list)
{
    std::vector<FunctionVariant<Fn>> out{list.back()};
    for (std::size_t i = 0; i + 1 < list.size(); ++i)
        if (MachineRuns(list[i].needs))
            out.push_back(list[i]);
    return out;
}

// Fills `out` with the first chosen variant; the previous object, if any, is
// destroyed after the new one is installed. Leaves `out` empty when none is chosen.
template <class Base, class... Args>
const char* InstallFirstChosen(std::unique_ptr<Base>& out,
                               std::span<const KernelVariant<Base, Args...>> list, Args... args)
{
    const auto* v = FirstChosen<Base, Args...>(list, args...);
    out.reset(v ? v->create(args...) : nullptr);
    return v ? v->name : nullptr;
}

} // namespace twa
