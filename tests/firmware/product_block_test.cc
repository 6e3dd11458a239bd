#include "firmware/product_block.h"

#include "tests/native_board.h"

using testing::ElementsAre;

namespace {

std::string padded(std::string text, size_t length, char filling = ' ') {
    text.resize(length, filling);
    return text;
}

std::string block(const std::string &vendor, const std::string &product, const std::string &version,
                  const std::string &mark, char filling = ' ') {
    return padded(vendor, 21, filling) + padded(product, 20, filling) + padded(version, 9) + padded(mark, 10);
}

class GetProduct : public board::NativeBoardTest {
protected:
    static std::string logged() {
        const std::vector<std::string> texts = board::logTexts();
        return texts.empty() ? "nothing" : texts.back();
    }
};

TEST_F(GetProduct, LogsTheFields) {
    const struct {
        std::string block, logged;
    } cases[] = {
        {block("ACME", "AP-1", "01.02.03", "00012003"),
         "Vendor: ACME\nProduct: AP-1\nVersion: 1.02.03\nMark: 00012003"},
        {block("ACME", "AP-1", "12x34y56", "abc", '\0'),
         "Vendor: ACME\nProduct: AP-1\nVersion: 12.34.56\nMark: abc     "},
        {block("", "", "", ""), "Vendor: \nProduct: \nVersion: 0.00.00\nMark:         "},
        {block("A B", "C D", "1 .ab. 7", "12345678"), "Vendor: A\nProduct: C\nVersion: 1.00.07\nMark: 12345678"},
        // Without an end of its own the vendor runs on into the product; the product still starts at its place.
        {block(std::string(21, 'V'), "AP-1", "01.02.03", "1"),
         "Vendor: " + std::string(21, 'V') + "AP-1\nProduct: AP-1\nVersion: 1.02.03\nMark: 1       "},
        {std::string(60, 'x'), "Vendor: " + std::string(43, 'x') + "\nProduct: " + std::string(22, 'x') +
                                   "\nVersion: 0.00.00\nMark: " + std::string(8, 'x')},
        {std::string(60, '9'), "Vendor: " + std::string(43, '9') + "\nProduct: " + std::string(22, '9') +
                                   "\nVersion: 99.99.99\nMark: 99999999"},
    };
    for (const auto &test : cases) {
        ASSERT_EQ(test.block.size(), kProductBlockSize);
        const std::vector<char> source(test.block.begin(), test.block.end());
        std::vector<char> record(kProductBlockSize, '?');
        getProduct(nullptr, source.data(), record.data());
        EXPECT_EQ(logged(), test.logged);
        EXPECT_EQ(std::string(source.begin(), source.end()), test.block) << "the source stays as it was";
        board::writeFile("/tmp/block", test.block + "and more");
        getProduct("/tmp/block", nullptr, nullptr);
        EXPECT_EQ(logged(), test.logged);
    }
}

TEST_F(GetProduct, TheStaticRecordKeepsWhatAShortFileLeaves) {
    getProduct(nullptr, nullptr, nullptr);
    EXPECT_EQ(logged(), "Vendor: \nProduct: \nVersion: 0.00.00\nMark: ");
    const std::string full = block("ACME", "AP-1", "01.02.03", "00012003");
    getProduct(nullptr, full.data(), nullptr);
    board::writeFile("/tmp/short", "NEWVENDOR!");
    getProduct("/tmp/short", nullptr, nullptr);
    EXPECT_EQ(logged(), "Vendor: NEWVENDOR!\nProduct: AP-1\nVersion: 1.02.03\nMark: 00012003");
    getProduct("/tmp/none", nullptr, nullptr);
    EXPECT_EQ(logged(), "Vendor: NEWVENDOR!\nProduct: AP-1\nVersion: 1.02.03\nMark: 00012003");
    getProduct("/tmp/none", full.data(), nullptr);
    EXPECT_EQ(logged(), "Vendor: ACME\nProduct: AP-1\nVersion: 1.02.03\nMark: 00012003");
}

}  // namespace
