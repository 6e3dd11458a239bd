// Images built and looked at by the factory side's tool.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "image/firmware_image.h"

using fwimage::Contents;
using fwimage::ImageError;
using fwimage::Source;
using testing::HasSubstr;

namespace {

namespace fs = std::filesystem;

const fwimage::Product kProduct = {"ACME", "AP-2", "1.2.3", "00012001"};

class Image : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/image-test.XXXXXX";
        folder_ = mkdtemp(name);
        write("kernel", std::string(100000, 'k'));
        write("root", "the root");
        write("empty", "");
    }
    void TearDown() override { fs::remove_all(folder_); }

    fs::path path(const std::string &name) const { return folder_ / name; }
    void write(const std::string &name, const std::string &content) const {
        std::ofstream(path(name), std::ios::binary) << content;
    }
    std::string read(const std::string &name) const {
        std::ostringstream content;
        content << std::ifstream(path(name), std::ios::binary).rdbuf();
        return content.str();
    }

    fs::path folder_;
};

TEST_F(Image, IsReadAsItWasBuilt) {
    fwimage::create(path("image"), kProduct,
                    {{"2.bin", path("kernel")}, {"3.rootfs", path("root")}, {"4.x", path("empty")}});
    const Contents contents = fwimage::inspect(path("image"));
    EXPECT_EQ(contents.fault, "");
    EXPECT_EQ(contents.product.vendor, "ACME");
    EXPECT_EQ(contents.product.product, "AP-2");
    EXPECT_EQ(contents.product.version, "01.02.03");
    EXPECT_EQ(contents.product.mark, "00012001");
    ASSERT_EQ(contents.sections.size(), 3U);
    EXPECT_EQ(contents.sections[1].name, "3.rootfs");
    EXPECT_EQ(contents.sections[1].length, 8U);
    EXPECT_EQ(contents.sections[1].offset, 60U + 64 + 100000 + 64);

    const std::string bytes = read("image");
    EXPECT_EQ(bytes.substr(0, 60), "ACME                 AP-2                01.02.03 00012001  ");
    EXPECT_EQ(bytes.substr(60, 64), "100000 2.bin" + std::string(52, '\0'));
    EXPECT_EQ(bytes.size(), 60U + 64 + 100000 + 64 + 8 + 64 + 33);
    EXPECT_EQ(bytes.substr(bytes.size() - 33, 32), contents.digest);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()), 4) << "nothing is left over";
}

TEST_F(Image, BadArgumentsAreRefusedBeforeAnythingIsWritten) {
    const auto with = [](auto change) {
        fwimage::Product product = kProduct;
        change(product);
        return product;
    };
    const struct {
        fwimage::Product product;
        Source source;
        const char *fault;
    } cases[] = {
        {with([](auto &p) { p.vendor = std::string(21, 'x'); }), {"2.bin", path("root")}, "more than 20"},
        {with([](auto &p) { p.vendor = ""; }), {"2.bin", path("root")}, "vendor is empty"},
        {with([](auto &p) { p.vendor = "A B"; }), {"2.bin", path("root")}, "blank"},
        {with([](auto &p) { p.product = std::string(20, 'x'); }), {"2.bin", path("root")}, "more than 19"},
        {with([](auto &p) { p.mark = "123456789"; }), {"2.bin", path("root")}, "more than 8"},
        {with([](auto &p) { p.version = "1.2"; }), {"2.bin", path("root")}, "three numbers"},
        {with([](auto &p) { p.version = "1.2.100"; }), {"2.bin", path("root")}, "three numbers"},
        {with([](auto &p) { p.version = "1.2.3.4"; }), {"2.bin", path("root")}, "three numbers"},
        {with([](auto &p) { p.version = "-1.2.3"; }), {"2.bin", path("root")}, "three numbers"},
        {kProduct, {"2bin", path("root")}, "no dot"},
        {kProduct, {"kernel.bin", path("root")}, "partition's number"},
        {kProduct, {"-2.bin", path("root")}, "partition's number"},
        {kProduct, {"2.b in", path("root")}, "blank"},
        {kProduct, {"2." + std::string(60, 's'), path("root")}, "too long"},
        {kProduct, {"2.bin", path("none")}, "no file"},
        {kProduct, {"2.bin", folder_}, "no file"},
    };
    for (const auto &test : cases) {
        try {
            fwimage::create(path("image"), test.product, {{"3.ok", path("root")}, test.source});
            ADD_FAILURE() << "accepted: " << test.fault;
        } catch (const ImageError &error) {
            EXPECT_THAT(error.what(), HasSubstr(test.fault));
        }
        EXPECT_FALSE(fs::exists(path("image")));
    }
    EXPECT_THROW(fwimage::create(path("none") / "image", kProduct, {}), std::runtime_error);
}

TEST_F(Image, OnlyARegularFileIsReplaced) {
    write("old", "old");
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    const std::tuple<const char *, const char *, const char *> cases[] = {
        {"link", "old", "old"}, {"loose", "new", "new"}, {"toFifo", "fifo", nullptr}, {"loop", "loop", nullptr}};
    for (const auto &[link, target, written] : cases) {
        fs::create_symlink(target, path(link));
        if (written == nullptr) {
            EXPECT_THROW(fwimage::create(path(link), kProduct, {}), std::runtime_error) << link;
        } else {
            fwimage::create(path(link), kProduct, {});
            EXPECT_EQ(read(written).substr(0, 4), "ACME") << link;
        }
        EXPECT_TRUE(fs::is_symlink(path(link)));
    }
    EXPECT_TRUE(fs::is_fifo(path("fifo")));
}

TEST_F(Image, WhatIsSeldomMeantIsWarnedOf) {
    const std::vector<Source> good = {{"2.a", path("root")}, {"3.a", path("root")}},
                              twice = {{"2.a", path("root")}, {"3.a", path("root")}, {"02.b", path("root")}};
    const std::tuple<std::vector<Source>, std::vector<std::string>> cases[] = {
        {good, {}},
        {{}, {"there is no section: the board flashes what an earlier image left in its /tmp, and nothing else"}},
        {twice, {"2 sections are for block 2: the board flashes the last one alone"}}};
    for (const auto &[sources, warnings] : cases) {
        EXPECT_EQ(fwimage::create(path("image"), kProduct, sources), warnings);
        EXPECT_EQ(fwimage::inspect(path("image")).warnings, warnings);
    }
}

TEST_F(Image, TheFirstThingWrongIsNamed) {
    fwimage::create(path("image"), kProduct, {{"2.bin", path("root")}, {"3.bin", path("root")}});
    const std::string good = read("image");
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
        {changed(125, "x"), "digest in the trailer"},
        {changed(good.size() - 33, "X"), "digest in the trailer"},
        {good + "more", "is cut off after 4 bytes"},
    };
    for (const auto &test : cases) {
        write("bad", test.bytes);
        EXPECT_THAT(fwimage::inspect(path("bad")).fault, HasSubstr(test.fault));
    }
    EXPECT_EQ(fwimage::inspect(path("image")).fault, "");
    EXPECT_THROW(fwimage::inspect(path("none")), ImageError);
    EXPECT_THROW(fwimage::inspect(folder_), ImageError);
    fs::resize_file(path("image"), 2147483648);
    EXPECT_THAT(fwimage::inspect(path("image")).fault, HasSubstr("more than the 2147483647"));
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    EXPECT_THROW(fwimage::inspect("/proc/self/fd/" + std::to_string(pipe[0])), ImageError);
    for (const int end : pipe) close(end);
}

}  // namespace
