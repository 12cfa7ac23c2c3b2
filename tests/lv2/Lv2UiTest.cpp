// The Qt UI loaded as an embedding host loads it: dlopen, lv2ui_descriptor,
// instance-access to a running instance. What the host sees is the widget
// and the port writes, so that is what is checked.
#include <dlfcn.h>

#include <cstring>
#include <vector>

#include <QApplication>
#include <QWidget>

#include <gtest/gtest.h>
#include <lv2/instance-access/instance-access.h>
#include <lv2/ui/ui.h>

#include "Lv2Fixture.h"
#include "Lv2Plugin.h"

namespace qvdtest {
namespace {

QApplication& application()
{
    static int argc = 1;
    static char name[] = "lv2_tests";
    static char* argv[] = {name, nullptr};
    qputenv("QT_QPA_PLATFORM", "offscreen");
    static QApplication app(argc, argv);
    return app;
}

struct Writes {
    std::vector<std::pair<std::uint32_t, float>> seen;
    static void write(LV2UI_Controller c, uint32_t port, uint32_t size, uint32_t format, const void* buffer)
    {
        float value = 0.0f;
        if (size == sizeof value && format == 0)
            std::memcpy(&value, buffer, sizeof value);
        static_cast<Writes*>(const_cast<void*>(c))->seen.emplace_back(port, value);
    }
};

class Lv2UiTest : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override
    {
        application();
        void* lib = dlopen((bundleDir() + "/qvd.lv2/qvd-lv2-ui.so").c_str(), RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(lib, nullptr) << dlerror();
        const auto entry = reinterpret_cast<const LV2UI_Descriptor* (*)(uint32_t)>(dlsym(lib, "lv2ui_descriptor"));
        ASSERT_NE(entry, nullptr);
        descriptor = entry(0);
        ASSERT_NE(descriptor, nullptr);
        EXPECT_STREQ(descriptor->URI, qvd::lv2::kUiUri);
        EXPECT_EQ(entry(1), nullptr);
    }
    LV2UI_Handle open(Lv2Instance& lv2, Writes& writes, LV2UI_Widget& widget) const
    {
        const LV2_Feature access{LV2_INSTANCE_ACCESS_URI, lv2.handle()};
        const LV2_Feature* features[] = {&access, nullptr};
        return descriptor->instantiate(descriptor, GetParam().c_str(), "", Writes::write, &writes, &widget, features);
    }
    // The index of a parameter port and the plugin instance behind the LV2 one.
    static std::uint32_t portOf(const qvd::lv2::Variant& v, std::int32_t parameter)
    {
        for (std::uint32_t i = 0; i < v.ports.size(); ++i)
            if (v.ports[i].role == qvd::lv2::PortRole::Parameter && v.ports[i].source == parameter)
                return i;
        return UINT32_MAX;
    }
    const LV2UI_Descriptor* descriptor = nullptr;
};

TEST_P(Lv2UiTest, ShowsTheEditorPanelAndWritesItsChangesToTheHostsPorts)
{
    const auto& v = variant(GetParam());
    if (!v.hasEditor)
        GTEST_SKIP() << "no editor panel";
    Lv2Instance lv2(host(), GetParam(), 48000, 512);
    lv2.process(noise(std::max(v.inputs, 1), 512, 1), {512});
    Writes writes;
    LV2UI_Widget widget = nullptr;
    LV2UI_Handle ui = open(lv2, writes, widget);
    ASSERT_NE(ui, nullptr);
    auto* container = static_cast<QWidget*>(widget);
    ASSERT_NE(container, nullptr);
    EXPECT_FALSE(container->findChildren<QWidget*>().isEmpty()) << "the panel is inside";
    const auto* idle = static_cast<const LV2UI_Idle_Interface*>(descriptor->extension_data(LV2_UI__idleInterface));
    ASSERT_NE(idle, nullptr);
    idle->idle(ui);
    EXPECT_TRUE(writes.seen.empty()) << "nothing moved, nothing written";

    // The panel moves a parameter: the host hears of it, and of any other
    // parameter that followed it, on the next poll.
    qvd::PluginInstance& plugin = *static_cast<qvd::lv2::Lv2Plugin*>(lv2.handle())->plugin;
    const auto settings = offDefaultSettings(v);
    const auto& [info, value] = settings.front();
    plugin.setParameter(info->index, value);
    idle->idle(ui);
    ASSERT_FALSE(writes.seen.empty());
    EXPECT_EQ(writes.seen[0].first, portOf(v, info->index));
    for (const auto& [port, written] : writes.seen)
        EXPECT_EQ(bitsOf(written), bitsOf(plugin.getParameter(v.ports[port].source))) << "port " << port;

    // The host moves the port and the change lands in the plugin: no echo,
    // not even of a value the plugin passes through on its way.
    writes.seen.clear();
    const float automated = info->defaultValue;
    descriptor->port_event(ui, portOf(v, info->index), sizeof automated, 0, &automated);
    plugin.setParameter(info->index, (automated + value) / 2);
    idle->idle(ui);
    plugin.setParameter(info->index, automated);
    for (int i = 0; i < 10; ++i)
        idle->idle(ui);
    EXPECT_TRUE(writes.seen.empty()) << writes.seen.size() << " writes, first to port " << writes.seen[0].first;

    descriptor->cleanup(ui);
}

TEST_P(Lv2UiTest, RefusesWithoutInstanceAccess)
{
    Writes writes;
    LV2UI_Widget widget = nullptr;
    const LV2_Feature* none[] = {nullptr};
    EXPECT_EQ(descriptor->instantiate(descriptor, GetParam().c_str(), "", Writes::write, &writes, &widget, none), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Bundle, Lv2UiTest, allVariants(), testName);

} // namespace
} // namespace qvdtest
