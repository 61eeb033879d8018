#include "imagefile_test.h"

#include <vxtools3/platform.h>

#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <fstream>

namespace imftest {

std::vector<std::string> ModuleFiles()
{
    std::vector<std::string> files;
    if (DIR *dir = opendir(kModules.c_str())) {
        while (dirent *entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name.size() > 2 && name.substr(name.size() - 2) == ".p")
                files.push_back(kModules + "/" + name);
        }
        closedir(dir);
    }
    std::sort(files.begin(), files.end());
    return files;
}

void StartHostWithModules(const std::string &dir)
{
    ASSERT_EQ(HostSetDatabase(dir.c_str()), 1);
    ASSERT_EQ(HostStartup(), 1);
    for (const std::string &file : ModuleFiles())
        ASSERT_GT(HostAddModule(file.c_str(), nullptr), 0) << file;
}

bool HasTool(const std::string &tool) { return Run("command -v " + tool + " >/dev/null 2>&1"); }

bool Run(const std::string &command) { return std::system(command.c_str()) == 0; }

std::vector<uint16_t> Rgba16(VxImage *image)
{
    std::vector<uint16_t> out;
    std::vector<float> row(static_cast<size_t>(image->width) * 4);
    for (int32_t y = 0; y < image->height; ++y) {
        if (!image->getLine(image, VX_PIXEL_RGBA_FLOAT, y, row.data()))
            return {};
        for (float v : row)
            out.push_back(static_cast<uint16_t>(std::clamp(v, 0.0f, 1.0f) * 65535.0f + 0.5f));
    }
    return out;
}

std::vector<uint16_t> ReadRgba16(const std::string &path)
{
    const std::vector<uint8_t> bytes = vxtest::ReadBytes(path);
    std::vector<uint16_t> out(bytes.size() / 2);
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<uint16_t>(bytes[2 * i] << 8 | bytes[2 * i + 1]);
    return out;
}

std::vector<uint16_t> ReadPam16(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::string magic, word;
    int width = 0, height = 0, depth = 0;
    long maxval = 0;
    in >> magic;
    if (magic == "P7") {
        while (in >> word && word != "ENDHDR") {
            if (word == "WIDTH") in >> width;
            else if (word == "HEIGHT") in >> height;
            else if (word == "DEPTH") in >> depth;
            else if (word == "MAXVAL") in >> maxval;
            else if (word == "TUPLTYPE") std::getline(in, word);
        }
    } else if (magic == "P5" || magic == "P6") {
        depth = magic == "P5" ? 1 : 3;
        in >> width >> height >> maxval;
    }
    in.get();
    if (width < 1 || height < 1 || depth < 1 || depth > 4 || maxval < 1 || maxval > 65535)
        return {};
    std::vector<uint16_t> out;
    for (long i = 0; i < static_cast<long>(width) * height; ++i) {
        uint32_t s[4] = {0, 0, 0, static_cast<uint32_t>(maxval)};
        for (int c = 0; c < depth; ++c) {
            s[c] = static_cast<uint8_t>(in.get());
            if (maxval > 255)
                s[c] = s[c] << 8 | static_cast<uint8_t>(in.get());
        }
        const bool grey = depth <= 2;
        const uint32_t rgba[4] = {s[0], grey ? s[0] : s[1], grey ? s[0] : s[2], depth == 2 ? s[1] : s[3]};
        for (uint32_t v : rgba)
            out.push_back(static_cast<uint16_t>((v * 65535 + static_cast<uint32_t>(maxval) / 2) / static_cast<uint32_t>(maxval)));
    }
    return in ? out : std::vector<uint16_t>{};
}

std::vector<uint16_t> MagickPixels(const std::string &file, const std::string &scratch)
{
    std::remove(scratch.c_str());
    if (!Run("convert '" + file + "' -depth 16 -endian MSB 'rgba:" + scratch + "' 2>/dev/null"))
        return {};
    return ReadRgba16(scratch);
}

void WriteSourcePam(const std::string &path, int w, int h)
{
    std::ofstream out(path, std::ios::binary);
    out << "P7\nWIDTH " << w << "\nHEIGHT " << h << "\nDEPTH 4\nMAXVAL 65535\nTUPLTYPE RGB_ALPHA\nENDHDR\n";
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const bool dark = ((x / 4) + (y / 4)) % 2 == 0;
            const uint32_t v[4] = {static_cast<uint32_t>(65535 * x / (w - 1)), static_cast<uint32_t>(65535 * y / (h - 1)),
                                   dark ? 9000u : 51000u + static_cast<uint32_t>(x * 37 + y * 11),
                                   static_cast<uint32_t>(65535 - 1700 * ((x + y) % 39))};
            for (uint32_t s : v)
                out.put(static_cast<char>(s >> 8)).put(static_cast<char>(s & 0xFF));
        }
}

void Load(const std::string &path, Loaded &out)
{
    char message[IMAGEFILE_MESSAGE_SIZE] = "";
    out.result = ImageFileLoad(path.c_str(), &out.image, &out.info, message, sizeof message);
    out.message = message;
}

}  // namespace imftest
