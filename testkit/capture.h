// Captures the library's debug output for the duration of a scope.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

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

// The whole content of a file (empty when it cannot be read), and a file made of `bytes`.
std::vector<uint8_t> ReadBytes(const std::string &path);
void WriteBytes(const std::string &path, const std::vector<uint8_t> &bytes);

}  // namespace vxtest
