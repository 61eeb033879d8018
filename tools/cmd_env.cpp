// `vxtool env`: evaluate and plot the envelopes of a saved file (an IFF "FORM" of "ENVL"
// chunks, or the text form).
#include "vxtool.h"

#include <vxtools3/envelope.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace vxtool {
namespace {

constexpr const char *kHelp =
    "usage: vxtool env eval FILE T...\n"
    "       vxtool env plot FILE -o OUT.svg\n"
    "\n"
    "FILE holds envelopes as saved by EnvSave: an IFF FORM of ENVL chunks, or the text form\n"
    "(Envelope blocks).\n"
    "  eval  prints the value of every envelope at each time T (seconds)\n"
    "  plot  draws every envelope over its key range and one more cycle either side, with its\n"
    "        keys marked, as an SVG picture\n"
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

int Eval(int argc, char **argv)
{
    if (argc < 3)
        return UsageError("eval wants a file and at least one time");
    std::vector<double> times;
    for (int i = 2; i < argc; ++i) {
        double t;
        if (!ParseTime(argv[i], t))
            return UsageError(std::string("not a time in seconds: '") + argv[i] + "'");
        times.push_back(t);
    }
    EnvFile file;
    if (int status = LoadFile(argv[1], file))
        return status;
    for (VxEnvelope *env : file.List()) {
        std::printf("%s\n", EnvName(env));
        for (double t : times)
            std::printf("  %.9g %.17g\n", t, EnvEvaluate(env, t));
    }
    return kOk;
}

std::string Escape(const char *text)
{
    std::string out;
    for (; *text; ++text) {
        switch (*text) {
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '&': out += "&amp;"; break;
        case '"': out += "&quot;"; break;
        default: out += *text;
        }
    }
    return out;
}

constexpr int kWidth = 800, kPanel = 220, kMargin = 30, kSamples = 600;

// One panel: the curve over [first - range, last + range], the key range shaded, the keys
// marked.
void PlotPanel(std::string &svg, VxEnvelope *env, int top)
{
    const double first = EnvGet(env, ENV_ATTR_FIRST_TIME), last = EnvGet(env, ENV_ATTR_LAST_TIME);
    const double range = last > first ? last - first : 1.0;
    const double t0 = first - range, t1 = last + range;
    std::vector<double> values(kSamples + 1);
    for (int i = 0; i <= kSamples; ++i)
        values[i] = EnvEvaluate(env, t0 + (t1 - t0) * i / kSamples);
    double lo = *std::min_element(values.begin(), values.end());
    double hi = *std::max_element(values.begin(), values.end());
    for (VxEnvKey *k = EnvKeyFirst(env); k; k = EnvKeyNext(env, k))
        lo = std::min(lo, EnvKeyValue(k)), hi = std::max(hi, EnvKeyValue(k));
    if (!(hi > lo))
        lo -= 1.0, hi += 1.0;
    const double plotW = kWidth - 2 * kMargin, plotH = kPanel - 2 * kMargin;
    auto x = [&](double t) { return kMargin + (t - t0) / (t1 - t0) * plotW; };
    auto y = [&](double v) { return top + kMargin + (hi - v) / (hi - lo) * plotH; };
    char buf[256];
    std::snprintf(buf, sizeof buf,
                  "<rect x=\"%.2f\" y=\"%d\" width=\"%.2f\" height=\"%.0f\" fill=\"#eef3fb\"/>\n"
                  "<text x=\"%d\" y=\"%d\" font-family=\"sans-serif\" font-size=\"13\">",
                  x(first), top + kMargin, x(last) - x(first), plotH, kMargin, top + 18);
    svg += buf;
    svg += Escape(EnvName(env));
    std::snprintf(buf, sizeof buf, " (%.6g .. %.6g)</text>\n<polyline fill=\"none\" stroke=\"#1f5fbf\" stroke-width=\"1.5\" points=\"",
                  lo, hi);
    svg += buf;
    for (int i = 0; i <= kSamples; ++i) {
        std::snprintf(buf, sizeof buf, "%s%.2f,%.2f", i ? " " : "", x(t0 + (t1 - t0) * i / kSamples), y(values[i]));
        svg += buf;
    }
    svg += "\"/>\n";
    for (VxEnvKey *k = EnvKeyFirst(env); k; k = EnvKeyNext(env, k)) {
        std::snprintf(buf, sizeof buf, "<circle cx=\"%.2f\" cy=\"%.2f\" r=\"3.5\" fill=\"#d0402b\"/>\n",
                      x(EnvKeyTime(k)), y(EnvKeyValue(k)));
        svg += buf;
    }
}

int Plot(int argc, char **argv)
{
    std::string in, out;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "-o") && i + 1 < argc)
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
    const std::vector<VxEnvelope *> envs = file.List();
    std::string svg;
    char head[256];
    std::snprintf(head, sizeof head,
                  "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\">\n"
                  "<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n",
                  kWidth, kPanel * static_cast<int>(envs.size()));
    svg += head;
    for (size_t i = 0; i < envs.size(); ++i)
        PlotPanel(svg, envs[i], kPanel * static_cast<int>(i));
    svg += "</svg>\n";
    FILE *f = std::fopen(out.c_str(), "w");
    const bool written = f && std::fwrite(svg.data(), 1, svg.size(), f) == svg.size();
    if (!f || std::fclose(f) != 0 || !written) {
        std::fprintf(stderr, "vxtool env: %s: cannot write the picture\n", out.c_str());
        return kFailed;
    }
    std::printf("wrote %s (%zu envelope%s)\n", out.c_str(), envs.size(), envs.size() == 1 ? "" : "s");
    return kOk;
}

}  // namespace

int EnvMain(int argc, char **argv)
{
    if (argc < 2)
        return UsageError("wants an operation: eval or plot");
    if (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h")) {
        std::fputs(kHelp, stdout);
        return kOk;
    }
    if (!std::strcmp(argv[1], "eval"))
        return Eval(argc - 1, argv + 1);
    if (!std::strcmp(argv[1], "plot"))
        return Plot(argc - 1, argv + 1);
    return UsageError(std::string("unknown operation '") + argv[1] + "'");
}

}  // namespace vxtool
