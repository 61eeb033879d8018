// `vxtool plugins`: scan module files into the plug-in database, list the catalogue, activate
// a server.
#include "json.h"
#include "vxtool.h"

#include <vxtools3/debug.h>
#include <vxtools3/host.h>

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace vxtool {
namespace {

constexpr const char *kHelp =
    "usage: vxtool plugins scan DIR|FILE... [--db PATH] [--time-limit MS] [--verbose]\n"
    "       vxtool plugins list [--class CLASS] [--json] [--db PATH]\n"
    "       vxtool plugins activate CLASS NAME [--version N] [--db PATH] [--verbose]\n"
    "\n"
    "  scan      checks each module file (each \"*.so\" or \"*.p\" of a DIR) in the module scanner,\n"
    "            a process of its own with a time limit (default 10000 ms), and records its\n"
    "            servers in the plug-in database; prints one line per file (registered, refused,\n"
    "            crashed, timed out, exited, skipped as failed before) and a summary. Failed files\n"
    "            are remembered and skipped until they change. The database is always written\n"
    "  list      prints the module servers of the database (class, name, user name, module),\n"
    "            then the module files that failed and why\n"
    "  activate  activates one server (its module is loaded on demand) with zeroed local data\n"
    "\n"
    "--db names the database directory (file VXEXT3.CFG inside it) or the database file itself;\n"
    "the default is the current directory. --verbose shows the host's diagnostics on stderr.\n"
    "Exit status: 0 done (a scan that completed, even when modules failed), 1 the activation or\n"
    "the database write failed, 2 bad command line, 3 a path or the database is missing or\n"
    "unreadable.\n";

struct Options {
    std::vector<std::string> words;
    std::string db = ".";
    std::string className;
    int32_t version = -1;
    int32_t timeLimit = 0;
    bool json = false;
    bool verbose = false;
};

int UsageError(const std::string &message) { return ReportUsageError("plugins", message); }

// Fills `o` from the arguments after the subcommand; a non-empty message on a bad line.
std::string Parse(int argc, char **argv, Options &o)
{
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--json") {
            o.json = true;
        } else if (arg == "--verbose") {
            o.verbose = true;
        } else if (arg == "--db" || arg == "--class" || arg == "--version" || arg == "--time-limit") {
            if (!hasValue)
                return arg + " wants a value";
            const std::string value = argv[++i];
            if (arg == "--db") {
                o.db = value;
            } else if (arg == "--class") {
                o.className = value;
            } else {
                char *end = nullptr;
                const long v = std::strtol(value.c_str(), &end, 10);
                const bool limit = arg == "--time-limit";
                if (value.empty() || *end || v < (limit ? 1 : 0) || v > INT32_MAX)
                    return arg + " wants a number from " + (limit ? "1" : "0") + ", not '" + value + "'";
                (limit ? o.timeLimit : o.version) = static_cast<int32_t>(v);
            }
        } else if (arg.size() > 1 && arg[0] == '-') {
            return "unknown option '" + arg + "'";
        } else {
            o.words.push_back(arg);
        }
    }
    return "";
}

// Starts the host over the chosen database; false (after a message) when it cannot start.
bool Start(const Options &o)
{
    if (o.verbose) {
        DBenable(1);
        DBfile(nullptr);
    }
    if (!HostSetDatabase(o.db.c_str()) || !HostStartup()) {
        std::fprintf(stderr, "vxtool plugins: the plug-in host could not start\n");
        return false;
    }
    return true;
}

struct ScanTally {
    int registered, servers, unchanged, failed, skipped, errors;
};

// One line per file on standard output.
void ReportFile(void *data, const char *path, int32_t outcome, int32_t servers, const char *reason)
{
    auto *tally = static_cast<ScanTally *>(data);
    const char *plural = servers == 1 ? "" : "s";
    switch (outcome) {
    case HOST_SCAN_REGISTERED:
        std::printf("%s: registered %d server%s\n", path, servers, plural);
        ++tally->registered, tally->servers += servers;
        return;
    case HOST_SCAN_UNCHANGED:
        std::printf("%s: unchanged, %d server%s kept\n", path, servers, plural);
        ++tally->unchanged, tally->servers += servers;
        return;
    case HOST_SCAN_SKIPPED:
        std::printf("%s: skipped, failed before and unchanged since (%s)\n", path, reason);
        ++tally->skipped;
        return;
    case HOST_SCAN_ERROR:
        std::printf("%s: not scanned: %s\n", path, reason);
        ++tally->errors;
        return;
    default:
        std::printf("%s: %s\n", path, reason);
        ++tally->failed;
    }
}

std::string Plural(int count, const char *word) { return std::to_string(count) + " " + word + (count == 1 ? "" : "s"); }

int Scan(const Options &o)
{
    if (o.words.size() < 2)
        return UsageError("scan wants at least one directory or module file");
    std::vector<std::pair<std::string, bool>> paths;  // absolute path, is a directory
    for (size_t i = 1; i < o.words.size(); ++i) {
        char absolute[PATH_MAX];
        struct stat info;
        if (!realpath(o.words[i].c_str(), absolute) || stat(absolute, &info) != 0) {
            std::fprintf(stderr, "vxtool plugins: %s: no such directory or file\n", o.words[i].c_str());
            return kBadInput;
        }
        paths.emplace_back(absolute, S_ISDIR(info.st_mode));
    }
    if (!Start(o))
        return kFailed;
    HostScanSetTimeLimit(o.timeLimit);
    ScanTally tally{};
    int status = kOk;
    for (const auto &[path, directory] : paths) {
        const char *file = path.c_str();
        if ((directory ? HostScanDirectory(path.c_str(), ReportFile, &tally) : HostScanModules(&file, 1, ReportFile, &tally)) < 0) {
            std::fprintf(stderr, "vxtool plugins: %s: cannot read the directory\n", path.c_str());
            status = kBadInput;
        }
    }
    const std::string database = HostDatabaseFile() ? HostDatabaseFile() : "";
    const int written = HostWriteDatabase();
    HostShutdown();
    if (!written) {
        std::fprintf(stderr, "vxtool plugins: cannot write the database %s\n", database.c_str());
        return kFailed;
    }
    std::printf("scan complete: %s from %s", Plural(tally.servers, "server").c_str(),
                Plural(tally.registered + tally.unchanged, "module").c_str());
    if (tally.failed || tally.skipped || tally.errors)
        std::printf("; %d failed, %d skipped as failed before, %d not scanned (see above)", tally.failed, tally.skipped,
                    tally.errors);
    std::printf("; database %s\n", database.c_str());
    return status;
}

struct ListState {
    const Options *options;
    int printed;
    std::vector<std::array<std::string, 4>> rows;  // the text form, printed in columns at the end
};

// Prints the rows under a header, each column as wide as its widest cell.
void PrintColumns(const std::vector<std::array<std::string, 4>> &rows)
{
    std::array<size_t, 4> width{};
    for (const auto &row : rows)
        for (size_t c = 0; c < row.size(); ++c)
            width[c] = std::max(width[c], row[c].size());
    for (const auto &row : rows)
        std::printf("%-*s  %-*s  %-*s  %s\n", static_cast<int>(width[0]), row[0].c_str(), static_cast<int>(width[1]),
                    row[1].c_str(), static_cast<int>(width[2]), row[2].c_str(), row[3].c_str());
}

void ListServer(void *data, const char *className, int32_t index)
{
    auto *state = static_cast<ListState *>(data);
    const char *module = ServerGetModule(className, index);
    if (!module || (!state->options->className.empty() && state->options->className != className))
        return;
    const char *name = ServerGetName(className, index);
    const char *userName = ServerGetUserName(className, index);
    if (state->options->json) {
        std::printf("%s\n  {\"class\": %s, \"name\": %s, \"userName\": %s, \"module\": %s}",
                    state->printed ? "," : "", JsonString(className).c_str(), JsonString(name).c_str(),
                    JsonString(userName).c_str(), JsonString(module).c_str());
    } else {
        state->rows.push_back({className, name, userName ? userName : "", module});
    }
    ++state->printed;
}

// The module files that failed a scan, and why.
void PrintFailed(const Options &o)
{
    if (!o.className.empty() || HostFailedCount() == 0)
        return;
    std::vector<std::pair<std::string, std::string>> rows{{"FAILED MODULE", "REASON"}};
    size_t width = rows[0].first.size();
    for (int32_t i = 0; i < HostFailedCount(); ++i) {
        const char *reason = nullptr;
        rows.emplace_back(HostFailedModule(i, &reason), reason);
        width = std::max(width, rows.back().first.size());
    }
    std::sort(rows.begin() + 1, rows.end());
    std::printf("\n");
    for (const auto &[module, reason] : rows)
        std::printf("%-*s  %s\n", static_cast<int>(width), module.c_str(), reason.c_str());
}

int List(const Options &o)
{
    if (o.words.size() != 1)
        return UsageError("list takes no other words");
    if (!Start(o))
        return kFailed;
    const char *file = HostDatabaseFile();
    struct stat info;
    if (!file || stat(file, &info) != 0) {
        std::fprintf(stderr, "vxtool plugins: no plug-in database at %s\n", file ? file : o.db.c_str());
        HostShutdown();
        return kBadInput;
    }
    if (!o.className.empty() && !HostNumServers(o.className.c_str())) {
        std::fprintf(stderr, "vxtool plugins: no class '%s'\n", o.className.c_str());
        HostShutdown();
        return kFailed;
    }
    ListState state{&o, 0, {{"CLASS", "SERVER", "USER NAME", "MODULE"}}};
    if (o.json)
        std::printf("[");
    // Every class, declared or not: the classes of module servers often have no version.
    for (int32_t c = 0; c < HostClassCount(); ++c)
        for (int32_t i = 0; i < HostNumServers(HostClassName(c)); ++i)
            ListServer(&state, HostClassName(c), i);
    if (o.json) {
        std::printf("%s]\n", state.printed ? "\n" : "");
    } else {
        PrintColumns(state.rows);
        PrintFailed(o);
    }
    HostShutdown();
    return kOk;
}

int Activate(const Options &o)
{
    if (o.words.size() != 3)
        return UsageError("activate wants a class and a server name");
    if (!Start(o))
        return kFailed;
    const char *cls = o.words[1].c_str();
    const char *name = o.words[2].c_str();
    int32_t local[64] = {};
    const int32_t result = HostActivateVer(cls, name, local, o.version);
    int status = kOk;
    if (result == -1) {
        std::fprintf(stderr, "vxtool plugins: no server %s:%s\n", cls, name);
        status = kFailed;
    } else if (result == -2) {
        std::fprintf(stderr, "vxtool plugins: %s:%s has no activation function (its module did not load)\n", cls,
                     name);
        status = kFailed;
    } else if (result != 0) {
        // The command line can only hand zeroed local data: most servers want a structure of
        // their class from an application, or a version.
        const bool noVersion = o.version < 0 && HostClassVersion(cls) < 0;
        std::fprintf(stderr,
                     "vxtool plugins: %s:%s refused the activation (result %d): it needs local data of its class "
                     "that only an application can give%s\n",
                     cls, name, static_cast<int>(result),
                     noVersion ? ", or a version (its class has none: try --version N)" : "");
        status = kFailed;
    } else {
        std::printf("activated %s:%s: result 0, first local word %d\n", cls, name, static_cast<int>(local[0]));
    }
    HostFlush();
    HostShutdown();
    return status;
}

}  // namespace

int PluginsMain(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) {
            std::printf("%s", kHelp);
            return kOk;
        }
    }
    Options o;
    const std::string error = Parse(argc - 1, argv + 1, o);
    if (!error.empty())
        return UsageError(error);
    if (o.words.empty())
        return UsageError("wants a subcommand: scan, list or activate");
    const std::string &command = o.words[0];
    if (command == "scan")
        return Scan(o);
    if (command == "list")
        return List(o);
    if (command == "activate")
        return Activate(o);
    return UsageError("unknown subcommand '" + command + "'");
}

}  // namespace vxtool
