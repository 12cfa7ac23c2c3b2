#pragma once
// Which kernel variants the factories pick right now, for a host's version or
// info output.

#include <string>
#include <vector>

namespace twa::numeric {

struct KernelChoice {
    std::string family; // with the arguments it was asked for, e.g. "FindMinMax(2 channels)"
    std::string variant;
};

// [control-thread] Asks every factory's table under the current instruction-set
// answers (probe or override); builds nothing. Registered families follow.
std::vector<KernelChoice> ChosenKernels();

// [static init] A family outside this library (a plugin's kernels) reports
// the variant it would choose now.
bool RegisterKernelFamily(const char* family, const char* (*chosen)());

} // namespace twa::numeric
