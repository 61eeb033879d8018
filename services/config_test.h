// Helpers shared by the configuration store tests.
#pragma once

#include <vxtools3/ckpt.h>
#include <vxtools3/config.h>
#include <vxtools3/platform.h>

#include "testkit/capture.h"

#include <gtest/gtest.h>

#include <cctype>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace cfgtest {

using Log = std::vector<std::string>;
inline Log g_log;  // "<data>:<name>" for change callbacks, "<data>+" / "<data>-" for synchronisations

inline Log Taken() { return std::exchange(g_log, {}); }  // the log so far, which starts anew
inline void Note(uintptr_t data, const char *name) { g_log.push_back(std::to_string(data) + ":" + name); }
inline void Sync(uintptr_t data, int32_t direction) { g_log.push_back(std::to_string(data) + (direction ? "+" : "-")); }

// Every value with its entries, in definition order: what a failed call must leave alone.
using Snapshot = std::vector<std::pair<std::string, std::vector<std::string>>>;

inline Snapshot TakeSnapshot()
{
    Snapshot snap;
    for (const char *name = ConfigNextValue(nullptr); name; name = ConfigNextValue(name)) {
        snap.emplace_back(name, std::vector<std::string>{});
        for (int32_t i = 0; i < ConfigNum(name); ++i)
            snap.back().second.emplace_back(ConfigRawGet(name, i));
    }
    return snap;
}

inline std::string ReadFile(const std::string &path)
{
    const std::vector<uint8_t> bytes = vxtest::ReadBytes(path);
    return {bytes.begin(), bytes.end()};
}

inline void WriteFile(const std::string &path, const std::string &text) { vxtest::WriteBytes(path, {text.begin(), text.end()}); }

// A word biased towards the bytes that need care: blanks, quotes, backslashes, controls;
// without blanks (as '_') when `white` is false.
inline std::string RandomWord(std::mt19937 &rng, bool white = true)
{
    static const std::string kTricky = " \t\n\r\"\\\x01\x7f\x1f\xc3\xa9xX0";
    std::uniform_int_distribution<int> length(0, 12), pick(0, 3), byte(1, 255);
    std::string word;
    for (int n = length(rng); n > 0; --n) {
        const char c = pick(rng) ? kTricky[static_cast<size_t>(byte(rng)) % kTricky.size()] : static_cast<char>(byte(rng));
        word += white || !std::isspace(static_cast<unsigned char>(c)) ? c : '_';
    }
    return word;
}

// Defines each name with its field letters.
inline void Define(std::initializer_list<std::pair<const char *, const char *>> values)
{
    for (const auto &[name, types] : values)
        ASSERT_EQ(ConfigDefineValue(name, types), 1) << name;
}

// A store kept open by one client for the test, and a scratch directory.
class StoreTest : public ::testing::Test {
protected:
    void SetUp() override { g_log.clear(), client_ = ConfigAddClient(nullptr, 0); }
    void TearDown() override
    {
        ConfigRemClient(client_);
        EXPECT_EQ(ConfigNextValue(nullptr), nullptr) << "the store outlived its last client";
        EXPECT_EQ(CkptLevel(), -1);
        FileSetSystemPath(SYSTEM_PATH_CONFIG, nullptr);
    }
    std::string File(const char *name) const { return dir_.File(name); }
    VxConfigClient *client_ = nullptr;
    vxtest::TempDir dir_;
};

}  // namespace cfgtest
