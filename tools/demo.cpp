// `vxtool demo [--out DIR]`: runs each subsystem's demo section on built-in data and leaves the
// files they write (pictures, saved envelopes, an IFF file, a settings file, a plug-in
// database) in one directory.
#include "vxtool.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace vxtool {
namespace {

struct DemoSection {
    const char *name;
    int (*run)(FILE *out, const char *dir);
};

constexpr DemoSection kSections[] = {
    {"checkpoints, ordered arrays and the global list", vx_demo_core},
    {"B-trees, block zones, lookup maps and action tables", vx_demo_containers},
    {"ports: an owner and its clients", vx_demo_ports},
    {"undo: a document edited, undone and redone", vx_demo_undo},
    {"images: blur, resample and mipmap a generated picture", vx_demo_image},
    {"thread groups: a parallel prime count, progress signals, abort and kill", vx_demo_threads},
    {"plug-in host: scan the example modules, list them, activate on demand", vx_demo_plugins},
    {"envelopes: every curve shape and behaviour, saved, reloaded and plotted", vx_demo_env},
    {"streams, IFF files and save states", vx_demo_io},
    {"configuration: write a settings file and read it back", vx_demo_config},
};

constexpr const char *kHelp =
    "usage: vxtool demo [--out DIR]\n"
    "\n"
    "Runs every subsystem of the library on built-in sample data, prints what each shows and\n"
    "checks it. The files it makes (SVG and PNG pictures, saved envelopes, an IFF file, a\n"
    "settings file, a plug-in database) go into DIR, which is made if missing; without --out\n"
    "into a new directory under $TMPDIR (or /tmp). The last lines list them.\n"
    "Exit status: 0 every check held, 1 a check failed, 2 bad command line, 3 DIR cannot be\n"
    "made.\n";

// Makes the output directory: `out` (and its parents), or a fresh temporary one.
bool MakeOutputDirectory(std::string &out)
{
    if (out.empty()) {
        const char *tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/vxtool-demo-XXXXXX";
        if (!mkdtemp(pattern.data())) {
            std::fprintf(stderr, "vxtool demo: %s: cannot make a temporary directory: %s\n", pattern.c_str(),
                         std::strerror(errno));
            return false;
        }
        out = pattern;
        return true;
    }
    std::error_code error;
    std::filesystem::create_directories(out, error);
    if (error || !std::filesystem::is_directory(out)) {
        std::fprintf(stderr, "vxtool demo: %s: cannot make the directory%s%s\n", out.c_str(), error ? ": " : "",
                     error ? error.message().c_str() : "");
        return false;
    }
    return true;
}

void ListFiles(const std::string &dir)
{
    std::vector<std::string> files;
    std::error_code error;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(dir, error))
        if (entry.is_regular_file())
            files.push_back(std::filesystem::relative(entry.path(), dir).string());
    std::sort(files.begin(), files.end());
    std::printf("demo files are in %s:\n", dir.c_str());
    for (const std::string &file : files)
        std::printf("  %s\n", file.c_str());
}

}  // namespace

int DemoMain(int argc, char **argv)
{
    std::string dir;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) {
            std::fputs(kHelp, stdout);
            return kOk;
        }
        if (!std::strcmp(argv[i], "--out") && i + 1 < argc && argv[i + 1][0])
            dir = argv[++i];
        else if (!std::strcmp(argv[i], "--out"))
            return ReportUsageError("demo", "--out wants a directory");
        else
            return ReportUsageError("demo", std::string("unknown option '") + argv[i] + "'");
    }
    if (!MakeOutputDirectory(dir))
        return kBadInput;
    int failed = 0;
    for (const DemoSection &section : kSections) {
        std::printf("== %s\n", section.name);
        if (!section.run(stdout, dir.c_str())) {
            std::printf("FAILED: %s\n", section.name);
            ++failed;
        }
        std::printf("\n");
        std::fflush(stdout);
    }
    ListFiles(dir);
    if (failed) {
        std::printf("demo: %d section(s) FAILED\n", failed);
        return kFailed;
    }
    std::printf("demo finished: all sections ran\n");
    return kOk;
}

}  // namespace vxtool
