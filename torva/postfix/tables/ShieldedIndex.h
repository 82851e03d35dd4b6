// Keeps other accounts from the lock of an index while a tool writes the index: whoever may
// open a file for reading can hold its lock, and postmap and postalias would wait for it
// without end. Used by the operations in this folder, and by the application. Checking what
// kind of file an index is: TableFiles.h, before this.
// Private to the library: not installed.
#pragma once

#include "torva/postfix/tables/TableFiles.h"

#include <memory>
#include <string>
#include <vector>

namespace torva::mail::postfix {

/// Around a tool that writes an index of type "hash", "btree", "lmdb" or "cdb"; with other
/// types it has no effect. It puts a copy in the place of the index, a new file that nobody
/// else has open or may open (mode 01600), so that its lock is free when the tool takes it.
/// If there is no index, it makes a placeholder, which the tool overwrites.
///
/// A process that has the index open for reading only is not waited for; one that has it
/// open for writing is, up to ten seconds. Postfix's programs notice that the index was
/// replaced, as they notice that it was changed. A program that is not root's cannot open it
/// meanwhile.
///
/// Three can still make the tool wait: the owner of the source, if the tool works as that
/// account; an account that may write the directory and puts another file in the place of
/// the copy; and one that an access control list of the index names, while the list is
/// copied. If the index does not belong to the account as which the tool works, and this
/// is not root, it gets no copy: nobody is given the contents of another account's file.
///
/// After a kill the index keeps the mode 01600, which tells the next operation that rebuilds
/// it to give it the mode of a new one; a placeholder is removed.
class ShieldedIndex {
public:
    /// \param table  "type:path"
    /// The rest is as below.
    ShieldedIndex(const std::string& table, IndexUse use);

    /// \param type    of the table
    /// \param source  path of the source file; no other process of ours is writing its index
    /// \param use     rebuilt: after ten seconds the index is replaced even if somebody has
    ///                it open for writing, because its records go in any case; changed: that
    ///                is an error, and no placeholder is made
    /// \throws PostfixDatabaseError "PATH is locked by another process (fuser PATH)": see
    ///         `use`; or it is locked and has several hard links, which are the
    ///         administrator's: such an index is not replaced
    /// \throws SystemError "unable to replace PATH": it is locked, and cannot be replaced, for
    ///         example because the disk is full, or because a file system is mounted there;
    ///         or a placeholder cannot be made; or somebody has put another file in the
    ///         place of ours. Where an index that is not locked cannot be replaced, or the
    ///         disk is too full for a placeholder, the tool goes without
    /// After an exception the index is as before, unless somebody else has replaced it, and
    /// no temporary file is left.
    ShieldedIndex(const std::string& type, const std::string& source, IndexUse use);
    ShieldedIndex(const ShieldedIndex&) = delete;
    ShieldedIndex& operator=(const ShieldedIndex&) = delete;

    /// Gives the index its mode and owner back, also after a failure of the tool: those that
    /// it had, or, if it is new, those that the tool would have given it. Removes a
    /// placeholder if the tool failed or did not use it. Changes no file that the tool has
    /// put in the place of ours.
    ~ShieldedIndex();

    /// The tool succeeded: does now what the destructor would, and tells when it fails.
    ///
    /// \throws SystemError "chown" or "chmod": the index is made, and closed to others until
    ///         the next operation that rebuilds it
    void letGo();

private:
    class File;

    std::vector<std::unique_ptr<File>> files_;
};

/// Around several puts or deletions in a table: shields its index, under the table's lock,
/// which is free again afterwards.
///
/// \param table  "type:path"
/// \throws as the constructor with IndexUse::changed, settleIndexes(), and
///         torva/util/FileLock.h
ShieldedIndex shieldForChanges(const std::string& table);

} // namespace torva::mail::postfix
