// Envelopes drawn as an SVG picture, for `vxtool env plot` and the demo.
#include "vxtool_c.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace {

// `text` as XML character data. Bytes above 0x7F are taken as Latin-1 and written as character
// references, and control bytes as '?', so any name makes a well-formed picture.
std::string Escape(const char *text)
{
    std::string out;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p; ++p) {
        switch (*p) {
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '&': out += "&amp;"; break;
        case '"': out += "&quot;"; break;
        default:
            if (*p >= 0x80)
                out += "&#" + std::to_string(*p) + ";";
            else
                out += *p < 0x20 ? '?' : static_cast<char>(*p);
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
    std::snprintf(buf, sizeof buf,
                  "  (keys %.6g .. %.6g s, shaded; values %.6g .. %.6g)</text>\n"
                  "<polyline fill=\"none\" stroke=\"#1f5fbf\" stroke-width=\"1.5\" points=\"",
                  first, last, lo, hi);
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

}  // namespace

extern "C" int vx_env_plot(const char *path, VxEnvelope *const *envs, int count)
{
    std::string svg;
    char head[256];
    std::snprintf(head, sizeof head,
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                  "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\">\n"
                  "<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n",
                  kWidth, kPanel * count);
    svg += head;
    for (int i = 0; i < count; ++i)
        PlotPanel(svg, envs[i], kPanel * i);
    svg += "</svg>\n";
    FILE *f = std::fopen(path, "w");
    if (!f)
        return 0;
    const bool written = std::fwrite(svg.data(), 1, svg.size(), f) == svg.size();
    return std::fclose(f) == 0 && written;
}
