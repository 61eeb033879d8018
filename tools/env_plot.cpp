// Envelopes drawn as an SVG picture, for `vxtool env plot` and the demo.
#include "json.h"
#include "vxtool_c.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

namespace {

// `text` as XML character data: well-formed UTF-8 passes through, other bytes from 0x80 up are
// taken as Latin-1 and written as character references (as vxtool's JSON does), and control
// bytes as '?', so any name makes a well-formed picture.
std::string Escape(const char *text)
{
    std::string out;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p;) {
        const int length = vxtool::Utf8SequenceLength(p);
        switch (*p) {
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '&': out += "&amp;"; break;
        case '"': out += "&quot;"; break;
        default:
            if (length > 1) {
                out.append(reinterpret_cast<const char *>(p), static_cast<size_t>(length));
                p += length;
                continue;
            }
            if (length == 0)
                out += "&#" + std::to_string(*p) + ";";
            else
                out += *p < 0x20 ? '?' : static_cast<char>(*p);
        }
        ++p;
    }
    return out;
}

constexpr int kWidth = 800, kPanel = 260, kSamples = 600;
constexpr int kLeft = 70, kRight = 20, kTop = 30, kBottom = 44;  // room for the axes' labels

// Tick values over [lo, hi]: the multiples of a step of 1, 2 or 5 times a power of ten that
// gives at most about `count` of them.
std::vector<double> Ticks(double lo, double hi, int count)
{
    const double rough = (hi - lo) / count;
    const double power = std::pow(10.0, std::floor(std::log10(rough)));
    double step = 10 * power;
    for (double m : {1.0, 2.0, 5.0})
        if (m * power >= rough) {
            step = m * power;
            break;
        }
    std::vector<double> ticks;
    for (double k = std::ceil(lo / step); k <= std::floor(hi / step); ++k)
        ticks.push_back(k * step == 0 ? 0.0 : k * step);  // no "-0"
    return ticks;
}

std::string Format(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char *format, ...)
{
    char buf[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buf, sizeof buf, format, args);
    va_end(args);
    return buf;
}

// One panel: the curve over [first - range, last + range] with the key range shaded and the
// keys marked; a value axis and a time axis (seconds) with tick labels, and each key's time
// marked on the time axis.
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
    const double left = kLeft, right = kWidth - kRight, plotTop = top + kTop, bottom = top + kPanel - kBottom;
    auto x = [&](double t) { return left + (t - t0) / (t1 - t0) * (right - left); };
    auto y = [&](double v) { return bottom - (v - lo) / (hi - lo) * (bottom - plotTop); };
    svg += Format("<rect x=\"%.2f\" y=\"%.0f\" width=\"%.2f\" height=\"%.0f\" fill=\"#eef3fb\"/>\n", x(first), plotTop,
                  x(last) - x(first), bottom - plotTop);
    svg += Format("<text x=\"%d\" y=\"%d\" font-family=\"sans-serif\" font-size=\"13\">", kLeft, top + 18);
    svg += Escape(EnvName(env));
    svg += Format("  (keys %.6g .. %.6g s, shaded)</text>\n", first, last);
    svg += "<g font-family=\"sans-serif\" font-size=\"11\" fill=\"#333\">\n";
    for (double v : Ticks(lo, hi, 5))
        svg += Format("<line x1=\"%.0f\" y1=\"%.2f\" x2=\"%.0f\" y2=\"%.2f\" stroke=\"#dddddd\"/>"
                      "<text class=\"value-tick\" x=\"%.0f\" y=\"%.2f\" text-anchor=\"end\">%g</text>\n",
                      left - 4, y(v), right, y(v), left - 7, y(v) + 4, v);
    for (double t : Ticks(t0, t1, 10))
        svg += Format("<line x1=\"%.2f\" y1=\"%.0f\" x2=\"%.2f\" y2=\"%.0f\" stroke=\"#333\"/>"
                      "<text class=\"time-tick\" x=\"%.2f\" y=\"%.0f\" text-anchor=\"middle\">%g</text>\n",
                      x(t), bottom, x(t), bottom + 4, x(t), bottom + 24, t);
    svg += Format("<text x=\"%.0f\" y=\"%.0f\" text-anchor=\"end\">time (s)</text>\n</g>\n", right, bottom + 38);
    svg += Format("<polyline fill=\"none\" stroke=\"#333\" points=\"%.0f,%.0f %.0f,%.0f %.0f,%.0f\"/>\n", left, plotTop,
                  left, bottom, right, bottom);
    svg += "<polyline fill=\"none\" stroke=\"#1f5fbf\" stroke-width=\"1.5\" points=\"";
    for (int i = 0; i <= kSamples; ++i)
        svg += Format("%s%.2f,%.2f", i ? " " : "", x(t0 + (t1 - t0) * i / kSamples), y(values[i]));
    svg += "\"/>\n";
    for (VxEnvKey *k = EnvKeyFirst(env); k; k = EnvKeyNext(env, k)) {
        const double kx = x(EnvKeyTime(k));
        svg += Format("<circle cx=\"%.2f\" cy=\"%.2f\" r=\"3.5\" fill=\"#d0402b\"/>\n", kx, y(EnvKeyValue(k)));
        svg += Format("<path class=\"key-time\" d=\"M%.2f %.0fl-4 9h8z\" fill=\"#d0402b\"><title>key at %g s</title></path>\n",
                      kx, bottom, EnvKeyTime(k));
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
