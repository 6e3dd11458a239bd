#include "station/plan/plan.h"

#include <fmt/format.h>
#include <re2/re2.h>

#include <algorithm>
#include <array>
#include <cctype>

#include "image/firmware_image.h"
#include "station/base/digest.h"
#include "station/plan/commands.h"
#include "station/plan/review.h"
#include "station/plan/yaml.h"

namespace station {
namespace {

namespace fs = std::filesystem;

// An operator may be at another place of the line.
constexpr std::chrono::hours kAnswerTime(1);

constexpr size_t kMostSteps = 1000;
constexpr int kMostAttempts = 100;
constexpr int kMostTaken = 256;  // addresses of a unit: without a carry into the fifth byte

struct Loader;

// A step while it is read.
struct Draft {
    Loader &loader;
    YAML::Node node;
    Step step = {};
    bool timed = false;
    std::map<std::string, YAML::Mark> names = {};  // in its texts, and where each stands
    std::vector<PlanFile> files = {};
    std::optional<PlanFile> program = {};  // that its command runs; it may be empty
    int take = 0;                          // rows of each pool; 0: as many as the step needs
    std::string sha256 = {};               // that its files must have; empty: any
    bool empty = false;                    // they may be empty

    YAML::Mark mark(const std::string &key) const { return node[key] ? node[key].Mark() : node.Mark(); }
};

// The part of a plan that has been read so far.
struct Loader {
    fs::path folder;  // of its files
    bool ownFolder;   // which the plan may choose
    Names names;      // with what the steps so far find out
    Plan plan = {};
    std::chrono::milliseconds timeout{10000};
    bool timed = false;  // somebody chose that
    YAML::Node steps = {};
    std::map<fs::path, Payload> payloads = {};
    std::map<std::string, int> taken = {};  // rows that a run takes of each pool
    std::vector<Draft> drafts = {};
    std::vector<Fault> faults = {}, warnings = {};
};

const Payload &payloadAt(Loader &loader, const Entry &value, const std::string &name) {
    const fs::path path = loader.folder / name;
    const auto known = loader.payloads.find(path);
    if (known != loader.payloads.end()) return known->second;
    try {
        return loader.payloads[path] = readPayload(path);
    } catch (const std::runtime_error &error) {
        value.fail(error.what());
    }
}

PlanFile fileOf(const std::string &name, const Payload &file) { return {0, name, file.bytes->size(), file.sha256}; }

void checkName(const std::string &name, const Entry &value) {
    if (const std::string fault = faultOfName(name); !fault.empty()) value.fail(fault);
}

// Notes the names in a text, or in an expression.
void noteNames(Draft &draft, const Entry &value, std::set<std::string> (*find)(const std::string &)) {
    try {
        for (const std::string &name : find(value.text())) draft.names.emplace(name, value.node.Mark());
    } catch (const std::invalid_argument &error) {
        value.fail(error.what());
    }
}

void readSend(Draft &draft, const Entry &value) {
    noteNames(draft, value, namesIn);
    draft.step.send = value.text();
    if (draft.step.send.empty()) value.fail("an empty command cannot be sent");
}

void readPrompt(Draft &draft, const Entry &value) {
    noteNames(draft, value, namesIn);
    draft.step.prompt = value.line();
}

void readProblem(Draft &draft, const Entry &value) {
    noteNames(draft, value, namesIn);
    draft.step.expected.problem = value.line();
}

void readAsk(Draft &draft, const Entry &value) {
    checkName(value.text(), value);
    draft.step.ask = value.text();
}

// Returns the file that the shell's command begins with, "./check.sh" or "python3 check.py"; empty: none of the plan's.
std::string programIn(const std::string &command, const fs::path &folder) {
    static const re2::RE2 kWord("[ \\t]*([\\w./+-]+)");
    std::error_code unknown;
    std::string word;
    for (re2::StringPiece rest(command); re2::RE2::Consume(&rest, kWord, &word);) {
        if (!fs::path(word).is_absolute() && fs::is_regular_file(folder / word, unknown)) return word;
    }
    return {};
}

// The shell reads braces itself, and a value in its text could be a command: it finds the variables in its environment.
void readRun(Draft &draft, const Entry &value) {
    draft.step.run = value.text();
    if (draft.step.run.empty()) value.fail("a command is missing");
    const std::string program = programIn(draft.step.run, draft.loader.folder);
    if (!program.empty()) draft.program = fileOf(program, payloadAt(draft.loader, value, program));
}

const Payload &addFile(Draft &draft, const Entry &value) {
    const Payload &file = payloadAt(draft.loader, value, value.text());
    const auto same = [&](const PlanFile &known) { return known.name == value.text(); };
    if (std::any_of(draft.files.begin(), draft.files.end(), same)) return file;
    draft.files.push_back(fileOf(value.text(), file));
    return file;
}

void readFileKey(Draft &draft, const Entry &value) { draft.step.file = addFile(draft, value); }

void readPicture(Draft &draft, const Entry &value) {
    const Payload &file = payloadAt(draft.loader, value, value.text());
    if (file.bytes->size() > kLargestPicture || pictureType(*file.bytes) == nullptr)
        value.fail("expected a picture of at most 1 MiB: PNG, JPEG or WebP");
    draft.step.picture = file;
}

void readSha256(Draft &draft, const Entry &value) {
    draft.sha256 = value.text();
    for (char &c : draft.sha256) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (draft.sha256.size() == 64 && draft.sha256.find_first_not_of("0123456789abcdef") == std::string::npos) return;
    value.fail("expected 64 hexadecimal digits, as \"sha256sum\" prints them");
}

void readUpload(Draft &draft, const Entry &value) {
    readFileKey(draft, value);
    draft.step.known["size"] = std::to_string(draft.step.file->bytes->size());
}

// Who made an image, and what for, as the product block at its start says.
void readImage(Draft &draft, const Entry &value) {
    addFile(draft, value);
    try {
        const fwimage::Contents image = fwimage::inspect(draft.loader.folder / value.text());
        if (!image.fault.empty()) value.fail("this is not a firmware image: " + image.fault);
        const fwimage::Product &product = image.product;
        draft.step.known.insert({{"vendor", product.vendor},
                                 {"product", product.product},
                                 {"version", product.version},
                                 {"mark", product.mark}});
    } catch (const std::runtime_error &error) {
        value.fail(error.what());
    }
}

void readMatch(Draft &draft, const Entry &value) {
    noteNames(draft, value, namesInExpression);
    try {
        draft.step.expected.match.emplace(value.text());
        for (const std::string &group : draft.step.expected.match->groups()) checkName(group, value);
    } catch (const std::invalid_argument &error) {
        value.fail(error.what());
    }
}

void readTimeout(Draft &draft, const Entry &value) {
    draft.step.timeout = value.seconds();
    draft.timed = true;
}

const Keys<Limit> kLimitKeys = {
    {"min", [](Limit &limit, const Entry &value) { limit.min = value.number(); }},
    {"max", [](Limit &limit, const Entry &value) { limit.max = value.number(); }},
    {"unit", [](Limit &limit, const Entry &value) { limit.unit = value.line(); }},
};

void readLimits(Draft &draft, const Entry &value) {
    std::vector<Fault> &faults = draft.loader.faults;
    eachEntry(value.node, "named groups", faults, [&](const Entry &group, const Entry &keys) {
        Limit limit{group.text(), {}, {}, {}};
        readMap(keys.node, kLimitKeys, "in a limit", limit, faults);
        if (limit.min && limit.max && *limit.min > *limit.max) keys.fail("\"min\" is above \"max\"");
        draft.step.limits.push_back(std::move(limit));
    });
}

template <bool Step::*Flag>
void readFlag(Draft &draft, const Entry &value) {
    draft.step.*Flag = value.flag();
}

// A text for people, whose names are filled in as far as they are known.
template <std::string Step::*Text>
void readShown(Draft &draft, const Entry &value) try {
    namesIn(draft.step.*Text = value.line());
} catch (const std::invalid_argument &error) {
    value.fail(error.what());
}

template <int Step::*Number, int Least, int Most>
void readWhole(Draft &draft, const Entry &value) {
    draft.step.*Number = value.whole(Least, Most);
}

void readText(Draft &draft, const Entry &value) {
    noteNames(draft, value, namesIn);
    draft.step.expected.text = value.text();
}

// A kind of step: the first word says which it is.
struct KindOfStep {
    std::string word;
    bool needsBoard;
    std::string (*title)(const Step &step, const Variables &variables);
    Keys<Draft> keys;
};

Keys<Draft> join(Keys<Draft> keys, const Keys<Draft> &more) {
    keys.insert(more.begin(), more.end());
    return keys;
}

const Keys<Draft> kEveryStep = {
    {"name", readShown<&Step::name>},
    {"hint", readShown<&Step::hint>},
    {"picture", readPicture},
    {"timeout", readTimeout},
    {"required", readFlag<&Step::required>},
    {"always", readFlag<&Step::always>},
    {"take", [](Draft &draft, const Entry &value) { draft.take = value.whole(1, kMostTaken); }},
};

const Keys<Draft> kRepeated =
    join(kEveryStep, {{"show", readFlag<&Step::show>}, {"retries", readWhole<&Step::retries, 0, 1000>}});
const Keys<Draft> kOnBoard =
    join(kRepeated, {{"image", readImage}, {"sha256", readSha256}, {"empty", [](Draft &draft, const Entry &value) {
                                                                        draft.empty = value.flag();
                                                                    }}});
const Keys<Draft>::value_type kReconnect = {"reconnect", readFlag<&Step::reconnect>};

const Keys<Draft> kJudged = {{"match", readMatch},
                             {"limits", readLimits},
                             {"problem", readProblem},
                             {"whose", [](Draft &draft, const Entry &value) { draft.step.whose = value.line(); }}};

const Keys<Draft> kPrinting = {{"output", readText}, {"status", readWhole<&Step::status, 0, 255>}};

// In the order of Kind.
const std::array<KindOfStep, 5> kKinds = {{
    {"send", true,
     [](const Step &step, const Variables &variables) {
         Variables values = step.known;
         values.insert(variables.begin(), variables.end());
         const std::string command = fill(step.send, values);
         return step.file ? fmt::format("{}  [{}]", command, step.file->name) : command;
     },
     join(join(kOnBoard, kJudged), {{"send", readSend},
                                    {"upload", readUpload},
                                    {"expect", readText},
                                    {"bare", readFlag<&Step::bare>},
                                    {"closes", readFlag<&Step::closes>},
                                    kReconnect})},
    {"script", true, [](const Step &step, const Variables &) { return "script " + step.file->name; },
     join(join(kOnBoard, kJudged), join(kPrinting, {{"script", readFileKey}, kReconnect}))},
    {"verify", true,
     [](const Step &step, const Variables &) {
         return fmt::format("verify partition {} against {}", step.partition, step.file->name);
     },
     join(kOnBoard, {{"verify", readFileKey},
                     {"partition", readWhole<&Step::partition, 0, 1000>},
                     {"erased", readFlag<&Step::erased>}})},
    {"ask", false, [](const Step &step, const Variables &) { return "ask " + step.ask; },
     join(join(kEveryStep, kJudged), {{"ask", readAsk}, {"prompt", readPrompt}})},
    // Of the command only its first word: what follows may be a password.
    {"run", false,
     [](const Step &step, const Variables &) { return "run " + step.run.substr(0, step.run.find_first_of(" \n")); },
     join(join(kRepeated, kJudged), join(kPrinting, {{"run", readRun}, kReconnect}))},
}};

size_t kindOf(const YAML::Node &node) {
    if (!node.IsMap()) throw Fault{node.Mark(), "a step is a map of keys"};
    const auto *const kind =
        std::find_if(kKinds.begin(), kKinds.end(), [&](const KindOfStep &row) { return node[row.word].IsDefined(); });
    if (kind == kKinds.end())
        throw Fault{node.Mark(), "a step needs \"send\", \"script\", \"verify\", \"ask\" or \"run\""};
    return static_cast<size_t>(kind - kKinds.begin());
}

// What can only be told when all keys of a step are known.
struct Rule {
    const char *key;  // that is wrong; empty: the step
    bool (*broken)(const Step &step);
    const char *text;
};

bool isGroup(const Step &step, const std::string &name) {
    return step.expected.match && step.expected.match->groups().contains(name);
}

constexpr Rule kRules[] = {
    {"match", [](const Step &step) { return step.expected.text && step.expected.match; },
     "the whole text and a match exclude each other"},
    {"", [](const Step &step) { return step.kind == Kind::kVerify && step.partition < 0; },
     "\"verify\" needs \"partition\""},
    {"", [](const Step &step) { return step.kind == Kind::kCommand && !step.expected && !step.reconnect; },
     "a command needs \"expect\" or \"match\""},
    {"", [](const Step &step) { return step.kind == Kind::kAsk && step.prompt.empty(); }, "\"ask\" needs \"prompt\""},
    {"problem",
     [](const Step &step) {
         const bool status = step.kind == Kind::kScript || step.kind == Kind::kRun;
         return !step.expected.problem.empty() && !step.expected && !status;
     },
     "\"problem\" is what people read when a \"match\" or a text is not met: the step has none"},
    {"bare", [](const Step &step) { return step.bare && step.file; },
     "the board would take the payload for a part of a bare command"},
    {"retries",
     [](const Step &step) {
         return step.retries > 0 && !step.reconnect && (step.closes || roleOf(step.send) == Role::kEnd);
     },
     "a step that ends the session cannot be tried again"},
    {"limits",
     [](const Step &step) {
         return std::any_of(step.limits.begin(), step.limits.end(),
                            [&](const Limit &limit) { return !isGroup(step, limit.group); });
     },
     "a limit is of a named group of \"match\", as in (?P<volt>[0-9.]+)"},
    {"whose", [](const Step &step) { return !step.whose.empty() && !isGroup(step, step.whose); },
     "the address is a named group of \"match\", as in (?P<wire>[0-9A-F:]+)"},
};

// Returns the fault, empty for none.
std::string takeFrom(Draft &draft, const std::string &pool) {
    Loader &loader = draft.loader;
    if (!loader.names.variables.contains("serial")) {
        return fmt::format("{{{}}} is taken for a unit: no step before says its {{serial}}", pool);
    }
    const int needed = addressesIn(draft.step.send, draft.step.expected.text.value_or(""));
    const int count = draft.take > 0 ? draft.take : needed;
    if (count < 1 || count > kMostTaken) {
        return fmt::format("how many addresses are taken? Say \"take\", or \"expect\" the reply with their number,"
                           " 1 to {}",
                           kMostTaken);
    }
    draft.step.takes.push_back({pool, count});
    loader.taken[pool] = std::max(loader.taken[pool], count);
    return {};
}

// Returns why nobody could say whose the step's address is; empty: the store can.
std::string faultOfWhose(const Draft &draft) {
    const Names &names = draft.loader.names;
    if (draft.step.whose.empty()) return {};
    if (names.pools.empty()) return "addresses are looked up in the pools of the line's store, which has none";
    const bool named = names.variables.contains("serial") || isGroup(draft.step, "serial");
    return named ? "" : "the address is compared with those of a unit: no step before says its {serial}";
}

std::string faultOfTwo(const std::string &name) {
    return fmt::format("{{{}}} is a variable and a pool of the line's store: rename one", name);
}

// Returns what is wrong with {name} in a text of the step, empty for nothing.
std::string resolve(Draft &draft, const std::string &name) {
    const Names &names = draft.loader.names;
    const bool pool = names.pools.contains(name), variable = names.variables.contains(name);
    if (pool && variable) return faultOfTwo(name);
    if (draft.step.known.contains(name) || variable) return {};
    if (pool) return takeFrom(draft, name);
    if (name == "size") return "{size} needs \"upload\"";
    return fmt::format("nothing fills {{{}}}: no step before, nothing of the line, no pool of its store", name);
}

// What the step is about to send, as far as it is known now.
std::string faultOfSend(const Step &step) {
    if (step.kind != Kind::kCommand) return {};
    const auto unknown = [&](const std::string &name) { return !step.known.contains(name); };
    const std::set<std::string> names = namesIn(step.send);
    const bool complete = std::none_of(names.begin(), names.end(), unknown);
    const std::string start = fill(step.send, step.known);
    const std::string text = complete ? expand(step.send, step.known) : start.substr(0, start.find('{'));
    const auto payload = step.file ? std::optional<uint64_t>(step.file->bytes->size()) : std::nullopt;
    return faultOf({text, complete, payload, step.bare});
}

void checkFiles(const Draft &draft, std::vector<Fault> &faults) {
    const auto fail = [&](const char *key, std::string text) { faults.push_back({draft.mark(key), std::move(text)}); };
    if (draft.files.empty() && (draft.empty || !draft.sha256.empty())) fail("sha256", "the step has no file");
    for (const PlanFile &file : draft.files) {
        if (file.size == 0 && !draft.empty)
            fail("", fmt::format("{} is empty: if it must be, say \"empty: true\"", file.name));
        if (draft.sha256.empty() || draft.sha256 == file.sha256) continue;
        fail("sha256", fmt::format("{} is another file: its SHA-256 is {}", file.name, file.sha256));
    }
}

void completeStep(Draft &draft) {
    std::vector<Fault> &faults = draft.loader.faults;
    checkFiles(draft, faults);
    if (const auto &picture = draft.step.picture) draft.files.push_back(fileOf(picture->name, *picture));
    if (draft.program) draft.files.push_back(*draft.program);
    for (const Rule &rule : kRules) {
        if (rule.broken(draft.step)) faults.push_back({draft.mark(rule.key), rule.text});
    }
    for (const auto &[name, mark] : draft.names) {
        if (const std::string fault = resolve(draft, name); !fault.empty()) faults.push_back({mark, fault});
    }
    if (draft.take > 0 && draft.step.takes.empty())
        faults.push_back({draft.mark("take"), "\"take\" needs a text that names a pool, as {mac}"});
    if (const std::string fault = faultOfWhose(draft); !fault.empty()) faults.push_back({draft.mark("whose"), fault});
    if (const std::string fault = faultOfSend(draft.step); !fault.empty())
        faults.push_back({draft.mark("send"), fault});
}

// From here on the later steps know what this one finds out.
void learn(const Draft &draft) {
    Loader &loader = draft.loader;
    std::set<std::string> found;
    if (draft.step.expected.match) found = draft.step.expected.match->groups();
    if (!draft.step.ask.empty()) found.insert(draft.step.ask);
    for (const std::string &name : found) {
        if (loader.taken.contains(name)) loader.faults.push_back({draft.node.Mark(), faultOfTwo(name)});
        loader.names.variables.insert(name);
    }
}

Draft readStep(Loader &loader, const YAML::Node &node) {
    Draft draft{loader, node};
    const size_t before = loader.faults.size();
    try {
        const size_t kind = kindOf(node);
        draft.step.kind = static_cast<Kind>(kind);
        draft.step.timeout = draft.step.kind == Kind::kAsk ? kAnswerTime : loader.timeout;
        draft.timed = loader.timed;
        readMap(node, kKinds[kind].keys, fmt::format("in a \"{}\" step", kKinds[kind].word), draft, loader.faults);
    } catch (Fault &fault) {
        loader.faults.push_back(std::move(fault));
    }
    // A step with a wrong key would only be found incomplete for that.
    if (loader.faults.size() == before) completeStep(draft);
    learn(draft);
    return draft;
}

const Keys<Loader> kDefaultKeys = {
    {"timeout",
     [](Loader &loader, const Entry &value) {
         loader.timeout = value.seconds();
         loader.timed = true;
     }},
    {"files",
     [](Loader &loader, const Entry &value) {
         if (loader.ownFolder) loader.folder /= value.text();
     }},
};

void readAgain(Loader &loader, const Entry &value) {
    static const std::map<std::string, Again> kWords = {
        {"ask", Again::kAsk}, {"refuse", Again::kRefuse}, {"allow", Again::kAllow}};
    const auto found = kWords.find(value.text());
    if (found == kWords.end()) value.fail("expected ask, refuse or allow");
    loader.plan.again = found->second;
}

const Keys<Loader> kPlanKeys = {
    {"name", [](Loader &loader, const Entry &value) { loader.plan.name = value.part(); }},
    {"probe", [](Loader &loader, const Entry &value) { loader.plan.probe = value.flag(); }},
    {"again", readAgain},
    {"attempts", [](Loader &loader, const Entry &value) { loader.plan.attempts = value.whole(1, kMostAttempts); }},
    {"defaults",
     [](Loader &loader, const Entry &value) {
         readMap(value.node, kDefaultKeys, "in \"defaults\"", loader, loader.faults);
     }},
    {"steps", [](Loader &loader, const Entry &value) { loader.steps.reset(value.node); }},
};

void readPlan(Loader &loader, const YAML::Node &document) {
    if (document.IsMap()) {
        readMap(document, kPlanKeys, "in a plan", loader, loader.faults);
    } else {
        loader.steps.reset(document);
    }
    if (!loader.steps.IsSequence() || loader.steps.size() == 0) {
        throw Fault{document.Mark(), "a plan is a list of steps, or a map with \"steps\""};
    }
    if (loader.steps.size() > kMostSteps) {
        throw Fault{document.Mark(), fmt::format("a plan has at most {} steps", kMostSteps)};
    }
    for (const YAML::Node &node : loader.steps) loader.drafts.push_back(readStep(loader, node));
}

// Numbers the files. Digests the plan and them.
void digestPlan(Loader &loader, const std::string &text) {
    Digest digest("SHA256");
    digest.feed(text);
    for (size_t i = 0; i < loader.drafts.size(); ++i) {
        for (PlanFile &file : loader.drafts[i].files) {
            file.step = i + 1;
            digest.feed(file.sha256);
            loader.plan.files.push_back(std::move(file));
        }
    }
    loader.plan.digest = digest.text();
}

void finishPlan(Loader &loader) {
    std::vector<StepSource> sources;
    for (Draft &draft : loader.drafts) {
        for (Taken &taken : draft.step.takes) taken.count = loader.taken[taken.pool];
        sources.push_back({draft.step, draft.node, draft.timed});
    }
    review(sources, loader.faults, loader.warnings);
    for (Draft &draft : loader.drafts) loader.plan.steps.push_back(std::move(draft.step));
}

}  // namespace

bool Step::needsBoard() const { return kKinds[static_cast<size_t>(kind)].needsBoard; }

std::string Step::title(const Variables &variables) const {
    return name.empty() ? kKinds[static_cast<size_t>(kind)].title(*this, variables) : fill(name, variables);
}

Plan loadPlan(const fs::path &path, const fs::path &files, const Names &names) {
    Loader loader{files.empty() ? path.parent_path() : files, files.empty(), names};
    loader.plan.name = path.stem().string();
    try {
        std::string text;
        readPlan(loader, loadDocument(path, &text));
        digestPlan(loader, text);
        if (const std::string fault = faultOfPart(loader.plan.name); !fault.empty()) {
            throw Fault{YAML::Mark::null_mark(), "without \"name\" a plan has its file's: " + fault};
        }
        finishPlan(loader);
        loader.plan.folder = loader.folder;
    } catch (Fault &fault) {
        loader.faults.push_back(std::move(fault));
    }
    if (!loader.faults.empty()) throw PlanError(describe(path, loader.faults));
    loader.plan.warnings = describe(path, loader.warnings);
    return std::move(loader.plan);
}

}  // namespace station
