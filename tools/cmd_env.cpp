// `vxtool env`: evaluate and plot the envelopes of a saved file (an IFF "FORM" of "ENVL"
// chunks, or the text form).
#include "json.h"
#include "vxtool.h"

#include <vxtools3/envelope.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace vxtool {
namespace {

constexpr const char *kHelp =
    "usage: vxtool env eval FILE T... [--json]\n"
    "       vxtool env plot FILE -o OUT.svg   (or --out OUT.svg)\n"
    "\n"
    "FILE holds envelopes as saved by EnvSave: an IFF FORM of ENVL chunks, or the text form\n"
    "(Envelope blocks).\n"
    "  eval  prints the value of every envelope at each time T (seconds); --json prints\n"
    "        {\"file\": ..., \"envelopes\": [{\"name\": ..., \"values\": [[T, value], ...]}]}\n"
    "        as UTF-8: a name's bytes that are not UTF-8 are read as Latin-1 (\\u0080..\\u00ff)\n"
    "  plot  draws every envelope over its key range and one more cycle either side, with its\n"
    "        keys marked, as an SVG picture: a value axis and a time axis in seconds with\n"
    "        tick labels, and each key's time marked on the time axis\n"
    "\n"
    "Exit status: 0 done, 1 the picture could not be written, 2 bad command line, 3 the file\n"
    "is missing or is not a valid envelope file.\n";

int UsageError(const std::string &message) { return ReportUsageError("env", message); }

int InputError(const std::string &file, const std::string &message)
{
    std::fprintf(stderr, "vxtool env: %s: %s\n", file.c_str(), message.c_str());
    return kBadInput;
}

// The envelopes of a file, destroyed with it.
struct EnvFile {
    VxEnvGroup group;
    EnvFile() { EnvGroupInit(&group); }
    ~EnvFile()
    {
        while (group.envelopes.head->succ)
            EnvDestroy(reinterpret_cast<VxEnvelope *>(group.envelopes.head));
    }
    std::vector<VxEnvelope *> List() const
    {
        std::vector<VxEnvelope *> out;
        for (VxNode *n = group.envelopes.head; n->succ; n = n->succ)
            out.push_back(reinterpret_cast<VxEnvelope *>(n));
        return out;
    }
};

// Loads every envelope of `path` into `file`; returns kOk or prints why not.
int LoadFile(const std::string &path, EnvFile &file)
{
    if (ReportIfDirectory("env", path))
        return kBadInput;
    VxReadStrm *stream = FileStrmReadOpen(path.c_str(), nullptr);
    if (!stream)
        return InputError(path, "cannot open the file");
    uint8_t magic[4] = {};
    const bool binary = stream->peekByte(stream, magic) == 0 && magic[0] == 'F';
    VxIFFReader *reader = binary ? IFFRCreate(stream) : nullptr;
    VxLoadState state;
    if (reader)
        IFFInitLoadState(&state, reader);
    else
        StrmInitLoadState(&state, stream);
    for (;;) {
        VxEnvelope *env = EnvCreate(&file.group, 0, 0, nullptr);
        if (!env || !EnvLoad(env, &state)) {
            EnvDestroy(env);
            break;
        }
    }
    std::string problem;
    if (state.error == VX_ERR_FORMAT && state.message)
        problem = "line " + std::to_string(state.line) + ": " + state.message;
    else if (state.error)
        problem = binary ? "not an IFF file of envelopes, or truncated" : "cannot read the file";
    IFFRDestroy(reader);
    StrmReadDestroy(stream);
    if (!problem.empty())
        return InputError(path, problem);
    if (file.List().empty())
        return InputError(path, "holds no envelopes");
    return kOk;
}

bool ParseTime(const char *text, double &out)
{
    char *end = nullptr;
    out = std::strtod(text, &end);
    return *text && end && *end == '\0' && std::isfinite(out);
}

void PrintValues(const std::vector<VxEnvelope *> &envs, const std::vector<double> &times)
{
    for (VxEnvelope *env : envs) {
        std::printf("%s\n", EnvName(env));
        for (double t : times)
            std::printf("  %.9g %.17g\n", t, EnvEvaluate(env, t));
    }
}

void PrintValuesJson(const char *path, const std::vector<VxEnvelope *> &envs, const std::vector<double> &times)
{
    std::printf("{\"file\": %s, \"envelopes\": [", JsonString(path).c_str());
    for (size_t i = 0; i < envs.size(); ++i) {
        std::printf("%s\n  {\"name\": %s, \"values\": [", i ? "," : "", JsonString(EnvName(envs[i])).c_str());
        for (size_t j = 0; j < times.size(); ++j)
            std::printf("%s[%s, %s]", j ? ", " : "", JsonNumber(times[j]).c_str(),
                        JsonNumber(EnvEvaluate(envs[i], times[j])).c_str());
        std::printf("]}");
    }
    std::printf("\n]}\n");
}

int Eval(int argc, char **argv)
{
    std::vector<double> times;
    const char *path = nullptr;
    bool json = false;
    for (int i = 1; i < argc; ++i) {
        double t;
        if (!std::strcmp(argv[i], "--json"))
            json = true;
        else if (!path)
            path = argv[i];
        else if (ParseTime(argv[i], t))
            times.push_back(t);
        else if (!std::strncmp(argv[i], "--", 2))
            return UsageError(std::string("unknown option '") + argv[i] + "'");
        else
            return UsageError(std::string("not a time in seconds: '") + argv[i] + "'");
    }
    if (!path || times.empty())
        return UsageError("eval wants a file and at least one time");
    EnvFile file;
    if (int status = LoadFile(path, file))
        return status;
    if (json)
        PrintValuesJson(path, file.List(), times);
    else
        PrintValues(file.List(), times);
    return kOk;
}

int Plot(int argc, char **argv)
{
    std::string in, out;
    for (int i = 1; i < argc; ++i) {
        if ((!std::strcmp(argv[i], "-o") || !std::strcmp(argv[i], "--out")) && i + 1 < argc)
            out = argv[++i];
        else if (argv[i][0] == '-' && argv[i][1])
            return UsageError(std::string("unknown option '") + argv[i] + "'");
        else if (in.empty())
            in = argv[i];
        else
            return UsageError(std::string("unexpected argument '") + argv[i] + "'");
    }
    if (in.empty() || out.empty())
        return UsageError("plot wants a file and -o OUT.svg");
    EnvFile file;
    if (int status = LoadFile(in, file))
        return status;
    if (ReportIfDirectory("env", out))
        return kFailed;
    const std::vector<VxEnvelope *> envs = file.List();
    if (!vx_env_plot(out.c_str(), envs.data(), static_cast<int>(envs.size()))) {
        std::fprintf(stderr, "vxtool env: %s: cannot write the picture\n", out.c_str());
        return kFailed;
    }
    std::printf("wrote %s (%zu envelope%s)\n", out.c_str(), envs.size(), envs.size() == 1 ? "" : "s");
    return kOk;
}

}  // namespace

int EnvMain(int argc, char **argv)
{
    if (WantsHelp(argc, argv)) {
        std::fputs(kHelp, stdout);
        return kOk;
    }
    if (argc < 2)
        return UsageError("wants a subcommand: eval or plot");
    if (!std::strcmp(argv[1], "eval"))
        return Eval(argc - 1, argv + 1);
    if (!std::strcmp(argv[1], "plot"))
        return Plot(argc - 1, argv + 1);
    return UsageError(std::string("unknown subcommand '") + argv[1] + "'");
}

}  // namespace vxtool
