#include "app/ServicesPhase.h"

#include "app/PanelServices.h"
#include "app/Progress.h"
#include "torva/libc/panel_conf.h"
#include "torva/postfix/mastercf/MasterCf.h"
#include "torva/postfix/params/PostfixParameters.h"

namespace torva::app {

using mail::postfix::MasterCf;
using mail::postfix::MasterCfModule;
using mail::postfix::PostfixParameters;

namespace {

/// The common state of the steps.
struct ServicesContext {
    MasterCf& services;
    MasterCfModule virtualDelivery;
};

struct ServicesStep {
    const char* text;
    void (*action)(ServicesContext&);
};

/// Gives the service this text, whatever it was.
void replace(ServicesContext& run, const MasterCfModule& service) {
    run.services.putModule(service, true);
}

/// Adds or enables the service; an existing one, even disabled, keeps its text.
void installIfMissing(ServicesContext& run, const MasterCfModule& service) {
    if (run.services.hasModule(service.name, service.type, boost::logic::indeterminate)) {
        run.services.enableModule(service.name, service.type);
    } else {
        run.services.putModule(service, true);
    }
}

void replaceVirtualDelivery(ServicesContext& run) {
    replace(run, run.virtualDelivery);
}

void setVirtualTransport(ServicesContext& run) {
    PostfixParameters::instance().setParameter("virtual_transport", run.virtualDelivery.name);
}

void setRecipientLimit(ServicesContext& run) {
    PostfixParameters::instance().setParameter(
        run.virtualDelivery.name + "_destination_recipient_limit", "1");
}

void replaceMailman(ServicesContext& run) {
    replace(run, mailmanTransport());
}

void configureBeforeQueue(ServicesContext& run) {
    replace(run, smtpServer());
    installIfMissing(run, beforeQueueFilter());
    installIfMissing(run, cleanReinjection());
}

void configureBeforeRemote(ServicesContext& run) {
    installIfMissing(run, beforeRemoteFilter());
    replace(run, pickupService());
}

void installSaslDaemon(ServicesContext& run) {
    installIfMissing(run, saslDaemon());
}

void installTlsManager(ServicesContext& run) {
    installIfMissing(run, tlsManager());
}

void saveServices(ServicesContext& run) {
    run.services.save(false);
}

const ServicesStep servicesSteps[] = {
    {" configuring Torva-specific virtual delivery transport", replaceVirtualDelivery},
    {" adjusting Postfix configuration for Torva-specific virtual delivery transport",
     setVirtualTransport},
    {" adjusting Torva-specific virtual delivery transport recipient limit", setRecipientLimit},
    {" configuring Mailman Transport", replaceMailman},
    {" configuring Torva Before-Queue module", configureBeforeQueue},
    {" configuring Torva Before-Remote module", configureBeforeRemote},
    {" configure Torva-specific SASL auth daemon (for encrypted passwords)", installSaslDaemon},
    {" make sure that Postfix TLS Manager is configured", installTlsManager},
    {" storing Postfix modules configuration", saveServices},
};

} // namespace

void servicesPhase(const Progress& progress) {
    progress.header("Configuring Postfix services/modules for Torva:");
    MasterCf& services = MasterCf::instance();
    services.load(false);
    ServicesContext run{services, virtualDelivery(panel_conf_get(TORVA_MAILNAMES_D))};
    for (const ServicesStep& step : servicesSteps) {
        progress.step(step.text, [&] { step.action(run); });
    }
}

} // namespace torva::app
