// The only road to main.cf: every read and every change is one run of Postfix's
// own postconf(1). Holds no values: what was written a moment ago is read back as
// Postfix sees it. The pure text work behind it is ListValue.h, LocalNetworks.h
// and MessageScan.h; fixed policies on top of it are RelayPolicy.h.
//
// While a tool of Postfix runs here, every child of the process is reaped, the caller's
// own among them: see torva/process/Pipe.h.
#pragma once

#include <string>

namespace torva::mail::postfix {

/// Every operation throws PostfixConfigurationError with postconf's own text, or
/// "unknown error", when postconf fails, passes on the SystemError of a postconf that
/// could not be started, and refuses, as std::invalid_argument "not a parameter: NAME",
/// a name that is empty or begins with "-": postconf would run another command.
class PostfixParameters {
public:
    /// The instance that the whole process shares. It is made, and asks Postfix for
    /// the path of main.cf, on the first call; a failing first call is tried again
    /// by the next.
    static PostfixParameters& instance();

    /// \throws as mainCfPath()
    PostfixParameters();

    /// Path of main.cf, as it was when the object was made.
    const std::string& path() const { return path_; }

    /// Value of a parameter (postconf -h), without trailing white space; empty when
    /// it is set to nothing. A parameter that Postfix does not know is empty, too: ask
    /// hasParameter().
    ///
    /// \param name      parameter
    /// \param defaults  true: Postfix's built-in default instead (postconf -h -d)
    /// For "mynetworks", unless defaults are asked for, Postfix's built-in default
    /// within the value is replaced by a narrow host list, see LocalNetworks.h.
    std::string getParameter(const std::string& name, bool defaults = false);

    /// The same with each reference to another parameter replaced by its value
    /// (postconf -hx); "mynetworks" is as Postfix has it.
    std::string getExpandedParameter(const std::string& name);

    /// Whether Postfix knows a parameter, built in or by a line of main.cf.
    bool hasParameter(const std::string& name);

    /// Sets a parameter in main.cf (postconf -e), under the lock of main.cf.
    ///
    /// \throws std::invalid_argument  the name contains "=", at which postconf would end
    ///         it, too
    void setParameter(const std::string& name, const std::string& value);

    /// Asks Postfix for the path of main.cf: config_directory as configured, or as
    /// built in when that cannot be read, and "/main.cf".
    ///
    /// \throws PostfixConfigurationError "unable to determine Postfix
    ///         config_directory parameter" when the directory is empty
    std::string mainCfPath();

    /// Appends a value to a list unless an element equals it, byte for byte; writes
    /// only when the list changes ("mynetworks" is always written).
    void addToListParameter(const std::string& name, const std::string& value);

    /// Drops every element that equals the value; writes only when there was one.
    void removeFromListParameter(const std::string& name, const std::string& value);

    /// Appends "KEY TABLE" to a list of restrictions separated by commas, unless an
    /// element equals it; writes only when the list changes.
    void addRestriction(const std::string& name, const std::string& key, const std::string& table);

private:
    std::string path_;
};

} // namespace torva::mail::postfix
