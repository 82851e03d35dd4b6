#include "app/HostName.h"

#include "app/CollectedErrors.h"
#include "torva/postfix/params/PostfixParameters.h"
#include "torva/process/Launch.h"

#include <boost/algorithm/string/trim.hpp>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>

namespace torva::app {

using mail::postfix::PostfixParameters;

std::string derivedDomain(const std::string& name) {
    const std::string::size_type dot = name.find('.');
    return dot == std::string::npos ? std::string() : name.substr(dot + 1);
}

namespace {

/// The exit status is ignored, but the command must not outlive the run.
void closePipe(std::FILE* pipe) {
    if (::pclose(pipe) == -1) {
        process::waitForLostChildren();
    }
}

} // namespace

std::string fullHostName() {
    const CollectedErrors errors; // a warning must not end the command before its answer
    const std::unique_ptr<std::FILE, void (*)(std::FILE*)> pipe(
        ::popen("hostname -f", "re"), // NOLINT(cert-env33-c)
        &closePipe);
    if (!pipe) {
        return std::string();
    }
    char* text = nullptr;
    std::size_t size = 0;
    const ssize_t length = ::getline(&text, &size, pipe.get());
    const std::unique_ptr<char, decltype(&std::free)> owner(text, &std::free);
    if (length <= 0) {
        return std::string();
    }
    return boost::algorithm::trim_copy(std::string(text, static_cast<std::size_t>(length)));
}

std::string repairHostName(const std::string& name) {
    if (name.find('.') != std::string::npos) {
        return name;
    }
    std::string full = name == "localhost" ? "localhost.localdomain" : fullHostName();
    if (full.empty()) {
        std::cerr << "Detected problems with $myhostname parameter in Postfix main.cf, but unable "
                     "to execute `hostname -f`, leave $myhostname untouched"
                  << std::endl;
        return name;
    }
    PostfixParameters& parameters = PostfixParameters::instance();
    parameters.setParameter("myhostname", full);
    const std::string domain = derivedDomain(full);
    if (!domain.empty() && parameters.getParameter("mydomain").find('.') == std::string::npos) {
        parameters.setParameter("mydomain", domain);
    }
    return full;
}

} // namespace torva::app
