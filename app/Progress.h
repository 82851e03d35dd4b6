// The progress report of the run, on std::clog: header lines, and steps in the form
// "TEXT...done". Errors are not reported here: a failing step leaves its line unfinished.
#pragma once

#include <boost/function.hpp>

#include <string>

namespace torva::app {

class Progress {
public:
    /// \param enabled  false: nothing is printed
    explicit Progress(bool enabled) : enabled_(enabled) {}

    /// Whether TORVA_INSTALLER_DEBUG is set in the environment, and not to "0".
    static bool wanted();

    /// Prints a line.
    void header(const std::string& text) const;

    /// Prints the text, does the action, finishes the line.
    ///
    /// \param text    null: the step is silent
    /// \param action  its exceptions pass through
    void step(const char* text, const boost::function<void()>& action) const;

private:
    bool enabled_;
};

} // namespace torva::app
