#include "station/line/line_file.h"

#include <arpa/inet.h>
#include <re2/re2.h>

#include <algorithm>

#include "station/base/text.h"
#include "station/plan/yaml.h"
#include "station/wire/listener.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr int kMostPlaces = 1000;

// The part of the file that has been read so far.
struct Draft {
    LineFile line;
    fs::path folder;
    std::vector<Fault> faults;

    fs::path beside(const Entry &value) const { return folder / value.line(); }
};

uint16_t portIn(const std::string &text, const Entry &value, std::string_view form) {
    try {
        return static_cast<uint16_t>(Entry{YAML::Node(text)}.whole(1, 65535));
    } catch (const Fault &) {
        value.fail(fmt::format("expected {}", form));
    }
}

void checkAddress(const std::string &address, const Entry &value) {
    in_addr parsed{};
    if (inet_pton(AF_INET, address.c_str(), &parsed) != 1) {
        value.fail(fmt::format("\"{}\" is not an IPv4 address, such as 192.168.1.2", address));
    }
}

void readListen(Draft &draft, const Entry &value) {
    const std::string text = value.line();
    const size_t colon = text.find(':');
    draft.line.address = text.substr(0, colon);
    if (colon != std::string::npos) {
        draft.line.port = portIn(text.substr(colon + 1), value, "ADDRESS or ADDRESS:PORT");
    }
    checkAddress(draft.line.address, value);
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

const Keys<Cable> kCableKeys = {
    {"name", readName},
    {"interface", [](Cable &cable, const Entry &value) { cable.interface = value.line(); }},
};

void readCable(Draft &draft, const YAML::Node &node) {
    Cable cable;
    readMap(node, kCableKeys, "of a place", cable, draft.faults);
    if (cable.interface.empty()) return draft.faults.push_back({node.Mark(), "a place needs \"interface\""});
    if (cable.name.empty()) cable.name = cable.interface;
    LineFile &line = draft.line;
    const auto twice = [&](const Place &place) { return place.name == cable.name; };
    if (std::any_of(line.places.begin(), line.places.end(), twice) ||
        std::find(line.cables.begin(), line.cables.end(), cable.interface) != line.cables.end()) {
        draft.faults.push_back({node.Mark(), "another place has this name or this interface already"});
    }
    line.places.push_back({static_cast<int>(line.places.size()) + 1, cable.name});
    line.cables.push_back(cable.interface);
}

void readPlaces(Draft &draft, const Entry &value) {
    if (value.node.IsSequence()) {
        for (const YAML::Node &node : value.node) readCable(draft, node);
        if (draft.line.places.empty()) value.fail("a line needs at least one place");
        return;
    }
    for (int number = 1; number <= value.whole(1, kMostPlaces); ++number) {
        draft.line.places.push_back({number, std::to_string(number)});
    }
}

const Keys<Hook> kHookKeys = {
    {"run", [](Hook &hook, const Entry &value) { hook.command = value.text(); }},
    {"timeout", [](Hook &hook, const Entry &value) { hook.limit = value.seconds(); }},
};

// Reads a command, or a map of a command and its timeout.
void readHook(Draft &draft, Hook &hook, const Entry &value) {
    hook.folder = draft.folder;
    if (value.node.IsMap()) {
        readMap(value.node, kHookKeys, "of a command", hook, draft.faults);
    } else {
        hook.command = value.text();
    }
    if (hook.command.empty()) value.fail("a command is missing");
}

void readVariables(Draft &draft, const Entry &value) {
    eachEntry(value.node, "names and values", draft.faults, [&](const Entry &name, const Entry &text) {
        if (const std::string fault = faultOfName(name.text()); !fault.empty()) name.fail(fault);
        if (name.text() == "serial")
            name.fail("every board would be this unit: let a step of the plan ask for or read the serial number");
        if (text.line().size() > kLongestValue) text.fail(fmt::format("a value has at most {} bytes", kLongestValue));
        draft.line.variables[name.text()] = text.line();
    });
}

// Reads a file's path or a server's URL.
void readStore(Draft &draft, const Entry &value) {
    const bool url = value.line().find("://") != std::string::npos;
    draft.line.store = url ? value.line() : draft.beside(value).string();
}

void readPageListen(PageSettings &page, const Entry &value) {
    const std::string text = value.line();
    const size_t colon = text.find(':');
    if (colon != std::string::npos) page.address = text.substr(0, colon);
    page.port = portIn(text.substr(colon == std::string::npos ? 0 : colon + 1), value, "PORT or ADDRESS:PORT");
    checkAddress(page.address, value);
}

// Allows only what fits into an HTTP header, and requires a length that is hard to guess.
void readToken(PageSettings &page, const Entry &value) {
    page.token = value.line();
    const auto fits = [](char c) { return c > ' ' && c < 0x7F; };
    if (page.token.size() < 8 || !std::all_of(page.token.begin(), page.token.end(), fits)) {
        value.fail("a token has at least 8 characters, none of them a blank");
    }
}

int minuteOf(const Entry &value) {
    static const re2::RE2 kTime("([01]?[0-9]|2[0-3]):([0-5][0-9])");
    int hour = 0, minute = 0;
    if (!re2::RE2::FullMatch(value.line(), kTime, &hour, &minute)) value.fail("expected a time of day, such as 06:00");
    return hour * 60 + minute;
}

void readShifts(PageSettings &page, const Entry &value) {
    page.shifts.clear();
    for (const YAML::Node &time : value.node) page.shifts.push_back(minuteOf({time}));
    if (page.shifts.empty()) value.fail("expected a list of times, such as [06:00, 14:00, 22:00]");
    std::sort(page.shifts.begin(), page.shifts.end());
}

const Keys<PageSettings> kPageKeys = {
    {"listen", readPageListen},
    {"token", readToken},
    {"shifts", readShifts},
    {"target", [](PageSettings &page, const Entry &value) { page.target = static_cast<int>(value.whole(1, 100000)); }},
    {"language", [](PageSettings &page, const Entry &value) { page.language = value.line(); }},
};

// Reads a port, an address with a port, or a map.
void readPage(Draft &draft, const Entry &value) {
    PageSettings &page = draft.line.page.emplace();
    if (!value.node.IsMap()) {
        readPageListen(page, value);
    } else {
        readMap(value.node, kPageKeys, "of the page", page, draft.faults);
        if (page.language.ends_with(".json")) page.language = draft.folder / page.language;
        if (!value.node["listen"]) value.fail("the page needs \"listen\"");
    }
    if (!page.address.starts_with("127.") && page.token.empty()) {
        value.fail(
            "other machines can reach this address, so the page needs a token: {listen: ADDRESS:PORT, token: TEXT}");
    }
}

Milliseconds hoursIn(const Entry &value) {
    const double hours = value.number();
    if (hours < 0.01 || hours > 24 * 31) value.fail("expected a number of hours, 0.01 to a month (744)");
    return Milliseconds(static_cast<int64_t>(hours * 3600000));
}

const Keys<AskWho> kOperatorKeys = {
    {"prompt", [](AskWho &ask, const Entry &value) { ask.prompt = value.line(); }},
    {"match",
     [](AskWho &ask, const Entry &value) {
         try {
             ask.match.emplace(value.text());
         } catch (const std::invalid_argument &error) {
             value.fail(error.what());
         }
     }},
    {"hours", [](AskWho &ask, const Entry &value) { ask.within = hoursIn(value); }},
    {"each_place", [](AskWho &ask, const Entry &value) { ask.eachPlace = value.flag(); }},
};

void readOperator(Draft &draft, const Entry &value) {
    readMap(value.node, kOperatorKeys, "of the operator", draft.line.who, draft.faults);
    if (draft.line.who.prompt.empty()) value.fail("\"operator\" needs a \"prompt\", the question to ask");
}

const Keys<Reference> kReferenceKeys = {
    {"serial", [](Reference &unit, const Entry &value) { unit.serial = value.line(); }},
    {"hours", [](Reference &unit, const Entry &value) { unit.within = hoursIn(value); }},
};

void readReference(Draft &draft, const Entry &value) {
    Reference &unit = draft.line.reference;
    readMap(value.node, kReferenceKeys, "of the reference unit", unit, draft.faults);
    if (unit.serial.empty() || unit.within.count() == 0) value.fail("a reference unit needs \"serial\" and \"hours\"");
}

const Keys<Draft> kLineKeys = {
    {"listen", readListen},
    {"places", readPlaces},
    {"page", readPage},
    {"plan", [](Draft &draft, const Entry &value) { draft.line.planPath = draft.beside(value); }},
    {"files", [](Draft &draft, const Entry &value) { draft.line.planFiles = draft.beside(value); }},
    {"results", [](Draft &draft, const Entry &value) { draft.line.results = draft.beside(value); }},
    {"store", readStore},
    {"spool", [](Draft &draft, const Entry &value) { draft.line.spool = draft.beside(value); }},
    {"variables", readVariables},
    {"operator", readOperator},
    {"reference", readReference},
    {"hold_after", [](Draft &draft, const Entry &value) { draft.line.holdAfter = value.whole(1, 1000); }},
    {"before", [](Draft &draft, const Entry &value) { readHook(draft, draft.line.before, value); }},
    {"after", [](Draft &draft, const Entry &value) { readHook(draft, draft.line.after, value); }},
};

Names namesOf(const LineFile &line, const AskPools &pools) {
    Names names;
    if (pools && !line.store.empty()) names.pools = pools(line.store);
    for (const auto &[name, value] : line.variables) names.variables.insert(name);
    return names;
}

bool names(const Plan &plan, const std::string &variable) {
    return std::any_of(plan.steps.begin(), plan.steps.end(), [&](const Step &step) {
        return step.ask == variable || (step.expected.match && step.expected.match->groups().contains(variable));
    });
}

}  // namespace

bool LineFile::sameStation(const LineFile &other) const {
    const auto same = [](const Place &a, const Place &b) { return a.name == b.name; };
    return address == other.address && port == other.port && cables == other.cables && results == other.results &&
           store == other.store && page == other.page && spool == other.spool &&
           std::equal(places.begin(), places.end(), other.places.begin(), other.places.end(), same);
}

bool isLineFile(const fs::path &path) try {
    const YAML::Node document = loadDocument(path);
    return document.IsMap() && (document["places"] || document["plan"]);
} catch (const Fault &) {
    return false;
}

LineFile readLine(const fs::path &path) {
    Draft draft;
    draft.line.address = kDefaultAddress;
    draft.line.port = kDefaultPort;
    draft.folder = path.parent_path();
    try {
        const YAML::Node document = loadDocument(path);
        readMap(document, kLineKeys, "of a line", draft, draft.faults);
        for (const char *const key : {"places", "plan"}) {
            if (document.IsMap() && !document[key])
                throw Fault{document.Mark(), fmt::format("a line needs \"{}\"", key)};
        }
        if (draft.line.spool.empty() && draft.line.store.find("://") != std::string::npos)
            throw Fault{document["store"].Mark(), "a server needs \"spool\": a folder for what it cannot take yet"};
    } catch (Fault &fault) {
        draft.faults.push_back(std::move(fault));
    }
    if (!draft.faults.empty()) throw PlanError(describe(path, draft.faults));
    return draft.line;
}

LineFile loadLine(const fs::path &path, const AskPools &pools) {
    LineFile line = readLine(path);
    line.plan = loadPlan(line.planPath, line.planFiles, namesOf(line, pools));
    if (!line.reference.serial.empty() && !names(line.plan, "serial")) {
        throw PlanError(path.string() +
                        ": no step of the plan finds the {serial}, by which the reference unit is recognized");
    }
    return line;
}

}  // namespace station
