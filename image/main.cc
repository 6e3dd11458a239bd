// fwimage: builds firmware images and shows what is in them.

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>
#include <vector>

#include "image/firmware_image.h"

namespace {

struct Options {
    std::string image;
    fwimage::Product product;
    std::vector<std::string> sections;
};

fwimage::Source parseSection(const std::string &argument) {
    const size_t equals = argument.find('=');
    if (equals == std::string::npos || equals + 1 == argument.size()) {
        throw fwimage::ImageError(fmt::format("\"{}\" is not a section: N.suffix=FILE", argument));
    }
    return {argument.substr(0, equals), argument.substr(equals + 1)};
}

void printWarnings(const std::string &image, const std::vector<std::string> &warnings) {
    for (const std::string &warning : warnings) fmt::print(stderr, "fwimage: {}: warning: {}\n", image, warning);
}

int create(const Options &options) {
    std::vector<fwimage::Source> sources;
    for (const std::string &section : options.sections) sources.push_back(parseSection(section));
    printWarnings(options.image, fwimage::create(options.image, options.product, sources));
    return 0;
}

int show(const Options &options) {
    const fwimage::Contents contents = fwimage::inspect(options.image);
    if (!contents.digest.empty()) {
        fmt::print("Vendor:  {}\nProduct: {}\nVersion: {}\nMark:    {}\n", contents.product.vendor,
                   contents.product.product, contents.product.version, contents.product.mark);
        for (const fwimage::Section &section : contents.sections) {
            fmt::print("Section: {}, {} bytes at {}\n", section.name, section.length, section.offset);
        }
        fmt::print("Digest:  {}{}\n", contents.trailer,
                   contents.trailer == contents.digest ? ", holds" : ", should be " + contents.digest);
        std::fflush(stdout);
    }
    printWarnings(options.image, contents.warnings);
    if (contents.fault.empty()) return 0;
    fmt::print(stderr, "fwimage: {}: {}\n", options.image, contents.fault);
    return 1;
}

}  // namespace

int main(int argc, char **argv) try {
    CLI::App app("Builds firmware images for the board and shows what is in them.", "fwimage");
    app.require_subcommand(1);
    app.set_version_flag("--version", "fwimage " VERSION, "Print the version");
    Options options;
    CLI::App *const createCommand = app.add_subcommand("create", "Build an image from product fields and sections");
    createCommand->add_option("image", options.image, "The image to write")->required();
    createCommand->add_option("sections", options.sections,
                              "N.suffix=FILE: the content of MTD partition N; sections follow in this order");
    createCommand->add_option("--vendor", options.product.vendor, "At most 20 characters")->required();
    createCommand->add_option("--product", options.product.product, "At most 19 characters")->required();
    createCommand->add_option("--version", options.product.version, "MAJOR.MINOR.PATCH, each 0 to 99")->required();
    createCommand->add_option("--mark", options.product.mark, "At most 8 characters, usually hexadecimal digits")
        ->required();
    CLI::App *const showCommand =
        app.add_subcommand("show", "Print an image's product, sections and digest; status 1 if something is wrong");
    showCommand->add_option("image", options.image, "The image to read")->required();
    CLI11_PARSE(app, argc, argv);
    return createCommand->parsed() ? create(options) : show(options);
} catch (const std::exception &error) {
    std::fprintf(stderr, "fwimage: %s\n", error.what());
    return 1;
}
