#include <gtest/gtest.h>

#include <pugixml.hpp>

#include <QVDControlPlugin.h>
#include <QVDPluginInterfaceImpl.h>

#include "AssertCatcher.h"
#include "TestDelayPlugin.h"

extern "C" void* GetQVDPluginInterface();

namespace {

qvd::PluginInterface& registry()
{
    return *static_cast<qvd::PluginInterface*>(GetQVDPluginInterface());
}

// A control plugin that only exists in the test tree.
class TestControl final : public qvd::PluginInstance {
public:
    explicit TestControl(qvd::HostServices* hostServices) : services(hostServices) {}
    static const char* displayName() { return "Test Control Settings"; }
    AudioPlugin* getAudioInterface() override { return nullptr; }
    qvd::ControlPlugin* getControlInterface() override { return reinterpret_cast<qvd::ControlPlugin*>(this); }
    void destroy() override { delete this; }
    bool hasEditor() const override { return false; }
    bool isGenerator() const override { return false; }
    std::uint64_t instanceId() const override { return 0; }
    bool setParameter(std::int32_t, float) override { return false; }
    float getParameter(std::int32_t) const override { return 0.0f; }
    std::uint64_t getLatency() const override { return 0; }
    std::int32_t getMeterValues(std::int32_t, double*, std::int32_t) const override { return 0; }
    bool setParameterValue(std::int32_t, double) override { return false; }
    std::int32_t parameterCount() const override { return 0; }
    bool parameterInfo(std::int32_t, qvd::ParameterInfo*) const override { return false; }
    std::int32_t readoutCount() const override { return 0; }
    bool readoutInfo(std::int32_t, qvd::ReadoutInfo*) const override { return false; }
    std::int32_t readReadout(std::int32_t, double*, std::int32_t) const override { return 0; }
    std::int32_t parameterText(std::int32_t, float, char*, std::int32_t) const override { return 0; }
    std::int32_t meterGroupCount() const override { return 0; }
    const char* meterGroupName(std::int32_t) const override { return nullptr; }
    const char* pluginKey() const override { return displayName(); }
    void* createEditor(void*) override { return nullptr; }
    std::int32_t responseCurve(const double*, double*, std::int32_t) const override { return 0; }
    qvd::HostServices* services;
};
QVD_REGISTER_CONTROL_PLUGIN(TestControl)

class CountingServices final : public qvd::HostServices {
public:
    const char* hostName() const override { return "test"; }
    std::int32_t hostVersion() const override { return 1; }
    double editorScale() const override
    {
        ++scaleCalls;
        return 1.5;
    }
    std::int32_t debugLogLevel() const override
    {
        ++levelCalls;
        return 2;
    }
    void debugLog(std::int32_t, const char*) override {}
    mutable int scaleCalls = 0;
    mutable int levelCalls = 0;
};

// Restores the registry's host pointers after a test changes them.
struct HostPointersGuard {
    ~HostPointersGuard()
    {
        registry().setHostContext(nullptr);
        registry().setHostServices(nullptr);
    }
};

TEST(Registry, KeysJoinNameAndSignedCode)
{
    EXPECT_EQ(qvdPluginKey("Gain", qvdFourCC("QVGn")), QStringLiteral("Gain:1364608878"));
    EXPECT_EQ(qvdFourCC("QVGn"), 1364608878u);
    // A code with the top bit set reads as negative.
    EXPECT_EQ(qvdPluginKey("X", 0xF0000001u), QStringLiteral("X:-268435455"));
}

TEST(Registry, ListsPluginsByKeyWithTheirChannelCount)
{
    const auto audio = registry().listPlugins(qvd::kAudioPlugin);
    ASSERT_TRUE(audio.count(QVDTestDelay::kKey));
    const qvd::PluginInfo& delay = audio.at(QVDTestDelay::kKey);
    EXPECT_EQ(delay.name, "Test Delay");
    EXPECT_EQ(delay.channels, 4); // from its descriptor
    EXPECT_EQ(delay.flags, 0);
    const auto control = registry().listPlugins(qvd::kControlPlugin);
    ASSERT_EQ(control.count("Test Control Settings"), 1u);
    EXPECT_EQ(control.at("Test Control Settings").name, "Test Control Settings");
}

TEST(Registry, InstancesCaptureTheHostPointersSetBeforeThem)
{
    HostPointersGuard guard;
    QVDTestDelay* before = dynamic_cast<QVDTestDelay*>(registry().createPlugin(qvd::kAudioPlugin, QVDTestDelay::kKey));
    ASSERT_NE(before, nullptr);
    EXPECT_EQ(before->hostServices(), nullptr);
    EXPECT_EQ(before->editorScale(), 1.0);

    CountingServices services;
    int context = 0;
    registry().setHostContext(&context);
    registry().setHostServices(&services);
    QVDTestDelay* after = dynamic_cast<QVDTestDelay*>(registry().createPlugin(qvd::kAudioPlugin, QVDTestDelay::kKey));
    ASSERT_NE(after, nullptr);
    EXPECT_EQ(after->hostContext(), &context);
    EXPECT_EQ(after->hostServices(), &services);
    // Asked once each, at creation.
    EXPECT_EQ(services.scaleCalls, 1);
    EXPECT_EQ(services.levelCalls, 1);
    EXPECT_EQ(after->editorScale(), 1.5);
    EXPECT_EQ(after->debugLogLevel(), 2);
    // The descriptor handed over is the registry's copy.
    EXPECT_EQ(after->pluginDescriptor(), &qvdAudioPluginMap().find(QString::fromLatin1(QVDTestDelay::kKey)).value().descriptor);
    EXPECT_NE(before->instanceId(), after->instanceId());

    // A control plugin is created by its kind only, and has no audio side.
    EXPECT_EQ(registry().createPlugin(qvd::kAudioPlugin, "Test Control Settings"), nullptr);
    auto* control = dynamic_cast<TestControl*>(registry().createPlugin(qvd::kControlPlugin, "Test Control Settings"));
    ASSERT_NE(control, nullptr);
    EXPECT_EQ(control->getAudioInterface(), nullptr);
    EXPECT_EQ(control->services, &services);
    control->destroy();
    before->destroy();
    after->destroy();
}

TEST(Registry, DuplicateRegistrationIsRefusedAndReported)
{
    const auto count = qvdAudioPluginMap().size();
    qvd::test::AssertCatcher capture;
    capture.reset();
    EXPECT_FALSE(QVDAudioPlugin<QVDTestDelay>::registerClass());
    EXPECT_FALSE(QVDControlPlugin<TestControl>::registerClass());
    EXPECT_EQ(qvdAudioPluginMap().size(), count);
    if (twa::debug::kAssertsEnabled) {
        ASSERT_EQ(capture.count(), 2u);
        EXPECT_EQ(capture.condition(0), "0");
        EXPECT_EQ(capture.file(0), "Common/QVDAudioPlugin.h");
        EXPECT_EQ(capture.file(1), "Common/QVDControlPlugin.h");
    }
}

TEST(Registry, MacroEffectsAreRealChainsOfRegisteredPlugins)
{
    const auto macros = registry().listMacroEffects();
    ASSERT_GE(macros.size(), 2u);
    EXPECT_TRUE(macros.count("Headroom Trim.qvdmacro"));
    for (const auto& [name, text] : macros) {
        SCOPED_TRACE(name);
        EXPECT_EQ(name.find('/'), std::string::npos);
        pugi::xml_document doc;
        ASSERT_TRUE(doc.load_string(text.c_str()));
        const pugi::xml_node root = doc.child("MacroFX");
        ASSERT_TRUE(root);
        EXPECT_FALSE(std::string(root.attribute("name").as_string()).empty());
        int steps = 0;
        for (const pugi::xml_node step : root.children("Plugin")) {
            ++steps;
            const char* key = step.attribute("key").as_string();
            qvd::PluginInstance* plugin = registry().createPlugin(qvd::kAudioPlugin, key);
            ASSERT_NE(plugin, nullptr) << key;
            for (const pugi::xml_node p : step.children("Parameter")) {
                const std::int32_t index = plugin->getAudioInterface()->parameterIndex(p.attribute("id").as_string());
                ASSERT_GE(index, 0) << p.attribute("id").as_string();
                qvd::ParameterInfo info;
                ASSERT_TRUE(plugin->parameterInfo(index, &info));
                const float value = p.attribute("value").as_float();
                EXPECT_GE(value, info.minimum);
                EXPECT_LE(value, info.maximum);
            }
            plugin->destroy();
        }
        EXPECT_GE(steps, 1);
    }
}

} // namespace
