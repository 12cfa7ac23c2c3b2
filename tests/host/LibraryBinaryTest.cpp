#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>

namespace {

std::string run(const std::string& command, int* status = nullptr)
{
    std::string output;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe)
        return output;
    char buffer[4096];
    while (std::fgets(buffer, sizeof buffer, pipe))
        output += buffer;
    const int rc = pclose(pipe);
    if (status)
        *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return output;
}

TEST(LibraryBinary, ExportsOnlyTheEntry)
{
    const std::string symbols = run(std::string("nm -D --defined-only ") + QVD_LIBRARY_PATH);
    std::istringstream lines(symbols);
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        EXPECT_NE(line.find(" T GetQVDPluginInterface"), std::string::npos) << line;
    }
    EXPECT_EQ(count, 1) << symbols;
}

} // namespace
