// The only access to main.cf: everything is read and changed by Postfix's own
// postconf(1). Nothing is cached: every read runs postconf again. The pure text work
// is in ListValue.h, LocalNetworks.h and MessageScan.h; fixed policies that use this
// class are in RelayPolicy.h.
//
// While a Postfix tool runs, every child of the process is reaped, including the caller's
// own: see torva/process/Pipe.h.
#pragma once

#include <string>

namespace torva::mail::postfix {

/// Every operation can throw
/// - PostfixConfigurationError with postconf's own text, or "unknown error": it failed;
/// - SystemError: postconf could not be started; std::logic_error: another pipe is running;
/// - std::invalid_argument "not a parameter: NAME": the name is empty or begins with "-",
///   which postconf would take for an option.
class PostfixParameters {
public:
    /// The instance that the whole process shares. The first call creates it, which asks
    /// Postfix for the path of main.cf; when that fails, the next call tries again.
    ///
    /// \throws as mainCfPath()
    static PostfixParameters& instance();

    /// \throws as mainCfPath()
    PostfixParameters();

    /// Path of main.cf at the time the object was created.
    const std::string& path() const { return path_; }

    /// The value of a parameter (postconf -h), without trailing white space; empty when
    /// the parameter is set to nothing. It is also empty for a parameter that Postfix
    /// does not know: hasParameter() tells the two apart.
    ///
    /// \param name      parameter
    /// \param defaults  true: Postfix's built-in default instead (postconf -h -d)
    /// In the value of "mynetworks", but not in its default, Postfix's built-in default
    /// is replaced by a narrow list for this host, see LocalNetworks.h.
    std::string getParameter(const std::string& name, bool defaults = false);

    /// The same, with every reference to another parameter replaced by its value
    /// (postconf -hx). "mynetworks" is returned as Postfix has it.
    std::string getExpandedParameter(const std::string& name);

    /// Whether Postfix knows a parameter. It knows its own, and those set in main.cf
    /// that another parameter or service refers to; one that is set but never referred
    /// to is unknown to it.
    bool hasParameter(const std::string& name);

    /// Sets a parameter in main.cf (postconf -e), under the lock of main.cf, for which it
    /// waits. The modification time of main.cf is then moved five seconds back: Postfix
    /// programs wait before they read a file that changed within the last two.
    ///
    /// \throws std::invalid_argument "not a parameter: NAME"  also when the name contains
    ///         "=": postconf would end the name there
    /// \throws SystemError  as FileLock, see torva/util/FileLock.h
    void setParameter(const std::string& name, const std::string& value);

    /// Asks Postfix for the path of main.cf: the configured config_directory, or the
    /// built-in one when that cannot be read, and "/main.cf".
    ///
    /// \throws PostfixConfigurationError "unable to determine Postfix
    ///         config_directory parameter" when the directory is empty
    std::string mainCfPath();

    /// Appends a value to a list unless the list contains it, compared byte for byte.
    /// Writes only when the list changes, except that "mynetworks" is always written.
    void addToListParameter(const std::string& name, const std::string& value);

    /// Removes every element that equals the value; writes only when there was one.
    void removeFromListParameter(const std::string& name, const std::string& value);

    /// Appends "KEY TABLE" to a comma-separated list of restrictions unless the list
    /// contains it; writes only when the list changes.
    void addRestriction(const std::string& name, const std::string& key, const std::string& table);

private:
    std::string path_;
};

} // namespace torva::mail::postfix
