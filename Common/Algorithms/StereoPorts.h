#pragma once
// The left and right channels of a block for a stereo effect: a mono input
// feeds both sides, and a mono output has no right channel (null).

#include <QVDAudioPluginImpl.h>

struct StereoPorts {
    explicit StereoPorts(const QVDBlock& block)
        : inL(block.inputs[0]), inR(block.inputCount >= 2 ? block.inputs[1] : block.inputs[0]),
          outL(block.outputs[0]), outR(block.outputCount >= 2 ? block.outputs[1] : nullptr)
    {
    }
    const float* inL;
    const float* inR;
    float* outL;
    float* outR;
};
