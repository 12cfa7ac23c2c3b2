#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
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

TEST(Qvdfx, ListsParamsAndRunsTheDemo)
{
    int status = -1;
    const std::string list = run(std::string(QVDFX_PATH) + " list", &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(list.find("Gain:1364608878"), std::string::npos) << list;

    const std::string params = run(std::string(QVDFX_PATH) + " params Gain --json", &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(params.find("\"identifier\": \"QVDGain::GAIN\""), std::string::npos) << params;

    const auto out = std::filesystem::temp_directory_path() / "qvdfx_demo_test.wav";
    std::filesystem::remove(out);
    const std::string demo = run(std::string(QVDFX_PATH) + " demo " + out.string(), &status);
    EXPECT_EQ(status, 0) << demo;
    EXPECT_NE(demo.find("real-time factor"), std::string::npos) << demo;
    ASSERT_TRUE(std::filesystem::exists(out));
    // 6 s of stereo float at 48 kHz plus a header.
    EXPECT_GT(std::filesystem::file_size(out), 6u * 48000u * 2u * 4u);
    EXPECT_FALSE(std::filesystem::exists(out.string() + ".part"));
    std::filesystem::remove(out);
}

TEST(Qvdfx, ErrorsNameTheProblemAndExitNonZero)
{
    int status = 0;
    std::string text = run(std::string(QVDFX_PATH) + " params NoSuchPlugin", &status);
    EXPECT_EQ(status, 4);
    EXPECT_NE(text.find("unknown plugin 'NoSuchPlugin'"), std::string::npos) << text;
    text = run(std::string(QVDFX_PATH) + " frobnicate", &status);
    EXPECT_EQ(status, 2);
    text = run(std::string(QVDFX_PATH) + " --library /nonexistent/lib.so list", &status);
    EXPECT_EQ(status, 3);
    EXPECT_NE(text.find("/nonexistent/lib.so"), std::string::npos) << text;
    text = run(std::string(QVDFX_PATH) + " demo /nonexistent-dir/out.wav", &status);
    EXPECT_EQ(status, 5) << text;
}

} // namespace
