#include <gtest/gtest.h>

#include <QApplication>
#include <QImage>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QWheelEvent>

#include <cstdlib>

#include <QVDGain.h>
#include <QVDGainPanel.h>
#include <UI/QVDStyle.h>

extern "C" void* GetQVDPluginInterface();

namespace {

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
        gainPanel = qobject_cast<QVDGainPanel*>(panel);
        ASSERT_NE(gainPanel, nullptr);
    }
    void TearDown() override
    {
        delete panel;
        if (instance)
            instance->destroy();
    }
    qvd::PluginInstance* instance = nullptr;
    QWidget* panel = nullptr;
    QVDGainPanel* gainPanel = nullptr;
};

TEST_F(PanelFixture, HasTheDesignedGeometry)
{
    EXPECT_EQ(panel->size(), QSize(360, 194));
    EXPECT_EQ(gainPanel->inputMeter()->x(), 8);
    EXPECT_EQ(gainPanel->outputMeter()->x(), 92);
    EXPECT_EQ(gainPanel->gainKnob()->identifier(), QStringLiteral("QVDGain::GAIN"));
    QStringList captions;
    for (const QVDCaption* c : panel->findChildren<QVDCaption*>())
        captions << c->text();
    EXPECT_TRUE(captions.contains(QStringLiteral("Input")));
    EXPECT_TRUE(captions.contains(QStringLiteral("Output")));
    EXPECT_TRUE(captions.contains(QStringLiteral("Gain")));
}

TEST_F(PanelFixture, KnobMovesTheGainParameter)
{
    QVDKnob* knob = gainPanel->gainKnob();
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
    gainPanel->refresh();
    EXPECT_EQ(knob->value(), -12.0f);
}

TEST_F(PanelFixture, RendersMetersFromThePluginsLevels)
{
    auto* audio = instance->getAudioInterface();
    ASSERT_TRUE(audio->prepare(48000.0f, 64, nullptr));
    std::vector<float> left(64, 0.5f), right(64, 0.0f);
    float* io[2] = {left.data(), right.data()};
    audio->process(nullptr, io, io, 64);
    gainPanel->refresh();
    ASSERT_EQ(gainPanel->inputMeter()->levels().size(), 2u);
    EXPECT_NEAR(gainPanel->inputMeter()->levels()[0], -6.02, 0.01);
    EXPECT_EQ(gainPanel->inputMeter()->levels()[1], -100.0);

    const QImage image = panel->grab().toImage();
    ASSERT_EQ(image.size(), QSize(360, 194));
    // -6 dB on a 60 dB scale: the left bar of the input meter is lit nine
    // tenths of the way up; the right bar is dark.
    const QPoint meter = gainPanel->inputMeter()->pos();
    const QColor lit = image.pixelColor(meter + QPoint(10, 150));
    const QColor dark = image.pixelColor(meter + QPoint(40, 150));
    EXPECT_GT(lit.green(), 120);
    EXPECT_EQ(dark, QVDStyle::background());
    EXPECT_GT(image.pixelColor(meter + QPoint(10, 30)).green(), 120);
    EXPECT_EQ(image.pixelColor(meter + QPoint(10, 10)), QVDStyle::background());
    if (const char* path = std::getenv("QVD_PANEL_PNG"))
        image.save(QString::fromLocal8Bit(path));
}

} // namespace
