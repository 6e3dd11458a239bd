// Images built and looked at by the factory side's tool. docs/image-format.md has one to the byte.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "image/firmware_image.h"
#include "tests/folder.h"

using namespace std::string_literals;
using testing::HasSubstr;

namespace {

namespace fs = std::filesystem;
using Sources = std::vector<fwimage::Source>;

const fwimage::Product kProduct = {"ACME", "AP-2", "1.2.3", "00012001"};

// Returns why the image is not made; empty when it is.
std::string refusal(const std::string &image, const fwimage::Product &product, const Sources &sources) try {
    fwimage::create(image, product, sources);
    return fwimage::inspect(image).fault;
} catch (const std::exception &error) {
    return error.what();
}

// Runs each test in a folder of its own.
class Image : public testing::Test {
protected:
    Image() {
        fs::current_path(folder_.path);
        folder_.write("root", "the root");
        folder_.write("kernel", std::string(100000, 'k'));
        folder_.write("empty", "");
    }

    const Folder folder_;
};

// docs/image-format.md refuses fields that are one character longer.
TEST_F(Image, MayHaveTheLongestFieldsAndPayloadsOfAnySize) {
    const auto x = [](size_t count) { return std::string(count, 'x'); };
    const Sources sources = {{"2.bin", "kernel"}, {"3." + x(59), "root"}, {"4.x", "empty"}};
    EXPECT_EQ(refusal("image", {x(20), x(19), "99.0.0", x(8)}, sources), "");
    EXPECT_EQ(fs::file_size("image"), 60U + 64 + 100000 + 64 + 8 + 64 + 33);
    EXPECT_EQ(std::distance(fs::directory_iterator("."), fs::directory_iterator()), 4) << "nothing is left over";
    EXPECT_THAT(refusal("image", kProduct, {{"3." + x(60), "root"}}), HasSubstr("too long"));
}

TEST_F(Image, OnlyARegularFileIsReplaced) {
    folder_.write("old", "old");
    ASSERT_EQ(mkfifo("fifo", 0600), 0);
    fs::create_directory("folder");
    const struct {
        const char *link, *target, *written, *told;
    } cases[] = {{"link", "old", "old", ""},
                 {"folder/loose", "../new", "new", ""},
                 {"toFifo", "fifo", "", "no regular"},
                 {"loop", "loop", "", "Too many"},
                 {"out", "none/new", "", "No such file"}};
    for (const auto &[link, target, written, refused] : cases) {
        fs::create_symlink(target, link);
        EXPECT_THAT(refusal(link, kProduct, {{"2.bin", "root"}}), HasSubstr(refused)) << link;
        const std::string begin = *written != '\0' ? contentOf(written).substr(0, 4) : "ACME";
        EXPECT_EQ(begin, "ACME") << link;
        EXPECT_TRUE(fs::is_symlink(link) && fs::is_fifo("fifo")) << link;
    }
}

TEST_F(Image, TheFirstThingWrongIsNamed) {
    EXPECT_EQ(refusal("image", kProduct, {{"2.bin", "root"}, {"3.bin", "root"}}), "");
    const std::string good = contentOf("image");
    const auto changed = [&](size_t position, const std::string &bytes) {
        return std::string(good).replace(position, bytes.size(), bytes);
    };
    const struct {
        std::string bytes, fault;
    } cases[] = {
        {good.substr(0, 92), "92 bytes are too few"},
        {changed(0, std::string(21, 'v')), "vendor has no end"},
        {changed(21, std::string(20, 'p')), "product has no end"},
        {changed(60, "9 "), "section at 133 has no length"},
        {changed(60, "x"), "section at 60 has no length and name"},
        {changed(60, "8 2xbin"), "section at 60 is called \"2xbin\", which has no dot"},
        {changed(60, "8 2.b\033n"), "section at 60 is called \"2.b?n\", which holds"},
        {changed(132, "9 3.bin"), "section at 132 (3.bin) is 9 bytes long, but only 8 follow"},
        {changed(132, "99999999999 3.bin"), "is 99999999999 bytes long"},
        {good.substr(0, 140) + good.substr(good.size() - 33), "cut off after 8 bytes of its header"},
        {changed(good.size() - 33, "X"), "digest in the trailer"},
        {good + "more", "is cut off after 4 bytes"},
    };
    for (const auto &test : cases) {
        folder_.write("bad", test.bytes);
        EXPECT_THAT(fwimage::inspect("bad").fault, HasSubstr(test.fault));
    }
    fs::resize_file("image", 2147483648);
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    for (const std::string &file : {"image"s, "none"s, "."s, "/proc/self/fd/" + std::to_string(pipe[0])})
        EXPECT_THROW(fwimage::inspect(file), fwimage::ImageError) << file;
}

}  // namespace
