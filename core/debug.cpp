// Debug output channel and alerts.
#include <vxtools3/debug.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

std::atomic<int> g_mode{0};
std::mutex g_outputLock;
FILE *g_file = nullptr;  // null: standard error
char *g_filePath = nullptr;

AlertFunc *g_alert = nullptr;
int g_alertLevel = ALERT_INFO;

FILE *Destination() { return g_file ? g_file : stderr; }

void DefaultAlert(const char *title, const char *headline, const char *detail)
{
    std::fprintf(stderr, "%s: %s\n%s", title, headline, detail);
    if (*detail && detail[std::char_traits<char>::length(detail) - 1] != '\n')
        std::fputc('\n', stderr);
}

}  // namespace

extern "C" {

VX_API int DBenable(int mode) { return g_mode.exchange(mode); }

VX_API int DBmode(void) { return g_mode.load(); }

VX_API int DBfile(const char *path)
{
    FILE *opened = nullptr;
    if (path && !(opened = std::fopen(path, "w")))
        return 0;
    std::lock_guard lock(g_outputLock);
    if (g_file)
        std::fclose(g_file);
    g_file = opened;
    std::free(g_filePath);  // kept outside the library heap: it may outlive an allocator
    g_filePath = path ? strdup(path) : nullptr;
    return 1;
}

VX_API const char *DBfilePath(void) { return g_filePath; }

VX_API int DBvprintf(const char *format, va_list args)
{
    if (!g_mode.load())
        return 0;
    std::lock_guard lock(g_outputLock);
    FILE *out = Destination();
    int written = std::vfprintf(out, format, args);
    std::fflush(out);
    return written < 0 ? 0 : written;
}

VX_API int DBprintf(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    int written = DBvprintf(format, args);
    va_end(args);
    return written;
}

VX_API AlertFunc *AlertSetFunction(AlertFunc *function)
{
    AlertFunc *previous = g_alert;
    g_alert = function;
    return previous;
}

VX_API int AlertLevelSet(int level)
{
    int previous = g_alertLevel;
    g_alertLevel = level;
    return previous;
}

VX_API void Alert(int level, const char *title, const char *headline, const char *detail)
{
    if (level < g_alertLevel)
        return;
    (g_alert ? g_alert : DefaultAlert)(title ? title : "", headline ? headline : "", detail ? detail : "");
}

}  // extern "C"
