#pragma once
#include <string>
#include <vector>

namespace qvdfx {
// Runs one qvdfx command line (the words after the program name) and returns
// its exit code. Errors are printed to stderr, never thrown.
int runCommandLine(std::vector<std::string> words);
} // namespace qvdfx
