#include "ctl/verbs/CommandLine.h"

#include "ctl/backup/Backups.h"
#include "ctl/report/Report.h"
#include "ctl/verbs/Help.h"

#include <CLI/CLI.hpp>

#include <cstdio>

namespace torva::ctl {

namespace {

const char version[] = "torva-postfixctl " TORVA_VERSION "\n";

/// The texts of Help.h instead of those that CLI11 generates.
class OwnHelp : public CLI::Formatter {
public:
    std::string make_help(const CLI::App* app, std::string /*name*/,
                          CLI::AppFormatMode /*mode*/) const override {
        return helpFor(app->get_name());
    }
};

std::string refusalOfStamp(const std::string& text) {
    return isStamp(text) ? std::string() : text + " is not the name of a backup";
}

/// An unset variable of a script.
std::string refusalOfDirectory(const std::string& text) {
    return text.empty() ? "the name of a directory is empty" : std::string();
}

CLI::App* addVerb(CLI::App& app, Request& request, const char* name) {
    CLI::App* verb = app.add_subcommand(name);
    verb->callback([&request, name] { request.verb = name; });
    return verb;
}

void addReload(CLI::App* verb, Request& request) {
    verb->add_flag("--reload", request.reload);
}

void addVerbs(CLI::App& app, Request& request) {
    addVerb(app, request, "check");
    CLI::App* preview = addVerb(app, request, "preview");
    preview->add_option("--keep", request.keep)->check(refusalOfDirectory);
    preview->add_flag("--deliver", request.deliver);
    preview->add_flag("--empty-tables", request.emptyTables);
    preview->add_flag("--panel-accounts", request.panelAccounts);
    preview->add_option("--inside", request.inside)->expected(3)->group("");
    preview->add_option("--archive", request.archive)->group("");
    CLI::App* apply = addVerb(app, request, "apply");
    addReload(apply, request);
    apply->add_flag("--empty-tables", request.emptyTables);
    addVerb(app, request, "diff")->add_option("STAMP", request.stamp)->check(refusalOfStamp);
    CLI::App* rollback = addVerb(app, request, "rollback");
    addReload(rollback, request);
    rollback->add_flag("--force", request.force);
    rollback->add_option("STAMP", request.stamp)->check(refusalOfStamp);
    addVerb(app, request, "backups")
        ->add_option("--prune", request.prune)
        ->check(CLI::Range(0, 1000000));
}

} // namespace

Request readCommandLine(int count, char** arguments) {
    Request request;
    CLI::App app;
    app.name("");
    app.formatter(std::make_shared<OwnHelp>());
    app.set_help_flag("-h,--help");
    app.set_version_flag("--version", version);
    app.add_flag("--json", request.json);
    app.fallthrough(); // --json is also allowed after the verb
    app.require_subcommand(1);
    addVerbs(app, request);
    try {
        app.parse(count, arguments);
    } catch (const CLI::CallForHelp&) {
        const auto verbs = app.get_subcommands();
        std::fputs(helpFor(verbs.empty() ? "" : verbs.front()->get_name()).c_str(), stdout);
        request.verb.clear();
    } catch (const CLI::CallForVersion&) {
        std::fputs(version, stdout);
        request.verb.clear();
    } catch (const CLI::ParseError& error) {
        complain(std::string(error.what()) + " (see --help)");
        request.verb.clear();
        request.status = statusOfFailure(app.got_subcommand("diff") ? "diff" : "");
    }
    return request;
}

int statusOfFailure(const std::string& verb) {
    return verb == "diff" ? 2 : 1;
}

} // namespace torva::ctl
