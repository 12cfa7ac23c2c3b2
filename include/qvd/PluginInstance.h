#pragma once
// The host's handle on one plugin instance, as returned by
// PluginInterface::createPlugin. The host owns it and ends it with destroy().

#include <cstdint>

#include "AudioPlugin.h"
#include "PluginTypes.h"

namespace qvd {

class ControlPlugin; // control plugins answer getControlInterface; opaque here

class PluginInstance {
public:
    // [any-thread] The audio interface of this instance; null for control plugins.
    virtual AudioPlugin* getAudioInterface() = 0;
    // [any-thread] The control interface; null for audio plugins.
    virtual ControlPlugin* getControlInterface() = 0;
    // [not while processing] Deletes the instance. The pointer is dead afterwards.
    virtual void destroy() = 0;

    // [any-thread] Whether the plugin builds an editor panel.
    virtual bool hasEditor() const = 0;
    // [any-thread] Whether the plugin makes sound without input (no input channels).
    virtual bool isGenerator() const = 0;
    // [any-thread] A number unique to this instance within the process.
    virtual std::uint64_t instanceId() const = 0;

    // Parameters by index. An index outside 0 .. parameterCount()-1 is refused:
    // setters return false and getters 0.0, with no change.
    // [control-thread] Sets the value; the setter does not clamp.
    virtual bool setParameter(std::int32_t index, float value) = 0;
    // [any-thread] Current value.
    virtual float getParameter(std::int32_t index) const = 0;
    // [any-thread] Same as AudioPlugin::latency().
    virtual std::uint64_t getLatency() const = 0;
    // [any-thread] Copies up to `capacity` levels of meter group `group` in dB
    // (-100 for silence, 0 at or above full scale) into `values` and returns the
    // group's size; 0 for an unknown group. `values` may be null to ask the size.
    virtual std::int32_t getMeterValues(std::int32_t group, double* values,
                                        std::int32_t capacity) const = 0;
    // [control-thread] setParameter with a 64-bit value, narrowed to float.
    virtual bool setParameterValue(std::int32_t index, double value) = 0;

    // [any-thread] Number of parameters.
    virtual std::int32_t parameterCount() const = 0;
    // [any-thread] Fills `info` with the definition at `index`; false when
    // out of range or `info` is null.
    virtual bool parameterInfo(std::int32_t index, ParameterInfo* info) const = 0;
    // [any-thread] Number of meter groups and the name of one ("Input"); null when unknown.
    virtual std::int32_t meterGroupCount() const = 0;
    virtual const char* meterGroupName(std::int32_t group) const = 0;
    // [any-thread] The key the instance was created with ("Gain:1364608878").
    virtual const char* pluginKey() const = 0;
    // [control-thread] Builds the editor panel as a QWidget child of `parentWidget`
    // (a QWidget*, may be null) and returns it as void*; null when the plugin has
    // none. Needs a QApplication in the host process. The caller owns the widget
    // and must delete it before destroying the instance.
    virtual void* createEditor(void* parentWidget) = 0;
    // [control-thread] The magnitude response of the current settings in dB
    // at `count` frequencies in hertz, for plugins that shape the spectrum
    // (an equaliser draws its curve from it). Returns the number of values
    // written: `count`, or 0 when the plugin has no such response or is not
    // prepared, or a pointer is null.
    virtual std::int32_t responseCurve(const double* frequencies, double* decibels, std::int32_t count) const = 0;

    // Appended operations (hosts built against the operations above keep
    // working; only the library implements this interface).

    // [any-thread] Named measurements beyond the meters: scalars (integrated
    // loudness, correlation, gain reduction) and arrays (spectrum bins, band
    // levels, point clouds). Indices are fixed for the instance's life.
    virtual std::int32_t readoutCount() const = 0;
    // [any-thread] Fills `info` for readout `index`; false when out of range
    // or `info` is null.
    virtual bool readoutInfo(std::int32_t index, ReadoutInfo* info) const = 0;
    // [any-thread] Copies up to `capacity` values of readout `index`, all from
    // the same moment (never half of one update), and returns its size; 0 for
    // an unknown index. `values` may be null to ask the size. Never blocks the
    // audio thread, which publishes without locks.
    virtual std::int32_t readReadout(std::int32_t index, double* values, std::int32_t capacity) const = 0;
    // [control-thread] The value as a user reads it ("-6.0 dB", "Bell"), for
    // a parameter at `index`; writes at most `capacity` bytes including the
    // terminating zero and returns the text's full length, 0 when out of range.
    virtual std::int32_t parameterText(std::int32_t index, float value, char* text, std::int32_t capacity) const = 0;

protected:
    ~PluginInstance() = default;
};

// Null-safe access: a null instance gives a null audio interface.
inline AudioPlugin* audioInterfaceOf(PluginInstance* instance)
{
    return instance ? instance->getAudioInterface() : nullptr;
}

} // namespace qvd
