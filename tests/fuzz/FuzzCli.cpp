// libFuzzer target for qvdfx: the first byte chooses between a command line
// (the rest split at NUL bytes into words) and an audio file (the rest is
// the file, run through a Gain). All files stay in a private folder.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Qvdfx.h"

namespace {

std::string library()
{
    const char* path = std::getenv("QVD_FUZZ_LIBRARY");
    return path ? path : QVD_FUZZ_LIBRARY_PATH;
}

void enterSandbox()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    char pattern[] = "/tmp/qvdfx-fuzz-XXXXXX";
    if (!mkdtemp(pattern))
        std::abort();
    if (chdir(pattern) != 0)
        std::abort();
    // Commands print; the fuzzer's own output matters more.
    if (!std::freopen("/dev/null", "w", stdout))
        std::abort();
    std::ofstream("a.wav", std::ios::binary) << std::string(44, '\0');
}

bool allowed(const std::string& word)
{
    // No paths outside the sandbox, nothing that writes without bound, and
    // no "-", which would wait on the fuzzer's standard input.
    if (word.find('/') != std::string::npos || word.rfind("..", 0) == 0)
        return false;
    for (const char* banned : {"gen", "demo", "bench", "--tail", "--library", "--seconds", "-"})
        if (word == banned)
            return false;
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    enterSandbox();
    if (size < 1)
        return 0;
    const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] & 1) {
        std::vector<std::string> words = {"--library", library()};
        std::string word;
        for (const char c : rest + '\0') {
            if (c == '\0') {
                if (!allowed(word))
                    return 0;
                words.push_back(word);
                word.clear();
            } else {
                word += c;
            }
        }
        if (words.size() > 40)
            return 0;
        qvdfx::runCommandLine(words);
    } else {
        std::ofstream("in.wav", std::ios::binary | std::ios::trunc) << rest;
        qvdfx::runCommandLine({"--library", library(), "process", "in.wav", "out.wav", "-p", "Gain", "--quiet",
                               "--block", "257", "--meters", "m.json"});
    }
    std::error_code ec;
    std::filesystem::remove("out.wav", ec);
    return 0;
}
