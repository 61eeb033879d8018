#include "testkit/capture.h"

#include <vxtools3/debug.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace vxtest {

std::vector<uint8_t> ReadBytes(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void WriteBytes(const std::string &path, const std::vector<uint8_t> &bytes)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

TempDir::TempDir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "vxtest-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        ADD_FAILURE() << "cannot make a temporary directory";
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

DebugCapture::DebugCapture()
{
    static int serial = 0;
    path_ = (std::filesystem::temp_directory_path() /
             ("vxtest-debug-" + std::to_string(getpid()) + "-" + std::to_string(++serial) + ".txt"))
                .string();
    EXPECT_EQ(DBfile(path_.c_str()), 1);
    previousMode_ = DBenable(1);
}

DebugCapture::~DebugCapture()
{
    DBenable(previousMode_);
    DBfile(nullptr);
    std::filesystem::remove(path_);
}

std::string DebugCapture::Text() const
{
    std::ifstream in(path_, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace vxtest
