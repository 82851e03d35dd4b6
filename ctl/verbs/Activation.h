// Makes a running Postfix use a changed configuration. A reload is enough, unless the
// addresses that it listens on or the type of the pickup service have changed: the master
// daemon reads these only when it starts.
#pragma once

#include "ctl/host/Postfix.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// The settings that only a new master daemon reads.
struct FixedAtStart {
    std::string interfaces;
    std::string protocols;
    std::string pickupTypes;

    bool operator==(const FixedAtStart& other) const {
        return interfaces == other.interfaces && protocols == other.protocols &&
               pickupTypes == other.pickupTypes;
    }
};

FixedAtStart fixedAtStart(const Postfix& postfix, const MasterCfText& masterCf);

class Activation {
public:
    /// Finds out whether Postfix is running, and whether systemd runs it, before anything
    /// changes.
    Activation(const Postfix& postfix, const FixedAtStart& before);

    bool wasRunning() const { return wasRunning_; }

    /// Assumes that Postfix was running before: a verb that was killed may have stopped it.
    void assumeRunning() { wasRunning_ = true; }

    /// The command that makes Postfix use what has changed.
    std::string command(const FixedAtStart& now) const;

    /// Does that, if Postfix was running; starts it if it has stopped meanwhile. May be
    /// called again, to go back; a restart that failed is followed by another.
    ///
    /// \return why it failed; empty: it succeeded
    std::string activate(const FixedAtStart& now);

    /// Whether activate() has been called for a Postfix that was running.
    bool tried() const { return tried_; }

private:
    bool needsRestart(const FixedAtStart& now) const;
    std::vector<std::string> unitCommand(const FixedAtStart& now) const;
    std::string activateItself(const FixedAtStart& now) const;

    Postfix postfix_;
    FixedAtStart before_; ///< the settings of the running daemon
    bool wasRunning_;
    bool tried_ = false;
    bool inDoubt_ = false; ///< whether the daemon may have other settings than before_
    std::string unit_;     ///< of systemd; empty: systemd does not run it
};

} // namespace torva::ctl
