#include <gtest/gtest.h>

#include <QImage>
#include <QKeyEvent>
#include <QMouseEvent>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>

#include <QVDEq.h>
#include <QVDEqPanel.h>
#include <UI/QVDListSelector.h>
#include <UI/QVDResponseView.h>
#include <UI/QVDShapeIcons.h>
#include <UI/QVDStyle.h>

#include "PluginFixture.h"
#include "QtApp.h"

namespace {

void press(QWidget* w, int key)
{
    QKeyEvent e(QEvent::KeyPress, key, Qt::NoModifier);
    QApplication::sendEvent(w, &e);
}

void click(QWidget* w)
{
    QMouseEvent e(QEvent::MouseButtonPress, QPointF(5, 5), Qt::LeftButton, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(w, &e);
}

// Index of the view's frequency nearest `hz`.
std::size_t nearest(const QVDResponseView* view, double hz)
{
    const auto& f = view->frequencies();
    std::size_t best = 0;
    for (std::size_t i = 1; i < f.size(); ++i)
        if (std::fabs(std::log(f[i] / hz)) < std::fabs(std::log(f[best] / hz)))
            best = i;
    return best;
}

constexpr const char* kKey = "Tarnwick EQ:1364608369";

struct EqPanelFixture : testing::Test {
    void SetUp() override
    {
        qvd::test::qtApp();
        ASSERT_TRUE(eq.prepare(48000.0, 256, 2));
        widget.reset(static_cast<QWidget*>(instance->createEditor(nullptr)));
        panel = qobject_cast<QVDEqPanel*>(widget.get());
        ASSERT_NE(panel, nullptr);
    }
    qvd::test::PluginFixture eq{kKey};
    qvd::PluginInstance* instance = eq.instance();
    QVDEq* plugin = dynamic_cast<QVDEq*>(instance);
    std::unique_ptr<QWidget> widget;
    QVDEqPanel* panel = nullptr;
};

TEST_F(EqPanelFixture, EveryBandHasItsControlsBoundToItsParameters)
{
    EXPECT_EQ(panel->size(), QSize(740, 580));
    // Each control carries the identifier of its band's parameter and shows its value.
    const auto identifier = [&](int b, std::uint32_t role) {
        qvd::ParameterInfo info;
        EXPECT_TRUE(instance->parameterInfo(b * 5 + static_cast<std::int32_t>(role), &info));
        return QString::fromStdString(info.identifier);
    };
    for (int b = 0; b < 6; ++b) {
        for (const auto role : {QVDEq::kGain, QVDEq::kFreq, QVDEq::kQ}) {
            EXPECT_EQ(panel->knob(b, role)->identifier(), identifier(b, role)) << b;
            EXPECT_EQ(panel->knob(b, role)->value(), instance->getParameter(b * 5 + role)) << b;
        }
        EXPECT_EQ(panel->shapeSelector(b)->identifier(), identifier(b, QVDEq::kShape)) << b;
        EXPECT_EQ(panel->inSelector(b)->identifier(), identifier(b, QVDEq::kIn)) << b;
    }
    // The selectors show the per-band choices at their defaults.
    EXPECT_EQ(panel->shapeSelector(0)->choiceText(), "Hi Pass");
    EXPECT_EQ(panel->shapeSelector(2)->choiceText(), "Bell");
    EXPECT_EQ(panel->shapeSelector(5)->choiceText(), "Lo Pass");
    EXPECT_EQ(panel->inSelector(0)->choiceText(), "Off");
    EXPECT_EQ(panel->equalizerInSelector()->choiceText(), "In");
    // One marker per band, at the band's frequency.
    ASSERT_EQ(panel->responseView()->markers().size(), 6u);
    EXPECT_EQ(panel->responseView()->markers()[3].hz, 1200.0);
    EXPECT_FALSE(panel->responseView()->markers()[0].on);
}

TEST_F(EqPanelFixture, MovingABandsGainRaisesTheCurveThere)
{
    QVDResponseView* view = panel->responseView();
    const std::size_t at = nearest(view, 240.0);
    ASSERT_EQ(view->curve().size(), view->frequencies().size());
    EXPECT_NEAR(view->curve()[at], 0.0, 0.01);
    const QImage before = widget->grab().toImage();

    press(panel->knob(2, QVDEq::kGain), Qt::Key_End); // band 3, a bell at 240 Hz, to +20 dB
    EXPECT_EQ(instance->getParameter(2 * 5 + QVDEq::kGain), 20.0f);
    EXPECT_GT(view->curve()[at], 19.0);
    EXPECT_LE(view->curve()[at], 20.0 + 1e-9);
    // Far from the band the curve stays flat.
    EXPECT_NEAR(view->curve()[nearest(view, 15000.0)], 0.0, 0.05);
    // The curve is the plugin's response, value for value.
    std::vector<double> db(view->frequencies().size());
    ASSERT_TRUE(plugin->magnitudeResponse(view->frequencies().data(), db.data(), static_cast<int>(db.size())));
    EXPECT_EQ(view->curve(), db);

    // The drawn curve moved up on the bell's flank (where no band marker covers it).
    const std::size_t flank = nearest(view, 400.0);
    EXPECT_GT(view->curve()[flank], 3.0);
    const QImage after = widget->grab().toImage();
    ASSERT_EQ(after.size(), QSize(740, 580));
    EXPECT_NE(before, after);
    const QPoint origin = view->pos();
    const auto peakY = [&](const QImage& image) {
        const int x = origin.x() + static_cast<int>(std::lround(view->xOf(view->frequencies()[flank])));
        int best = -1, bestBlue = 0;
        for (int y = origin.y(); y < origin.y() + view->height(); ++y) {
            const QColor c = image.pixelColor(x, y);
            if (c.blue() - c.red() > bestBlue) {
                bestBlue = c.blue() - c.red();
                best = y - origin.y();
            }
        }
        return best;
    };
    EXPECT_NEAR(peakY(before), view->yOf(0.0), 3.0);
    EXPECT_NEAR(peakY(after), view->yOf(view->curve()[flank]), 3.0);
    if (const char* path = std::getenv("QVD_PANEL_PNG"))
        after.save(QString::fromLocal8Bit(path));

    // A change from the host reaches the knob and the curve at the next refresh.
    instance->setParameter(2 * 5 + QVDEq::kGain, -6.0f);
    panel->refresh();
    EXPECT_EQ(panel->knob(2, QVDEq::kGain)->value(), -6.0f);
    EXPECT_NEAR(view->curve()[at], -6.0, 0.5);
}

TEST_F(EqPanelFixture, SelectorsSwitchShapesBandsAndTheWholeEqualizer)
{
    QVDListSelector* shape = panel->shapeSelector(1);
    click(shape); // "Lo Shelf" -> "Bell"
    EXPECT_EQ(shape->choiceText(), "Bell");
    EXPECT_EQ(instance->getParameter(1 * 5 + QVDEq::kShape), 1.0f);
    EXPECT_EQ(plugin->band(1).kind(), BiQuad::kBell);
    press(shape, Qt::Key_Up);
    EXPECT_EQ(shape->choiceText(), "Notch");
    EXPECT_EQ(plugin->bandView(1).shape, QVDEq::kViewNotch);

    press(panel->knob(1, QVDEq::kGain), Qt::Key_End);
    QVDResponseView* view = panel->responseView();
    const std::size_t at = nearest(view, 110.0);
    EXPECT_GT(view->curve()[at], 15.0);
    click(panel->inSelector(1)); // band 2 off
    EXPECT_EQ(instance->getParameter(1 * 5 + QVDEq::kIn), 0.0f);
    EXPECT_NEAR(view->curve()[at], 0.0, 0.01);
    click(panel->inSelector(1));
    EXPECT_GT(view->curve()[at], 15.0);
    click(panel->equalizerInSelector()); // the whole equaliser out: flat
    EXPECT_FALSE(plugin->equalizerIn());
    for (const double v : view->curve())
        ASSERT_EQ(v, 0.0);
    EXPECT_FALSE(view->markers()[1].on);
}

TEST(EqPanel, ShapeIconsExistForEveryViewCodeAndAnUnpreparedPanelDrawsFlat)
{
    qvd::test::qtApp();
    for (int code = 0; code < 6; ++code) {
        EXPECT_FALSE(QVDShapeIcons::pixmap(code, 18).isNull()) << code;
        EXPECT_TRUE(QVDShapeIcons::resourcePath(code).startsWith(":/Audio/Equalizer/EQ"));
    }
    EXPECT_TRUE(QVDShapeIcons::pixmap(6).isNull());
    // The bell and the notch are drawn differently.
    EXPECT_NE(QVDShapeIcons::pixmap(2).toImage(), QVDShapeIcons::pixmap(3).toImage());

    qvd::test::PluginFixture eq(kKey);
    std::unique_ptr<QWidget> widget(static_cast<QWidget*>(eq.instance()->createEditor(nullptr)));
    auto* panel = qobject_cast<QVDEqPanel*>(widget.get());
    ASSERT_NE(panel, nullptr);
    for (const double v : panel->responseView()->curve())
        EXPECT_EQ(v, 0.0);
    EXPECT_FALSE(panel->grab().toImage().isNull());
}

} // namespace
