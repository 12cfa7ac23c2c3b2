#pragma once
// Runs every variant of a kernel family against its reference on each count
// of kernelCounts(), aligned and misaligned, with guards around every buffer,
// and reports the first difference with the variant, count, placement and values.

#include "AssertCatcher.h"
#include "GuardedBuffer.h"
#include "ScopedCpuFeatures.h"
#include "System/twa_dispatch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace qvd::test {

// Every tail length of 4- and 8-wide loops, one and several full vectors, a long odd run.
inline const std::vector<std::size_t>& kernelCounts()
{
    static const std::vector<std::size_t> counts = {0,  1,  2,  3,  4,  5,  6,  7,  8,   9,   10,  11,
                                                    12, 13, 14, 15, 31, 32, 33, 64, 65, 999, 4095};
    return counts;
}

// Distance in representable floats.
inline std::uint64_t ulpDistance(float a, float b)
{
    auto ordered = [](float x) {
        const std::int64_t i = static_cast<std::int32_t>(bitsOf(x));
        return i < 0 ? -(i & 0x7FFFFFFF) : i;
    };
    const std::int64_t d = ordered(a) - ordered(b);
    return static_cast<std::uint64_t>(d < 0 ? -d : d);
}

// How far a variant may stray from the reference; by default not a bit (any NaN matches any NaN).
struct Tolerance {
    std::uint64_t ulp = 0;
    double abs = 0.0;
    bool sameSign = false; // where the sign of a zero or of pi is part of the answer
};

inline bool within(float got, float want, const Tolerance& t)
{
    if (std::isnan(got) || std::isnan(want))
        return std::isnan(got) && std::isnan(want);
    if (bitsOf(got) == bitsOf(want))
        return true;
    if (t.sameSign && std::signbit(got) != std::signbit(want))
        return false;
    return (t.ulp > 0 && ulpDistance(got, want) <= t.ulp) ||
           (t.abs > 0 && std::fabs(static_cast<double>(got) - want) <= t.abs);
}

// The tolerance for output `output` of `variant`; an empty rule asks for the same bits.
using ToleranceRule = std::function<Tolerance(std::string_view variant, std::size_t output)>;

inline bool isFused(std::string_view variant)
{
    return variant.find("_fma") != std::string_view::npos;
}

// `t` for variants that fuse multiply-adds, the same bits for the rest.
inline ToleranceRule fusedWithin(Tolerance t)
{
    return [t](std::string_view v, std::size_t) { return isFused(v) ? t : Tolerance{}; };
}

inline ToleranceRule allWithin(Tolerance t)
{
    return [t](std::string_view, std::size_t) { return t; };
}

// Bytes a variant's name says its pointers must be aligned to; 4 for plain code.
inline std::size_t alignmentOf(std::string_view name)
{
    return name.find("_m512") != std::string_view::npos   ? 64
           : name.find("_m256") != std::string_view::npos ? 32
           : name.find("_m128") != std::string_view::npos ? 16
                                                          : 4;
}

// Placements tried: plain code anywhere a float may sit, SIMD code on its own
// boundary and, for 16-byte code, off the 32-byte one.
inline std::vector<std::size_t> offsetsFor(std::string_view name)
{
    const std::size_t a = alignmentOf(name);
    return a == 4 ? std::vector<std::size_t>{0, 4, 12} : a == 16 ? std::vector<std::size_t>{0, 16} : std::vector<std::size_t>{0};
}

// Whether the dispatch may pick code needing `need`, named `name`, while the
// override answers `level` and `fma`.
inline bool levelAllows(std::int32_t level, bool fma, twa::IsaNeed need, std::string_view name)
{
    // Indexed by IsaNeed: None, SSE2, SSE41, AVX, FMA (the flag instead), AVX2,
    // AVX512 (above every level: only the wide-kernel switch allows it).
    constexpr std::int32_t kLevel[] = {twa::kIsaNone, twa::kIsaSSE2, twa::kIsaSSE41, twa::kIsaAVX,
                                       twa::kIsaNone, twa::kIsaAVX2, twa::kIsaAVX2 + 1};
    return level >= kLevel[static_cast<int>(need)] && (need != twa::IsaNeed::FMA || fma) &&
           (name.find("_m256") == std::string_view::npos || level >= twa::kIsaAVX);
}

template <class K>
struct Built {
    std::string name; // as the variant table gives it
    std::unique_ptr<K> kernel;
};

// Every variant listed for `args` that this machine runs, the reference
// included; the table's conditions are judged with every instruction set present.
template <class Base, class... Args>
std::vector<Built<Base>> listedVariants(std::span<const twa::KernelVariant<Base, Args...>> list,
                                        std::type_identity_t<Args>... args)
{
    ScopedCpuFeatures restore;
    ScopedCpuFeatures::Force(twa::kIsaAVX2, true);
    std::vector<Built<Base>> out;
    for (const auto& v : list)
        if (twa::MachineRuns(v.needs) && v.chosen(args...))
            out.push_back({v.name, std::unique_ptr<Base>(v.create(args...))});
    return out;
}

// Checked pointers must sit on the variant's boundary; Any ones may sit
// anywhere and are always placed off it.
enum class Align { Checked, Any };

// The buffers and answers of one call of a kernel. Values come from a
// generator seeded by the count, so a variant and the reference see the same
// inputs wherever their buffers are placed.
class Call {
public:
    static constexpr std::size_t kNone = ~std::size_t{0};

    Call(std::size_t count, std::size_t offsetBytes, std::size_t misaligned = kNone)
        : n(count), m_offset(offsetBytes), m_misaligned(misaligned), m_rng(static_cast<unsigned>(count) * 7919u + 1u)
    {
    }
    const std::size_t n;

    std::vector<float> values(std::size_t count, float lo, float hi) { return uniform(count, lo, hi, m_rng()); }
    const float* input(std::span<const float> v, Align a = Align::Checked)
    {
        return floats(place(v.size() * sizeof(float), a, false, v.data(), true));
    }
    const float* input(std::size_t count, float lo, float hi, Align a = Align::Checked)
    {
        return input(values(count, lo, hi), a);
    }
    // An input the kernel overwrites with its answer.
    float* inout(std::span<const float> v, Align a = Align::Checked)
    {
        return floats(place(v.size() * sizeof(float), a, true, v.data(), true));
    }
    float* output(std::size_t count, Align a = Align::Checked)
    {
        return floats(place(count * sizeof(float), a, true, nullptr, true));
    }
    const unsigned char* inputBytes(std::size_t count)
    {
        std::vector<unsigned char> v(count);
        for (auto& b : v)
            b = static_cast<unsigned char>(m_rng());
        return place(count, Align::Checked, false, v.data(), false);
    }
    unsigned char* outputBytes(std::size_t count) { return place(count, Align::Checked, true, nullptr, false); }
    // A scalar answer, or values as they are now.
    void result(double v) { m_answers.push_back({kNone, {static_cast<float>(v)}}); }
    void keep(std::span<const float> v) { m_answers.push_back({kNone, {v.begin(), v.end()}}); }

    std::size_t buffers() const { return m_slots.size(); }
    bool checked(std::size_t slot) const { return m_slots[slot].checked; }

    // The answers in the order they were declared; a guard or an input overwritten sets `problem`.
    std::vector<std::vector<float>> finish(std::string& problem) const
    {
        for (std::size_t s = 0; s < m_slots.size(); ++s) {
            const Slot& slot = m_slots[s];
            if (!slot.buf.guardsIntact())
                problem = "wrote outside buffer " + std::to_string(s);
            else if (!slot.initial.empty() && std::memcmp(slot.initial.data(), slot.buf.data(), slot.initial.size()))
                problem = "changed input buffer " + std::to_string(s);
        }
        std::vector<std::vector<float>> out;
        for (const Answer& a : m_answers) {
            if (a.slot == kNone) {
                out.push_back(a.values);
                continue;
            }
            const Slot& slot = m_slots[a.slot];
            const unsigned char* p = slot.buf.data();
            const auto* f = reinterpret_cast<const float*>(p);
            if (slot.isFloat)
                out.emplace_back(f, f + slot.buf.size() / sizeof(float));
            else
                out.emplace_back(p, p + slot.buf.size());
        }
        return out;
    }

private:
    struct Slot {
        GuardedBuffer<unsigned char> buf;
        bool checked;
        bool isFloat;
        std::vector<unsigned char> initial; // inputs only
    };
    struct Answer {
        std::size_t slot;
        std::vector<float> values;
    };
    static float* floats(unsigned char* p) { return reinterpret_cast<float*>(p); }

    unsigned char* place(std::size_t bytes, Align a, bool answer, const void* from, bool isFloat)
    {
        const std::size_t index = m_slots.size();
        const bool off = a == Align::Any || index == m_misaligned;
        Slot& s = m_slots.emplace_back(Slot{GuardedBuffer<unsigned char>(bytes, m_offset + (off ? 4 : 0)),
                                            a == Align::Checked, isFloat, {}});
        if (from && bytes)
            std::memcpy(s.buf.data(), from, bytes);
        if (!answer && from)
            s.initial.assign(s.buf.data(), s.buf.data() + bytes);
        if (answer)
            m_answers.push_back({index, {}});
        return s.buf.data();
    }

    std::size_t m_offset;
    std::size_t m_misaligned;
    std::mt19937 m_rng;
    std::deque<Slot> m_slots;
    std::vector<Answer> m_answers;
};

// One entry point of a family, called the same way on a variant and on the reference.
template <class K>
struct Op {
    std::string name;
    std::function<void(K&, Call&)> call;
    ToleranceRule tolerance = {};
};

namespace detail {

inline ::testing::AssertionResult compare(const std::string& where, const Call& got, const Call& want,
                                          const ToleranceRule& rule, std::string_view variant)
{
    std::string problem;
    const auto a = got.finish(problem);
    if (!problem.empty())
        return ::testing::AssertionFailure() << where << ": " << problem;
    const auto b = want.finish(problem);
    if (!problem.empty())
        return ::testing::AssertionFailure() << where << ": the reference " << problem;
    for (std::size_t o = 0; o < a.size(); ++o) {
        const Tolerance t = rule ? rule(variant, o) : Tolerance{};
        for (std::size_t i = 0; i < a[o].size(); ++i)
            if (!within(a[o][i], b[o][i], t))
                return ::testing::AssertionFailure() << where << ": output " << o << "[" << i << "] = " << a[o][i]
                                                     << ", reference " << b[o][i] << " (allowed " << t.ulp
                                                     << " ulp, " << t.abs << " absolute)";
    }
    return ::testing::AssertionSuccess();
}

} // namespace detail

// Each variant must give the reference's answers for every op and count at
// each placement. With contract checks on, SIMD variants must also report
// each checked pointer misaligned on its own, and still compute the same.
template <class K>
::testing::AssertionResult everyVariantMatches(std::string_view family, const std::vector<Built<K>>& variants,
                                               K& reference, const std::vector<Op<K>>& ops,
                                               const std::vector<std::size_t>& counts = kernelCounts())
{
    if (variants.empty())
        return ::testing::AssertionFailure() << family << ": no variant listed";
    for (const Built<K>& v : variants) {
        if (!std::string_view(v.kernel->Name()).starts_with(v.name))
            return ::testing::AssertionFailure() << family << ": " << v.name << " calls itself " << v.kernel->Name();
        for (const Op<K>& op : ops) {
            for (const std::size_t n : counts) {
                const std::string at = std::string(family) + "." + op.name + " " + v.name + " n=" + std::to_string(n);
                Call want(n, 0);
                op.call(reference, want);
                for (const std::size_t offset : offsetsFor(v.name)) {
                    Call got(n, offset);
                    AssertCatcher catcher;
                    op.call(*v.kernel, got);
                    if (catcher.count() != 0)
                        return ::testing::AssertionFailure() << at << " offset=" << offset
                                                             << ": reported " << AssertCatcher::last();
                    if (auto r = detail::compare(at + " offset=" + std::to_string(offset), got, want, op.tolerance, v.name); !r)
                        return r;
                    if (!twa::debug::kAssertsEnabled || alignmentOf(v.name) == 4 || n != 33 || offset != 0)
                        continue;
                    for (std::size_t b = 0; b < got.buffers(); ++b) {
                        if (!got.checked(b))
                            continue;
                        Call off(n, 0, b);
                        AssertCatcher misaligned;
                        op.call(*v.kernel, off);
                        const std::string where = at + " buffer " + std::to_string(b) + " misaligned";
                        if (misaligned.count() == 0 || AssertCatcher::last() != "p && v_test<TAG>(p)")
                            return ::testing::AssertionFailure() << where << ": not reported";
                        if (auto r = detail::compare(where, off, want, op.tolerance, v.name); !r)
                            return r;
                    }
                }
            }
        }
    }
    return ::testing::AssertionSuccess();
}

} // namespace qvd::test
