#include "station/plan/plan.h"

#include <fmt/format.h>
#include <re2/re2.h>

#include <algorithm>
#include <array>
#include <cctype>

#include "image/firmware_image.h"
#include "station/base/digest.h"
#include "station/base/text.h"
#include "station/plan/commands.h"
#include "station/plan/yaml.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr size_t kMostSteps = 1000;
constexpr int kMostTaken = 256;  // addresses of a unit: without a carry into the fifth byte

// Follows the steps of a plan in their order. Adds a fault for each that cannot work where it stands, and a warning for
// what is probably a mistake, such as a partition that is flashed and never read back.
class Course {
public:
    Course(Faults &faults, Faults &warnings) : faults_(faults), warnings_(warnings) {}

    // `mark`: where the step stands. `timed`: the plan sets its timeout.
    void follow(const Step &step, const YAML::Mark &mark, bool timed) {
        followSession(step, mark);
        if (step.kind == Kind::kVerify) written_.erase(step.partition);
        const BoardCommand &command = boardCommand(step.send);  // without one: a plain one
        const std::string expected =
            step.expected.text.value_or("") + (step.expected.match ? step.expected.match->text() : "");
        if (step.kind == Kind::kCommand && command.word.empty() && !step.send.starts_with('{') &&
            expected.find("UNKNOWN") == std::string::npos)
            warn(mark, "boards know no such command, and reply UNKNOWN: commands are written as in docs/protocol.md");
        if (step.file && step.kind == Kind::kScript && step.file->bytes->find("\r\n") < step.file->bytes->find('\0'))
            warn(mark,
                 "the script has Windows line ends, which the board's shell takes as part of each line: save it with"
                 " Unix line ends");
        if (command.role == Role::kAddress && namesIn(step.send).empty())
            warn(mark, "every board of this plan gets the same MAC address");
        if (command.role == Role::kReport && step.expected && !pinged_)
            warn(mark,
                 "every board would pass: without a PING earlier in its session, the report names no failed check");
        if (command.role == Role::kReset) reset_ = mark;
        if (command.role == Role::kWait) reset_.reset();
        if (command.partition > 0) written_[command.partition] = mark;
        if (command.takesLong && !timed)
            warn(mark, "10 s may not be enough for this, and would leave it half done: give a \"timeout\"");
    }

    void end() {
        for (const auto &[partition, mark] : written_)
            warn(mark, "its OK does not say that it was written: no \"verify\" step reads it back");
        if (reset_) warn(*reset_, "nothing waits for the end of the reset: send WAITING");
    }

private:
    void followSession(const Step &step, const YAML::Mark &mark) {
        if (step.needsBoard() && over_) {
            faults_.push_back({mark,
                               "the session has ended before this step; if the board comes back, give the step that"
                               " ends it \"reconnect: true\""});
        } else if (step.needsBoard() && rebooting_) {
            warn(mark,
                 "the board may be gone before this step: give the REBOOT \"reconnect: true\", or make it the last"
                 " step");
        }
        if (!step.needsBoard() && !step.reconnect) return;
        const Role role = boardCommand(step.send).role;
        over_ = (role == Role::kEnd || step.closes) && !step.reconnect;
        rebooting_ = role == Role::kReboot && !step.reconnect;
        pinged_ = (pinged_ && !step.reconnect) || role == Role::kPing;
    }

    void warn(const YAML::Mark &mark, const std::string &text) { warnings_.push_back({mark, "warning: " + text}); }

    Faults &faults_, &warnings_;
    bool over_ = false;                  // the session has ended
    bool rebooting_ = false;             // the board may be gone at any time
    bool pinged_ = false;                // this session's reports name what failed
    std::optional<YAML::Mark> reset_;    // a factory reset that nothing has waited for
    std::map<int, YAML::Mark> written_;  // partitions that nothing has read back
};

// The part of a plan that has been read so far.
struct Loader : Plan {
    bool ownFolder = false;                            // the plan may choose the folder of its files
    Names known = {};                                  // with what the steps so far find out
    std::optional<std::chrono::milliseconds> timeout;  // of steps without one
    YAML::Node list = {};                              // of steps
    std::map<fs::path, Payload> payloads = {};
    std::map<std::string, int> taken = {};  // rows that a run takes of each pool
    Faults faults = {}, warned = {};
    Course course{faults, warned};
};

// A step while it is read.
struct Draft : Step {
    Loader &loader;
    const YAML::Node node;                         // const, because the other operator [] adds keys
    std::map<std::string, YAML::Mark> names = {};  // in its texts, and where each stands
    std::vector<PlanFile> files = {};
    std::vector<PlanFile> others = {};  // a picture, the program that its command runs: they may be empty
    int take = 0;                       // rows of each pool; 0: as many as the step needs
    std::string pin = {};               // the SHA-256 that its files must have; empty: any
    bool emptyAllowed = false;          // its files may be empty

    // Adds a fault of the key, or of the step, unless the text is empty.
    void fault(const char *key, const std::string &text) {
        if (!text.empty()) loader.faults.push_back({node[key] ? node[key].Mark() : node.Mark(), text});
    }
    void faultIf(bool wrong, const char *key, const char *text) { fault(key, wrong ? text : ""); }
};

// Returns the text, after noting its names.
std::string note(Draft &draft, const Entry &value, const std::string &text, Syntax syntax = Syntax::kText) {
    for (const std::string &name : namesIn(text, syntax)) draft.names.emplace(name, value.node.Mark());
    return text;
}

// Reads a file once, however many steps use it.
const Payload &payloadAt(Loader &loader, const std::string &name) {
    const fs::path path = loader.folder / name;
    const auto known = loader.payloads.find(path);
    return known != loader.payloads.end() ? known->second : loader.payloads[path] = readPayload(path);
}

PlanFile fileOf(const std::string &name, const Payload &file) { return {0, name, file.bytes->size(), file.sha256}; }

// Returns the file that the shell's command begins with, "./check.sh" or "python3 check.py"; empty: none of the plan's.
std::string programIn(const std::string &command, const fs::path &folder) {
    static const re2::RE2 kWord("[ \\t]*([\\w./+-]+)");
    std::error_code unknown;
    std::string word;
    const std::string words = withoutAssignments(command);
    for (re2::StringPiece rest(words); re2::RE2::Consume(&rest, kWord, &word);) {
        if (!fs::path(word).is_absolute() && fs::is_regular_file(folder / word, unknown)) return word;
    }
    return {};
}

// The shell reads braces itself, and a value in its text could be a command: it finds the variables in its environment.
void readRun(Draft &draft, const Entry &value) {
    draft.run = value.command();
    const std::string program = programIn(draft.run, draft.loader.folder);
    if (!program.empty()) draft.others.push_back(fileOf(program, payloadAt(draft.loader, program)));
}

const Payload &addFile(Draft &draft, const Entry &value) {
    const Payload &file = payloadAt(draft.loader, value.text());
    const auto same = [&](const PlanFile &known) { return known.name == value.text(); };
    if (std::ranges::none_of(draft.files, same)) draft.files.push_back(fileOf(value.text(), file));
    return file;
}

void readFileKey(Draft &draft, const Entry &value) { draft.file = addFile(draft, value); }

void readPicture(Draft &draft, const Entry &value) {
    const Payload &file = payloadAt(draft.loader, value.text());
    if (file.bytes->size() > kLargestPicture || pictureType(*file.bytes) == nullptr)
        value.fail("expected a picture of at most 1 MiB: PNG, JPEG or WebP");
    draft.picture = file;
    draft.others.push_back(fileOf(file.name, file));
}

void readSha256(Draft &draft, const Entry &value) {
    draft.pin = value.text();
    for (char &c : draft.pin) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (draft.pin.size() == 64 && draft.pin.find_first_not_of("0123456789abcdef") == std::string::npos) return;
    value.fail("expected 64 hexadecimal digits, as \"sha256sum\" prints them");
}

void readUpload(Draft &draft, const Entry &value) {
    readFileKey(draft, value);
    draft.known["size"] = std::to_string(draft.file->bytes->size());
}

// Finds out who made an image, and what for, from the product block at its start.
void readImage(Draft &draft, const Entry &value) {
    const fwimage::Contents image = fwimage::inspectBytes(*addFile(draft, value).bytes);
    if (!image.fault.empty()) value.fail("this is not a firmware image: " + image.fault);
    const auto &[vendor, product, version, mark] = image.product;
    draft.known.insert({{"vendor", vendor}, {"product", product}, {"version", version}, {"mark", mark}});
}

void readAsk(Draft &draft, const Entry &value) {
    draft.ask = value.text();
    value.check(faultOfName(draft.ask));
}

void readText(Draft &draft, const Entry &value) { draft.expected.text = note(draft, value, value.text()); }

void readMatch(Draft &draft, const Entry &value) {
    draft.expected.match.emplace(note(draft, value, value.text(), Syntax::kExpression));
    for (const std::string &group : draft.expected.match->groups()) value.check(faultOfName(group));
}

const Keys<Limit> kLimitKeys = {"a limit",
                                {{"min", set<&Limit::min>}, {"max", set<&Limit::max>}, {"unit", set<&Limit::unit>}}};

void readLimits(Draft &draft, const Entry &value) {
    Faults &faults = draft.loader.faults;
    eachEntry(value.node, "named groups", faults, [&](const Entry &group, const Entry &keys) {
        Limit limit{group.text(), {}, {}, {}};
        readMap(keys.node, kLimitKeys, limit, faults);
        if (limit.min && limit.max && *limit.min > *limit.max) keys.fail("\"min\" is above \"max\"");
        draft.limits.push_back(std::move(limit));
    });
}

// Reads a text for people, whose names are filled in as far as they are known.
template <std::string Step::*Text>
void readShown(Draft &draft, const Entry &value) {
    namesIn(draft.*Text = value.line());
}

// The words that say of which kind a step is, in the order of Kind, and sets of kinds.
constexpr std::array<const char *, 5> kWords = {"send", "script", "verify", "ask", "run"};
constexpr unsigned kSend = 1, kScript = 2, kVerify = 4, kAsk = 8, kRun = 16;
constexpr unsigned kOnBoard = kSend | kScript | kVerify, kRepeated = kOnBoard | kRun, kAll = kRepeated | kAsk;
constexpr unsigned kJudged = kAll & ~kVerify, kPrinting = kScript | kRun, kReturning = kSend | kScript | kRun;

// A key and the kinds of steps that may have it.
struct KeyOfStep {
    const char *key;
    unsigned kinds;
    void (*read)(Draft &draft, const Entry &value);
};

const KeyOfStep kKeys[] = {
    {"name", kAll, readShown<&Step::name>},
    {"hint", kAll, readShown<&Step::hint>},
    {"picture", kAll, readPicture},
    {"timeout", kAll, set<&Step::timeout>},
    {"required", kAll, set<&Step::required>},
    {"always", kAll, set<&Step::always>},
    {"take", kAll, setWhole<&Draft::take, 1, kMostTaken>},
    {"show", kRepeated, set<&Step::show>},
    {"retries", kRepeated, setWhole<&Step::retries, 0, 1000>},
    {"image", kOnBoard, readImage},
    {"sha256", kOnBoard, readSha256},
    {"empty", kOnBoard, set<&Draft::emptyAllowed>},
    {"match", kJudged, readMatch},
    {"limits", kJudged, readLimits},
    {"problem", kJudged,
     [](Draft &draft, const Entry &value) { draft.expected.problem = note(draft, value, value.line()); }},
    {"whose", kJudged, set<&Step::whose>},
    {"reconnect", kReturning, set<&Step::reconnect>},
    {"output", kPrinting, readText},
    {"status", kPrinting, setWhole<&Step::status, 0, 255>},
    {"send", kSend, [](Draft &draft, const Entry &value) { draft.send = note(draft, value, value.command()); }},
    {"upload", kSend, readUpload},
    {"expect", kSend, readText},
    {"bare", kSend, set<&Step::bare>},
    {"closes", kSend, set<&Step::closes>},
    {"script", kScript, readFileKey},
    {"verify", kVerify, readFileKey},
    {"partition", kVerify, setWhole<&Step::partition, 0, 1000>},
    {"erased", kVerify, set<&Step::erased>},
    {"ask", kAsk, readAsk},
    {"prompt", kAsk, [](Draft &draft, const Entry &value) { draft.prompt = note(draft, value, value.line()); }},
    {"run", kRun, readRun},
};

Keys<Draft> keysOf(Kind kind) {
    Keys<Draft> keys = {fmt::format("a \"{}\" step", kWords[static_cast<size_t>(kind)]), {}};
    for (const auto &[key, kinds, read] : kKeys) {
        if ((kinds >> static_cast<unsigned>(kind) & 1) != 0) keys.readers[key] = read;
    }
    return keys;
}

Kind kindOf(const YAML::Node &node) {
    if (!node.IsMap()) throw Fault{node.Mark(), "a step is a map of keys"};
    for (size_t kind = 0; kind < kWords.size(); ++kind) {
        if (node[kWords[kind]]) return static_cast<Kind>(kind);
    }
    throw Fault{node.Mark(), "a step needs \"send\", \"script\", \"verify\", \"ask\" or \"run\""};
}

// Returns the fault, empty for none.
std::string takeFrom(Draft &draft, const std::string &pool) {
    if (!draft.loader.known.variables.contains("serial"))
        return fmt::format("{{{}}} is taken for a unit: let an earlier step fill {{serial}}", pool);
    const int needed = addressesIn(draft.send, draft.expected.text.value_or(""));
    const int count = draft.take > 0 ? draft.take : needed;
    if (count < 1 || count > kMostTaken)
        return fmt::format("how many addresses are taken? Add \"take\", or \"expect\" the reply with their number,"
                           " 1 to {}",
                           kMostTaken);
    draft.takes.push_back({pool, count});
    int &most = draft.loader.taken[pool];
    most = std::max(most, count);
    return {};
}

std::string faultOfTwo(const std::string &name) {
    return fmt::format("{{{}}} is a variable and a pool of the line's store: rename one", name);
}

// Returns what is wrong with {name} in a text of the step, empty for nothing.
std::string resolve(Draft &draft, const std::string &name) {
    const auto &[variables, pools] = draft.loader.known;
    if (pools.contains(name) && variables.contains(name)) return faultOfTwo(name);
    if (draft.known.contains(name) || variables.contains(name)) return {};
    if (pools.contains(name)) return takeFrom(draft, name);
    if (name == "size") return "{size} needs \"upload\"";
    return fmt::format("nothing fills {{{}}}: no earlier step, no variable of the line, no pool of its store", name);
}

// What the step is about to send, as far as it is known now.
std::string faultOfSend(const Step &step) {
    if (step.kind != Kind::kCommand) return {};
    const std::set<std::string> names = namesIn(step.send);
    const bool complete =
        std::ranges::all_of(names, [&](const std::string &name) { return step.known.contains(name); });
    const std::string start = fill(step.send, step.known);
    const std::string text = complete ? expand(step.send, step.known) : start.substr(0, start.find('{'));
    const auto payload = step.file ? std::optional<uint64_t>(step.file->bytes->size()) : std::nullopt;
    return faultOf({text, complete, payload, step.bare});
}

void checkFiles(Draft &draft) {
    draft.faultIf(draft.files.empty() && (draft.emptyAllowed || !draft.pin.empty()), "sha256", "the step has no file");
    for (const PlanFile &file : draft.files) {
        if (file.size == 0 && !draft.emptyAllowed)
            draft.fault("", fmt::format("{} is empty: if it must be, add \"empty: true\"", file.name));
        if (!draft.pin.empty() && draft.pin != file.sha256)
            draft.fault("sha256", fmt::format("{} is another file: its SHA-256 is {}", file.name, file.sha256));
    }
}

// Checks what can only be told when all keys of a step are known.
void checkKeys(Draft &draft) {
    const auto &[text, match, problem] = draft.expected;
    const std::set<std::string> groups = match ? match->groups() : std::set<std::string>();
    const bool ends = (draft.closes || boardCommand(draft.send).role == Role::kEnd) && !draft.reconnect;
    draft.faultIf(text && match, "match", "a step has either \"match\" or the whole text, not both");
    draft.faultIf(draft.kind == Kind::kVerify && draft.partition < 0, "", "\"verify\" needs \"partition\"");
    draft.faultIf(draft.kind == Kind::kAsk && draft.prompt.empty(), "", "\"ask\" needs \"prompt\"");
    draft.faultIf(draft.kind == Kind::kCommand && !draft.expected && !draft.reconnect, "",
                  "a command needs \"expect\" or \"match\"");
    draft.faultIf(!problem.empty() && !draft.expected && draft.kind != Kind::kScript && draft.kind != Kind::kRun,
                  "problem",
                  "\"problem\" is what people read when a \"match\" or a text is not met: the step has none");
    draft.faultIf(draft.bare && draft.file, "bare", "the board would take the payload for a part of a bare command");
    draft.faultIf(draft.retries > 0 && ends, "retries", "a step that ends the session cannot be tried again");
    for (const Limit &limit : draft.limits) {
        if (!groups.contains(limit.group))
            draft.fault("limits", fmt::format("\"match\" has no group (?P<{}>...) to limit", limit.group));
    }
    if (draft.whose.empty()) return;
    const Names &known = draft.loader.known;
    draft.faultIf(!groups.contains(draft.whose), "whose",
                  "the address is a named group of \"match\", as in (?P<wire>[0-9A-F:]+)");
    draft.faultIf(known.pools.empty(), "whose",
                  "addresses are looked up in the pools of the line's store, which has none");
    draft.faultIf(!known.pools.empty() && !known.variables.contains("serial") && !groups.contains("serial"), "whose",
                  "the address is compared with those of a unit: let an earlier step fill {serial}");
}

void checkStep(Draft &draft) {
    checkFiles(draft);
    checkKeys(draft);
    for (const auto &[name, mark] : draft.names) {
        if (const std::string fault = resolve(draft, name); !fault.empty())
            draft.loader.faults.push_back({mark, fault});
    }
    draft.faultIf(draft.take > 0 && draft.takes.empty(), "take", "\"take\" needs a text that names a pool, as {mac}");
    draft.fault("send", faultOfSend(draft));
}

// Makes the step, and what it finds out, known to the later steps.
void addStep(Loader &loader, Draft &draft) {
    for (const std::string &name : draft.fills()) {
        if (loader.taken.contains(name)) draft.fault("", faultOfTwo(name));
        loader.known.variables.insert(name);
    }
    draft.files.insert(draft.files.end(), draft.others.begin(), draft.others.end());
    for (PlanFile &file : draft.files) {
        file.step = loader.steps.size() + 1;
        loader.files.push_back(std::move(file));
    }
    loader.course.follow(draft, draft.node.Mark(), loader.timeout || draft.node["timeout"]);
    loader.steps.push_back(std::move(draft));
}

void readStep(Loader &loader, const YAML::Node &node) {
    const size_t before = loader.faults.size();
    Draft draft{{}, loader, node};
    draft.kind = kindOf(node);
    draft.timeout = draft.kind == Kind::kAsk ? kAnswerTime : loader.timeout.value_or(draft.timeout);
    readMap(node, keysOf(draft.kind), draft, loader.faults);
    // A step with a wrong key would only be found incomplete for that.
    if (loader.faults.size() == before) checkStep(draft);
    addStep(loader, draft);
}

const Keys<Loader> kDefaultKeys = {
    "\"defaults\"", {{"timeout", set<&Loader::timeout>}, {"files", [](Loader &loader, const Entry &value) {
                                                              if (loader.ownFolder) loader.folder /= value.text();
                                                          }}}};

void readAgain(Loader &loader, const Entry &value) {
    static const std::map<std::string, Again> kChoices = {
        {"ask", Again::kAsk}, {"refuse", Again::kRefuse}, {"allow", Again::kAllow}};
    const auto found = kChoices.find(value.text());
    if (found == kChoices.end()) value.fail("expected ask, refuse or allow");
    loader.again = found->second;
}

const Keys<Loader> kPlanKeys = {
    "a plan",
    {{"name", [](Loader &loader, const Entry &value) { loader.name = value.part(); }},
     {"probe", set<&Plan::probe>},
     {"again", readAgain},
     {"attempts", setWhole<&Plan::attempts, 1, 100>},
     {"defaults", [](Loader &loader, const Entry &value) { readMap(value.node, kDefaultKeys, loader, loader.faults); }},
     {"steps", [](Loader &loader, const Entry &value) { loader.list.reset(value.node); }}}};

void readSteps(Loader &loader, const YAML::Node &document) {
    loader.list.reset(document);
    if (document.IsMap() && document["places"])
        throw Fault{document.Mark(), "this is the file of a line: serve the line with qcstation serve"};
    if (document.IsMap()) readMap(document, kPlanKeys, loader, loader.faults);
    if (!loader.list.IsSequence() || loader.list.size() == 0)
        throw Fault{document.Mark(), "a plan is a list of steps, or a map with \"steps\""};
    if (loader.list.size() > kMostSteps)
        throw Fault{document.Mark(), fmt::format("a plan has at most {} steps", kMostSteps)};
    for (const YAML::Node &node : loader.list) {
        try {
            readStep(loader, node);
        } catch (Fault &fault) {
            loader.faults.push_back(std::move(fault));
        }
    }
    loader.course.end();
    for (Step &step : loader.steps) {
        for (Taken &taken : step.takes) taken.count = loader.taken[taken.pool];
    }
}

}  // namespace

bool Step::needsBoard() const { return kind != Kind::kAsk && kind != Kind::kRun; }

std::set<std::string> Step::fills() const {
    std::set<std::string> names = expected.match ? expected.match->groups() : std::set<std::string>();
    if (!ask.empty()) names.insert(ask);
    return names;
}

std::string Step::title(const Variables &variables) const {
    if (!name.empty()) return fill(name, variables);
    if (kind == Kind::kScript) return "script " + file->name;
    if (kind == Kind::kVerify) return fmt::format("verify partition {} against {}", partition, file->name);
    if (kind == Kind::kAsk) return "ask " + ask;
    if (kind == Kind::kRun) return "run " + programOf(run);
    Variables values = known;
    values.insert(variables.begin(), variables.end());
    return fill(send, values) + (file ? fmt::format("  [{}]", file->name) : "");
}

Plan loadPlan(const fs::path &path, const fs::path &files, const Names &names) {
    Loader loader;
    loader.ownFolder = files.empty();
    loader.folder = files.empty() ? path.parent_path() : files;
    loader.known = names;
    loader.name = path.stem().string();
    Digest digest("SHA256");
    try {
        std::string text;
        readSteps(loader, loadDocument(path, &text));
        digest.feed(text);
        if (const std::string fault = faultOfPart(loader.name); !fault.empty())
            throw Fault{YAML::Mark::null_mark(), "without \"name\" a plan has its file's: " + fault};
    } catch (Fault &fault) {
        loader.faults.push_back(std::move(fault));
    }
    if (!loader.faults.empty()) throw PlanError(describe(path, loader.faults));
    for (const PlanFile &file : loader.files) digest.feed(file.sha256);
    loader.digest = digest.text();
    loader.warnings = describe(path, loader.warned);
    return loader;
}

}  // namespace station
