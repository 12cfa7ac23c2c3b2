// qvd-lv2-ttl: writes the LV2 bundle's Turtle files for every plugin the
// library registers. Run at build time on the freshly built library.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Lv2Catalog.h"
#include "Lv2Library.h"
#include "Lv2Turtle.h"

namespace fs = std::filesystem;

namespace {

const char* const kUsage =
    "usage: qvd-lv2-ttl --library PATH --out DIR --binary NAME [--ui NAME]\n"
    "\n"
    "Loads the plugin library at PATH through its entry and writes manifest.ttl\n"
    "and one .ttl file per plugin into the bundle folder DIR, for the wrapper\n"
    "binary NAME (relative to DIR) and, with --ui, the Qt UI binary. Turtle\n"
    "files in DIR that no plugin needs any more are removed.\n"
    "\n"
    "exit codes: 0 written; 2 bad command line; 3 library not loadable;\n"
    "4 no plugin to write; 5 a file could not be written (nothing replaced).\n";

int usage(const char* problem)
{
    std::fprintf(stderr, "qvd-lv2-ttl: %s\n\n%s", problem, kUsage);
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    std::string library, out;
    qvd::lv2::BundleNames names;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (i + 1 >= argc)
            return usage((a + " needs a value").c_str());
        const std::string value = argv[++i];
        if (a == "--library")
            library = value;
        else if (a == "--out")
            out = value;
        else if (a == "--binary")
            names.binary = value;
        else if (a == "--ui")
            names.uiBinary = value;
        else
            return usage(("unknown option " + a).c_str());
    }
    if (library.empty() || out.empty() || names.binary.empty())
        return usage("--library, --out and --binary are required");

    auto& lib = qvd::lv2::Lv2Library::open(library);
    if (!lib.registry()) {
        std::fprintf(stderr, "qvd-lv2-ttl: %s\n", lib.error().c_str());
        return 3;
    }
    std::vector<std::string> skipped;
    const auto catalog = qvd::lv2::buildCatalog(*lib.registry(), &skipped);
    for (const auto& s : skipped)
        std::fprintf(stderr, "qvd-lv2-ttl: left out %s\n", s.c_str());
    if (catalog.empty()) {
        std::fprintf(stderr, "qvd-lv2-ttl: %s registers no plugin that fits a layout\n", library.c_str());
        return 4;
    }

    // Every file goes to a temporary name first and is renamed only once all
    // are written, so a failure leaves the old bundle as it was.
    const auto files = qvd::lv2::bundleTurtle(catalog, names);
    std::error_code ec;
    fs::create_directories(out, ec);
    std::vector<std::pair<fs::path, fs::path>> staged;
    auto discard = [&] {
        for (const auto& [tmp, final] : staged)
            fs::remove(tmp, ec);
    };
    for (const auto& [name, text] : files) {
        const fs::path final = fs::path(out) / name;
        const fs::path tmp = fs::path(out) / ("." + name + ".tmp");
        staged.emplace_back(tmp, final);
        std::ofstream file(tmp, std::ios::binary | std::ios::trunc);
        file << text;
        file.close();
        if (!file) {
            std::fprintf(stderr, "qvd-lv2-ttl: cannot write %s: %s\n", tmp.c_str(), std::strerror(errno));
            discard();
            return 5;
        }
    }
    for (const auto& [tmp, final] : staged) {
        fs::rename(tmp, final, ec);
        if (ec) {
            std::fprintf(stderr, "qvd-lv2-ttl: cannot rename %s: %s\n", tmp.c_str(), ec.message().c_str());
            discard();
            return 5;
        }
    }
    for (const auto& entry : fs::directory_iterator(out, ec)) {
        const auto name = entry.path().filename().string();
        if (entry.path().extension() == ".ttl" && !files.count(name))
            fs::remove(entry.path(), ec);
    }
    std::printf("qvd-lv2-ttl: %zu plugin URIs from %s in %s\n", catalog.size(), library.c_str(), out.c_str());
    return 0;
}
