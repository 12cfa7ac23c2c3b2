#include <gtest/gtest.h>

#include <QApplication>
#include <QImage>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QWheelEvent>

#include <cmath>
#include <cstdlib>
#include <functional>

#include <QLabel>

#include <QVDGain.h>
#include <QVDLoudnessMeter.h>
#include <QVDLoudnessMeterPanel.h>
#include <QVDPhaseMeterPanel.h>
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


// A meter instance fed `seconds` of a stereo signal in 512-frame blocks, and its own panel.
struct MeterRun {
    MeterRun(const char* key, double seconds, const std::function<void(std::size_t, float&, float&)>& signal)
    {
        app();
        instance = registry().createPlugin(qvd::kAudioPlugin, key);
        auto* audio = instance->getAudioInterface();
        EXPECT_TRUE(audio->prepare(48000.0f, 512, nullptr));
        std::vector<float> left(512), right(512);
        float* io[2] = {left.data(), right.data()};
        const auto frames = static_cast<std::size_t>(seconds * 48000.0);
        for (std::size_t at = 0; at < frames; at += 512) {
            for (std::size_t n = 0; n < 512; ++n)
                signal(at + n, left[n], right[n]);
            audio->process(nullptr, io, io, 512);
        }
        panel = static_cast<QWidget*>(instance->createEditor(nullptr));
        qobject_cast<QVDPanel*>(panel)->refresh();
        image = panel->grab().toImage();
    }
    ~MeterRun()
    {
        delete panel;
        instance->destroy();
    }
    qvd::PluginInstance* instance = nullptr;
    QWidget* panel = nullptr;
    QImage image;
};

// Pixels of `region` that differ between two images.
int differing(const QImage& a, const QImage& b, const QRect& region)
{
    int count = 0;
    for (int y = region.top(); y <= region.bottom(); ++y)
        for (int x = region.left(); x <= region.right(); ++x)
            count += a.pixelColor(x, y) != b.pixelColor(x, y);
    return count;
}

TEST(MeterPanels, PhaseMeterDrawsCorrelationAndGoniometer)
{
    const auto tone = [](float sign) {
        return [sign](std::size_t n, float& l, float& r) {
            l = 0.5f * static_cast<float>(std::sin(2.0 * M_PI * 440.0 * static_cast<double>(n) / 48000.0));
            r = sign * l;
        };
    };
    MeterRun mono("Phase Meter:1364611149", 1.0, tone(1.0f));
    MeterRun opposite("Phase Meter:1364611149", 1.0, tone(-1.0f));
    MeterRun silent("Phase Meter:1364611149", 1.0, [](std::size_t, float& l, float& r) { l = r = 0.0f; });
    auto* panel = qobject_cast<QVDPhaseMeterPanel*>(mono.panel);
    ASSERT_NE(panel, nullptr);
    EXPECT_EQ(panel->size(), QSize(440, 392));
    EXPECT_EQ(panel->findChild<QLabel*>(QStringLiteral("Correlation"))->text(), QStringLiteral("+1.00"));
    EXPECT_EQ(opposite.panel->findChild<QLabel*>(QStringLiteral("Correlation"))->text(), QStringLiteral("-1.00"));

    // The bar fills from the centre: right of it at +1, left of it at -1.
    const QRect bar = panel->correlationBar()->geometry();
    const QPoint rightHalf(bar.left() + 3 * bar.width() / 4, bar.center().y());
    const QPoint leftHalf(bar.left() + bar.width() / 4, bar.center().y());
    EXPECT_EQ(mono.image.pixelColor(rightHalf), QVDStyle::meterLow());
    EXPECT_EQ(mono.image.pixelColor(leftHalf), QVDStyle::panel());
    EXPECT_EQ(opposite.image.pixelColor(leftHalf), QVDStyle::meterClip());
    EXPECT_EQ(opposite.image.pixelColor(rightHalf), QVDStyle::panel());

    // Same channels trace the vertical (mid) axis, opposite ones the
    // horizontal (side) axis; silence leaves only a dot in the middle. Strips
    // from a fifth to a half of the radius out, clear of that dot.
    const QRect view = panel->goniometer()->geometry();
    const QPoint c = view.center();
    const int radius = view.width() / 2 - 14;
    const QRect up(c.x() - 3, c.y() - radius / 2, 7, radius / 2 - radius / 5);
    const QRect across(c.x() + radius / 5, c.y() - 3, radius / 2 - radius / 5, 7);
    EXPECT_GT(differing(mono.image, silent.image, up), 20);
    EXPECT_EQ(differing(mono.image, silent.image, across), 0);
    EXPECT_GT(differing(opposite.image, silent.image, across), 20);
    EXPECT_EQ(differing(opposite.image, silent.image, up), 0);
}

TEST(MeterPanels, LoudnessMeterShowsItsFiguresAndHistory)
{
    // A 1 kHz sine peaking at -20 dBFS in both channels reads -20 LUFS.
    MeterRun tone("Loudness Meter:1364610125", 12.0, [](std::size_t n, float& l, float& r) {
        l = r = 0.1f * static_cast<float>(std::sin(2.0 * M_PI * 1000.0 * static_cast<double>(n) / 48000.0));
    });
    MeterRun silent("Loudness Meter:1364610125", 12.0, [](std::size_t, float& l, float& r) { l = r = 0.0f; });
    auto* panel = qobject_cast<QVDLoudnessMeterPanel*>(tone.panel);
    ASSERT_NE(panel, nullptr);
    EXPECT_EQ(panel->size(), QSize(600, 396));
    for (const int readout : {QVDLoudnessMeter::kMomentary, QVDLoudnessMeter::kShortTerm,
                              QVDLoudnessMeter::kIntegrated}) {
        double value = 0.0;
        ASSERT_EQ(tone.instance->readReadout(readout, &value, 1), 1);
        EXPECT_NEAR(value, -20.0, 0.2) << readout;
        const QString text = panel->figureText(readout);
        EXPECT_TRUE(text.endsWith(QStringLiteral(" LUFS"))) << text.toStdString();
        EXPECT_NEAR(text.section(QLatin1Char(' '), 0, 0).toDouble(), value, 0.051) << text.toStdString();
    }
    // Deviation from the default -23 LUFS target, signed.
    EXPECT_TRUE(panel->figureText(QVDLoudnessMeter::kDeviation).startsWith(QStringLiteral("+3.0")))
        << panel->figureText(QVDLoudnessMeter::kDeviation).toStdString();
    EXPECT_EQ(qobject_cast<QVDLoudnessMeterPanel*>(silent.panel)->figureText(QVDLoudnessMeter::kIntegrated),
              QStringLiteral("-inf LUFS"));

    // The last seconds of the five-minute graph carry a trace at -20 LUFS;
    // the older part is empty, as it is for silence.
    const QVDLoudnessHistoryView* history = panel->historyView();
    const QRect g = history->geometry();
    const int y = g.top() + static_cast<int>(history->yOf(-20.0));
    const QRect recent(g.right() - 24, y - 2, 20, 5);
    const QRect older(g.left() + 40, y - 2, g.width() / 2, 5);
    EXPECT_GT(differing(tone.image, silent.image, recent), 10);
    EXPECT_EQ(differing(tone.image, silent.image, older), 0);
    // Nowhere near -40 LUFS on the recent side.
    const int low = g.top() + static_cast<int>(history->yOf(-40.0));
    EXPECT_EQ(differing(tone.image, silent.image, QRect(g.right() - 24, low - 2, 20, 5)), 0);
}

} // namespace
