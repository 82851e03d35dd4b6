#include "ctl/verbs/CommandLine.h"

#include "ctl/backup/Backups.h"
#include "ctl/report/Report.h"
#include "ctl/verbs/Help.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>

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

/// CLI11 would take other notations, too.
std::string refusalOfNumber(const std::string& text) {
    const bool isNumber = !text.empty() && text.size() <= 6 &&
                          text.find_first_not_of("0123456789") == std::string::npos;
    return isNumber ? std::string() : text + " is not a number from 0 to 999999";
}

/// Why the arguments are not understood.
std::string reasonOf(const CLI::ParseError& error, int count, char** arguments) {
    for (int index = 1; error.get_name() == "RequiredError" && index < count; ++index) {
        if (arguments[index][0] != '-') {
            return std::string("there is no verb ") + arguments[index];
        }
    }
    return error.what();
}

/// \return the exit status; a reader that is gone is no failure
int printed(const std::string& text) {
    if (std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0) {
        return 0;
    }
    if (errno == EPIPE) {
        return 0;
    }
    complain(std::string("standard output: ") + std::strerror(errno));
    return 1;
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
    addVerb(app, request, "backups")->add_option("--prune", request.prune)->check(refusalOfNumber);
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
        request.status = printed(helpFor(verbs.empty() ? "" : verbs.front()->get_name()));
        request.verb.clear();
    } catch (const CLI::CallForVersion&) {
        request.status = printed(version);
        request.verb.clear();
    } catch (const CLI::ParseError& error) {
        complain(reasonOf(error, count, arguments) + " (see --help)");
        request.verb.clear();
        request.status = statusOfFailure(app.got_subcommand("diff") ? "diff" : "");
    }
    return request;
}

int statusOfFailure(const std::string& verb) {
    return verb == "diff" ? 2 : 1;
}

} // namespace torva::ctl
