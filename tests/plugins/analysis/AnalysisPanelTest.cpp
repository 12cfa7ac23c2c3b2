// The analysers' panels build offscreen and draw what the readouts say: a
// tone's peak where its frequency and level are, the energy vector towards
// the loudspeaker that plays, the map's bright spot at a plane wave's
// direction. Each is compared with the same panel over silence.
#include "AnalysisReadouts.h"

#include <QImage>
#include <QPixmap>

#include <QtApp.h>

#include <QVDAmbisonicsMeterPanel.h>
#include <QVDFrequencyPanel.h>
#include <QVDJellyFishPanel.h>

using namespace qvd::test;

namespace {

template <class Panel>
Panel* editorOf(PluginFixture& f)
{
    qtApp();
    auto* widget = static_cast<QWidget*>(f.instance()->createEditor(nullptr));
    auto* panel = qobject_cast<Panel*>(widget);
    EXPECT_NE(panel, nullptr);
    if (panel)
        panel->refresh();
    return panel;
}

QImage imageOf(QWidget* w)
{
    return w->grab().toImage().convertToFormat(QImage::Format_RGB32);
}

bool columnDiffers(const QImage& a, const QImage& b, int x, int fromY, int toY)
{
    for (int y = std::max(0, fromY); y < std::min(toY, a.height()); ++y)
        if (a.pixel(x, y) != b.pixel(x, y))
            return true;
    return false;
}

} // namespace

TEST(AnalysisPanels, SpectrumPanelDrawsTheToneAtItsFrequencyAndLevel)
{
    PluginFixture tone("Frequency Analyzer:1364608626"), quiet("Frequency Analyzer:1364608626");
    for (PluginFixture* f : {&tone, &quiet}) {
        ASSERT_TRUE(f->prepare(32000.0, 512, 1));
        f->set("AVERAGING", 0);
    }
    tone.run(sine(1, 32000, 1000.0, 32000.0, 0.5));
    quiet.run(silence(1, 32000));
    auto* lit = editorOf<QVDFrequencyPanel>(tone);
    auto* dark = editorOf<QVDFrequencyPanel>(quiet);
    ASSERT_TRUE(lit && dark);
    const QImage a = imageOf(lit->view()), b = imageOf(dark->view());
    ASSERT_EQ(a.size(), b.size());
    const int x = static_cast<int>(lit->view()->xOf(1000.0));
    const int y = static_cast<int>(lit->view()->yOf(-6.0));
    EXPECT_TRUE(columnDiffers(a, b, x, y - 4, y + 5)) << "the peak at 1 kHz, -6 dB";
    // Below 100 Hz both lie at the floor, under the plot.
    const int low = static_cast<int>(lit->view()->xOf(60.0));
    EXPECT_FALSE(columnDiffers(a, b, low, 20, a.height())) << "nothing at 60 Hz";
    delete lit;
    delete dark;
}

TEST(AnalysisPanels, DirectionPanelPointsAtThePlayingLoudspeaker)
{
    PluginFixture left("Surround Analyzer:1364609638"), quiet("Surround Analyzer:1364609638");
    for (PluginFixture* f : {&left, &quiet})
        ASSERT_TRUE(f->prepare(48000.0, 512, 6));
    Signal in = silence(6, 48000);
    in[0] = noise(1, 48000, 3)[0];
    left.run(in);
    quiet.run(silence(6, 48000));
    auto* lit = editorOf<QVDJellyFishPanel>(left);
    auto* dark = editorOf<QVDJellyFishPanel>(quiet);
    ASSERT_TRUE(lit && dark);
    const QImage a = imageOf(lit->view()), b = imageOf(dark->view());
    const QPoint along = lit->view()->pointAt(30.0, 0.6).toPoint();
    const QPoint away = lit->view()->pointAt(-150.0, 0.6).toPoint();
    EXPECT_NE(a.pixel(along), b.pixel(along)) << "the vector runs towards L at +30 degrees";
    EXPECT_EQ(a.pixel(away), b.pixel(away));
    delete lit;
    delete dark;
}

TEST(AnalysisPanels, MapPanelIsBrightestAtThePlaneWave)
{
    PluginFixture wave("Ambisonics Meter:1364607341"), quiet("Ambisonics Meter:1364607341");
    for (PluginFixture* f : {&wave, &quiet})
        ASSERT_TRUE(f->prepare(48000.0, 512, 16));
    // A third-order plane wave from azimuth 60, elevation 0: SN3D harmonics
    // on the horizon need only cos/sin of multiples of the azimuth.
    const double az = 60.0 * M_PI / 180.0;
    const double gains[16] = {1.0,
                              std::sin(az), 0.0, std::cos(az),
                              std::sqrt(3.0) / 2 * std::sin(2 * az), 0.0, -0.5, 0.0, std::sqrt(3.0) / 2 * std::cos(2 * az),
                              std::sqrt(5.0 / 8.0) * std::sin(3 * az), 0.0, -std::sqrt(3.0 / 8.0) * std::sin(az), 0.0,
                              -std::sqrt(3.0 / 8.0) * std::cos(az), 0.0, std::sqrt(5.0 / 8.0) * std::cos(3 * az)};
    const Signal source = noise(1, 24000, 9);
    Signal in = silence(16, 24000);
    for (std::size_t c = 0; c < 16; ++c)
        for (std::size_t n = 0; n < 24000; ++n)
            in[c][n] = static_cast<float>(gains[c] * source[0][n]);
    wave.run(in);
    quiet.run(silence(16, 24000));
    EXPECT_NEAR(value(wave, "Map Peak Azimuth"), 60.0, 2.0);
    auto* lit = editorOf<QVDAmbisonicsMeterPanel>(wave);
    auto* dark = editorOf<QVDAmbisonicsMeterPanel>(quiet);
    ASSERT_TRUE(lit && dark);
    const QImage a = imageOf(lit->view()), b = imageOf(dark->view());
    const QPoint peak = lit->view()->pointAt(63.0, 3.0).toPoint(); // beside the marker ring
    const QPoint side = lit->view()->pointAt(-30.0, 0.0).toPoint();
    EXPECT_NE(a.pixel(peak), b.pixel(peak));
    EXPECT_GT(QColor(a.pixel(peak)).valueF(), QColor(a.pixel(side)).valueF() + 0.2)
        << "brighter at the wave than 90 degrees away";
    delete lit;
    delete dark;
}
