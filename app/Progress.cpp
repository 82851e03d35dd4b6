#include "app/Progress.h"

#include <cstdlib>
#include <cstring>
#include <iostream>

namespace torva::app {

bool Progress::wanted() {
    const char* value = std::getenv("TORVA_INSTALLER_DEBUG");
    return value != nullptr && std::strcmp(value, "0") != 0;
}

void Progress::header(const std::string& text) const {
    if (enabled_) {
        std::clog << text << std::endl;
    }
}

void Progress::step(const char* text, const boost::function<void()>& action) const {
    const bool print = enabled_ && text != nullptr;
    if (print) {
        std::clog << text << "..." << std::flush;
    }
    action();
    if (print) {
        std::clog << "done" << std::endl;
    }
}

} // namespace torva::app
