// The records of the panel's services in master.cf, see master(5). ServicesPhase.h
// installs them. Mail that "smtp" receives goes to the handler at 10025 (before the queue),
// from there to the one at 10027 (before it leaves), and then to the clean smtpd at 10026;
// mail from local users enters at 10027.
#pragma once

#include "torva/postfix/mastercf/MasterCfModule.h"

#include <string>

namespace torva::app {

/// Delivers to the panel's mailboxes.
///
/// \param mailNames  directory of the mailboxes
mail::postfix::MasterCfModule virtualDelivery(const std::string& mailNames);

mail::postfix::MasterCfModule mailmanTransport();
mail::postfix::MasterCfModule smtpServer();
mail::postfix::MasterCfModule beforeQueueFilter();
mail::postfix::MasterCfModule cleanReinjection();
mail::postfix::MasterCfModule beforeRemoteFilter();
mail::postfix::MasterCfModule pickupService();
mail::postfix::MasterCfModule saslDaemon();
mail::postfix::MasterCfModule tlsManager();

} // namespace torva::app
