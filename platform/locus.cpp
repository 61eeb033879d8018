// The current language, read by everything that picks among translated texts.
#include <vxtools3/platform.h>

namespace {
int32_t g_language = 0;
}

extern "C" {

VX_API int32_t LocusLanguage(void) { return g_language; }

VX_API void LocusSetLanguage(int32_t id) { g_language = id; }

}  // extern "C"
