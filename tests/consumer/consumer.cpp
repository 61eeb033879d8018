// A small C++ program built against the installed library: the C interface from C++ code,
// with the standard library beside it.
#include <vxtools3.h>

#include <cstdio>
#include <string>
#include <vector>

int main()
{
    VxWriteStrm *out = MemStrmWriteCreate();
    const std::vector<std::string> words = {"layout", "modeler", "hub"};
    for (const std::string &word : words)
        out->writeBytes(out, word.data(), static_cast<int32_t>(word.size()));
    const std::string written(static_cast<const char *>(out->impl), static_cast<size_t>(out->length));
    StrmWriteDestroy(out);
    if (written != "layoutmodelerhub") {
        std::fprintf(stderr, "consumer: memory stream gave '%s'\n", written.c_str());
        return 1;
    }
    std::printf("consumer ok\n");
    return 0;
}
