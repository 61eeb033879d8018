// Configuration files: naming.
#include <vxtools3/config.h>
#include <vxtools3/platform.h>

#include <sys/stat.h>

#include <cstring>

namespace {

constexpr size_t kNameCapacity = 4096;
char g_generatedName[kNameCapacity];

bool IsDirectory(const char *path)
{
    const size_t length = std::strlen(path);
    if (length && path[length - 1] == '/')
        return true;
    struct stat info;
    return stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

char AsciiUpper(char c)
{
    return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}

}  // namespace

extern "C" {

VX_API const char *ConfigGenerateName(const char *dir, const char *base, const char * /*description*/)
{
    if (!dir || !dir[0])
        dir = FileSystemPath(SYSTEM_PATH_CONFIG);
    const size_t dirLength = std::strlen(dir);
    if (!IsDirectory(dir)) {
        if (dirLength >= kNameCapacity)
            return nullptr;
        std::memcpy(g_generatedName, dir, dirLength + 1);
        return g_generatedName;
    }
    if (!base || !base[0])
        return nullptr;
    static const char kSuffix[] = ".CFG";
    const bool needsSlash = dir[dirLength - 1] != '/';
    const size_t baseLength = std::strlen(base);
    const size_t total = dirLength + (needsSlash ? 1 : 0) + baseLength + sizeof kSuffix - 1;
    if (total >= kNameCapacity)
        return nullptr;
    char *out = g_generatedName;
    std::memcpy(out, dir, dirLength);
    out += dirLength;
    if (needsSlash)
        *out++ = '/';
    for (size_t i = 0; i < baseLength; ++i)
        *out++ = AsciiUpper(base[i]);
    std::memcpy(out, kSuffix, sizeof kSuffix);
    return g_generatedName;
}

}  // extern "C"
