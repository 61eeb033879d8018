// `vxtool demo [--out DIR]`: runs the sample programs of examples/ as its sections, each
// subsystem's in turn, and leaves the files they write (pictures, saved envelopes, an IFF
// file, a settings file, a plug-in database) in one directory. A few steps of vxtool's own
// follow the samples: the pictures become PNG files, the envelopes a plot, the IFF file a dump,
// the plug-in database a listing.
#include "image_io.h"
#include "vxtool.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

extern "C" {
#define VX_SAMPLE(name) int name##_sample(FILE *out, const char *dir);
VX_SAMPLE(shot) VX_SAMPLE(ordered) VX_SAMPLE(global_list) VX_SAMPLE(word_count) VX_SAMPLE(btree_zone_actions)
VX_SAMPLE(port_clients) VX_SAMPLE(undo_edits) VX_SAMPLE(image_blur) VX_SAMPLE(image_mipmap) VX_SAMPLE(thread_sum)
VX_SAMPLE(thread_control) VX_SAMPLE(plugin_port) VX_SAMPLE(plugin_scan) VX_SAMPLE(envelope_bounce)
VX_SAMPLE(envelope_shapes) VX_SAMPLE(iff_roundtrip) VX_SAMPLE(save_state) VX_SAMPLE(config_file) VX_SAMPLE(hub_share)
#undef VX_SAMPLE
}

namespace vxtool {
namespace {

// Reads a Netpbm picture as the image samples write it (8-bit RGB or RGB_ALPHA); NULL if it is not one.
VxImage *ReadPam(const char *path)
{
    FILE *file = std::fopen(path, "rb");
    int width = 0, height = 0, depth = 0;
    const bool header = file &&
        std::fscanf(file, "P7 WIDTH %d HEIGHT %d DEPTH %d MAXVAL 255 TUPLTYPE %*s ENDHDR", &width, &height, &depth) == 3 &&
        std::fgetc(file) == '\n' && width > 0 && height > 0 && (depth == 3 || depth == 4);
    const int32_t type = depth == 4 ? VX_PIXEL_RGBA : VX_PIXEL_RGB;
    VxImage *image = header ? ImageCreate(type, width, height) : nullptr;
    std::vector<uint8_t> row(header ? static_cast<size_t>(width) * depth : 0);
    for (int32_t y = 0; image && y < height; ++y)
        if (std::fread(row.data(), 1, row.size(), file) != row.size() || !image->setLine(image, type, y, row.data())) {
            ImageDestroy(image);
            image = nullptr;
        }
    if (file)
        std::fclose(file);
    return image;
}

// Turns every .pam picture the image samples left in `dir` into a PNG file of the same name.
int WritePictures(FILE *out, const char *dir)
{
    std::vector<std::filesystem::path> pictures;
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(dir, error))
        if (entry.path().extension() == ".pam")
            pictures.push_back(entry.path());
    std::sort(pictures.begin(), pictures.end());
    int ok = !pictures.empty();
    std::fprintf(out, "as PNG files:");
    const ImageModules modules;
    if (!modules.Problem().empty()) {
        std::fprintf(out, "\n%s\n", modules.Problem().c_str());
        return 0;
    }
    for (const std::filesystem::path &pam : pictures) {
        VxImage *image = ReadPam(pam.c_str());
        std::string problem;
        const std::filesystem::path png = std::filesystem::path(pam).replace_extension(".png");
        const bool written = image && WriteImage(png.string(), image, "", 0, problem) && std::filesystem::remove(pam, error);
        std::fprintf(out, written ? " %s" : "\n%s: cannot convert\n", written ? png.filename().c_str() : pam.c_str());
        ok &= written;
        ImageDestroy(image);
    }
    std::fprintf(out, "\n");
    return ok;
}

// Runs `vxtool ARGS...` in this process; 1 when it succeeded.
int RunVxtool(int (*command)(int argc, char **argv), std::vector<std::string> args)
{
    std::vector<char *> argv;
    for (std::string &arg : args)
        argv.push_back(arg.data());
    std::fflush(stdout);
    return command(static_cast<int>(argv.size()), argv.data()) == kOk;
}

int ListPlugins(FILE *, const char *dir) { return RunVxtool(PluginsMain, {"plugins", "list", "--db", dir}); }
int DumpScene(FILE *, const char *dir) { return RunVxtool(IffMain, {"iff", "dump", "--sub-chunks", std::string(dir) + "/scene.iff"}); }
int PlotEnvelopes(FILE *, const char *dir)
{
    return RunVxtool(EnvMain, {"env", "plot", std::string(dir) + "/envelopes.txt", "-o", std::string(dir) + "/envelopes.svg"});
}

using Step = int (*)(FILE *out, const char *dir);

struct DemoSection {
    const char *name;
    Step steps[3]; // run in order; unused places stay null
};

constexpr DemoSection kSections[] = {
    {"checkpoints, ordered arrays and the global list", {shot_sample, ordered_sample, global_list_sample}},
    {"B-trees, block zones, lookup maps and action tables", {word_count_sample, btree_zone_actions_sample}},
    {"ports: an owner and its clients", {port_clients_sample}},
    {"undo: a document edited, undone and redone", {undo_edits_sample}},
    {"images: blur, resample and mipmap a generated picture", {image_blur_sample, image_mipmap_sample, WritePictures}},
    {"thread groups: a parallel prime count, progress signals, abort and kill", {thread_sum_sample, thread_control_sample}},
    {"plug-in host: scan the example modules, list them, activate on demand", {plugin_port_sample, plugin_scan_sample, ListPlugins}},
    {"envelopes: every curve shape and behaviour, saved, reloaded and plotted",
     {envelope_bounce_sample, envelope_shapes_sample, PlotEnvelopes}},
    {"streams, IFF files and save states", {iff_roundtrip_sample, DumpScene, save_state_sample}},
    {"configuration: write a settings file and read it back", {config_file_sample}},
    {"asset hub: a scene locked, replaced through a temporary file, the hub stopped", {hub_share_sample}},
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
        int ok = 1;
        for (Step step : section.steps)
            ok &= !step || step(stdout, dir.c_str());
        if (!ok) {
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
