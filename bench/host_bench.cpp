// The plug-in host against what an application would otherwise write: servers kept in nested
// std::map / std::unordered_map tables of function pointers (the module opened with dlopen by
// hand), and a plain tab-separated text file written with fprintf and parsed with fgets.
#include <vxtools3/host.h>
#include <vxtools3/platform.h>

#include "bench/ratio_reporter.h"
#include "host/host_internal.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

const std::string kPlugins = VX_PLUGIN_DIR;
constexpr int kClasses = 100;
constexpr int kPerClass = 100;

std::string ClassName(int c) { return "Class" + std::to_string(1000 + c); }
std::string ServerName(int s) { return "Server_" + std::to_string(100000 + s * 7919 % 100000); }

// A host over the example modules with no database file of its own.
void StartHost()
{
    FileSetSystemPath(SYSTEM_PATH_HOST, kPlugins.c_str());
    HostSetDatabase("/nonexistent/vxtools3-bench/VXEXT3.CFG");
    HostStartup();
}

void StopHost()
{
    while (HostRunning())
        HostShutdown();
    FileSetSystemPath(SYSTEM_PATH_HOST, nullptr);
}

// ---- Activation of a server whose module is loaded -----------------------------------------

void ActivateHost(benchmark::State &state)
{
    StartHost();
    if (HostAddModule("example_shapes.so", nullptr) != 3 || !HostLockServer("MeshEditTool", "Example_Box"))
        state.SkipWithError("example_shapes.so did not load");
    int32_t count = 0;
    for (auto _ : state) {
        HostActivateVer("MeshEditTool", "Example_Box", &count, 1);
        benchmark::DoNotOptimize(count);
    }
    if (count != static_cast<int32_t>(state.iterations()))
        state.SkipWithError("wrong activation count");
    HostUnlockServer("MeshEditTool", "Example_Box");
    StopHost();
}

struct OpenModule {
    void *handle;
    const ModuleDescriptor *descriptor;
    void *data;
};

OpenModule OpenShapes()
{
    OpenModule m{dlopen((kPlugins + "/example_shapes.so").c_str(), RTLD_NOW), nullptr, nullptr};
    if (m.handle)
        m.descriptor = static_cast<const ModuleDescriptor *>(dlsym(m.handle, "_mod_descrip"));
    if (m.descriptor)
        m.data = m.descriptor->startup();
    return m;
}

template <class Table>
void ActivatePeer(benchmark::State &state)
{
    OpenModule m = OpenShapes();
    if (!m.data) {
        state.SkipWithError("example_shapes.so did not load");
        return;
    }
    Table table;
    for (auto *row = static_cast<const ServerRecord *>(m.descriptor->servers); row->className; ++row)
        table[row->className][row->name] = row->activate;
    const std::string cls = "MeshEditTool", name = "Example_Box";
    int32_t count = 0;
    for (auto _ : state) {
        auto c = table.find(cls);
        auto s = c->second.find(name);
        s->second(1, HostDefaultGlobal, &count, m.data);
        benchmark::DoNotOptimize(count);
    }
    m.descriptor->shutdown(m.data);
    dlclose(m.handle);
}

using MapTable = std::map<std::string, std::map<std::string, HostActivateFunc *>>;
using HashTable = std::unordered_map<std::string, std::unordered_map<std::string, HostActivateFunc *>>;

BENCHMARK(ActivateHost)->Name("activate_loaded:HostActivateVer");
BENCHMARK(ActivatePeer<MapTable>)->Name("activate_loaded:std::map");
BENCHMARK(ActivatePeer<HashTable>)->Name("activate_loaded:std::unordered_map");

// ---- Lookup by class and name among 10,000 servers ----------------------------------------

int32_t Nothing(int32_t, HostGlobalFunc *, void *, void *) { return 0; }

// The names asked for, in a random order, as C strings that live as long as the run.
struct Queries {
    std::vector<std::string> classes, names;
    Queries()
    {
        std::mt19937 random(7);
        for (int i = 0; i < 4096; ++i) {
            classes.push_back(ClassName(static_cast<int>(random() % kClasses)));
            names.push_back(ServerName(static_cast<int>(random() % kPerClass)));
        }
    }
};

void LookupHost(benchmark::State &state)
{
    StartHost();
    for (int c = 0; c < kClasses; ++c)
        for (int s = 0; s < kPerClass; ++s)
            HostAddBuiltIn(ClassName(c).c_str(), ServerName(s).c_str(), nullptr, Nothing);
    const Queries q;
    size_t i = 0;
    int64_t found = 0;
    for (auto _ : state) {
        found += ServerGetIndex(q.classes[i].c_str(), q.names[i].c_str()) >= 0;
        i = (i + 1) & 4095;
    }
    if (found != static_cast<int64_t>(state.iterations()))
        state.SkipWithError("a server was not found");
    StopHost();
}

template <class Table>
void LookupPeer(benchmark::State &state)
{
    Table table;
    for (int c = 0; c < kClasses; ++c)
        for (int s = 0; s < kPerClass; ++s)
            table[ClassName(c)][ServerName(s)] = s;
    const Queries q;
    size_t i = 0;
    int64_t found = 0;
    for (auto _ : state) {
        // The C interface hands names over as C strings: the peer pays for the keys.
        auto c = table.find(q.classes[i].c_str());
        found += c != table.end() && c->second.find(q.names[i].c_str()) != c->second.end();
        i = (i + 1) & 4095;
    }
    if (found != static_cast<int64_t>(state.iterations()))
        state.SkipWithError("a server was not found");
}

BENCHMARK(LookupHost)->Name("lookup:ServerGetIndex/10000");
BENCHMARK(LookupPeer<std::map<std::string, std::map<std::string, int>>>)->Name("lookup:std::map/10000");
BENCHMARK(LookupPeer<std::unordered_map<std::string, std::unordered_map<std::string, int>>>)
    ->Name("lookup:std::unordered_map/10000");

// ---- Database write and read of 10,000 entries ----------------------------------------------

std::string TempFile(const char *stem)
{
    return "/tmp/vxtools3-bench-" + std::string(stem) + "-" + std::to_string(getpid());
}

void RegisterModuleServers()
{
    for (int c = 0; c < kClasses; ++c)
        for (int s = 0; s < kPerClass; ++s)
            HostAddPlugIn(ClassName(c).c_str(), ServerName(s).c_str(), ("User " + ServerName(s)).c_str(),
                          ("Plugins/module" + std::to_string(s % 37) + ".so").c_str());
}

void WriteHost(benchmark::State &state)
{
    StartHost();
    RegisterModuleServers();
    const std::string path = TempFile("host.db");
    for (auto _ : state)
        if (!vx::host::WriteDatabaseFile(path.c_str()))
            state.SkipWithError("the database was not written");
    std::remove(path.c_str());
    StopHost();
}

void ReadHost(benchmark::State &state)
{
    StartHost();
    RegisterModuleServers();
    const std::string path = TempFile("host-read.db");
    vx::host::WriteDatabaseFile(path.c_str());
    StopHost();
    for (auto _ : state) {
        state.PauseTiming();
        StartHost();
        state.ResumeTiming();
        if (!vx::host::ReadDatabaseFile(path.c_str()) || HostNumServers(ClassName(0).c_str()) != kPerClass)
            state.SkipWithError("the database was not read");
        state.PauseTiming();
        StopHost();
        state.ResumeTiming();
    }
    std::remove(path.c_str());
}

struct PeerEntry {
    std::string module;
    std::vector<std::pair<uint32_t, std::string>> tags;
};
using PeerCatalogue = std::map<std::string, std::map<std::string, PeerEntry>>;

PeerCatalogue PeerServers()
{
    PeerCatalogue catalogue;
    for (int c = 0; c < kClasses; ++c)
        for (int s = 0; s < kPerClass; ++s)
            catalogue[ClassName(c)][ServerName(s)] = {"Plugins/module" + std::to_string(s % 37) + ".so",
                                                      {{0, "User " + ServerName(s)}}};
    return catalogue;
}

bool WritePeer(const PeerCatalogue &catalogue, const std::string &path)
{
    std::FILE *file = std::fopen(path.c_str(), "w");
    if (!file)
        return false;
    for (const auto &[cls, servers] : catalogue)
        for (const auto &[name, entry] : servers) {
            std::fprintf(file, "%s\t%s\t%s", cls.c_str(), name.c_str(), entry.module.c_str());
            for (const auto &[word, text] : entry.tags)
                std::fprintf(file, "\t%u\t%s", word, text.c_str());
            std::fputc('\n', file);
        }
    return std::fclose(file) == 0;
}

void WriteFprintf(benchmark::State &state)
{
    const PeerCatalogue catalogue = PeerServers();
    const std::string path = TempFile("peer.tsv");
    for (auto _ : state)
        if (!WritePeer(catalogue, path))
            state.SkipWithError("the file was not written");
    std::remove(path.c_str());
}

void ReadFgets(benchmark::State &state)
{
    const std::string path = TempFile("peer-read.tsv");
    WritePeer(PeerServers(), path);
    for (auto _ : state) {
        PeerCatalogue catalogue;
        std::FILE *file = std::fopen(path.c_str(), "r");
        char line[2048];
        while (file && std::fgets(line, sizeof line, file)) {
            line[std::strcspn(line, "\n")] = '\0';
            char *save = nullptr;
            const char *cls = strtok_r(line, "\t", &save);
            const char *name = strtok_r(nullptr, "\t", &save);
            const char *module = strtok_r(nullptr, "\t", &save);
            if (!cls || !name || !module)
                continue;
            PeerEntry &entry = catalogue[cls][name];
            entry.module = module;
            while (const char *word = strtok_r(nullptr, "\t", &save)) {
                const char *text = strtok_r(nullptr, "\t", &save);
                entry.tags.emplace_back(static_cast<uint32_t>(std::strtoul(word, nullptr, 10)), text ? text : "");
            }
        }
        if (file)
            std::fclose(file);
        if (catalogue.size() != kClasses)
            state.SkipWithError("the file was not read");
        benchmark::DoNotOptimize(catalogue);
    }
    std::remove(path.c_str());
}

// ---- Scanning 200 good modules: in the module scanner against loading them in process -----

constexpr int kScanModules = 200;

// 200 copies of example_shapes.so (distinct files, so each is loaded afresh), made once.
const std::string &ScanDir()
{
    static const std::string dir = [] {
        char templ[] = "/tmp/vxtools3-scan-bench-XXXXXX";
        const std::string made = mkdtemp(templ) ? templ : "/tmp";
        for (int i = 0; i < kScanModules; ++i)
            std::filesystem::copy_file(kPlugins + "/example_shapes.so", made + "/shapes_" + std::to_string(1000 + i) + ".so",
                                       std::filesystem::copy_options::overwrite_existing);
        std::atexit([] { std::filesystem::remove_all(dir); });
        return made;
    }();
    return dir;
}

void CountRegistered(void *data, const char *, int32_t outcome, int32_t, const char *)
{
    *static_cast<int *>(data) += outcome == HOST_SCAN_REGISTERED;
}

// A fresh host each time, so that nothing is remembered from the run before.
void ScanHelper(benchmark::State &state)
{
    HostScanSetHelper(VX_MODSCAN);
    for (auto _ : state) {
        StartHost();
        int registered = 0;
        HostScanDirectory(ScanDir().c_str(), CountRegistered, &registered);
        StopHost();
        if (registered != kScanModules)
            state.SkipWithError("not every module registered");
    }
}

void ScanInProcess(benchmark::State &state)
{
    for (auto _ : state) {
        StartHost();
        int registered = 0;
        for (int i = 0; i < kScanModules; ++i)
            registered += HostAddModule((ScanDir() + "/shapes_" + std::to_string(1000 + i) + ".so").c_str(), nullptr) == 3;
        StopHost();
        if (registered != kScanModules)
            state.SkipWithError("not every module registered");
    }
}

// Wall time: the scanner's work is in other processes. Divide by 200 for the time per module.
BENCHMARK(ScanHelper)->Name("scan_200_modules:HostScanDirectory(helper)")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ScanInProcess)->Name("scan_200_modules:HostAddModule(in-process)")->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK(WriteHost)->Name("db_write:WriteDatabase/10000")->Unit(benchmark::kMillisecond);
BENCHMARK(WriteFprintf)->Name("db_write:fprintf/10000")->Unit(benchmark::kMillisecond);
BENCHMARK(ReadHost)->Name("db_read:ReadDatabase/10000")->Unit(benchmark::kMillisecond);
BENCHMARK(ReadFgets)->Name("db_read:fgets/10000")->Unit(benchmark::kMillisecond);

}  // namespace
