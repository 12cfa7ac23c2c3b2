#include "Render.h"

#include <QApplication>
#include <QBuffer>
#include <QImage>
#include <QPainter>
#include <QPainterPath>
#include <QWidget>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "OutputFile.h"
#include "PluginChain.h"

namespace qvdfx {

namespace {

// A widget-capable application for rendering, offscreen unless the user
// chose a platform.
QApplication& application()
{
    if (auto* existing = qobject_cast<QApplication*>(QCoreApplication::instance()))
        return *existing;
    if (std::getenv("QT_QPA_PLATFORM") == nullptr)
        setenv("QT_QPA_PLATFORM", "offscreen", 1);
    // Qt wants a private runtime folder and complains without one.
    if (std::getenv("XDG_RUNTIME_DIR") == nullptr) {
        static char folder[] = "/tmp/qvdfx-runtime-XXXXXX";
        if (mkdtemp(folder))
            setenv("XDG_RUNTIME_DIR", folder, 1);
    }
    static int argc = 1;
    static char name[] = "qvdfx";
    static char* argv[] = {name, nullptr};
    static QApplication app(argc, argv);
    return app;
}

// Encodes `image` as PNG into `file` and puts it in place.
void savePng(const QImage& image, OutputFile& file)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    if (!image.save(&buffer, "PNG"))
        file.failed("the image cannot be encoded as PNG");
    file.write(bytes.constData(), static_cast<std::size_t>(bytes.size()));
    file.commit();
}

struct Setup {
    std::string plugin;
    std::vector<std::pair<std::string, std::string>> settings;
    int rate = 48000;
    bool force = false;
};

// Takes the options panel and response share; false when `a` is not one.
bool takeCommon(Arguments& args, const std::string& a, Setup& s)
{
    if (a == "--set") {
        const std::string setting = args.value(a);
        const auto eq = setting.find('=');
        if (eq == std::string::npos || eq == 0)
            fail(kExitUsage, "--set takes NAME=VALUE, not '" + setting + "'");
        s.settings.emplace_back(setting.substr(0, eq), setting.substr(eq + 1));
        return true;
    }
    if (a == "--rate") {
        s.rate = static_cast<int>(parseInteger(args.value(a), 8000, 768000, "--rate"));
        return true;
    }
    if (a == "--force") {
        s.force = true;
        return true;
    }
    return false;
}

// A prepared instance with the settings applied.
std::unique_ptr<PluginHandle> makePlugin(qvd::PluginInterface& registry, const Setup& s)
{
    const std::string key = resolvePluginKey(registry, s.plugin);
    auto handle = std::make_unique<PluginHandle>(registry.createPlugin(qvd::kAudioPlugin, key.c_str()));
    if (!handle->instance)
        fail(kExitPlugin, "cannot create plugin '" + key + "'");
    for (const auto& [name, value] : s.settings) {
        const std::int32_t index = resolveParameter(*handle->instance, name);
        handle->instance->setParameter(index, resolveValue(*handle->instance, index, value, s.force));
    }
    const qvd::PrepareConfig config{qvd::kFormatKeep, qvd::kFormatKeep, 0, 1};
    if (!handle->audio()->prepare(static_cast<float>(s.rate), 512, &config))
        fail(kExitProcess, "plugin '" + key + "' refused to prepare at " + std::to_string(s.rate) + " Hz");
    return handle;
}

} // namespace

int commandPanel(qvd::PluginInterface& registry, Arguments args)
{
    Setup s;
    std::string out;
    while (!args.done()) {
        const std::string a = args.take();
        if (takeCommon(args, a, s))
            continue;
        if (a.rfind("-", 0) == 0)
            args.unexpected(a);
        if (s.plugin.empty())
            s.plugin = a;
        else if (out.empty())
            out = a;
        else
            args.unexpected(a);
    }
    if (s.plugin.empty() || out.empty())
        fail(kExitUsage, "panel: give a plugin and an output file (qvdfx panel PLUGIN OUT.png)");
    OutputFile file(out, true);
    application();
    auto plugin = makePlugin(registry, s);
    if (!plugin->instance->hasEditor())
        fail(kExitPlugin, std::string("plugin '") + plugin->instance->pluginKey() + "' has no editor panel");
    std::unique_ptr<QWidget> panel(static_cast<QWidget*>(plugin->instance->createEditor(nullptr)));
    if (!panel)
        fail(kExitPlugin, std::string("plugin '") + plugin->instance->pluginKey() + "' built no panel");
    panel->adjustSize();
    const QImage image = panel->grab().toImage();
    panel.reset(); // before the instance it belongs to
    savePng(image, file);
    std::fprintf(stderr, "wrote %s: %d x %d\n", file.name().c_str(), image.width(), image.height());
    return kExitOk;
}

int commandResponse(qvd::PluginInterface& registry, Arguments args)
{
    Setup s;
    std::string png;
    bool json = false;
    int points = 31;
    while (!args.done()) {
        const std::string a = args.take();
        if (takeCommon(args, a, s))
            continue;
        if (a == "--png")
            png = args.value(a);
        else if (a == "--json")
            json = true;
        else if (a == "--points")
            points = static_cast<int>(parseInteger(args.value(a), 2, 100000, "--points"));
        else if (a.rfind("-", 0) != 0 && s.plugin.empty())
            s.plugin = a;
        else
            args.unexpected(a);
    }
    if (s.plugin.empty())
        fail(kExitUsage, "response: name a plugin (qvdfx response PLUGIN [--set NAME=VALUE ...])");
    std::optional<OutputFile> file;
    if (!png.empty()) {
        checkDistinct({{"--png", png, true}, {"--json", json ? "-" : "", true}});
        file.emplace(png, true);
    }
    auto plugin = makePlugin(registry, s);

    // Log-spaced from 20 Hz to 20 kHz or just below Nyquist.
    const double low = 20.0, high = std::min(20000.0, 0.499 * s.rate);
    std::vector<double> hz(static_cast<std::size_t>(points)), db(hz.size());
    for (int i = 0; i < points; ++i)
        hz[static_cast<std::size_t>(i)] = low * std::pow(high / low, static_cast<double>(i) / (points - 1));
    if (plugin->instance->responseCurve(hz.data(), db.data(), points) != points)
        fail(kExitPlugin, std::string("plugin '") + plugin->instance->pluginKey() + "' has no frequency response");

    if (json) {
        std::string text = "{\"key\": \"" + jsonEscape(plugin->instance->pluginKey()) + "\", \"rate\": " +
                           std::to_string(s.rate) + ", \"points\": [";
        for (int i = 0; i < points; ++i)
            text += std::string(i ? ", " : "") + "[" + jsonNumber(hz[static_cast<std::size_t>(i)]) + ", " +
                    jsonNumber(db[static_cast<std::size_t>(i)]) + "]";
        text += "]}\n";
        std::fputs(text.c_str(), stdout);
    } else if (png.empty()) {
        std::printf("%12s %10s\n", "Hz", "dB");
        for (int i = 0; i < points; ++i)
            std::printf("%12.2f %10.3f\n", hz[static_cast<std::size_t>(i)], db[static_cast<std::size_t>(i)]);
    }

    if (!png.empty()) {
        application();
        // Plot on a fine grid whatever --points says.
        const int width = 800, height = 400, margin = 40;
        std::vector<double> fine(width - 2 * margin), fineDb(fine.size());
        for (std::size_t i = 0; i < fine.size(); ++i)
            fine[i] = low * std::pow(high / low, static_cast<double>(i) / static_cast<double>(fine.size() - 1));
        plugin->instance->responseCurve(fine.data(), fineDb.data(), static_cast<std::int32_t>(fine.size()));
        QImage image(width, height, QImage::Format_RGB32);
        image.fill(QColor(0x26, 0x28, 0x2b));
        QPainter p(&image);
        p.setRenderHint(QPainter::Antialiasing);
        const double range = 24.0; // +-24 dB
        auto y = [&](double v) { return margin + (range - std::clamp(v, -range, range)) / (2 * range) * (height - 2 * margin); };
        auto x = [&](double f) { return margin + std::log(f / low) / std::log(high / low) * (width - 2 * margin); };
        p.setPen(QColor(0x50, 0x54, 0x5a));
        for (const double f : {20.0, 50.0, 100.0, 200.0, 500.0, 1000.0, 2000.0, 5000.0, 10000.0, 20000.0}) {
            if (f > high)
                continue;
            p.drawLine(QPointF(x(f), margin), QPointF(x(f), height - margin));
            p.drawText(QPointF(x(f) - 12, height - margin + 16),
                       f >= 1000 ? QString::number(f / 1000) + "k" : QString::number(f));
        }
        for (int v = -24; v <= 24; v += 6) {
            p.drawLine(QPointF(margin, y(v)), QPointF(width - margin, y(v)));
            p.drawText(QPointF(4, y(v) + 4), QString::number(v));
        }
        QPainterPath path;
        for (std::size_t i = 0; i < fine.size(); ++i) {
            const QPointF pt(x(fine[i]), y(fineDb[i]));
            if (i == 0)
                path.moveTo(pt);
            else
                path.lineTo(pt);
        }
        p.setPen(QPen(QColor(0x3d, 0xa5, 0xd9), 2.0));
        p.drawPath(path);
        p.setPen(QColor(0xd8, 0xdb, 0xde));
        p.drawText(QPointF(margin, 24), QString::fromUtf8(plugin->instance->pluginKey()) + "  (dB against Hz)");
        p.end();
        savePng(image, *file);
        std::fprintf(stderr, "wrote %s\n", file->name().c_str());
    }
    return kExitOk;
}

} // namespace qvdfx
