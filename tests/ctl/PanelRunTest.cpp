// What the companion knows of a run, compared with the golden files of the run itself.
#include "ctl/host/PanelRun.h"

#include "ctl/host/MasterCfText.h"

#include <gmock/gmock.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

using namespace torva::ctl;
using testing::Contains;

namespace {

/// The parameters that the commands of a first run set.
std::set<std::string> parametersOfFirstRun() {
    std::ifstream file(TORVA_SOURCE_DIR "/tests/run/fake/golden/first_run.commands");
    const std::string command = "postconf -e ";
    std::set<std::string> names;
    std::string line;
    while (std::getline(file, line)) {
        const std::string::size_type at = line.find(command);
        if (at != std::string::npos) {
            const std::string setting = line.substr(at + command.size());
            // Where a shell would want quotes, the file has them.
            const std::string::size_type name = setting.front() == '\'' ? 1 : 0;
            names.insert(setting.substr(name, setting.find('=') - name));
        }
    }
    return names;
}

TEST(PanelRunTest, EveryParameterThatARunSetsIsOneOfItsParameters) {
    const std::set<std::string> names = parametersOfFirstRun();
    EXPECT_GT(names.size(), 20U);
    for (const std::string& name : names) {
        EXPECT_THAT(panelParameters(), Contains(name));
    }
}

TEST(PanelRunTest, WhatItInstallsWhereNothingIsAreItsOwnCommandLines) {
    std::ifstream file(TORVA_SOURCE_DIR "/tests/run/fake/golden/master.cf.after");
    std::ostringstream text;
    text << file.rdbuf();
    const MasterCfText masterCf(text.str());
    int compared = 0;
    for (const MasterCfTextEntry& entry : masterCf.entries()) {
        const PanelService* own = panelServiceOf(entry.key());
        if (own != nullptr && !own->replaces) {
            const std::string arguments = own->arguments;
            const std::string command = own->command;
            EXPECT_EQ(entry.commandLine(), command + (arguments.empty() ? "" : " " + arguments));
            ++compared;
        }
    }
    EXPECT_EQ(compared, 5);
}

} // namespace
