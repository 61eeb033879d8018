// Helpers shared by the configuration store tests.
#pragma once

#include <vxtools3/config.h>

#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace cfgtest {

// Every value with its entries, in definition order: what a failed call must leave alone.
using Snapshot = std::vector<std::pair<std::string, std::vector<std::string>>>;

inline Snapshot TakeSnapshot()
{
    Snapshot snap;
    for (const char *name = ConfigNextValue(nullptr); name; name = ConfigNextValue(name)) {
        std::vector<std::string> entries;
        for (int32_t i = 0; i < ConfigNum(name); ++i)
            entries.emplace_back(ConfigRawGet(name, i));
        snap.emplace_back(name, std::move(entries));
    }
    return snap;
}

inline std::string ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void WriteFile(const std::string &path, const std::string &bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace cfgtest
