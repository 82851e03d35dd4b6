#include "torva/postfix/params/PostfixTool.h"

#include <boost/bind/bind.hpp>

#include <sys/wait.h>

namespace torva::mail::postfix {

namespace {

bool noInput(std::vector<char>&) {
    return false;
}

void append(std::string& text, const std::vector<char>& chunk) {
    text.append(chunk.data(), chunk.size());
}

} // namespace

bool ToolResult::succeeded() const {
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool ToolResult::signaled() const {
    return WIFSIGNALED(status);
}

std::string ToolResult::message() const {
    return error.empty() ? "unknown error" : error;
}

ToolResult runTool(const std::vector<std::string>& command, const process::InputProducer& input,
                   const process::OutputConsumer& output) {
    using namespace boost::placeholders;

    ToolResult result;
    process::CommonFlags flags;
    flags.input = input.empty() ? process::InputProducer(&noInput) : input;
    flags.output =
        output.empty()
            ? process::OutputConsumer(boost::bind(&append, boost::ref(result.output), _1))
            : output;
    flags.error = boost::bind(&append, boost::ref(result.error), _1);

    process::Pipe pipe;
    pipe.addProcess(command.at(0), command, flags);
    pipe.launch();
    result.status = pipe.status(0);
    return result;
}

} // namespace torva::mail::postfix
