// Values of the panel's configuration file "/etc/kra/kra.conf", read once on first use,
// with compile-time defaults for variables that it does not set. Failures are reported
// through torva_log with priority 12, which its initial console writer drops.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Indices of the variables that this code base reads; the table has 34 entries,
/// of which the first and the last are sentinels.
enum { TORVA_MAILNAMES_D = 1, PRODUCT_ROOT_D = 30 };

/// Number of entries of the variable table, sentinels included.
enum { PANEL_CONF_VARIABLES = 34 };

/// Value of a variable: from the file, otherwise its compile-time default.
///
/// \param index  0 to PANEL_CONF_VARIABLES - 1
/// \return text owned by the library, valid until the process ends; never null for
///         a valid index, null for any other
/// When the file cannot be read, that is reported, and the next look-up tries again.
const char* panel_conf_get(int index);

/// The same by name; null, with a report, for a name that is not in the table.
const char* panel_conf_get_by_name(const char* name);

/// Reads the file unless that has been done.
///
/// \return 0; -1 with errno, after a report, when it cannot be read: nothing is kept,
///         and the next call tries again
int panel_conf_load(void);

#ifdef __cplusplus
} // extern "C"
#endif
