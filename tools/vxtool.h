// vxtool: subcommands and the demo's sections.
#pragma once

#include <cstdio>
#include <string>

namespace vxtool {

// Exit statuses shared by every subcommand.
enum Exit : int {
    kOk = 0,
    kFailed = 1,      // the work itself failed (a check did not hold, a file could not be written)
    kUsage = 2,       // bad command line
    kBadInput = 3,    // an input file is missing or malformed
};

// Reports a bad command line of `vxtool <command>` on standard error, pointing at its --help;
// returns kUsage.
int ReportUsageError(const char *command, const std::string &message);

int DemoMain(int argc, char **argv);
int ImageMain(int argc, char **argv);  // `vxtool image`
int PluginsMain(int argc, char **argv);  // `vxtool plugins`
int EnvMain(int argc, char **argv);    // `vxtool env`
int IffMain(int argc, char **argv);    // `vxtool iff`
int ConfigMain(int argc, char **argv); // `vxtool config`

// A demo section prints what it shows to `out` and returns true when every check held.
struct DemoSection {
    const char *name;
    bool (*run)(FILE *out);
};

}  // namespace vxtool

// Demo sections written in C, against the C interface as a plug-in would use it. Each returns
// 1 when every check held.
extern "C" {
int vx_demo_core(FILE *out);
int vx_demo_containers(FILE *out);
int vx_demo_ports(FILE *out);
int vx_demo_undo(FILE *out);
int vx_demo_image(FILE *out);
int vx_demo_threads(FILE *out);
int vx_demo_plugins(FILE *out);
int vx_demo_env(FILE *out);
int vx_demo_io(FILE *out);
int vx_demo_config(FILE *out);
// Prints the chunk tree of the IFF data at `data` as `vxtool iff dump` does; 1 when well formed.
int vx_iff_dump(FILE *out, const void *data, size_t size);
}
