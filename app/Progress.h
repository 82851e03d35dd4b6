// The progress report of the run, on std::clog: header lines, and steps that read
// "TEXT...done". Errors are not its business: a failing step leaves its line
// unfinished.
#pragma once

#include <boost/function.hpp>

#include <string>

namespace torva::app {

class Progress {
public:
    /// \param enabled  false: steps are carried out in silence
    explicit Progress(bool enabled) : enabled_(enabled) {}

    /// Whether the environment asks for progress: TORVA_INSTALLER_DEBUG is set, and
    /// not to "0".
    static bool wanted();

    /// Prints a line of its own.
    void header(const std::string& text) const;

    /// Prints the text, carries out the action, finishes the line.
    ///
    /// \param text    null: the step is silent
    /// \param action  its exceptions pass through
    void step(const char* text, const boost::function<void()>& action) const;

private:
    bool enabled_;
};

} // namespace torva::app
