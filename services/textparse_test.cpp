#include "services/config_test.h"
#include "services/textparse_internal.h"

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>

namespace {

std::string Quote(const std::string &word)
{
    const int length = QuoteWord(nullptr, 0, word.c_str());
    std::string out(static_cast<size_t>(length) + 1, '\0');
    EXPECT_EQ(QuoteWord(out.data(), length + 1, word.c_str()), length);
    out.resize(static_cast<size_t>(length));
    return out;
}

TEST(QuoteWordTest, QuotingRulesByteForByte)
{
    const std::pair<const char *, const char *> cases[] = {
        {"plain", "plain"}, {"caf\xc3\xa9", "caf\xc3\xa9"}, {"", "\"\""}, {"two words", "\"two words\""},
        {"say \"hi\"", "\"say \\\"hi\\\"\""}, {"C:\\dir", "\"C:\\\\dir\""},
        {"a\tb\nc\r", "\"a\\tb\\nc\\r\""}, {"\x01\x1f\x7f", "\"\\x01\\x1f\\x7f\""}, {"x\"y", "\"x\\\"y\""}};
    for (const auto &[word, quoted] : cases)
        EXPECT_EQ(Quote(word), quoted);
}

TEST(QuoteWordTest, CutsLikeSnprintf)
{
    const struct { int size; const char *word; int length; const char *kept; } cases[] = {
        {6, "a b c d", 9, "\"a b "}, {3, "plainword", 9, "pl"}, {1, "x", 1, ""}};
    for (const auto &c : cases) {
        char out[6] = "#####";
        EXPECT_EQ(QuoteWord(out, c.size, c.word), c.length);
        EXPECT_STREQ(out, c.kept);
    }
}

TEST(PullTest, MalformedOrOversizedFieldsStoreNothingAndKeepTheCursor)
{
    const char *const bad[] = {"\"open", "\"bad \\q escape\"", "\"\\x00\"", "\"\\x1\"", "\"ab\"cd", "", "   "};
    const char *text = "\"0123456789\" abcdefgh", *p = text;
    char small[10] = "untouched", fits[11], big[16] = "untouched";
    for (const char *bad_text : bad) {
        const char *q = bad_text;
        EXPECT_EQ(PullQuoteWord(&q, big, sizeof big), 0) << bad_text;
        EXPECT_EQ(q, bad_text);
    }
    EXPECT_STREQ(big, "untouched");
    EXPECT_EQ(PullQuoteWord(&p, small, sizeof small), 0) << "ten characters need eleven bytes";
    EXPECT_EQ(p, text);
    EXPECT_STREQ(small, "untouched");
    ASSERT_EQ(PullQuoteWord(&p, fits, sizeof fits), 1);
    EXPECT_STREQ(fits, "0123456789");
    EXPECT_EQ(PullNonWhite(&p, small, 8), 0);  // eight bytes need nine
    ASSERT_EQ(PullNonWhite(&p, small, 9), 1);
    EXPECT_STREQ(small, "abcdefgh");
    // Unquoted words are read verbatim.
    p = "  back\\slash mid\"quote\t";
    for (const char *expect : {"back\\slash", "mid\"quote"}) {
        ASSERT_EQ(PullQuoteWord(&p, fits, sizeof fits), 1);
        EXPECT_STREQ(fits, expect);
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
