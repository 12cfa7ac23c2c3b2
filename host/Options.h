#pragma once
// Small strict parsers for command-line values: a value is the whole word or
// an error naming it.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qvdfx {

enum ExitCode : int {
    kExitOk = 0,
    kExitUsage = 2,   // bad command line: unknown option, missing or malformed value
    kExitLoad = 3,    // the plugin library cannot be loaded or is incompatible
    kExitPlugin = 4,  // unknown or ambiguous plugin or parameter, value out of range
    kExitFile = 5,    // input unreadable, output unwritable
    kExitProcess = 6, // a plugin refused the configuration or failed while processing
};

// Thrown by the commands; main prints "qvdfx: <message>" and exits with `code`.
struct Failure {
    ExitCode code;
    std::string message;
};

[[noreturn]] void fail(ExitCode code, const std::string& message);

// A finite number, all of `text`; std::nullopt otherwise.
std::optional<double> parseNumber(const std::string& text);
// A whole number within [low, high], or a usage failure naming `what`.
std::int64_t parseInteger(const std::string& text, std::int64_t low, std::int64_t high, const std::string& what);
// A finite number within [low, high], or a usage failure naming `what`.
double parseReal(const std::string& text, double low, double high, const std::string& what);

// Walks the words of one command: options with values, flags, positionals.
class Arguments {
public:
    Arguments(std::string command, std::vector<std::string> words);
    bool done() const { return m_next >= m_words.size(); }
    const std::string& peek() const { return m_words[m_next]; }
    std::string take() { return m_words[m_next++]; }
    // The value after option `name`; a usage failure when there is none.
    std::string value(const std::string& name);
    [[noreturn]] void unexpected(const std::string& word) const;

private:
    std::string m_command;
    std::vector<std::string> m_words;
    std::size_t m_next = 0;
};

// The shortest decimal that reads back as exactly `value`, so a range end
// typed as printed is inside the range.
std::string floatText(float value);

std::string jsonEscape(const std::string& text);
// %.17g of a double, or null when it is not finite (JSON has no NaN).
std::string jsonNumber(double value);

} // namespace qvdfx
