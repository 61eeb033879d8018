// Captures the library's debug output for the duration of a scope.
#pragma once

#include <string>

namespace vxtest {

class DebugCapture {
public:
    // Turns debug mode on and sends the output to a fresh temporary file.
    DebugCapture();
    // Restores the mode and standard error as the destination.
    ~DebugCapture();
    DebugCapture(const DebugCapture &) = delete;
    DebugCapture &operator=(const DebugCapture &) = delete;

    // Everything written so far.
    std::string Text() const;

private:
    std::string path_;
    int previousMode_;
};

// A fresh, empty temporary directory, removed with its contents by the destructor.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &Path() const { return path_; }
    std::string File(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

}  // namespace vxtest
