// The dispatch rule as a host meets it: at any forced level some variant is
// picked, it needs nothing the level lacks, the reference is the floor, every
// listed variant is the pick somewhere, and the factory installs the pick in
// place of the previous object.

#include "Algorithms/BiquadBand.h"
#include "Algorithms/Blas1.h"
#include "Algorithms/CSquareMagnitude.h"
#include "Algorithms/FindMinMax.h"
#include "Algorithms/Func.h"
#include "Algorithms/Interleave.h"
#include "Algorithms/KernelReport.h"
#include "Algorithms/Lpfm16.h"
#include "Algorithms/Polar2Rect.h"
#include "Algorithms/Rect2Polar.h"
#include "Algorithms/Vec.h"
#include "VariantCheck.h"

#include <gtest/gtest.h>

#include <set>
#include <tuple>

namespace twa::numeric {
namespace {

using namespace qvd::test;
using eq::BiquadForm;

// Arguments no variant serves get no variant, and the factory then empties the slot.
template <class Base, class... Args>
void expectSoundTable(const char* family, std::span<const KernelVariant<Base, Args...>> list,
                      void (*create)(std::unique_ptr<Base>&, Args...),
                      const std::vector<std::tuple<std::type_identity_t<Args>...>>& argSets = {{}},
                      const std::vector<std::tuple<std::type_identity_t<Args>...>>& refused = {})
{
    ScopedCpuFeatures restore;
    std::set<std::string> picked;
    std::unique_ptr<Base> made; // each install replaces the one before
    for (const auto& args : argSets) {
        for (std::int32_t level = kIsaNone; level <= kIsaAVX2; ++level) {
            for (const bool fma : {false, true}) {
                ScopedCpuFeatures::Force(level, fma);
                SCOPED_TRACE(std::string(family) + " at level " + std::to_string(level) + (fma ? " with FMA" : ""));
                const auto* v = std::apply([&](Args... a) { return FirstChosen<Base, Args...>(list, a...); }, args);
                ASSERT_NE(v, nullptr) << "no variant picked";
                EXPECT_TRUE(levelAllows(level, fma, v->needs, v->name)) << v->name << " needs more";
                if (level == kIsaNone && !fma) {
                    EXPECT_EQ(v->needs, IsaNeed::None) << v->name << " above the floor";
                }
                picked.insert(v->name);
                if (!MachineRuns(v->needs))
                    continue;
                std::apply([&](Args... a) { create(made, a...); }, args);
                ASSERT_NE(made, nullptr) << "the factory left the slot empty";
                EXPECT_TRUE(std::string_view(made->Name()).starts_with(v->name)) << made->Name() << " for " << v->name;
            }
        }
    }
    for (const auto& v : list)
        EXPECT_TRUE(picked.count(v.name)) << family << ": " << v.name << " is never picked";
    ScopedCpuFeatures::Force(kIsaAVX2, true);
    for (const auto& args : refused) {
        EXPECT_EQ(std::apply([&](Args... a) { return FirstChosen<Base, Args...>(list, a...); }, args), nullptr) << family;
        std::apply([&](Args... a) { create(made, a...); }, args);
        EXPECT_EQ(made, nullptr) << family << ": the factory kept the previous object";
    }
}

TEST(Dispatch, EveryTableIsSoundAtEveryForcedLevel)
{
    expectSoundTable("Func", FuncVariants(), &CreateFunc);
    expectSoundTable("Blas1", Blas1Variants(), &CreateBlas1);
    expectSoundTable("Vec", VecVariants(), &CreateVec);
    expectSoundTable("Rect2Polar", Rect2PolarVariants(), &CreateRect2Polar);
    expectSoundTable("Polar2Rect", Polar2RectVariants(), &CreatePolar2Rect);
    expectSoundTable("CSquareMagnitude", CSquareMagnitudeVariants(), &CreateCSquareMagnitude);
    expectSoundTable<FindMinMax, std::size_t>("FindMinMax", FindMinMaxVariants(), &CreateFindMinMax,
                                              {{1}, {2}, {3}, {4}, {8}, {12}, {16}}, {{0}});
    expectSoundTable<Lpfm16, std::size_t>("Lpfm16", Lpfm16Variants(), &CreateLpfm16, {{1}, {2}}, {{0}, {3}, {16}});
    std::vector<std::tuple<std::size_t, BiquadForm>> banks, otherBanks;
    for (const BiquadForm form : {BiquadForm::DF2, BiquadForm::DF2T}) {
        for (const std::size_t bands : {2, 4, 8})
            banks.emplace_back(bands, form);
        for (const std::size_t bands : {0, 1, 3, 5, 16})
            otherBanks.emplace_back(bands, form);
    }
    expectSoundTable("BiquadBand", eq::BiquadBandVariants(), &eq::CreateBiquadBand, banks, otherBanks);
    std::vector<std::tuple<std::size_t, SampleFormat>> layouts, none;
    for (const SampleFormat f : {SampleFormat::Int16, SampleFormat::Int24, SampleFormat::Float32}) {
        for (const std::size_t c : {1, 2, 3, 4, 8, 12, 16, 32})
            layouts.emplace_back(c, f);
        none.emplace_back(0, f);
    }
    expectSoundTable("Deinterleave", DeinterleaveVariants(), &CreateDeinterleave, layouts, none);
    expectSoundTable("Interleave", InterleaveVariants(), &CreateInterleave, layouts, none);
}

TEST(Dispatch, KernelReportFollowsTheForcedLevel)
{
    ScopedCpuFeatures restore;
    ScopedCpuFeatures::Force(kIsaNone, false);
    const auto floor = ChosenKernels();
    ScopedCpuFeatures::Force(kIsaAVX2, true);
    const auto top = ChosenKernels();
    ASSERT_EQ(top.size(), floor.size());
    for (std::size_t i = 0; i < top.size(); ++i) {
        EXPECT_EQ(top[i].family, floor[i].family);
        EXPECT_TRUE(floor[i].variant.ends_with("_ref")) << floor[i].family << ": " << floor[i].variant;
        EXPECT_NE(top[i].variant, floor[i].variant) << top[i].family;
    }
    EXPECT_EQ(top[0].family, "Func");
    EXPECT_EQ(top[0].variant, FirstChosen<Func>(FuncVariants())->name);
}

} // namespace
} // namespace twa::numeric
