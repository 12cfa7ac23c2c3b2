#include "Options.h"

#include <charconv>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace qvdfx {

void fail(ExitCode code, const std::string& message)
{
    throw Failure{code, message};
}

std::optional<double> parseNumber(const std::string& text)
{
    if (text.empty())
        return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (end != text.c_str() + text.size() || errno == ERANGE || !std::isfinite(v))
        return std::nullopt;
    return v;
}

std::int64_t parseInteger(const std::string& text, std::int64_t low, std::int64_t high, const std::string& what)
{
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || end != text.c_str() + text.size() || errno == ERANGE)
        fail(kExitUsage, what + " must be a whole number, not '" + text + "'");
    if (v < low || v > high)
        fail(kExitUsage, what + " must be " + std::to_string(low) + " to " + std::to_string(high) + ", not " + text);
    return v;
}

double parseReal(const std::string& text, double low, double high, const std::string& what)
{
    const auto v = parseNumber(text);
    if (!v)
        fail(kExitUsage, what + " must be a number, not '" + text + "'");
    if (*v < low || *v > high) {
        char range[96];
        std::snprintf(range, sizeof range, " must be %g to %g, not ", low, high);
        fail(kExitUsage, what + range + text);
    }
    return *v;
}

Arguments::Arguments(std::string command, std::vector<std::string> words)
    : m_command(std::move(command)), m_words(std::move(words))
{
}

std::string Arguments::value(const std::string& name)
{
    if (done())
        fail(kExitUsage, m_command + ": " + name + " needs a value");
    return take();
}

void Arguments::unexpected(const std::string& word) const
{
    fail(kExitUsage, m_command + ": unexpected argument '" + word + "' (see 'qvdfx --help')");
}

std::string floatText(float value)
{
    char buffer[32];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    return std::string(buffer, end);
}

std::string jsonEscape(const std::string& text)
{
    std::string out;
    for (const char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char buffer[8];
                std::snprintf(buffer, sizeof buffer, "\\u%04x", static_cast<unsigned>(c));
                out += buffer;
            } else {
                out += c;
            }
        }
    }
    return out;
}

std::string jsonNumber(double value)
{
    if (!std::isfinite(value))
        return "null";
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.17g", value);
    return buffer;
}

} // namespace qvdfx
