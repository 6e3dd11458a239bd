// The tokenizer and text helpers, and the tables read with them.

#include <cstring>

#include "support/string_utils.h"
#include "support/system_info.h"
#include "tests/board.h"

namespace {

// Keeps a heap string until the end of the program, and returns it.
char *kept(char *text) {
    static std::vector<std::unique_ptr<char, decltype(&free)>> texts;
    return texts.emplace_back(text, free).get();
}

// Returns a copy in a heap block of its own, so that the sanitizer sees every access out of bounds.
char *copied(const char *text) { return kept(strdup(text)); }

// Returns the tokens, each followed by a '|'; a null as '!'.
template <typename Tokens>
std::string join(const Tokens &tokens) {
    std::string joined;
    for (const char *token : tokens) joined += token != nullptr ? token + std::string("|") : "!";
    return joined;
}

// Splits a line into at most ten tokens. Returns them and the null after them; "open" when a quote is not closed.
std::string parse(const char *line) {
    char *const text = copied(line);
    std::vector<char *> tokens(11, text);
    const int count = string_parse(tokens.data(), 10, text);
    tokens.resize(static_cast<size_t>(std::max(count, 0)) + 1);
    return count < 0 ? "open" : join(tokens);
}

// Returns at most four pieces and the nulls after them.
std::string split(const char *text, const char *separator) {
    std::vector<char *> tokens(5, copied(text));
    EXPECT_EQ(string_split(tokens.data(), 4, tokens[0], separator), 4);
    return join(tokens);
}

std::string convert(const char *text, int base) {
    const char *rest = nullptr;
    const uint32_t value = my_strtou32(text, &rest, base);
    return std::to_string(value) + "|" + rest;
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
                 // Only blanks and tabs are skipped, so a line end after a cut is an empty token.
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
    char *const number = my_string(my_string(nullptr, "%d;", 1), "%s", "");
    expectEqual({{kept(my_replaceStr("aXbXc", "X", "--")), "a--b--c"}, {kept(my_replaceStr("aaa", "aa", "b")), "ba"},
                 {kept(my_replaceStr("ababa", "ab", "abc")), "abcabca"}, {kept(my_replaceStr("abc", "", "x")), "abc"},
                 {kept(my_replaceStr("XX", "XX", "12345")), "12345"},
                 {kept(my_replaceStrs("aab", pairs)), "ccccc"}, {kept(my_replaceChar("a-b_c", "-_", '+')), "a+b+c"},
                 {kept(my_removeChar(text, ':')), "ab"}, {text, ":a::b:"}, {my_stripChar(text, ':'), "ab"},
                 {my_toupper(text), "AB"}, {my_tolower(text), "ab"},
                 {kept(my_string(number, "%s", full.c_str())), "1;" + full},
                 {my_strrstr(copied("abcabc"), "bc"), "bc"}, {my_strrstr(copied("aaa"), "aa"), "aaa"},
                 {url_encode(copied("\xE2\x82\xAC\xC3\xA4z")), "%E2%82%AC%C3%A4z"},
                 {url_encode("a b.c/"), "a%20b.c%2F"},
                 {url_encode(copied("\xF0\x9F\x98")), "%F0%9F%98"},  // the text ends inside the sequence
                 {url_encode(std::string(2000, 'a').c_str()), std::string(1023, 'a')},
                 {url_encode(std::string(2000, ' ').c_str()), full},
                 {url_encode(("a" + std::string(2000, ' ')).c_str()), "a" + full.substr(0, 1020)},
                 {url_encode("x"), "x"}});
    const char *const nothing[] = {my_replaceChar(nullptr, "a", 'b'), my_replaceChar("a", nullptr, 'b'),
                                   my_strrstr(text, "")};
    EXPECT_THAT(nothing, testing::Each(nullptr));
    EXPECT_THAT((std::vector{utf8_len(0x7F), utf8_len(0x80), utf8_len(0xBF), utf8_len(0xC0), utf8_len(0xDF)}),
                testing::ElementsAre(1, 4, 4, 2, 2));
    EXPECT_THAT((std::vector{utf8_len(0xE0), utf8_len(0xEF), utf8_len(0xF0)}), testing::ElementsAre(3, 3, 4));
}

TEST(Texts, AreReadAs32BitNumbersOnEveryHost) {
    expectEqual({{convert("12abc", 10), "12|abc"}, {convert("0x1F", 16), "31|"}, {convert("zz", 16), "0|zz"},
                 {convert("4294967295", 10), "4294967295|"}, {convert("4294967296", 10), "4294967295|"},
                 {convert("-1", 10), "4294967295|"}, {convert("-4294967295", 10), "1|"},
                 {convert("-4294967296", 10), "4294967295|"}, {convert("99999999999999999999999", 10), "4294967295|"}});
}
// clang-format on

class Tables : public board::BoardTest {};

// The table has room for two entries of seven characters.
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
        std::vector<std::array<char, 8>> table(2);
        const int count = read_parameter("/tmp/table", table[0].data(), 2, 8, column);
        std::string read;
        for (int i = 0; i < count; ++i) read += table[static_cast<size_t>(i)].data() + std::string("|");
        EXPECT_EQ(read, values) << content;
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
        // Digits up to the end of the record: the number is out of range, but its bits still select a column.
        {acme + std::string(26, 'f'), "& fff000\nx html\n", "& fff\nx entry\n", "html", "entry", 0}};
    for (const auto &[record, htmlText, entryText, htmlRead, entryRead, result] : cases) {
        html_fmt[0][0] = entry_num[0][0] = '\0';
        setenv("REMOTE_USER_PRIVILEGE", "1", 1);
        board::writeFile("/etc/system.info", record);
        board::writeFile("/etc/html.info", htmlText);
        board::writeFile("/etc/entry.info", entryText);
        std::vector<char> bytes(kSystemInfoSize);
        EXPECT_EQ(my_systemInfo(bytes.data()), result) << record;
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
