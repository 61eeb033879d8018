// Feeds arbitrary bytes to ConfigImport as a configuration file, reads every entry back by
// its type, and checks that exporting and importing again gives the same entries.
#include <vxtools3/config.h>

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const char *const kTyped[][2] = {{"Window", "iiii"}, {"Recent", "s"}, {"Scale", "fst"}, {"Key", "ti"}};

std::string TempPath(const char *tag)
{
    return std::string("/tmp/vx_config_fuzz_") + std::to_string(getpid()) + "_" + tag;
}

void Write(const std::string &path, const uint8_t *data, size_t size)
{
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f)
        std::abort();
    std::fwrite(data, 1, size, f);
    std::fclose(f);
}

// Parses every entry by its value's type; the results only have to be produced safely.
void ReadAll()
{
    for (const auto &typed : kTyped) {
        for (int32_t i = 0; i < ConfigNum(typed[0]); ++i) {
            int32_t a, b, c, d;
            double f;
            char s[CONFIG_TEXT_SIZE], t[CONFIG_TEXT_SIZE];
            switch (typed[1][0]) {
            case 'i': ConfigIGet(typed[0], i, &a, &b, &c, &d); break;
            case 's': ConfigIGet(typed[0], i, s); break;
            case 'f': ConfigIGet(typed[0], i, &f, s, t); break;
            default:
                if (ConfigIGet(typed[0], i, t, &a))
                    ConfigXGet(typed[0], t, &b);
                break;
            }
        }
    }
}

std::vector<std::string> TypedEntries()
{
    std::vector<std::string> all;
    for (const auto &typed : kTyped)
        for (int32_t i = 0; i < ConfigNum(typed[0]); ++i)
            all.push_back(std::string(typed[0]) + " " + ConfigRawGet(typed[0], i));
    return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string input = TempPath("in"), output = TempPath("out");
    Write(input, data, size);
    VxConfigClient *client = ConfigAddClient(nullptr, 0);
    for (const auto &typed : kTyped)
        ConfigDefineValue(typed[0], typed[1]);
    if (ConfigImport(input.c_str(), nullptr) != 1)
        std::abort();
    ReadAll();
    const std::vector<std::string> before = TypedEntries();
    bool trailingReturn = false;
    for (const std::string &entry : before)
        trailingReturn = trailingReturn || entry.back() == '\r';
    if (ConfigExport(output.c_str(), nullptr) != 1)
        std::abort();
    ConfigClearAll();
    if (ConfigImport(output.c_str(), nullptr) != 1)
        std::abort();
    // A carriage return that ended an entry is taken for part of a line end when read again.
    if (!trailingReturn && TypedEntries() != before)
        __builtin_trap();
    ConfigRemClient(client);
    std::remove(input.c_str());
    std::remove(output.c_str());
    return 0;
}
