// vxtool: the command-line front end of the library.
#include "vxtool.h"

#include <sys/stat.h>

#include <cstring>

namespace {

struct Command {
    const char *name;
    const char *summary;
    int (*main)(int argc, char **argv);
};

constexpr Command kCommands[] = {
    {"demo", "run every subsystem on built-in sample data", vxtool::DemoMain},
    {"image", "blur, resample, convolve, mipmap or inspect PNG files", vxtool::ImageMain},
    {"plugins", "scan plug-in modules, list the catalogue, activate a server", vxtool::PluginsMain},
    {"env", "evaluate the envelopes of a saved file, or plot them as SVG", vxtool::EnvMain},
    {"iff", "print the chunk tree of an IFF file, extract or show one chunk", vxtool::IffMain},
    {"config", "list, get or set the entries of a configuration file", vxtool::ConfigMain},
    {"hub", "start, stop or inspect the asset hub shared by running applications", vxtool::HubMain},
};

void Usage(FILE *out)
{
    std::fprintf(out, "usage: vxtool <command> [options]\n\ncommands:\n");
    for (const Command &c : kCommands)
        std::fprintf(out, "  %-10s %s\n", c.name, c.summary);
    std::fprintf(out, "\n'vxtool <command> --help' describes a command. Every command exits with 0 when done,\n"
                      "1 when the work failed, 2 on a bad command line and 3 when an input file is\n"
                      "missing or malformed; errors name the file and what is wrong with it.\n");
}

}  // namespace

int vxtool::ReportUsageError(const char *command, const std::string &message)
{
    std::fprintf(stderr, "vxtool %s: %s\n(see 'vxtool %s --help')\n", command, message.c_str(), command);
    return kUsage;
}

bool vxtool::WantsHelp(int argc, char **argv)
{
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i)
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h"))
            return true;
    return false;
}

bool vxtool::ReportIfDirectory(const char *command, const std::string &path)
{
    struct stat info;
    if (stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
        return false;
    std::fprintf(stderr, "vxtool %s: %s: is a directory, not a file\n", command, path.c_str());
    return true;
}

int main(int argc, char **argv)
{
    if (argc < 2) {
        Usage(stderr);
        return vxtool::kUsage;
    }
    if (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "help")) {
        Usage(stdout);
        return vxtool::kOk;
    }
    for (const Command &c : kCommands)
        if (!std::strcmp(argv[1], c.name))
            return c.main(argc - 1, argv + 1);
    std::fprintf(stderr, "vxtool: unknown command '%s'\n", argv[1]);
    Usage(stderr);
    return vxtool::kUsage;
}
