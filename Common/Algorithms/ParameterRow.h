#pragma once
// One row of a block's static parameter table, built the same way by every
// block in this folder.

#include <QVDParameter.h>

namespace qvd::algorithms {

inline QVDParameterDefinition parameterRow(const char* context, std::int32_t index, const char* identifier,
                                           const char* label, std::int32_t kind, float minimum, float maximum,
                                           float defaultValue, float step, const char* unit = "")
{
    QVDParameterDefinition d;
    d.index = index;
    d.identifier = QString::fromLatin1(identifier);
    d.label = qvdTranslate(context, label);
    d.kind = kind;
    d.scale = qvd::kLinear;
    d.minimum = minimum;
    d.maximum = maximum;
    d.defaultValue = defaultValue;
    d.step = step;
    d.unit = QString::fromLatin1(unit);
    d.buildValueTable();
    return d;
}

} // namespace qvd::algorithms
