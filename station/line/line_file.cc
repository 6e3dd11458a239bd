#include "station/line/line_file.h"

#include <arpa/inet.h>
#include <re2/re2.h>

#include <algorithm>
#include <thread>

#include "station/base/text.h"
#include "station/plan/yaml.h"

namespace station {
namespace {

namespace fs = std::filesystem;
using re2::RE2;

constexpr int kMostPlaces = 1000;

// The part of the file that has been read so far.
struct LineDraft : LineFile {
    fs::path folder;
    Faults faults;
};

template <auto Member>
void setPath(LineDraft &draft, const Entry &value) {
    draft.*Member = draft.folder / value.path();
}

// Reads what the expression allows of ADDRESS:PORT.
void readEndpoint(const Entry &value, const char *expression, const char *form, std::string &address, uint16_t &port) {
    std::string host, number;
    const bool fits = RE2::FullMatch(value.line(), expression, &host, &number);
    if (!fits || (!number.empty() && (!RE2::FullMatch(number, "(.*)", &port) || port == 0)))
        value.fail(fmt::format("expected {}", form));
    if (!host.empty()) address = host;
    in_addr parsed{};
    if (inet_pton(AF_INET, address.c_str(), &parsed) != 1)
        value.fail(fmt::format("\"{}\" is not an IPv4 address, such as 192.168.1.2", address));
}

void readListen(LineDraft &draft, const Entry &value) {
    readEndpoint(value, "([^:]+)(?::([0-9]+))?", "ADDRESS or ADDRESS:PORT", draft.address, draft.port);
}

struct Cable {
    std::string name, interface;
};

// A place's name becomes a part of a file's.
void readName(Cable &cable, const Entry &value) {
    cable.name = value.part();
    if (trim(cable.name) != cable.name || oneLine(cable.name) != cable.name)
        value.fail("a place's name is UTF-8 text of visible characters, without blanks around it");
}

const Keys<Cable> kCableKeys = {"a place", {{"name", readName}, {"interface", set<&Cable::interface>}}, {"interface"}};

void readCable(LineDraft &draft, const YAML::Node &node) {
    Cable cable;
    readMap(node, kCableKeys, cable, draft.faults);
    if (cable.interface.empty()) return;
    if (cable.name.empty()) cable.name = cable.interface;
    for (size_t i = 0; i < draft.cables.size(); ++i) {
        const bool name = draft.places[i].name == cable.name;
        if (!name && draft.cables[i] != cable.interface) continue;
        draft.faults.push_back(
            {node.Mark(), fmt::format("another place has the {} {} already", name ? "name" : "interface",
                                      name ? cable.name : cable.interface)});
    }
    draft.places.push_back({static_cast<int>(draft.places.size()) + 1, cable.name});
    draft.cables.push_back(cable.interface);
}

void readPlaces(LineDraft &draft, const Entry &value) {
    if (!value.node.IsSequence()) {
        const int count = value.whole(1, kMostPlaces);
        for (int number = 1; number <= count; ++number) draft.places.push_back({number, std::to_string(number)});
        return;
    }
    if (value.node.size() < 1 || value.node.size() > kMostPlaces)
        value.fail(fmt::format("a line has 1 to {} places", kMostPlaces));
    for (const YAML::Node &node : value.node) readCable(draft, node);
}

const Keys<Hook> kHookKeys = {
    "a command",
    {{"run", [](Hook &hook, const Entry &value) { hook.command = value.command(); }}, {"timeout", set<&Hook::limit>}},
    {"run"}};

// Reads a command, or a map of a command and its timeout.
template <Hook Job::*Which>
void readHook(LineDraft &draft, const Entry &value) {
    Hook &hook = draft.*Which;
    hook.folder = draft.folder;
    if (value.node.IsMap()) return readMap(value.node, kHookKeys, hook, draft.faults);
    hook.command = value.command();
}

void readVariables(LineDraft &draft, const Entry &value) {
    eachEntry(value.node, "names and values", draft.faults, [&](const Entry &name, const Entry &text) {
        name.check(faultOfName(name.text()));
        if (name.text() == "serial")
            name.fail("every board would be this unit: let a step of the plan ask for or read the serial number");
        if (text.line().size() > kLongestValue) text.fail(fmt::format("a value has at most {} bytes", kLongestValue));
        draft.variables[name.text()] = text.line();
    });
}

// Reads a file's path or a server's URL.
void readStore(LineDraft &draft, const Entry &value) {
    const bool url = value.line().find("://") != std::string::npos;
    draft.store = url ? value.line() : (draft.folder / value.path()).string();
}

void readPageListen(PageSettings &page, const Entry &value) {
    readEndpoint(value, "(?:([^:]+):)?([0-9]+)", "PORT or ADDRESS:PORT", page.address, page.port);
}

// Allows only what fits into an HTTP header, and requires a length that is hard to guess.
void readToken(PageSettings &page, const Entry &value) {
    page.token = value.line();
    if (!RE2::FullMatch(page.token, "[!-~]{8,}")) value.fail("a token has at least 8 characters, none of them a blank");
}

int minuteOf(const Entry &value) {
    static const RE2 kTime("([01]?[0-9]|2[0-3]):([0-5][0-9])");
    int hour = 0, minute = 0;
    if (!RE2::FullMatch(value.line(), kTime, &hour, &minute)) value.fail("expected a time of day, such as 06:00");
    return hour * 60 + minute;
}

void readShifts(PageSettings &page, const Entry &value) {
    page.shifts.clear();
    for (const YAML::Node &time : value.node) page.shifts.push_back(minuteOf({time}));
    if (page.shifts.empty()) value.fail("expected a list of times, such as [06:00, 14:00, 22:00]");
    std::ranges::sort(page.shifts);
}

const Keys<PageSettings> kPageKeys = {"\"page\"",
                                      {{"listen", readPageListen},
                                       {"token", readToken},
                                       {"shifts", readShifts},
                                       {"target", setWhole<&PageSettings::target, 1, 100000>},
                                       {"language", set<&PageSettings::language>}},
                                      {"listen"}};

// Reads a port, an address with a port, or a map.
void readPage(LineDraft &draft, const Entry &value) {
    PageSettings &page = draft.page.emplace();
    if (value.node.IsMap()) {
        readMap(value.node, kPageKeys, page, draft.faults);
    } else {
        readPageListen(page, value);
    }
    if (page.language.ends_with(".json")) page.language = draft.folder / page.language;
    if (!page.address.starts_with("127.") && page.token.empty())
        value.fail("other machines can reach this address: give the page a token of at least 8 characters, as in"
                   " {listen: ADDRESS:PORT, token: TEXT}");
}

template <auto Member, typename Target>
void setHours(Target &target, const Entry &value) {
    double hours = 0;
    value.read(hours);
    if (hours < 0.01 || hours > 24 * 31) value.fail("expected a number of hours, 0.01 to a month (744)");
    target.*Member = Milliseconds(static_cast<int64_t>(hours * 3600000));
}

const Keys<AskWho> kOperatorKeys = {
    "\"operator\"",
    {{"prompt", set<&AskWho::prompt>},
     {"match", [](AskWho &ask, const Entry &value) { ask.match.emplace(value.text()); }},
     {"hours", setHours<&AskWho::within>},
     {"each_place", set<&AskWho::eachPlace>}},
    {"prompt"}};

const Keys<Reference> kReferenceKeys = {"\"reference\"",
                                        {{"serial", set<&Reference::serial>}, {"hours", setHours<&Reference::within>}},
                                        {"serial", "hours"}};

const Keys<LineDraft> kLineKeys = {
    "a line",
    {{"listen", readListen},
     {"places", readPlaces},
     {"page", readPage},
     {"plan", setPath<&LineFile::planPath>},
     {"files", setPath<&LineFile::planFiles>},
     {"results", setPath<&Site::results>},
     {"store", readStore},
     {"spool", setPath<&Site::spool>},
     {"variables", readVariables},
     {"operator",
      [](LineDraft &draft, const Entry &value) { readMap(value.node, kOperatorKeys, draft.who, draft.faults); }},
     {"reference",
      [](LineDraft &draft, const Entry &value) { readMap(value.node, kReferenceKeys, draft.reference, draft.faults); }},
     {"hold_after", setWhole<&Job::holdAfter, 1, 1000>},
     {"before", readHook<&Job::before>},
     {"after", readHook<&Job::after>}},
    {"places", "plan"}};

}  // namespace

void awaitWriters(const fs::path &path) {
    const auto settle = [](const fs::path &file) {
        std::error_code missing;
        for (int looks = 0; looks < 50; ++looks) {
            if (fs::file_time_type::clock::now() - fs::last_write_time(file, missing) > std::chrono::seconds(1)) return;
            std::this_thread::sleep_for(Milliseconds(100));
        }
    };
    settle(path);
    settle(readLine(path).planPath);
}

bool isLineFile(const fs::path &path) try {
    const YAML::Node document = loadDocument(path);
    return document.IsMap() && (document["places"] || document["plan"]);
} catch (const Fault &) {
    return false;
}

LineFile readLine(const fs::path &path) {
    LineDraft draft;
    draft.folder = path.parent_path();
    try {
        const YAML::Node document = loadDocument(path);
        if (document.IsSequence())
            throw Fault{document.Mark(), "this is a plan, and not the file of a line that uses it"};
        readMap(document, kLineKeys, draft, draft.faults);
        if (draft.spool.empty() && draft.store.find("://") != std::string::npos)
            throw Fault{document["store"].Mark(), "a server needs \"spool\": a folder for what it cannot take yet"};
    } catch (Fault &fault) {
        draft.faults.push_back(std::move(fault));
    }
    if (!draft.faults.empty()) throw PlanError(describe(path, draft.faults));
    return draft;
}

LineFile loadLine(const fs::path &path, const AskPools &pools) {
    LineFile line = readLine(path);
    Names names;
    if (pools && !line.store.empty()) names.pools = pools(line.store);
    for (const auto &[name, value] : line.variables) names.variables.insert(name);
    line.plan = loadPlan(line.planPath, line.planFiles, names);
    const bool named =
        std::ranges::any_of(line.plan.steps, [](const Step &step) { return step.fills().contains("serial"); });
    if (!line.reference.serial.empty() && !named)
        throw PlanError(path.string() + ": \"reference\" is a serial number, and no step of the plan fills {serial}");
    return line;
}

}  // namespace station
