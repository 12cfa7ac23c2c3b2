#include "QVDParameter.h"

#include <QCoreApplication>

#include <cmath>

std::vector<float> qvdBuildValueTable(const std::vector<QVDTaperSegment>& segments)
{
    std::vector<float> table;
    if (segments.empty()) {
        table.push_back(0.0f);
        return table;
    }
    for (const QVDTaperSegment& s : segments) {
        const float n = s.endPos - s.startPos;
        if (s.kind == 0) {
            for (int i = 0; static_cast<float>(i) < n; ++i)
                table.push_back(s.startValue + static_cast<float>(i) * (s.endValue - s.startValue) / n);
        } else if (s.kind == 1) {
            // Offset so a taper may start at 0 without a log of zero.
            const float start = s.startValue + 1e-10f;
            for (int i = 0; static_cast<float>(i) < n; ++i)
                table.push_back(start * std::exp((static_cast<float>(i) / n) * std::log(s.endValue / start)));
        }
    }
    table.push_back(segments.back().endValue);
    return table;
}

void QVDParameterDefinition::buildValueTable()
{
    valueTable = qvdBuildValueTable(segments);
}

qvd::ParameterInfo QVDParameterDefinition::toInfo() const
{
    qvd::ParameterInfo info;
    info.index = index;
    info.identifier = identifier.toStdString();
    info.label = label.toStdString();
    info.kind = kind;
    info.scale = scale;
    info.minimum = minimum;
    info.maximum = maximum;
    info.defaultValue = defaultValue;
    info.step = step;
    info.unit = unit.toStdString();
    for (const QString& option : options)
        info.options.push_back(option.toStdString());
    return info;
}

float qvdNormalizedStep(float step)
{
    if (step == 0.0f)
        return 1.0f;
    if (step < 0.0001f)
        return 0.0001f;
    return step;
}

QString qvdTranslate(const char* context, const char* text)
{
    return QCoreApplication::translate(context, text);
}

QVDParameterEntry::QVDParameterEntry(const QVDParameterDefinition& definition)
    : m_definition(definition), m_value(definition.defaultValue)
{
    m_definition.step = qvdNormalizedStep(definition.step);
}

QVDParameterEntry::QVDParameterEntry(const QVDParameterEntry& other)
    : m_definition(other.m_definition), m_value(other.value())
{
}

QVDParameterList qvdMakeParameterEntries(const std::vector<QVDParameterDefinition>& table)
{
    QVDParameterList entries;
    entries.reserve(table.size());
    for (const QVDParameterDefinition& definition : table)
        entries.emplace_back(definition);
    return entries;
}

QVDParam qvdListParam(std::string name, std::string label, std::vector<std::string> options, int defaultChoice)
{
    QVDParam p;
    p.name = std::move(name);
    p.label = std::move(label);
    p.kind = qvd::kList;
    p.maximum = static_cast<float>(options.size()) - 1.0f;
    p.defaultValue = static_cast<float>(defaultChoice);
    p.step = 1.0f;
    p.options = std::move(options);
    return p;
}

QVDParam qvdSwitchParam(std::string name, std::string label, bool on, std::string offLabel, std::string onLabel)
{
    return qvdListParam(std::move(name), std::move(label), {std::move(offLabel), std::move(onLabel)}, on ? 1 : 0);
}

std::vector<QVDParameterDefinition> qvdParameterTable(const char* className, const std::vector<QVDParam>& rows)
{
    std::vector<QVDParameterDefinition> table;
    table.reserve(rows.size());
    for (const QVDParam& row : rows) {
        QVDParameterDefinition d;
        d.index = static_cast<std::int32_t>(table.size());
        d.identifier = QString::fromLatin1(className) + QStringLiteral("::") + QString::fromStdString(row.name);
        d.label = qvdTranslate(className, row.label.c_str());
        d.kind = row.kind;
        d.scale = row.scale;
        d.minimum = row.minimum;
        d.maximum = row.maximum;
        d.defaultValue = row.defaultValue;
        d.step = row.step;
        d.unit = QString::fromStdString(row.unit);
        for (const std::string& option : row.options)
            d.options.push_back(qvdTranslate(className, option.c_str()));
        d.segments = row.taper;
        d.buildValueTable();
        table.push_back(std::move(d));
    }
    return table;
}
