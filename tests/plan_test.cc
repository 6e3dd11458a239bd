// Plans: what is wrong with them before a board is there, and what they do with one.

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "station/line/run.h"
#include "station/plan/plan.h"
#include "station/wire/listener.h"

namespace {

namespace fs = std::filesystem;
using station::RunRecord;
using station::Session;
using testing::HasSubstr;

class PlanTest : public testing::Test {
protected:
    void SetUp() override {
        write("five", "12345");
        write("script", "exit");
    }
    void TearDown() override { fs::remove_all(folder_); }

    fs::path write(const std::string &name, const std::string &content) const {
        std::ofstream(folder_ / name) << content;
        return folder_ / name;
    }

    // The faults, or "" when there is none; then the warnings.
    std::string faultsOf(const std::string &text, const station::Names &names) const {
        try {
            return station::loadPlan(write("plan.yaml", text), {}, names).warnings;
        } catch (const station::PlanError &error) {
            return error.what();
        }
    }

    char name_[17] = "/tmp/plan.XXXXXX";
    fs::path folder_ = mkdtemp(name_);
};

TEST_F(PlanTest, FaultsAreNamedWithTheirPlace) {
    const struct {
        const char *plan, *fault;
    } cases[] = {
        // What would spoil a board.
        {"- {send: 'FW KERNEL {size}', expect: OK}", "1:10: {size} needs \"upload\""},
        {"- {send: FW KERNEL 0, expect: OK}", "1:10: the board would take this for an empty payload"},
        {"- {send: FW KERNEL 4, upload: five, expect: OK}", "1:10: announces \"4\", but its payload has 5 bytes"},
        {"- {send: SHELL, upload: five, expect: OK}", "1:10: announces \"\""},
        {"- {send: PING, upload: five, expect: OK}", "1:10: the board takes no payload behind this"},
        {"- {send: 'VERSION {size}', upload: five, bare: true, expect: OK}", "1:48: the board would take the payload"},
        {"- {send: 'MAC 001122334455aa', expect: MAC 4}", "1:10: \"001122334455aa\" is no MAC address"},
        {"- {send: 'MAC 01:00:00:00:00:01', expect: MAC 4}", "1:10: no board may have the MAC address"},
        {"- {send: 'MAC {mac}', expect: MAC 4}", "1:10: {mac} is taken for a unit"},
        {"- {ask: serial, prompt: S}\n- {send: 'MAC {mac}', match: MAC 4}", "2:10: as many addresses are taken"},
        {"- {send: 'COUNTRY de', expect: OK}", "1:10: \"de\" is no country code"},
        {"- {send: '12345678901234567890123456789012345678901234567890123456789012345', expect: OK}", "at most 64"},
        // Names, and what fills them.
        {"- {send: 'X {who}', expect: OK}", "1:10: nothing fills {who}"},
        {"- {send: PING, match: '{who}'}", "1:23: nothing fills {who}"},
        {"- {send: 'X }', expect: OK}", "1:3: '}' that is no {name}; write '}}'"},
        {"- {ask: 1st, prompt: S}", "1:9: a name has letters"},
        // The course of the session.
        {"- {send: BYE, expect: BYE}\n- {send: PING, expect: PING 2}", "2:3: the session has ended before this step"},
        {"- {send: REBOOT, expect: OK}\n- {send: PING, expect: PING 2}", "2:3: the board may be gone"},
        {"- {send: INFO, expect: INFO}", "1:3: without a PING"},
        {"- {send: FACTORY RESET, expect: OK}", "1:3: nothing waits for the end of the reset"},
        {"- {send: 'FW CONFIG {size}', upload: five, expect: OK}", "1:3: 10 s may not be enough"},
        {"- {send: 'FW CONFIG {size}', upload: five, expect: OK}", "1:3: its OK does not say that it was written"},
        {"- {send: BYE, expect: BYE, retries: 1}", "1:37: a step that ends the session"},
        // The form.
        {"- {send: PING, expect: OK}\n---\n- {send: PING, expect: OK}", "3:1: a second document"},
        {"- {send: PING}\n- PING", "1:3: a command needs \"expect\" or \"match\"\n"},
        {"- {send: PING}\n- PING", "2:3: a step is a map of keys"},
        {"- {send: PING, expct: OK}", "1:16: unknown key \"expct\" in a \"send\" step"},
        {"- {send: PING, expect: OK, expect: OK}", "1:28: \"expect\" stands twice"},
        {"- {send: PING, expect: OK, match: OK}", "1:35: the whole text and a match exclude each other"},
        {"- {send: PING, match: '(['}", "1:23: bad expression"},
        {"- {send: PING, expect: OK, upload: none}", ": No such file or directory"},
        {"- {verify: ., partition: 1}", "1:12: cannot read"},
        {"- {send: PING, expect: OK, timeout: .nan}", "1:37: a time limit lies between"},
        {"- {send: PING, match: 'x', limits: {x: {max: 1}}}", "1:36: a limit is of a named group"},
        {"- {send: PING, match: '(?P<x>1)', limits: {x: {min: 2, max: 1}}}", "1:47: \"min\" is above \"max\""},
        {"{name: a/b, steps: [{send: PING, expect: OK}]}", "1:8: the name has no '/'"},
        {"{step: []}", "1:2: unknown key \"step\" in a plan"},
        {"", "a plan is a list of steps"},
        {"- {send: PING\n", "plan.yaml:2:1: "},
        // Nothing.
        {"- {send: 'MAC 1122334455', expect: '{{}} {line}', bare: true}\n- {script: script, match: 'a{2,3}\\{b}'}",
         "="},
    };
    for (const auto &test : cases) {
        const std::string fault = faultsOf(test.plan, {{"line"}, {"mac"}});
        EXPECT_THAT(fault + "=", HasSubstr(test.fault)) << test.plan;
        EXPECT_EQ(fault.empty(), test.fault[0] == '=') << test.plan << "\n" << fault;
    }
}

}  // namespace
