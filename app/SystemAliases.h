// The check of the alias databases that main.cf names: the ones that Postfix
// indexes are built, look-ups in NIS are dropped.
#pragma once

#include <string>

namespace torva::app {

/// One check over several parameters, which share what was found: once an element
/// was dropped from one, every later one is written back too.
class SystemAliases {
public:
    /// Asks Postfix for the type of a database that is named without one.
    SystemAliases();

    /// Checks a parameter: builds each indexed database in it (its source file is
    /// created empty when missing), drops the elements of type "nis", and writes the
    /// parameter back when anything was dropped so far.
    ///
    /// Where the value refers to other parameters, the databases are those that it
    /// expands to; what is dropped and written back is decided on the elements as they
    /// are written, so that a reference stays one, whatever it refers to.
    ///
    /// \throws PostfixConfigurationError  the parameter cannot be read or written
    /// \throws SystemError "unable to re-index system alias map": postalias failed;
    ///         the parameter is as it was, databases before that one are built
    void check(const std::string& parameter);

private:
    struct Database {
        std::string type;
        std::string path;
    };

    Database databaseOf(const std::string& element) const;
    void build(const std::string& element) const;

    std::string defaultType_;
    bool changed_ = false;
};

} // namespace torva::app
