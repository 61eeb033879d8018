// vxtool: the subcommands and their shared exit statuses.
#pragma once

#include "vxtool_c.h"

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

// Whether any argument before a lone "--" is --help or -h: every command and subcommand
// answers it with its command's help.
bool WantsHelp(int argc, char **argv);

// When `path` names a directory, says so on standard error ("vxtool <command>: PATH: is a
// directory, not a file", the one message every command gives for it) and returns true.
bool ReportIfDirectory(const char *command, const std::string &path);

int DemoMain(int argc, char **argv);
int ImageMain(int argc, char **argv);  // `vxtool image`
int PluginsMain(int argc, char **argv);  // `vxtool plugins`
int EnvMain(int argc, char **argv);    // `vxtool env`
int IffMain(int argc, char **argv);    // `vxtool iff`
int ConfigMain(int argc, char **argv); // `vxtool config`
int HubMain(int argc, char **argv);    // `vxtool hub`

}  // namespace vxtool
