// System paths: a small numbered table of directories the suite's services look in.
// Path 0 is the directory of the running program; an unset path reads as path 0.
#include <vxtools3/platform.h>

#include <unistd.h>

#include <cstring>

namespace {

// Large enough for any path the system accepts (PATH_MAX on Linux, terminator included).
constexpr size_t kPathCapacity = 4096;

// An empty slot is unset. Fixed storage: setting a path never allocates and never fails for a
// path the system could open.
char g_paths[SYSTEM_PATH_COUNT][kPathCapacity];
char g_programDirectory[kPathCapacity];

bool ValidNumber(int number)
{
    return number >= 0 && number < SYSTEM_PATH_COUNT;
}

// The directory part of the running program's file, read once. When the link cannot be read
// (no /proc) the current directory stands in.
const char *ProgramDirectory()
{
    if (g_programDirectory[0])
        return g_programDirectory;
    char exe[kPathCapacity];
    const ssize_t length = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (length <= 0 || static_cast<size_t>(length) >= sizeof exe - 1) {
        std::strcpy(g_programDirectory, ".");
        return g_programDirectory;
    }
    exe[length] = '\0';
    char *slash = std::strrchr(exe, '/');
    if (!slash)
        std::strcpy(g_programDirectory, ".");
    else if (slash == exe)
        std::strcpy(g_programDirectory, "/");
    else {
        *slash = '\0';
        std::memcpy(g_programDirectory, exe, static_cast<size_t>(slash - exe) + 1);
    }
    return g_programDirectory;
}

}  // namespace

extern "C" {

VX_API const char *FileSystemPath(int number)
{
    if (!ValidNumber(number))
        return nullptr;
    if (g_paths[number][0])
        return g_paths[number];
    if (g_paths[SYSTEM_PATH_HOST][0])
        return g_paths[SYSTEM_PATH_HOST];
    return ProgramDirectory();
}

VX_API int FileSetSystemPath(int number, const char *path)
{
    if (!ValidNumber(number))
        return 0;
    if (!path || !path[0]) {
        g_paths[number][0] = '\0';
        return 1;
    }
    const size_t length = std::strlen(path);
    if (length >= kPathCapacity)
        return 0;
    std::memcpy(g_paths[number], path, length + 1);
    return 1;
}

}  // extern "C"
