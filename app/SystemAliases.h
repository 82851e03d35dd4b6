// Checks the alias databases in main.cf: builds indexed ones, and removes look-ups in NIS.
#pragma once

#include <string>

namespace torva::app {

/// One check of several parameters, with a common state: once an element was removed from
/// one, every later one is written back, too.
class SystemAliases {
public:
    /// Asks Postfix for the default type of databases.
    SystemAliases();

    /// Checks a parameter: builds each indexed database in it (a missing source file is
    /// created empty), removes the elements of type "nis", and writes the parameter back
    /// if anything was removed so far.
    ///
    /// If the value refers to other parameters, the databases are those in its expansion,
    /// but elements are removed from the value itself, so that references stay, whatever
    /// they refer to.
    ///
    /// An account that can only read an index cannot stop this by holding its lock
    /// (torva/postfix/tables/ShieldedIndex.h). Each index is a new file with the mode and
    /// owner of the old one.
    ///
    /// \throws PostfixConfigurationError  the parameter cannot be read or written
    /// \throws SystemError "unable to re-index system alias map": postalias failed;
    ///         the parameter is unchanged, and the databases before that one are built
    /// \throws as ShieldedIndex and settleIndexes() (TableFiles.h), with the same result
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
