#pragma once
#include <QString>

// Receives value changes of editor controls, keyed by parameter identifier.
class QVDControlValueHost {
public:
    // [control-thread] A control bound to `identifier` moved to `value`.
    virtual void controlValueChanged(const QString& identifier, float value) = 0;
    // [control-thread] Current value of the parameter a control is bound to.
    virtual float controlValue(const QString& identifier) const = 0;

protected:
    ~QVDControlValueHost() = default;
};
