// Fatal errors: report and end the process with status 10.
#include <vxtools3/debug.h>
#include <vxtools3/platform.h>

#include <unistd.h>

#include <cstdio>

namespace {
constexpr int kPanicExitStatus = 10;
}

extern "C" {

__attribute__((noinline)) VX_API void Crash(void)
{
    // Kept out of line so that a debugger can stop here just before a panic exits.
    asm volatile("");
}

VX_API void panic(const char *message)
{
    if (!message)
        message = "";
    if (DBmode())
        Alert(ALERT_FATAL, "Anomalous Exit!", message, "");
    // The fatal line reaches the debug output whatever the debug mode, and standard error
    // once more when the debug output is a file.
    DBenable(1);
    DBprintf("PANIC EXIT -- %s\n", message);
    if (DBfilePath())
        std::fprintf(stderr, "PANIC EXIT -- %s\n", message);
    Crash();
    std::fflush(nullptr);
    _exit(kPanicExitStatus);
}

}  // extern "C"
