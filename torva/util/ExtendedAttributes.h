// Extended attributes of files: access control lists, labels of a security module, and the
// administrator's own. See xattr(7).
// Private to the library: not installed.
#pragma once

namespace torva {

/// Gives a file the extended attributes of another one. Those that its file system does not
/// support are left out. A later fchmod(2) keeps an access control list and limits it.
///
/// \param from, to  descriptors, not owned
/// \throws SystemError "fsetxattr": some may have been copied
void copyExtendedAttributes(int from, int to);

} // namespace torva
