#pragma once
// Running the built command-line tools from end-to-end tests, each test in a
// folder of its own.

#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

namespace qvd::test {

struct CommandResult {
    int status = -1;    // the exit status; -1 when it did not exit normally
    std::string output; // what the command line printed on stdout
};

// Runs a shell command line; redirect stderr in it to see that too.
inline CommandResult runCommand(const std::string& commandLine)
{
    CommandResult r;
    FILE* pipe = popen(commandLine.c_str(), "r");
    if (!pipe)
        return r;
    char buffer[4096];
    while (std::fgets(buffer, sizeof buffer, pipe))
        r.output += buffer;
    const int rc = pclose(pipe);
    r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return r;
}

// A folder under the temporary directory named after the running test:
// empty at the start, removed at the end.
class TestFolder {
public:
    explicit TestFolder(const std::string& prefix)
        : m_dir(std::filesystem::temp_directory_path() /
                (prefix + testing::UnitTest::GetInstance()->current_test_info()->name()))
    {
        std::filesystem::remove_all(m_dir);
        std::filesystem::create_directories(m_dir);
    }
    ~TestFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_dir, ignored);
    }
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;

    const std::filesystem::path& dir() const { return m_dir; }
    std::string path(const std::string& name) const { return (m_dir / name).string(); }

private:
    std::filesystem::path m_dir;
};

} // namespace qvd::test
