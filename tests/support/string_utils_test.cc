#include "support/string_utils.h"

#include <cstdlib>
#include <memory>
#include <optional>

#include "tests/native_board.h"

using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

using Texts = std::vector<std::string>;

std::string take(char *heapText) {
    const std::unique_ptr<char, decltype(&free)> owner(heapText, free);
    return heapText != nullptr ? heapText : "(null)";
}

// The text at the very end of a heap block, so that reading or writing one byte past it is caught.
std::unique_ptr<char[]> exactCopy(const std::string &text) {
    std::unique_ptr<char[]> copy(new char[text.size() + 1]);
    text.copy(copy.get(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

// The tokens, or none for an unclosed quote; with `max` + 1 entries in the array and not one more.
std::optional<Texts> parse(const std::string &line, int max) {
    const auto text = exactCopy(line);
    std::vector<char *> tokens(static_cast<size_t>(max) + 1, text.get());
    const int count = string_parse(tokens.data(), max, text.get());
    if (count < 0) return std::nullopt;
    EXPECT_EQ(tokens[static_cast<size_t>(count)], nullptr) << line;
    return Texts(tokens.begin(), tokens.begin() + count);
}

TEST(StringParse, SplitsAndUnescapes) {
    const struct {
        const char *line;
        int max;
        Texts tokens;
    } cases[] = {
        {"KEY = \"a b\"", 10, {"KEY", "=", "a b"}},
        {"  a\t\tb ", 10, {"a", "b"}},
        {"", 10, {}},
        {" \t", 10, {}},
        {"A \"x\\\"y\" B", 10, {"A", "x\"y", "B"}},
        {"\"x\\\\\"", 10, {"x\\"}},
        {"\"x\\\\\"y", 10, {"x\\", "y"}},
        {"\"x\\\\\\\" y\" z", 10, {"x\\\" y", "z"}},
        {"\"a\\b\"", 10, {"ab"}},
        {"\"\" b", 10, {"", "b"}},
        {"\"a\"\"b\"c", 10, {"a", "b", "c"}},
        {"a b c d", 2, {"a", "b"}},
        {"a b", 2, {"a", "b"}},
        {"a \"open", 1, {"a"}},
        {"a", 0, {}},
        {"say\"it\" now", 10, {"say\"it\"", "now"}},
        {"a \"", 10, {"a"}},
        {"key value\n", 10, {"key", "value"}},
        // Only blanks and tabs are skipped, so a line end that follows a cut is an empty token of its own.
        {"key \"value\"\n", 10, {"key", "value", ""}},
        {"a \n", 10, {"a", ""}},
        {"a\r\n", 10, {"a", ""}},
    };
    for (const auto &test : cases) EXPECT_EQ(parse(test.line, test.max), test.tokens) << test.line;
    for (const char *open : {"\"abc", "a \"b\\\"", "a \"\n", "\"\\", "\"\\\\\\\""}) {
        EXPECT_EQ(parse(open, 10), std::nullopt) << open;
    }
}

TEST(StringSplit, ReturnsMaxAndEndsWithNulls) {
    const auto split = [](const std::string &text, int max, const char *separator) {
        const auto copy = exactCopy(text);
        std::vector<char *> tokens(static_cast<size_t>(max) + 1, copy.get());
        EXPECT_EQ(string_split(tokens.data(), max, copy.get(), separator), max);
        Texts pieces;
        for (const char *token : tokens) {
            if (token == nullptr) break;
            pieces.emplace_back(token);
        }
        return pieces;
    };
    EXPECT_THAT(split("a,b,c", 5, ","), ElementsAre("a", "b", "c"));
    EXPECT_THAT(split("a,b,c", 2, ","), ElementsAre("a", "b"));
    EXPECT_THAT(split("a,b,c", 3, ","), ElementsAre("a", "b", "c"));
    EXPECT_THAT(split(",a,", 5, ","), ElementsAre("", "a", ""));
    EXPECT_THAT(split("a--b", 5, "--"), ElementsAre("a", "-b"));
    EXPECT_THAT(split("", 2, ","), ElementsAre(""));
    EXPECT_THAT(split("ab", 3, ""), ElementsAre("ab"));
}

TEST(Replace, Strings) {
    const struct {
        const char *text, *old, *replacement, *result;
    } cases[] = {
        {"aXbXc", "X", "--", "a--b--c"}, {"aaa", "aa", "b", "ba"},          {"aaa", "a", "", ""},
        {"abc", "x", "long", "abc"},     {"ababa", "ab", "abc", "abcabca"}, {"", "a", "b", ""},
        {"abc", "", "x", "abc"},         {"XX", "XX", "12345", "12345"},
    };
    for (const auto &test : cases) {
        EXPECT_EQ(take(my_replaceStr(test.text, test.old, test.replacement)), test.result) << test.text;
    }
    const char *const pairs[] = {"a", "bb", "b", "c", nullptr};
    EXPECT_EQ(take(my_replaceStrs("aab", pairs)), "ccccc");
}

TEST(Replace, Characters) {
    EXPECT_EQ(take(my_replaceChar("a-b_c", "-_", '+')), "a+b+c");
    EXPECT_EQ(my_replaceChar(nullptr, "a", 'b'), nullptr);
    EXPECT_EQ(my_replaceChar("a", nullptr, 'b'), nullptr);
    char text[] = ":a::b:";
    EXPECT_EQ(take(my_removeChar(text, ':')), "ab");
    EXPECT_STREQ(text, ":a::b:");
    EXPECT_EQ(my_stripChar(text, ':'), text);
    EXPECT_STREQ(text, "ab");
    EXPECT_STREQ(my_toupper(text), "AB");
    EXPECT_STREQ(my_tolower(text), "ab");
}

TEST(MyString, GrowsAText) {
    char *text = my_string(nullptr, "%s", "");
    std::string expected;
    for (int i = 0; i < 500; ++i) {
        text = my_string(text, "%d;", i);
        expected += std::to_string(i) + ";";
    }
    EXPECT_EQ(take(text), expected);
}

TEST(MyStrrstr, FindsTheLastOfNonOverlappingOccurrences) {
    const struct {
        const char *text, *needle;
        int position;
    } cases[] = {{"abcabc", "bc", 4}, {"aaa", "aa", 0}, {"aaaa", "aa", 2}, {"abc", "x", -1}, {"abc", "", -1}};
    for (const auto &test : cases) {
        const auto text = exactCopy(test.text);
        const char *const found = my_strrstr(text.get(), test.needle);
        EXPECT_EQ(found != nullptr ? found - text.get() : -1, test.position) << test.text << " " << test.needle;
    }
}

TEST(UrlEncode, EscapesAndStaysInItsBuffer) {
    const struct {
        std::string text, encoded;
    } cases[] = {
        {"a b.c/", "a%20b.c%2F"},
        {"\xC3\xA4", "%C3%A4"},
        {"\xE2\x82\xAC", "%E2%82%AC"},
        {"\xC3"
         "A",
         "%C3%41"},                     // two bytes are written as a sequence, whatever the second is
        {"\xF0\x9F\x98", "%F0%9F%98"},  // the text ends inside the sequence
        {std::string(2000, 'a'), std::string(1023, 'a')},
        {std::string(2000, ' '),
         [] {
             std::string s;
             for (int i = 0; i < 341; ++i) s += "%20";
             return s;
         }()},
    };
    for (const auto &test : cases) EXPECT_EQ(url_encode(exactCopy(test.text).get()), test.encoded);
    EXPECT_EQ(url_encode("x"), std::string("x")) << "what an earlier call left is cleared";
}

TEST(Utf8Len, ByFirstByte) {
    const std::pair<int, int> cases[] = {{0x00, 1}, {0x7F, 1}, {0x80, 4}, {0xBF, 4}, {0xC0, 2},
                                         {0xDF, 2}, {0xE0, 3}, {0xEF, 3}, {0xF0, 4}, {0xFF, 4}};
    for (const auto &[byte, length] : cases) EXPECT_EQ(utf8_len(static_cast<unsigned char>(byte)), length) << byte;
}

TEST(MyStrtou32, IsThe32BitConversionOnEveryHost) {
    const struct {
        const char *text;
        int base;
        uint32_t value;
        long consumed;
    } cases[] = {
        {"12abc", 10, 12, 2},
        {"4294967295", 10, 4294967295U, 10},
        {"4294967296", 10, 4294967295U, 10},
        {"99999999999999999999999", 10, 4294967295U, 23},
        {"-1", 10, 4294967295U, 2},
        {"-4294967296", 10, 4294967295U, 11},
        {"0x1F", 16, 31, 4},
        {"zz", 16, 0, 0},
    };
    for (const auto &test : cases) {
        const char *end = nullptr;
        EXPECT_EQ(my_strtou32(test.text, &end, test.base), test.value) << test.text;
        EXPECT_EQ(end - test.text, test.consumed) << test.text;
    }
}

class ReadValueList : public board::NativeBoardTest {};

TEST_F(ReadValueList, TakesSecondTokens) {
    board::writeFile("/tmp/list", "# comment x\n1 one\nalone\n2 \"two words\"\n3 a-long-value more\n\"open x\n4 last");
    std::vector<char> table(3 * 8, '?');
    ASSERT_EQ(read_value_list("/tmp/list", table.data(), 3, 8), 3);
    EXPECT_STREQ(&table[0], "one");
    EXPECT_STREQ(&table[8], "two wor");
    EXPECT_STREQ(&table[16], "a-long-");
    EXPECT_EQ(read_value_list("/tmp/list", table.data(), 0, 8), 0);
    EXPECT_EQ(read_value_list("/tmp/none", table.data(), 3, 8), 0);
}

}  // namespace
