#include "station/page/run_page.h"

#include <algorithm>

#include "station/page/html.h"
#include "station/store/load.h"
#include "station/store/queries.h"

namespace station {
namespace {

// A reply that is short stands open; the output of a script unfolds, and is open where the step failed.
Html replyOf(const StepResult &step) {
    constexpr size_t kShort = 200;
    const size_t lineEnd = step.reply.find('\n');
    const auto lines = std::count(step.reply.begin(), step.reply.end(), '\n');
    const bool isShort = lines <= 3 && step.reply.size() <= kShort;
    Html content = isShort && lineEnd >= step.reply.size() - 1 ? html("<code>{}</code>", step.reply)
                                                               : html("<pre>{}</pre>", step.reply);
    if (step.cut > 0) content += html("<p class=\"note\">{} bytes more were cut off.</p>", step.cut);
    if (isShort) return content;
    return html("<details{}><summary>{} bytes, {} lines</summary>{}</details>",
                Html{step.verdict == Verdict::kFailed ? " open" : ""}, step.reply.size(), lines, content);
}

Html whatCame(const StepResult &step) {
    Html content;
    if (!step.failure.empty()) content += html("<p class=\"failure\">{}</p>", step.failure);
    if (!step.passed() && !step.hint.empty()) content += html("<p class=\"hint\">{}</p>", step.hint);
    content += replyOf(step);
    return content;
}

double seconds(std::chrono::milliseconds time) { return double(time.count()) / 1000; }

Html stepRow(size_t number, const StepResult &step) {
    constexpr auto kRow =
        "<tr class=\"{}\"><td class=\"number\">{}</td><td>{}</td><td>{}</td><td class=\"number\">{}</td>"
        "<td class=\"number\">{}</td><td class=\"number\">{}</td><td>{}</td></tr>\n";
    const std::string verdict(textOf(step.verdict));
    const bool ran = step.verdict != Verdict::kNotRun;
    return html(kRow, verdict, number, verdictMark(verdict), step.title,
                ran ? fmt::format("{:.3f}", seconds(step.offset)) : "",
                ran ? fmt::format("{:.3f}", seconds(step.duration)) : "", step.attempts, whatCame(step));
}

Html stepsOf(const RunRecord &run) {
    if (run.steps.empty()) return html("<p class=\"none\">None is recorded.</p>\n");
    Html rows;
    for (size_t i = 0; i < run.steps.size(); ++i) rows += stepRow(i + 1, run.steps[i]);
    return html(
        "<div class=\"wide\"><table class=\"steps\">\n<thead><tr><th class=\"number\">step</th><th>verdict</th>"
        "<th>title</th><th class=\"number\">after s</th><th class=\"number\">took s</th>"
        "<th class=\"number\">attempts</th><th>what came</th></tr></thead>\n<tbody>\n{}</tbody>\n</table></div>\n",
        rows);
}

Html variablesOf(const RunRecord &run) {
    Table table{{"variable", "is"}, {}};
    for (const auto &[name, value] : run.variables) table.rows.push_back({name, value});
    return tableOf(table);
}

// What is wrong with the run besides its steps.
Html troubleOf(const RunRecord &run) {
    Html trouble;
    if (!run.failure.empty()) trouble += html("<p class=\"failure\">{}</p>\n", run.failure);
    if (run.interrupted) {
        trouble +=
            html("<p class=\"failure\">The run was interrupted: the station ended before the plan did. What it was"
                 " writing to the board may be there in part.</p>\n");
    }
    return trouble;
}

}  // namespace

Html runContent(Database &database, const std::string &name) {
    const std::vector<Section> sections = showRun(database, name);
    const RunRecord run = loadRun(database, name);
    const Look toValue = [&](const std::string &value, const auto &) {
        return linkTo("/value", {{"name", value}, {"plan", run.plan}}, value);
    };
    Html content = factsOf(without(sections[0].table, "run"));
    content += troubleOf(run);
    content += html("<h2>Steps</h2>\n{}<h2>Measured values</h2>\n{}", stepsOf(run),
                    tableOf(sections[2].table, {{"name", toValue}}));
    content += html("<h2>Variables</h2>\n{}", variablesOf(run));
    content += html("<p class=\"file\">Board {}. {} {}</p>\n", run.peer.empty() ? "never connected" : run.peer,
                    linkTo("/run.csv", {{"run", name}}, "CSV"), linkTo("/run.json", {{"run", name}}, "Record (JSON)"));
    return content;
}

}  // namespace station
