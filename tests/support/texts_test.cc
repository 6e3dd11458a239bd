// The tokenizer and text helpers, and the tables read with them.

#include <cstdlib>
#include <cstring>
#include <memory>

#include "support/string_utils.h"
#include "support/system_info.h"
#include "tests/board.h"

namespace {

// The text at the very end of a heap block, so that reading or writing one byte past it is caught.
std::unique_ptr<char, decltype(&free)> exactCopy(const std::string &text) { return {strdup(text.c_str()), free}; }

std::string take(char *heapText) {
    const std::unique_ptr<char, decltype(&free)> owner(heapText, free);
    return heapText != nullptr ? heapText : "(null)";
}

// Each token with a '|' behind it, each null as '!'.
template <typename Tokens>
std::string join(const Tokens &tokens) {
    std::string joined;
    for (const char *token : tokens) joined += token != nullptr ? token + std::string("|") : "!";
    return joined;
}

// Ten tokens at most, and the null behind them; "open" when the result is -1.
std::string parse(const char *line) {
    const auto text = exactCopy(line);
    std::vector<char *> tokens(11, text.get());
    const int count = string_parse(tokens.data(), 10, text.get());
    tokens.resize(static_cast<size_t>(std::max(count, 0)) + 1);
    return count < 0 ? "open" : join(tokens);
}

// Four pieces at most, and the nulls behind them.
std::string split(const char *text, const char *separator) {
    const auto copy = exactCopy(text);
    std::vector<char *> tokens(5, copy.get());
    EXPECT_EQ(string_split(tokens.data(), 4, copy.get(), separator), 4);
    return join(tokens);
}

// The text from where the needle was found.
std::string findLast(const char *text, const char *needle) {
    const auto copy = exactCopy(text);
    const char *const found = my_strrstr(copy.get(), needle);
    return found != nullptr ? found : "-";
}

std::string encode(const std::string &text) { return url_encode(exactCopy(text).get()); }

// The number, and the text behind it.
std::string convert(const char *text, int base) {
    const char *behind = nullptr;
    const uint32_t value = my_strtou32(text, &behind, base);
    return std::to_string(value) + "|" + behind;
}

void expectEqual(const std::vector<std::pair<std::string, std::string>> &cases) {
    for (size_t i = 0; i < cases.size(); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;
}

// clang-format off
TEST(Texts, AreSplitIntoTokens) {
    expectEqual({{parse(""), "!"}, {parse(" \t"), "!"}, {parse("  a\t\tb "), "a|b|!"}, {parse("a \""), "a|!"},
                 {parse("a b c d e f g h i j \"k"), "a|b|c|d|e|f|g|h|i|j|!"}, {parse(R"(KEY = "a b")"), "KEY|=|a b|!"},
                 {parse(R"("x\\"y)"), R"(x\|y|!)"}, {parse(R"("x\\\" y" z)"), R"(x\" y|z|!)"},
                 {parse(R"("a\b")"), "ab|!"}, {parse(R"("a"""b"c)"), R"(a||b"c|!)"},
                 {parse(R"(say"it" now)"), R"(say"it"|now|!)"},
                 // Only blanks and tabs are skipped, so a line end that follows a cut is an empty token of its own.
                 {parse("key \"value\"\n"), "key|value||!"}, {parse("a\r\n"), "a||!"},
                 {parse(R"("abc)"), "open"}, {parse(R"(a "b\")"), "open"}, {parse(R"("\\\")"), "open"},
                 {split("a,b,c", ","), "a|b|c|!!"}, {split("a,b,c,d,e", ","), "a|b|c|d|!"}, {split("", ","), "|!!!!"},
                 {split("a--b", "--"), "a|-b|!!!"}, {split("ab", ""), "ab|!!!!"}});
}

TEST(Texts, AreChanged) {
    const char *const pairs[] = {"a", "bb", "b", "c", nullptr};
    char text[] = ":a::b:";
    std::string full;
    while (full.size() < 1023) full += "%20";
    expectEqual({{take(my_replaceStr("aXbXc", "X", "--")), "a--b--c"}, {take(my_replaceStr("aaa", "aa", "b")), "ba"},
                 {take(my_replaceStr("ababa", "ab", "abc")), "abcabca"}, {take(my_replaceStr("abc", "", "x")), "abc"},
                 {take(my_replaceStr("XX", "XX", "12345")), "12345"},
                 {take(my_replaceStrs("aab", pairs)), "ccccc"}, {take(my_replaceChar("a-b_c", "-_", '+')), "a+b+c"},
                 {take(my_replaceChar(nullptr, "a", 'b')), "(null)"}, {take(my_replaceChar("a", nullptr, 'b')), "(null)"},
                 {take(my_removeChar(text, ':')), "ab"}, {text, ":a::b:"}, {my_stripChar(text, ':'), "ab"},
                 {my_toupper(text), "AB"}, {my_tolower(text), "ab"},
                 {findLast("abcabc", "bc"), "bc"}, {findLast("aaa", "aa"), "aaa"}, {findLast("abc", ""), "-"},
                 {encode("a b.c/"), "a%20b.c%2F"}, {encode("\xE2\x82\xAC\xC3\xA4z"), "%E2%82%AC%C3%A4z"},
                 {encode("\xF0\x9F\x98"), "%F0%9F%98"},  // the text ends inside the sequence
                 {encode(std::string(2000, 'a')), std::string(1023, 'a')}, {encode(std::string(2000, ' ')), full},
                 {encode("a" + std::string(2000, ' ')), "a" + full.substr(0, 1020)}, {encode("x"), "x"}});
}

TEST(Texts, AreReadAs32BitNumbersOnEveryHost) {
    expectEqual({{convert("12abc", 10), "12|abc"}, {convert("0x1F", 16), "31|"}, {convert("zz", 16), "0|zz"},
                 {convert("4294967295", 10), "4294967295|"}, {convert("4294967296", 10), "4294967295|"},
                 {convert("-1", 10), "4294967295|"}, {convert("-4294967295", 10), "1|"},
                 {convert("-4294967296", 10), "4294967295|"}, {convert("99999999999999999999999", 10), "4294967295|"}});
}
// clang-format on

TEST(Texts, GrowAndAreMeasured) {
    char *const number = my_string(my_string(nullptr, "%d;", 1), "%s", "");
    EXPECT_EQ(take(my_string(number, "%s", std::string(2000, 'x').c_str())), "1;" + std::string(2000, 'x'));
    std::string lengths;
    for (const int first : {0x7F, 0x80, 0xBF, 0xC0, 0xDF, 0xE0, 0xEF, 0xF0}) {
        lengths += std::to_string(utf8_len(static_cast<unsigned char>(first)));
    }
    EXPECT_EQ(lengths, "14422334");
}

class Tables : public board::BoardTest {};

// Two entries at most, of seven characters.
TEST_F(Tables, OfParametersAreReadByColumn) {
    const std::tuple<const char *, uint32_t, const char *> cases[] = {
        {"& 1000 2000 3000\nname a b\nname a\nother c d e\n", 0x2000, "b|d|"},
        {"early 2 2\n& 1 2\n# no a b\n1 a b\n\n@x a b\n[x a b\nZ a c\nz a d", 2, "c|d|"},
        {"& 1 2\nname \"a blank\" long-value-cut\n", 1, "a blank|"},
        {"& 1 2\nname \"a blank\" long-value-cut\n", 2, "long-va|"},
        {"& 1 2\nname a b c\n", 3, ""},
        {"& 1\nname a\n& 2\nname b\n", 2, "b|"},
        {"& 1\nname a\n& 2\nname b\n", 1, "a|b|"},
        {"&\n& 0x10 AbC\nname a b\n", 0xABC, "b|"},
        {"& 1\na 1\na 2\na 3\n& 1\na 4\n", 1, "1|2|"},
        {"& 1 2\nname \"open b\nname a b\n", 2, "b|"}};
    for (const auto &[content, column, values] : cases) {
        board::writeFile("/tmp/table", content);
        char table[3][8] = {"", "", "???????"};
        std::string read;
        const int count = read_parameter("/tmp/table", table[0], 2, 8, column);
        for (int i = 0; i < count; ++i) read += table[i] + std::string("|");
        EXPECT_EQ(read, values) << content;
        EXPECT_STREQ(table[2], "???????") << "written past the table";
    }
    EXPECT_EQ(read_parameter("/tmp/none", nullptr, 1, 1, 1), 0);
    board::writeFile("/tmp/list", "# comment x\n1 one\nalone\n2 \"two words\"\n3 a-long-value more\n\"open x\n4 last");
    char table[3][8] = {};
    for (const int entries : {0, 3}) EXPECT_EQ(read_value_list("/tmp/list", table[0], entries, 8), entries);
    EXPECT_EQ(join(table), "one|two wor|a-long-|");
    EXPECT_EQ(read_value_list("/tmp/none", table[0], 3, 8), 0);
}

TEST_F(Tables, OfTheSystemAreSelectedByItsMark) {
    const std::string acme = "ACME" + std::string(46, ' '), model = acme + "00123456" + std::string(18, ' ');
    const std::string html = "& 123000 456000\nx html other\n", entry = "& 123 456\nx other " + std::string(40, 'e');
    const std::tuple<std::string, std::string, std::string, std::string, std::string, int> cases[] = {
        {model, html, entry, "html", std::string(19, 'e'), 0},
        {model.substr(0, 75), html, entry, "", "", -1},
        {model, "", entry, "", "", -1},
        {model, html, "& 457\nx entry\n", "html", "", -1},
        // Digits up to the record's end: the number is out of range, its masks still select.
        {acme + std::string(26, 'f'), "& fff000\nx html\n", "& fff\nx entry\n", "html", "entry", 0}};
    for (const auto &[record, htmlText, entryText, htmlRead, entryRead, result] : cases) {
        memset(html_fmt, 0, sizeof html_fmt);
        memset(entry_num, 0, sizeof entry_num);
        setenv("REMOTE_USER_PRIVILEGE", "1", 1);
        board::writeFile("/etc/system.info", record);
        board::writeFile("/etc/html.info", htmlText);
        board::writeFile("/etc/entry.info", entryText);
        const std::unique_ptr<char[]> bytes(new char[kSystemInfoSize]);
        EXPECT_EQ(my_systemInfo(bytes.get()), result) << record;
        EXPECT_EQ(html_fmt[0], htmlRead) << record;
        EXPECT_EQ(entry_num[0], entryRead) << record;
        EXPECT_STREQ(getenv("REMOTE_USER_PRIVILEGE"), "15");
    }
    save_systemInfo(model.data());
    EXPECT_EQ(board::readFile("/etc/sysconfig/.firewall/system.info"), model);
    std::filesystem::remove_all("/etc/sysconfig");
    save_systemInfo(model.data());
}

}  // namespace
