#include <vxtools3/config.h>

#include "services/textparse_internal.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

std::string Quote(const std::string &word)
{
    const int length = QuoteWord(nullptr, 0, word.c_str());
    std::string out(static_cast<size_t>(length) + 1, '\0');
    EXPECT_EQ(QuoteWord(out.data(), length + 1, word.c_str()), length);
    out.resize(static_cast<size_t>(length));
    return out;
}

std::string RandomWord(std::mt19937 &rng)
{
    // Biased towards the bytes that need care: blanks, quotes, backslashes, controls.
    static const std::string kTricky = " \t\n\r\"\\\x01\x7f\x1f\xc3\xa9xX0";
    std::uniform_int_distribution<int> length(0, 12), pick(0, 3), byte(1, 255);
    std::string word;
    for (int n = length(rng); n > 0; --n)
        word += pick(rng) ? kTricky[static_cast<size_t>(byte(rng)) % kTricky.size()] : static_cast<char>(byte(rng));
    return word;
}

TEST(QuoteWordTest, QuotingRulesByteForByte)
{
    EXPECT_EQ(Quote("plain"), "plain");
    EXPECT_EQ(Quote("caf\xc3\xa9"), "caf\xc3\xa9");
    EXPECT_EQ(Quote(""), "\"\"");
    EXPECT_EQ(Quote("two words"), "\"two words\"");
    EXPECT_EQ(Quote("say \"hi\""), "\"say \\\"hi\\\"\"");
    EXPECT_EQ(Quote("C:\\dir"), "\"C:\\\\dir\"");
    EXPECT_EQ(Quote("a\tb\nc\r"), "\"a\\tb\\nc\\r\"");
    EXPECT_EQ(Quote("\x01\x1f\x7f"), "\"\\x01\\x1f\\x7f\"");
    EXPECT_EQ(Quote("x\"y"), "\"x\\\"y\"");
}

TEST(QuoteWordTest, CutsLikeSnprintf)
{
    char out[6];
    std::memset(out, '#', sizeof out);
    EXPECT_EQ(QuoteWord(out, sizeof out, "a b c d"), 9);  // "a b c d" with quotes
    EXPECT_STREQ(out, "\"a b ");
    EXPECT_EQ(QuoteWord(out, 3, "plainword"), 9);
    EXPECT_STREQ(out, "pl");
    EXPECT_EQ(QuoteWord(out, 1, "x"), 1);
    EXPECT_STREQ(out, "");
}

TEST(QuoteWordTest, RandomWordsRoundTripInALine)
{
    std::mt19937 rng(7);
    for (int round = 0; round < 300; ++round) {
        std::vector<std::string> words(5);
        std::string line;
        for (std::string &w : words) {
            w = RandomWord(rng);
            line += (line.empty() ? "" : " ") + Quote(w);
        }
        const char *p = line.c_str();
        for (const std::string &w : words) {
            char back[CONFIG_TEXT_SIZE];
            ASSERT_EQ(PullQuoteWord(&p, back, sizeof back), 1) << line;
            EXPECT_EQ(std::string(back), w) << line;
        }
        EXPECT_EQ(*vx::text::SkipWhite(p), '\0');
        char extra[8];
        EXPECT_EQ(PullQuoteWord(&p, extra, sizeof extra), 0);
    }
}

TEST(PullTest, MalformedOrOversizedFieldsStoreNothingAndKeepTheCursor)
{
    const char *const bad[] = {"\"open", "\"bad \\q escape\"", "\"\\x00\"", "\"\\x1\"", "\"ab\"cd", "", "   "};
    for (const char *text : bad) {
        const char *p = text;
        char word[16] = "untouched";
        EXPECT_EQ(PullQuoteWord(&p, word, sizeof word), 0) << text;
        EXPECT_EQ(p, text);
        EXPECT_STREQ(word, "untouched");
    }
    const char *text = "\"0123456789\" abcdefgh";
    const char *p = text;
    char small[10] = "untouched";
    EXPECT_EQ(PullQuoteWord(&p, small, sizeof small), 0) << "ten characters need eleven bytes";
    EXPECT_EQ(p, text);
    EXPECT_STREQ(small, "untouched");
    char fits[11];
    ASSERT_EQ(PullQuoteWord(&p, fits, sizeof fits), 1);
    EXPECT_STREQ(fits, "0123456789");
    EXPECT_EQ(PullNonWhite(&p, small, 8), 0);  // eight bytes need nine
    ASSERT_EQ(PullNonWhite(&p, small, 9), 1);
    EXPECT_STREQ(small, "abcdefgh");
}

TEST(PullTest, UnquotedWordsAreReadVerbatim)
{
    const char *p = "  back\\slash mid\"quote\t";
    char word[32];
    for (const char *expect : {"back\\slash", "mid\"quote"}) {
        ASSERT_EQ(PullQuoteWord(&p, word, sizeof word), 1);
        EXPECT_STREQ(word, expect);
    }
}

TEST(PullTest, IntegersAtTheLimitsAndBeyond)
{
    const char *p = " 2147483647\t-2147483648 +17 0";
    int32_t v = 0;
    for (int32_t expect : {INT32_MAX, INT32_MIN, 17, 0}) {
        ASSERT_EQ(PullInteger(&p, &v), 1);
        EXPECT_EQ(v, expect);
    }
    EXPECT_EQ(PullInteger(&p, &v), 0);
    for (const char *text : {"2147483648", "-2147483649", "12abc", "+-3", "1.5", "x", "0x10"}) {
        const char *q = text;
        v = 99;
        EXPECT_EQ(PullInteger(&q, &v), 0) << text;
        EXPECT_EQ(v, 99);
        EXPECT_EQ(q, text);
    }
}

TEST(PullTest, DoublesMatchTheCLibraryFormatAndReadBack)
{
    std::mt19937_64 rng(11);
    std::uniform_real_distribution<double> mantissa(-10.0, 10.0);
    std::uniform_int_distribution<int> exponent(-300, 300);
    std::vector<double> values = {0.0, -0.0, 1.0, 0.1, 1e-7, 123456789.0, DBL_MAX, DBL_MIN, -DBL_MAX,
                                  INFINITY, -INFINITY};
    for (int i = 0; i < 2000; ++i)
        values.push_back(std::ldexp(mantissa(rng), exponent(rng)));
    for (double value : values) {
        char ours[vx::text::kNumberCapacity + 1];
        ours[vx::text::FormatDouble(ours, value)] = '\0';
        char reference[64];
        std::snprintf(reference, sizeof reference, "%.7g", value);
        ASSERT_STREQ(ours, reference);
        const char *p = ours;
        double back = 0;
        ASSERT_EQ(PullDouble(&p, &back), 1) << ours;
        EXPECT_EQ(back, std::strtod(reference, nullptr)) << ours;
    }
    const char *p = "+2.5 nan 1e999";
    double v = 0;
    ASSERT_EQ(PullDouble(&p, &v), 1);
    EXPECT_EQ(v, 2.5);
    ASSERT_EQ(PullDouble(&p, &v), 1);
    EXPECT_TRUE(std::isnan(v));
    EXPECT_EQ(PullDouble(&p, &v), 0);  // out of range is an error, not infinity
    for (const char *text : {"1.5x", "--1", "", "1,5"}) {
        const char *q = text;
        EXPECT_EQ(PullDouble(&q, &v), 0) << text;
        EXPECT_EQ(q, text);
    }
}

}  // namespace
