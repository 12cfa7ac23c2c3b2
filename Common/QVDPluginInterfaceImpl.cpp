#include "QVDPluginInterfaceImpl.h"

#include <Algorithms/KernelReport.h>
#include <System/twa_cpuinfo_x86.h>
#include <System/twa_dispatch.h>

#include <cstring>

#include <QDirIterator>
#include <QFile>


QMap<QString, QVDAudioPluginEntry>& qvdAudioPluginMap()
{
    static QMap<QString, QVDAudioPluginEntry> map;
    return map;
}

QMap<QString, QVDControlPluginEntry>& qvdControlPluginMap()
{
    static QMap<QString, QVDControlPluginEntry> map;
    return map;
}

QString qvdPluginKey(const char* name, std::uint32_t fourcc)
{
    return QStringLiteral("%1:%2").arg(QString::fromUtf8(name)).arg(static_cast<std::int32_t>(fourcc));
}

bool qvdInsertAudioPlugin(const QString& key, const QVDPluginDescriptor& descriptor, QVDAudioPluginFactory factory)
{
    auto& map = qvdAudioPluginMap();
    if (map.contains(key))
        return false;
    map.insert(key, QVDAudioPluginEntry{descriptor, factory});
    return true;
}

bool qvdInsertControlPlugin(const QString& name, QVDControlPluginFactory factory)
{
    auto& map = qvdControlPluginMap();
    if (map.contains(name))
        return false;
    map.insert(name, QVDControlPluginEntry{name, 1.0, 1, factory});
    return true;
}

QVDPluginInterfaceImpl& QVDPluginInterfaceImpl::instance()
{
    static QVDPluginInterfaceImpl registry;
    return registry;
}

std::int32_t QVDPluginInterfaceImpl::interfaceVersion() const
{
    return qvd::kInterfaceVersion;
}

std::map<std::string, qvd::PluginInfo> QVDPluginInterfaceImpl::listPlugins(std::int32_t kind) const
{
    std::map<std::string, qvd::PluginInfo> result;
    if (kind == qvd::kAudioPlugin) {
        const auto& map = qvdAudioPluginMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it) {
            const QVDPluginDescriptor& d = it.value().descriptor;
            qvd::PluginInfo info;
            info.name = d.name;
            info.channels = std::max(d.maxInputs, d.maxOutputs);
            info.flags = d.flags;
            result.emplace(it.key().toStdString(), std::move(info));
        }
    } else if (kind == qvd::kControlPlugin) {
        const auto& map = qvdControlPluginMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it) {
            qvd::PluginInfo info;
            info.name = it.value().name.toStdString();
            result.emplace(it.key().toStdString(), std::move(info));
        }
    }
    return result;
}

qvd::PluginInstance* QVDPluginInterfaceImpl::createPlugin(std::int32_t kind, const char* key)
{
    if (!key)
        return nullptr;
    const QString k = QString::fromUtf8(key);
    if (kind == qvd::kAudioPlugin) {
        auto& map = qvdAudioPluginMap();
        const auto it = map.find(k);
        if (it == map.end() || !it.value().factory)
            return nullptr;
        return it.value().factory(hostContext(), hostServices(), &it.value().descriptor);
    }
    if (kind == qvd::kControlPlugin) {
        auto& map = qvdControlPluginMap();
        const auto it = map.find(k);
        if (it == map.end() || !it.value().factory)
            return nullptr;
        return it.value().factory(hostServices());
    }
    return nullptr;
}

void QVDPluginInterfaceImpl::setHostContext(void* context)
{
    m_hostContext.store(context, std::memory_order_relaxed);
}

void QVDPluginInterfaceImpl::setHostServices(qvd::HostServices* services)
{
    m_hostServices.store(services, std::memory_order_relaxed);
}

std::map<std::string, std::string> QVDPluginInterfaceImpl::listMacroEffects() const
{
    std::map<std::string, std::string> result;
    const QString prefix = QString::fromLatin1(kQVDMacroFXDirectory) + QLatin1Char('/');
    QDirIterator it(QString::fromLatin1(kQVDMacroFXDirectory), QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QString name = path.startsWith(prefix) ? path.mid(prefix.size()) : path;
        result.emplace(name.toStdString(), file.readAll().toStdString());
    }
    return result;
}

namespace {
struct IsaLevel {
    const char* name;
    std::int32_t level;
    bool fma;
    bool wide; // 512-bit plugin kernels
};
// AVX2 processors all have FMA; the override keeps them together. "avx512"
// is AVX2 for the numeric library's factories and 512-bit code for the
// plugins' own kernels.
constexpr IsaLevel kIsaLevels[] = {
    {"none", twa::kIsaNone, false, false}, {"sse2", twa::kIsaSSE2, false, false},
    {"sse4.1", twa::kIsaSSE41, false, false}, {"avx", twa::kIsaAVX, false, false},
    {"avx2", twa::kIsaAVX2, true, false},  {"avx512", twa::kIsaAVX2, true, true},
};
} // namespace

std::map<std::string, std::string> QVDPluginInterfaceImpl::systemInfo() const
{
    std::map<std::string, std::string> info;
    const twa::CpuInfoX86& cpu = twa::CpuFeatures::Instance().info;
    std::string features = cpu.vendor;
    const std::pair<bool, const char*> flags[] = {
        {cpu.sse2, "sse2"}, {cpu.sse41, "sse4.1"}, {cpu.sse42, "sse4.2"}, {cpu.avx, "avx"},
        {cpu.fma, "fma"},   {cpu.avx2, "avx2"},    {cpu.avx512f, "avx512f"}, {cpu.avx512bw, "avx512bw"},
        {cpu.avx512dq, "avx512dq"}, {cpu.avx512vl, "avx512vl"}};
    for (const auto& [on, name] : flags)
        if (on)
            features += std::string(" ") + name;
    info["processor"] = features;
    std::string level = "auto";
    if (!twa::CpuFeatures::Instance().useProbe) {
        level = "?";
        const bool wide = twa::WideKernelsChosen();
        for (const IsaLevel& l : kIsaLevels)
            if (l.level == twa::CpuFeatures::Instance().settings.level && l.wide == wide)
                level = l.name;
    }
    info["instruction set"] = level;
    for (const twa::numeric::KernelChoice& k : twa::numeric::ChosenKernels())
        info["kernel " + k.family] = k.variant;
    return info;
}

bool QVDPluginInterfaceImpl::forceInstructionSet(const char* level)
{
    if (!level)
        return false;
    if (std::strcmp(level, "auto") == 0) {
        twa::SetUseProbe(true);
        twa::ForceWideKernels(false);
        return true;
    }
    for (const IsaLevel& l : kIsaLevels) {
        if (std::strcmp(level, l.name) == 0) {
            twa::SetUseProbe(false);
            twa::CpuFeatures::Instance().settings.level = l.level;
            twa::CpuFeatures::Instance().settings.fma = l.fma;
            twa::ForceWideKernels(l.wide);
            return true;
        }
    }
    return false;
}

void QVDPluginInterfaceImpl::setHostExtensions(qvd::HostExtensions* extensions)
{
    m_hostExtensions.store(extensions, std::memory_order_relaxed);
}
