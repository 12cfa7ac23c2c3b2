#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include <QVDParameter.h>

namespace {

QVDTaperSegment segment(int kind, float from, float to, float v0, float v1)
{
    return QVDTaperSegment{kind, from, to, v0, v1};
}

TEST(ValueTable, SegmentsCoverTheirPositionsPlusTheLastEndValue)
{
    const struct {
        std::vector<QVDTaperSegment> segments;
        std::vector<float> table;
    } cases[] = {
        {{segment(0, 0, 4, 0.0f, 1.0f)}, {0.0f, 0.25f, 0.5f, 0.75f, 1.0f}},
        {{segment(0, 0, 2, 0.0f, 10.0f), segment(0, 2, 4, 10.0f, 30.0f)}, {0.0f, 5.0f, 10.0f, 20.0f, 30.0f}},
        {{segment(1, 0, 4, 1.0f, 16.0f)}, {1.0f, 2.0f, 4.0f, 8.0f, 16.0f}}, // geometric
        {{}, {0.0f}},
        {{segment(7, 0, 5, 1.0f, 2.0f)}, {2.0f}}, // unknown kinds add nothing
    };
    for (const auto& c : cases) {
        const auto table = qvdBuildValueTable(c.segments);
        ASSERT_EQ(table.size(), c.table.size());
        for (std::size_t i = 0; i < table.size(); ++i)
            EXPECT_NEAR(table[i], c.table[i], 1e-4f * c.table[i]) << i;
        EXPECT_EQ(table.back(), c.table.back());
    }
    // A taper may start at 0: the offset keeps the log finite.
    const auto fromZero = qvdBuildValueTable({segment(1, 0, 3, 0.0f, 8.0f)});
    EXPECT_TRUE(std::all_of(fromZero.begin(), fromZero.end(), [](float v) { return std::isfinite(v); }));
    EXPECT_EQ(fromZero.back(), 8.0f);
}

TEST(ParameterEntry, StepIsNormalisedWhenRegistered)
{
    QVDParameterDefinition d;
    for (const auto& [given, used] : {std::pair{0.0f, 1.0f}, {0.00001f, 0.0001f}, {-3.0f, 0.0001f}, {0.5f, 0.5f}}) {
        d.step = given;
        EXPECT_EQ(QVDParameterEntry(d).definition().step, used) << given;
    }
}

TEST(ParameterEntry, StartsAtTheDefaultAndExchangesValues)
{
    QVDParameterDefinition d;
    d.defaultValue = 3.0f;
    QVDParameterEntry entry(d);
    EXPECT_EQ(entry.value(), 3.0f);
    EXPECT_EQ(entry.exchange(5.0f), 3.0f);
    EXPECT_EQ(entry.value(), 5.0f);
    const QVDParameterEntry copy(entry);
    EXPECT_EQ(copy.value(), 5.0f);
}

TEST(ParameterEntry, ListValuesRoundHalfUp)
{
    EXPECT_EQ(qvdListIndex(1.49f), 1);
    EXPECT_EQ(qvdListIndex(1.5f), 2);
    EXPECT_EQ(qvdListIndex(0.0f), 0);
    EXPECT_TRUE(qvdSwitchOn(0.5f));
    EXPECT_FALSE(qvdSwitchOn(0.49f));
    EXPECT_FALSE(qvdSwitchOn(1.5f));
    // Whatever a host sends: saturated, and NaN as the first choice.
    EXPECT_EQ(qvdListIndex(-1.7e32f), INT32_MIN);
    EXPECT_EQ(qvdListIndex(3e9f), INT32_MAX);
    EXPECT_EQ(qvdListIndex(std::numeric_limits<float>::infinity()), INT32_MAX);
    EXPECT_EQ(qvdListIndex(std::numeric_limits<float>::quiet_NaN()), 0);
    EXPECT_FALSE(qvdSwitchOn(-1e30f));
}

TEST(ParameterEntry, InfoCarriesEveryField)
{
    QVDParameterDefinition d;
    d.index = 4;
    d.identifier = QStringLiteral("BiQuad::SHAPE");
    d.label = QStringLiteral("Shape");
    d.kind = qvd::kList;
    d.scale = qvd::kValueTable;
    d.minimum = 0.0f;
    d.maximum = 2.0f;
    d.defaultValue = 1.0f;
    d.step = 1.0f;
    d.unit = QStringLiteral("Hz");
    d.options = QStringList{QStringLiteral("Bell"), QStringLiteral("Notch")};
    const qvd::ParameterInfo info = d.toInfo();
    EXPECT_EQ(info.index, 4);
    EXPECT_EQ(info.identifier, "BiQuad::SHAPE");
    EXPECT_EQ(info.label, "Shape");
    EXPECT_EQ(info.kind, qvd::kList);
    EXPECT_EQ(info.scale, qvd::kValueTable);
    EXPECT_EQ(info.maximum, 2.0f);
    EXPECT_EQ(info.defaultValue, 1.0f);
    EXPECT_EQ(info.unit, "Hz");
    EXPECT_EQ(info.options, (std::vector<std::string>{"Bell", "Notch"}));
}

} // namespace
