#include <gtest/gtest.h>

#include <QApplication>
#include <QImage>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QWheelEvent>

#include <cstdlib>

#include <QLabel>

#include <QVDGain.h>
#include <UI/QVDListSelector.h>
#include <UI/QVDPanel.h>
#include <UI/QVDStyle.h>
#include <qvd/PluginInterface.h>

extern "C" void* GetQVDPluginInterface();

namespace {

qvd::PluginInterface& registry()
{
    return *static_cast<qvd::PluginInterface*>(GetQVDPluginInterface());
}

// Runs in its own process (each test does): no QApplication exists yet.
TEST(Editors, NeedAQApplicationAndSayNoWithoutOne)
{
    qvd::PluginInstance* instance = registry().createPlugin(qvd::kAudioPlugin, "Gain:1364608878");
    EXPECT_TRUE(instance->hasEditor());
    EXPECT_EQ(instance->createEditor(nullptr), nullptr);
    instance->destroy();
}

QApplication& app()
{
    static int argc = 1;
    static char name[] = "gain_tests";
    static char* argv[] = {name, nullptr};
    // Panels render without a display.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    static QApplication a(argc, argv);
    return a;
}

struct PanelFixture : testing::Test {
    void SetUp() override
    {
        app();
        instance = static_cast<qvd::PluginInterface*>(GetQVDPluginInterface())
                       ->createPlugin(qvd::kAudioPlugin, "Gain:1364608878");
        ASSERT_NE(instance, nullptr);
        panel = static_cast<QWidget*>(instance->createEditor(nullptr));
        ASSERT_NE(panel, nullptr);
        input = panel->findChild<QVDMeterWidget*>(QStringLiteral("InputMeter"));
        output = panel->findChild<QVDMeterWidget*>(QStringLiteral("OutputMeter"));
        knob = panel->findChild<QVDKnob*>();
        ASSERT_TRUE(input && output && knob);
    }
    void refresh() { qobject_cast<QVDPanel*>(panel)->refresh(); }
    void TearDown() override
    {
        delete panel;
        if (instance)
            instance->destroy();
    }
    qvd::PluginInstance* instance = nullptr;
    QWidget* panel = nullptr;
    QVDMeterWidget* input = nullptr;
    QVDMeterWidget* output = nullptr;
    QVDKnob* knob = nullptr;
};

TEST_F(PanelFixture, HasTheDesignedGeometry)
{
    EXPECT_EQ(panel->size(), QSize(360, 194));
    EXPECT_EQ(input->x(), 8);
    EXPECT_EQ(output->x(), 92);
    EXPECT_EQ(knob->identifier(), QStringLiteral("QVDGain::GAIN"));
    QStringList captions;
    for (const QVDCaption* c : panel->findChildren<QVDCaption*>())
        captions << c->text();
    EXPECT_TRUE(captions.contains(QStringLiteral("Input")));
    EXPECT_TRUE(captions.contains(QStringLiteral("Output")));
    EXPECT_TRUE(captions.contains(QStringLiteral("Gain")));
}

TEST_F(PanelFixture, KnobMovesTheGainParameter)
{
    QKeyEvent up(QEvent::KeyPress, Qt::Key_Up, Qt::NoModifier);
    QApplication::sendEvent(knob, &up);
    EXPECT_NEAR(instance->getParameter(0), 0.1f, 1e-5f);

    QWheelEvent wheel(QPointF(30, 30), knob->mapToGlobal(QPoint(30, 30)), QPoint(), QPoint(0, 120 * 5),
                      Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase, false);
    QApplication::sendEvent(knob, &wheel);
    EXPECT_NEAR(instance->getParameter(0), 0.6f, 1e-5f);

    // Dragging down 50 pixels covers a quarter of the 96 dB range.
    QMouseEvent press(QEvent::MouseButtonPress, QPointF(30, 30), Qt::LeftButton, Qt::LeftButton, Qt::NoModifier);
    QMouseEvent move(QEvent::MouseMove, QPointF(30, 80), Qt::LeftButton, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(knob, &press);
    QApplication::sendEvent(knob, &move);
    EXPECT_NEAR(instance->getParameter(0), 0.6f - 24.0f, 1e-4f);

    QKeyEvent end(QEvent::KeyPress, Qt::Key_End, Qt::NoModifier);
    QApplication::sendEvent(knob, &end);
    EXPECT_EQ(instance->getParameter(0), 48.0f);
    QKeyEvent upAgain(QEvent::KeyPress, Qt::Key_Up, Qt::NoModifier);
    QApplication::sendEvent(knob, &upAgain);
    EXPECT_EQ(instance->getParameter(0), 48.0f); // clamped to the range

    // A change from the host shows on the knob.
    instance->setParameter(0, -12.0f);
    refresh();
    EXPECT_EQ(knob->value(), -12.0f);
    const auto* value = panel->findChild<QLabel*>(QStringLiteral("QVDGain::GAIN"));
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value->text(), QStringLiteral("-12.0 dB"));
}

TEST_F(PanelFixture, RendersMetersFromThePluginsLevels)
{
    auto* audio = instance->getAudioInterface();
    ASSERT_TRUE(audio->prepare(48000.0f, 64, nullptr));
    std::vector<float> left(64, 0.5f), right(64, 0.0f);
    float* io[2] = {left.data(), right.data()};
    audio->process(nullptr, io, io, 64);
    refresh();
    ASSERT_EQ(input->levels().size(), 2u);
    EXPECT_NEAR(input->levels()[0], -6.02, 0.01);
    EXPECT_EQ(input->levels()[1], -100.0);

    const QImage image = panel->grab().toImage();
    ASSERT_EQ(image.size(), QSize(360, 194));
    // -6 dB on a 60 dB scale: the left bar of the input meter is lit nine
    // tenths of the way up; the right bar is dark.
    const QPoint meter = input->pos();
    const QColor lit = image.pixelColor(meter + QPoint(10, 150));
    const QColor dark = image.pixelColor(meter + QPoint(40, 150));
    EXPECT_GT(lit.green(), 120);
    EXPECT_EQ(dark, QVDStyle::background());
    EXPECT_GT(image.pixelColor(meter + QPoint(10, 30)).green(), 120);
    EXPECT_EQ(image.pixelColor(meter + QPoint(10, 10)), QVDStyle::background());
    if (const char* path = std::getenv("QVD_PANEL_PNG"))
        image.save(QString::fromLocal8Bit(path));
}

// Every plugin has a panel, generic or its own, with a control per parameter.
TEST(Panels, EveryPluginBuildsOne)
{
    app();
    for (const auto& [key, info] : registry().listPlugins(qvd::kAudioPlugin)) {
        SCOPED_TRACE(key);
        qvd::PluginInstance* instance = registry().createPlugin(qvd::kAudioPlugin, key.c_str());
        ASSERT_TRUE(instance->hasEditor());
        auto* panel = static_cast<QWidget*>(instance->createEditor(nullptr));
        ASSERT_NE(panel, nullptr);
        EXPECT_FALSE(panel->grab().toImage().isNull());
        const auto controls = panel->findChildren<QVDKnob*>().size() + panel->findChildren<QVDListSelector*>().size();
        EXPECT_GE(static_cast<std::int32_t>(controls), instance->parameterCount() - 2) << "room-shape readouts aside";
        delete panel;
        instance->destroy();
    }
}

} // namespace
