// The hub's record reader: every record it accepts reads back as written, and every damaged
// one is refused instead of being half-read.
#include "hub/wire.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using vxhub::Message;

std::vector<uint8_t> Frame(uint8_t type, int32_t value, const std::string &a, const std::string &b)
{
    Message m;
    m.type = type, m.sequence = 77, m.asset = 5, m.value = value;
    m.a = a.data(), m.aLength = static_cast<uint16_t>(a.size());
    m.b = b.data(), m.bLength = static_cast<uint16_t>(b.size());
    std::vector<uint8_t> out(vxhub::kMaxFrame);
    out.resize(vxhub::WriteMessage(m, out.data()));
    return out;
}

TEST(HubWire, RecordsReadBackAsWritten)
{
    const std::string longText(vxhub::kMaxText, 'x');
    const struct {
        uint8_t type;
        int32_t value;
        std::string a, b;
    } cases[] = {{vxhub::kAdd, 0, "Plugins", "/home/u/VXEXT3.CFG"}, {vxhub::kLock, 2, "", ""},
                 {vxhub::kReply, -2, longText, ""},                  {vxhub::kEvent, 8, "f", longText},
                 {vxhub::kStatus, 0, "", ""}};
    for (const auto &c : cases) {
        const auto frame = Frame(c.type, c.value, c.a, c.b);
        Message m;
        ASSERT_EQ(vxhub::ReadMessage(frame.data(), frame.size(), &m), static_cast<long>(frame.size()));
        EXPECT_EQ(m.type, c.type);
        EXPECT_EQ(m.sequence, 77u);
        EXPECT_EQ(m.asset, 5u);
        EXPECT_EQ(m.value, c.value);
        EXPECT_EQ(std::string(m.a, m.aLength), c.a);
        EXPECT_EQ(std::string(m.b, m.bLength), c.b);
        for (size_t cut = 0; cut < frame.size(); cut += 1 + cut / 3)
            EXPECT_EQ(vxhub::ReadMessage(frame.data(), cut, &m), 0) << "a record cut at " << cut << " waits";
    }
}

TEST(HubWire, DamagedRecordsAreRefused)
{
    const auto good = Frame(vxhub::kAdd, 0, "Plugins", "file");
    const struct {
        const char *what;
        size_t at;
        uint8_t byte;
    } damage[] = {{"body length below the fixed fields", 0, 3},
                  {"body length beyond the largest record", 3, 0x40},
                  {"version", 4, 2},
                  {"unknown type", 5, 10},
                  {"NUL inside a text", 20, 0},
                  {"text length past the body", 18, 200}};
    for (const auto &d : damage) {
        auto frame = good;
        frame[d.at] = d.byte;
        frame.resize(frame.size() + 600);  // room enough that a longer claim is not "incomplete"
        Message m;
        EXPECT_EQ(vxhub::ReadMessage(frame.data(), frame.size(), &m), -1) << d.what;
    }
    const struct {
        uint8_t type;
        int32_t value;
    } badValues[] = {{vxhub::kLock, 3}, {vxhub::kLock, -1}, {vxhub::kEvent, 0}, {vxhub::kEvent, 9}};
    for (const auto &b : badValues) {
        const auto frame = Frame(b.type, b.value, "k", "f");
        Message m;
        EXPECT_EQ(vxhub::ReadMessage(frame.data(), frame.size(), &m), -1) << int(b.type) << " " << b.value;
    }
    for (const auto &frame : {Frame(vxhub::kAdd, 0, "", "file"), Frame(vxhub::kAdd, 0, "Plugins", ""),
                              Frame(vxhub::kCount, 0, "", "")}) {
        Message m;
        EXPECT_EQ(vxhub::ReadMessage(frame.data(), frame.size(), &m), -1) << "a missing kind or file";
    }
    auto trailing = Frame(vxhub::kCount, 0, "Plugins", "");
    trailing[0] += 1, trailing.push_back(0);  // a byte the texts do not account for
    Message m;
    EXPECT_EQ(vxhub::ReadMessage(trailing.data(), trailing.size(), &m), -1);
}

}  // namespace
