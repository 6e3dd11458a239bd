#include "image/firmware_image.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <map>
#include <string_view>

#include "station/base/descriptor.h"
#include "station/base/digest.h"
#include "station/base/file.h"

namespace fwimage {
namespace {

namespace fs = std::filesystem;

constexpr size_t kBlockSize = 60;
constexpr size_t kHeaderSize = 64;
constexpr size_t kDigestLength = 32;
constexpr size_t kTrailerSize = kDigestLength + 1;
// The station announces an image, trailer included, as a number that the board reads with atoi.
constexpr uint64_t kLongestFile = std::numeric_limits<int32_t>::max();

constexpr char kTooLong[] = "more than the 2147483647 that a command can announce";

bool isGraphic(char c) { return c > ' ' && c < 0x7F; }

void checkText(std::string_view what, std::string_view text, size_t longest) {
    if (text.empty()) throw ImageError(fmt::format("the {} is empty", what));
    if (text.size() > longest) {
        throw ImageError(fmt::format("the {} \"{}\" has more than {} characters", what, text, longest));
    }
    if (!std::all_of(text.begin(), text.end(), isGraphic)) {
        throw ImageError(fmt::format("the {} \"{}\" holds a blank or an unprintable character", what, text));
    }
}

// Returns "1.2.3" as "01.02.03".
std::string versionField(const std::string &version) {
    std::array<unsigned, 3> numbers{};
    const char *position = version.data();
    const char *const end = position + version.size();
    for (size_t i = 0; i < numbers.size(); ++i) {
        const auto [behind, error] = std::from_chars(position, end, numbers[i]);
        const bool lastOrDot = i == 2 ? behind == end : behind != end && *behind == '.';
        if (error != std::errc() || numbers[i] > 99 || !lastOrDot) {
            throw ImageError(fmt::format("the version \"{}\" is not three numbers of 0 to 99 with dots", version));
        }
        position = behind + (i < 2 ? 1 : 0);
    }
    return fmt::format("{:02}.{:02}.{:02}", numbers[0], numbers[1], numbers[2]);
}

std::string productBlock(const Product &product) {
    checkText("vendor", product.vendor, 20);
    checkText("product", product.product, 19);
    checkText("mark", product.mark, 8);
    return fmt::format("{: <21}{: <20}{} {: <8}  ", product.vendor, product.product, versionField(product.version),
                       product.mark);
}

// Returns what is wrong with a section's name, or an empty text.
std::string nameFault(std::string_view name) {
    const size_t dot = name.find('.');
    if (dot == std::string_view::npos) return "has no dot: the board would end its walk over the sections there";
    unsigned number = 0;
    const auto [behind, error] = std::from_chars(name.data(), name.data() + dot, number);
    // The board reads the number with atoi, which would turn a larger number into another one.
    if (error != std::errc() || behind != name.data() + dot || number > std::numeric_limits<int32_t>::max())
        return "does not begin with a partition's number and a dot";
    if (!std::all_of(name.begin(), name.end(), isGraphic)) return "holds a blank or an unprintable character";
    return {};
}

std::string sectionHeader(const Source &source) {
    const std::string fault = nameFault(source.name);
    if (!fault.empty()) throw ImageError(fmt::format("the section \"{}\" {}", source.name, fault));
    std::error_code error;
    if (!fs::is_regular_file(source.file, error)) throw ImageError(fmt::format("no file {}", source.file.string()));
    const uint64_t length = fs::file_size(source.file);
    if (length > kLongestFile) throw ImageError(fmt::format("{} is too long", source.file.string()));
    std::string header = fmt::format("{} {}", length, source.name);
    if (header.size() >= kHeaderSize) {
        throw ImageError(fmt::format("the section's name \"{}\" is too long for its header", source.name));
    }
    header.resize(kHeaderSize, '\0');
    return header;
}

// Returns the number at the beginning of a valid section's name: that of the block device that receives the section.
unsigned blockOf(std::string_view name) {
    unsigned number = 0;
    std::from_chars(name.data(), name.data() + name.size(), number);
    return number;
}

// Returns warnings of what is allowed but probably a mistake; each says what the board will do.
template <typename Sections>
std::vector<std::string> findWarnings(const Sections &sections) {
    if (sections.empty()) {
        return {"there is no section: the board flashes what an earlier image left in its /tmp, and nothing else"};
    }
    std::map<unsigned, int> counts;
    for (const auto &section : sections) ++counts[blockOf(section.name)];
    std::vector<std::string> warnings;
    for (const auto &[block, count] : counts) {
        if (count == 1) continue;
        warnings.push_back(
            fmt::format("{} sections are for block {}: the board flashes the last one alone", count, block));
    }
    return warnings;
}

// Replaces unprintable characters with a question mark.
std::string printable(std::string_view text) {
    std::string result(text);
    for (char &c : result) c = isGraphic(c) ? c : '?';
    return result;
}

// Returns the text of a field, which ends at its first blank or NUL.
std::string fieldText(std::string_view field) { return printable(field.substr(0, field.find_first_of({" \0", 2}))); }

void readProduct(std::string_view block, Contents &contents) {
    const std::string_view vendor = block.substr(0, 21);
    const std::string_view product = block.substr(21, 20);
    contents.product = {fieldText(vendor), fieldText(product), printable(block.substr(41, 8)),
                        fieldText(block.substr(50, 8))};
    if (contents.product.vendor.size() == vendor.size()) {
        contents.fault = "the vendor has no end";
    } else if (contents.product.product.size() == product.size()) {
        contents.fault = "the product has no end";
    }
}

// Reads the header at `offset`; the trailer begins at `end`. Returns false, and notes the fault, if the next section
// cannot be found.
bool readSection(std::string_view header, uint64_t offset, uint64_t end, Contents &contents) {
    const auto fail = [&](std::string text) {
        if (contents.fault.empty()) contents.fault = fmt::format("the section at {} {}", offset, text);
        return false;
    };
    if (header.size() < kHeaderSize) return fail(fmt::format("is cut off after {} bytes of its header", header.size()));
    const std::string_view text = header.substr(0, header.find('\0'));
    uint64_t length = 0;
    const auto [behind, error] = std::from_chars(text.data(), text.data() + text.size(), length);
    const auto blank = static_cast<size_t>(behind - text.data());
    if (error != std::errc() || blank >= text.size() || text[blank] != ' ') return fail("has no length and name");
    const std::string name(text.substr(blank + 1));
    const std::string fault = nameFault(name);
    if (!fault.empty()) return fail(fmt::format("is called \"{}\", which {}", printable(name), fault));
    const uint64_t data = offset + kHeaderSize;
    if (length > end - data) {
        return fail(fmt::format("({}) is {} bytes long, but only {} follow", name, length, end - data));
    }
    contents.sections.push_back({name, static_cast<uint32_t>(length), data});
    return true;
}

void readTrailer(std::string_view image, uint64_t end, Contents &contents) {
    station::Digest digest("MD5");
    digest.feed(image.substr(0, end));
    contents.digest = digest.text();
    contents.trailer = image.substr(end, kDigestLength);
    if (contents.fault.empty() && contents.trailer != contents.digest) {
        contents.fault = "the digest in the trailer is not that of the image";
    }
    contents.trailer = printable(contents.trailer);
}

}  // namespace

std::vector<std::string> create(const fs::path &path, const Product &product, const std::vector<Source> &sources) {
    const std::string block = productBlock(product);
    std::vector<std::string> headers;
    uint64_t length = block.size();
    for (const Source &source : sources) {
        headers.push_back(sectionHeader(source));
        length += kHeaderSize + fs::file_size(source.file);
    }
    if (length + kTrailerSize > kLongestFile) {
        throw ImageError(fmt::format("the image would have {} bytes, {}", length + kTrailerSize, kTooLong));
    }

    station::NewFile image(path);
    station::Digest digest("MD5");
    const auto write = [&](std::string_view bytes) {
        digest.feed(bytes);
        image.write(bytes);
    };
    write(block);
    uint64_t written = block.size();
    for (size_t i = 0; i < sources.size(); ++i) {
        write(headers[i]);
        written += kHeaderSize;
        const std::string section = station::readFile(sources[i].file, kLongestFile);
        write(section);
        written += section.size();
    }
    if (written != length) throw ImageError("a file changed while it was read");
    image.write(digest.text() + "\n");
    image.keep();
    return findWarnings(sources);
}

Contents inspectBytes(std::string_view image) {
    Contents contents;
    if (image.size() < kBlockSize + kTrailerSize) {
        contents.fault = fmt::format("{} bytes are too few for a product block and a trailer", image.size());
        return contents;
    }
    const uint64_t end = image.size() - kTrailerSize;
    readProduct(image.substr(0, kBlockSize), contents);
    for (uint64_t offset = kBlockSize; offset < end;) {
        const uint64_t length = std::min<uint64_t>(kHeaderSize, end - offset);
        if (!readSection(image.substr(offset, length), offset, end, contents)) break;
        offset = contents.sections.back().offset + contents.sections.back().length;
    }
    readTrailer(image, end, contents);
    if (contents.fault.empty()) contents.warnings = findWarnings(contents.sections);
    return contents;
}

Contents inspect(const fs::path &path) try {
    return inspectBytes(station::readFile(path, kLongestFile));
} catch (const std::runtime_error &error) {
    throw ImageError(error.what());
}

}  // namespace fwimage
