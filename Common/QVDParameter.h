#pragma once
// Parameter definitions (static tables per class) and parameter entries (one
// per definition per instance, holding the current value).

#include <QString>
#include <QStringList>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include <qvd/PluginTypes.h>

// One piece of a value taper: positions [startPos, endPos) of the control's
// travel map to values from startValue towards endValue.
struct QVDTaperSegment {
    std::int32_t kind = 0; // 0 linear, 1 exponential, anything else adds nothing
    float startPos = 0.0f;
    float endPos = 0.0f;
    float startValue = 0.0f;
    float endValue = 0.0f;
};

struct QVDParameterDefinition {
    std::int32_t index = 0;
    QString identifier; // "QVDGain::GAIN"
    QString label;      // already translated
    std::int32_t kind = qvd::kContinuous;
    std::int32_t scale = qvd::kLinear;
    float minimum = 0.0f;
    float maximum = 1.0f;
    float defaultValue = 0.0f;
    float step = 1.0f;
    QString unit;
    QStringList options;
    std::vector<QVDTaperSegment> segments;
    std::vector<float> valueTable; // built from segments by buildValueTable()
    std::int64_t trailing = 0;     // carried along unchanged

    // Fills valueTable from segments (a single 0.0 when there are none).
    void buildValueTable();
    qvd::ParameterInfo toInfo() const;
};

// One row of a plugin's declarative parameter table. The index is the row's
// position and the identifier is "<Class>::<name>", both derived when the
// table is built, so neither is ever typed twice:
//   {.name = "GAIN", .label = "Gain", .minimum = -48, .maximum = 48, .step = 0.1f, .unit = "dB"}
struct QVDParam {
    std::string name;  // upper case, without the class prefix
    std::string label; // display name, translated in the class's context
    float minimum = 0.0f;
    float maximum = 1.0f;
    float defaultValue = 0.0f;
    float step = 0.0f; // 0 stores as 1
    std::string unit;  // "dB", "Hz", "ms", "%" or empty
    std::int32_t kind = qvd::kContinuous;
    std::int32_t scale = qvd::kLinear;
    std::vector<std::string> options; // list labels, in value order
    std::vector<QVDTaperSegment> taper;
};

// A list row: range 0 .. options - 1, step 1.
QVDParam qvdListParam(std::string name, std::string label, std::vector<std::string> options, int defaultChoice);
// A switch row: a two-choice list, "Off"/"On" unless other labels are given.
QVDParam qvdSwitchParam(std::string name, std::string label, bool on, std::string offLabel = "Off",
                        std::string onLabel = "On");

// The definitions of a class's rows, index and identifier derived.
std::vector<QVDParameterDefinition> qvdParameterTable(const char* className, const std::vector<QVDParam>& rows);

// Builds the piecewise value table of a taper.
std::vector<float> qvdBuildValueTable(const std::vector<QVDTaperSegment>& segments);

// Step as stored in an entry: exactly 0 becomes 1, below 0.0001 becomes 0.0001.
float qvdNormalizedStep(float step);

// Choice index of a list value: truncate(value + 0.5). Values past the int
// range saturate and NaN gives 0: hosts may send anything, and the plain
// conversion is undefined there.
inline std::int32_t qvdListIndex(float value)
{
    const float x = value + 0.5f;
    if (x >= -2147483648.0f && x < 2147483648.0f)
        return static_cast<std::int32_t>(x);
    return x > 0.0f ? INT32_MAX : x < 0.0f ? INT32_MIN : 0;
}
// A switch is on when its list index is 1.
inline bool qvdSwitchOn(float value)
{
    return qvdListIndex(value) == 1;
}

// Translation hook for labels; returns `text` translated in `context`.
QString qvdTranslate(const char* context, const char* text);

class QVDParameterEntry {
public:
    explicit QVDParameterEntry(const QVDParameterDefinition& definition);
    QVDParameterEntry(const QVDParameterEntry& other);
    QVDParameterEntry& operator=(const QVDParameterEntry&) = delete;

    const QVDParameterDefinition& definition() const { return m_definition; }

    // [any-thread] Current value.
    float value() const { return m_value.load(std::memory_order_acquire); }
    // [control-thread] Exchanges the value in; returns the previous one.
    float exchange(float value) { return m_value.exchange(value, std::memory_order_acq_rel); }

private:
    QVDParameterDefinition m_definition;
    std::atomic<float> m_value;
};

using QVDParameterList = std::vector<QVDParameterEntry>;

// Fills entries from a definition table (step normalised on the way).
QVDParameterList qvdMakeParameterEntries(const std::vector<QVDParameterDefinition>& table);
