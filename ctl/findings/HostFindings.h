// What on this host would stop a run, or the mail after it. Each function examines one
// group of subjects and changes nothing; checkHost() calls all of them, in the order in
// which they are printed.
#pragma once

#include "ctl/findings/Findings.h"
#include "ctl/host/Host.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// Everything. If a Postfix tool fails, the reason is one finding, and findings that depend
/// on its output are left out.
///
/// \param host  receives the facts
Findings checkHost(const OwnPrograms& programs, Host& host);

/// "main.cf", "master.cf": whether Postfix reads its own files, and has its directories.
///
/// \return false: nothing else can be looked at
bool findReadable(const Host& host, Findings& findings);

/// "root", "program".
void findPrograms(const OwnPrograms& programs, Findings& findings);

/// "map-type", "deprecated": whether this Postfix supports what a run uses, and what of it
/// a later one drops.
void findSupport(const Host& host, Findings& findings);

/// "account", "panel", "pcre-table", "certificate", "network".
void findSurroundings(const Host& host, Findings& findings);

/// "directory", "room".
void findPlaces(const Host& host, Findings& findings);

/// "main.cf", "records", "aliases".
void findMainCf(const Host& host, Findings& findings);

/// "master.cf".
void findMasterCf(const Host& host, Findings& findings);

/// "database".
void findDatabase(Findings& findings);

/// "service", "map", "mydestination": of the configuration after a run.
///
/// \param mapTypes  see Host
void findOutcome(const Postfix& postfix, const MasterCfText& masterCf,
                 const std::vector<std::string>& mapTypes, Findings& findings);

/// "service": what an operator's entry does when the run keeps it in place of the panel's, or
/// next to it on its port.
void findKeptServices(const MasterCfText& masterCf, Findings& findings);

/// "map".
///
/// \param mapTypes  see Host; none: they are not known
void findMaps(const Postfix& postfix, const MasterCfText& masterCf,
              const std::vector<std::string>& mapTypes, Findings& findings);

/// "mydestination": where the run leads mail to the host itself. Nothing is added when a table
/// that would have to be asked gives no answer.
void findHostMail(const Postfix& postfix, Findings& findings);

} // namespace torva::ctl
