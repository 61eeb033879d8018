// The configuration store against what an application would otherwise write: a std::ifstream /
// std::getline parser into a std::unordered_map of entry lists, an std::ofstream writer, and
// typed reads with sscanf or std::from_chars from a std::unordered_map of strings.
#include <vxtools3/config.h>

#include "bench/ratio_reporter.h"

#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <fstream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

constexpr int kLines = 100000;
constexpr int kValues = 20000;  // five entries each

std::string BenchFile(const char *tag)
{
    return "/tmp/vx_config_bench_" + std::to_string(getpid()) + "_" + tag + ".cfg";
}

std::string LineName(int i)
{
    return "Setting" + std::to_string(i % kValues);
}

std::string LineText(int i)
{
    return std::to_string(i) + " " + std::to_string(i * 7 % 1000) + " \"a word " + std::to_string(i % 13) + "\" 0.25";
}

// The same 100,000-line file for every import.
const std::string &ImportFile()
{
    static const std::string path = [] {
        std::string p = BenchFile("in");
        std::ofstream out(p);
        for (int i = 0; i < kLines; ++i)
            out << LineName(i) << ' ' << LineText(i) << '\n';
        return p;
    }();
    return path;
}

void CountLines(benchmark::State &state)
{
    state.counters["lines_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * kLines, benchmark::Counter::kIsRate);
}

// ---- import ----

void ImportStore(benchmark::State &state)
{
    const std::string &path = ImportFile();
    for (auto _ : state) {
        VxConfigClient *client = ConfigAddClient(nullptr, 0);
        if (!ConfigImport(path.c_str(), nullptr) || ConfigNum("Setting7") != kLines / kValues)
            state.SkipWithError("import failed");
        ConfigRemClient(client);
    }
    CountLines(state);
}

void ImportStd(benchmark::State &state)
{
    const std::string &path = ImportFile();
    for (auto _ : state) {
        std::unordered_map<std::string, std::vector<std::string>> values;
        std::ifstream in(path);
        std::string line;
        while (std::getline(in, line)) {
            const size_t start = line.find_first_not_of(" \t");
            if (start == std::string::npos)
                continue;
            const size_t blank = line.find_first_of(" \t", start);
            if (blank == std::string::npos)
                continue;
            const size_t text = line.find_first_not_of(" \t", blank);
            if (text == std::string::npos)
                continue;
            values[line.substr(start, blank - start)].push_back(line.substr(text));
        }
        if (values["Setting7"].size() != kLines / kValues)
            state.SkipWithError("import failed");
    }
    CountLines(state);
}

// ---- export ----

void ExportStore(benchmark::State &state)
{
    VxConfigClient *client = ConfigAddClient(nullptr, 0);
    ConfigImport(ImportFile().c_str(), nullptr);
    for (const char *name = ConfigNextValue(nullptr); name; name = ConfigNextValue(name))
        ConfigDefineValue(name, "iist");
    const std::string out = BenchFile("out");
    for (auto _ : state)
        if (!ConfigExport(out.c_str(), nullptr))
            state.SkipWithError("export failed");
    ConfigRemClient(client);
    std::remove(out.c_str());
    CountLines(state);
}

void ExportStd(benchmark::State &state)
{
    // Entries kept in file order beside a map of names, as the store keeps them.
    std::vector<std::pair<std::string, std::string>> entries;
    for (int i = 0; i < kLines; ++i)
        entries.emplace_back(LineName(i), LineText(i));
    const std::string out = BenchFile("out_std");
    for (auto _ : state) {
        std::ofstream file(out);
        for (const auto &[name, text] : entries)
            file << name << ' ' << text << '\n';
        if (!file)
            state.SkipWithError("export failed");
    }
    std::remove(out.c_str());
    CountLines(state);
}

// ---- a typed read of a four-field value among 20,000 ----

void GetStore(benchmark::State &state)
{
    VxConfigClient *client = ConfigAddClient(nullptr, 0);
    for (int i = 0; i < kValues; ++i) {
        const std::string name = LineName(i);
        ConfigDefineValue(name.c_str(), "iiii");
        ConfigSet(name.c_str(), i, -i, 1280, 720);
    }
    int32_t a = 0, b = 0, c = 0, d = 0;
    int64_t sum = 0;
    for (auto _ : state) {
        ConfigGet("Setting4242", &a, &b, &c, &d);
        sum += a + b + c + d;
    }
    benchmark::DoNotOptimize(sum);
    if (a != 4242 || d != 720)
        state.SkipWithError("wrong value");
    ConfigRemClient(client);
}

std::unordered_map<std::string, std::string> StdValues()
{
    std::unordered_map<std::string, std::string> values;
    for (int i = 0; i < kValues; ++i)
        values[LineName(i)] = std::to_string(i) + " " + std::to_string(-i) + " 1280 720";
    return values;
}

void GetStdSscanf(benchmark::State &state)
{
    const auto values = StdValues();
    const std::string key = "Setting4242";
    int a = 0, b = 0, c = 0, d = 0;
    int64_t sum = 0;
    for (auto _ : state) {
        const auto it = values.find(key);
        if (it != values.end())
            std::sscanf(it->second.c_str(), "%d %d %d %d", &a, &b, &c, &d);
        sum += a + b + c + d;
    }
    benchmark::DoNotOptimize(sum);
    if (a != 4242 || d != 720)
        state.SkipWithError("wrong value");
}

void GetStdFromChars(benchmark::State &state)
{
    const auto values = StdValues();
    const std::string key = "Setting4242";
    int fields[4] = {};
    int64_t sum = 0;
    for (auto _ : state) {
        const auto it = values.find(key);
        if (it != values.end()) {
            const char *p = it->second.data(), *end = p + it->second.size();
            for (int &field : fields) {
                p = std::from_chars(p, end, field).ptr;
                while (p < end && *p == ' ')
                    ++p;
            }
        }
        sum += fields[0] + fields[1] + fields[2] + fields[3];
    }
    benchmark::DoNotOptimize(sum);
    if (fields[0] != 4242 || fields[3] != 720)
        state.SkipWithError("wrong value");
}

}  // namespace

BENCHMARK(ImportStore)->Name("import_100k:ConfigImport")->Unit(benchmark::kMillisecond);
BENCHMARK(ImportStd)->Name("import_100k:ifstream+unordered_map")->Unit(benchmark::kMillisecond);
BENCHMARK(ExportStore)->Name("export_100k:ConfigExport")->Unit(benchmark::kMillisecond);
BENCHMARK(ExportStd)->Name("export_100k:ofstream")->Unit(benchmark::kMillisecond);
BENCHMARK(GetStore)->Name("get_4field:ConfigGet");
BENCHMARK(GetStdSscanf)->Name("get_4field:unordered_map+sscanf");
BENCHMARK(GetStdFromChars)->Name("get_4field:unordered_map+from_chars");
