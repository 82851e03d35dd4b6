#include "ctl/host/Host.h"

#include "ctl/host/Files.h"
#include "ctl/host/Program.h"

#include <algorithm>
#include <unistd.h>

namespace torva::ctl {

namespace {

std::string sandboxFor(const std::string& directory) {
    const std::string installed = directoryOf(directory) + "/lib/torva-postfix/scripts/sandbox";
    // A checkout has its programs in build/PRESET/bin.
    const std::string checkout =
        directoryOf(directoryOf(directoryOf(directory))) + "/scripts/sandbox";
    return exists(installed) ? installed : checkout;
}

} // namespace

OwnPrograms ownPrograms(const std::string& called) {
    OwnPrograms programs;
    char path[4096];
    const ssize_t size = ::readlink("/proc/self/exe", path, sizeof(path));
    // In a chroot without /proc, we are called by our path.
    programs.self = size > 0 ? std::string(path, static_cast<std::size_t>(size)) : called;
    const std::string directory = directoryOf(programs.self);
    programs.tool = directory + "/torva-postfix-setup";
    programs.sandbox = sandboxFor(directory);
    return programs;
}

Host askHost(const OwnPrograms& programs) {
    Host host;
    host.programs = programs;
    host.postfix = askPostfix();
    if (!host.postfix.failure.empty()) {
        return host;
    }
    const ToolResult services = run({"/usr/sbin/postconf", "-M"});
    host.masterFailure = services.succeeded() ? std::string() : wordsOf(services);
    host.masterCf = readMasterCf(host.postfix);
    const ToolResult types = run({"/usr/sbin/postconf", "-m"});
    host.mapTypes = linesOf(types.output);
    host.mapTypesFailure = types.succeeded() ? std::string() : wordsOf(types);
    if (host.masterFailure.empty() && host.mapTypesFailure.empty()) {
        host.support = askRunSupport();
    }
    return host;
}

bool isConfigured(const Postfix& postfix, const MasterCfText& masterCf) {
    const auto& entries = masterCf.entries();
    return postfix.value("virtual_transport") == "torva_virtual" &&
           std::any_of(entries.begin(), entries.end(), [](const MasterCfTextEntry& entry) {
               return entry.key() == "torva_virtual/unix";
           });
}

} // namespace torva::ctl
