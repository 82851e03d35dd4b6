#include "ctl/host/RunSupport.h"

#include "ctl/host/PanelRun.h"
#include "ctl/host/Program.h"
#include "ctl/host/Scratch.h"

#include <boost/algorithm/string/replace.hpp>

#include <algorithm>
#include <iterator>

namespace torva::ctl {

namespace {

/// What postconf says of a main.cf with nothing in it but the run's parameters. Their
/// values do not matter: only those that are asked for are looked at.
std::vector<DroppedParameter> droppedOfRun() {
    const ScratchDirectory scratch;
    std::string mainCf;
    for (const std::string& name : panelParameters()) {
        mainCf += name + " =\n";
    }
    scratch.write("main.cf", mainCf);
    scratch.write("master.cf", "");
    const std::string said =
        run({"/usr/sbin/postconf", "-c", scratch.path(), "-h", "config_directory"}).error;
    // postconf prints them in an arbitrary order, which differs from call to call.
    const std::vector<DroppedParameter> told = droppedParameters(said);
    std::vector<DroppedParameter> dropped;
    for (const std::string& name : panelParameters()) {
        std::copy_if(told.begin(), told.end(), std::back_inserter(dropped),
                     [&](const DroppedParameter& one) { return one.name == name; });
    }
    return dropped;
}

/// The two command lines of a run: a table is made empty, then records are put into it.
void tryTable(RunSupport& support) {
    const ScratchDirectory scratch;
    scratch.write("table", "");
    const std::string table = "hash:" + scratch.path() + "/table";
    Program put;
    put.words = {"/usr/sbin/postmap", "-r", "-i", table};
    put.input = "key value\n";
    ToolResult result = run({"/usr/sbin/postmap", "-r", table});
    if (result.succeeded()) {
        result = run(put);
    }
    support.droppedTables = droppedTableType(result.error);
    if (!result.succeeded()) {
        support.tableFailure =
            boost::algorithm::replace_all_copy(wordsOf(result), scratch.path() + "/", "");
    }
}

} // namespace

RunSupport askRunSupport() {
    RunSupport support;
    support.isAsked = true;
    support.dropped = droppedOfRun();
    tryTable(support);
    return support;
}

} // namespace torva::ctl
