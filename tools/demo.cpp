// `vxtool demo`: runs each subsystem's demo section on built-in data.
#include "vxtool.h"

#include <cstring>

namespace vxtool {
namespace {

constexpr DemoSection kSections[] = {
    {"checkpoints, ordered arrays and the global list", [](FILE *out) { return vx_demo_core(out) != 0; }},
    {"B-trees, block zones, lookup maps and action tables", [](FILE *out) { return vx_demo_containers(out) != 0; }},
    {"ports: an owner and its clients", [](FILE *out) { return vx_demo_ports(out) != 0; }},
    {"undo: a document edited, undone and redone", [](FILE *out) { return vx_demo_undo(out) != 0; }},
    {"images: blur, resample and mipmap a generated picture", [](FILE *out) { return vx_demo_image(out) != 0; }},
    {"thread groups: a parallel prime count, progress signals, abort and kill", [](FILE *out) { return vx_demo_threads(out) != 0; }},
    {"plug-in host: scan the example modules, write the database, activate on demand", [](FILE *out) { return vx_demo_plugins(out) != 0; }},
    {"envelopes: every curve shape and behaviour, plotted", [](FILE *out) { return vx_demo_env(out) != 0; }},
    {"streams, IFF files and save states", [](FILE *out) { return vx_demo_io(out) != 0; }},
    {"configuration: write a settings file and read it back", [](FILE *out) { return vx_demo_config(out) != 0; }},
};

}  // namespace

int DemoMain(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) {
            std::printf("usage: vxtool demo\n\nRuns every subsystem of the library on built-in sample data\n"
                        "and prints what it shows.\n");
            return kOk;
        }
        std::fprintf(stderr, "vxtool demo: unknown option '%s'\n", argv[i]);
        return kUsage;
    }
    int failed = 0;
    for (const DemoSection &section : kSections) {
        std::printf("== %s\n", section.name);
        if (!section.run(stdout)) {
            std::printf("FAILED: %s\n", section.name);
            ++failed;
        }
        std::printf("\n");
    }
    if (failed) {
        std::printf("demo: %d section(s) FAILED\n", failed);
        return kFailed;
    }
    std::printf("demo finished: all sections ran\n");
    return kOk;
}

}  // namespace vxtool
