// Having a running Postfix take up a changed configuration. A reload does it, unless the
// addresses that it listens on or the type of the pickup service have changed: the master
// daemon keeps these for as long as it lives.
#pragma once

#include "ctl/host/Postfix.h"

#include <string>
#include <vector>

namespace torva::ctl {

/// What only a new master daemon takes up.
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
    /// Looks whether Postfix runs, and who runs it, before anything changes.
    Activation(const Postfix& postfix, const FixedAtStart& before);

    bool wasRunning() const { return wasRunning_; }

    /// For a host on which somebody else found out that it ran.
    void assumeRunning() { wasRunning_ = true; }

    /// The one command that makes Postfix take up what has changed.
    std::string command(const FixedAtStart& now) const;

    /// Does it, if Postfix ran; starts it when it has stopped meanwhile. May be called
    /// again, to go back: what it has activated is what the next call begins with, and a
    /// restart that failed is followed by another.
    ///
    /// \return why it failed; empty: it did not
    std::string activate(const FixedAtStart& now);

    /// Whether activate() has been called for a Postfix that ran.
    bool tried() const { return tried_; }

private:
    bool needsRestart(const FixedAtStart& now) const;
    std::vector<std::string> unitCommand(const FixedAtStart& now) const;
    std::string activateItself(const FixedAtStart& now) const;

    Postfix postfix_;
    FixedAtStart before_; ///< what the daemon that runs has
    bool wasRunning_;
    bool tried_ = false;
    bool inDoubt_ = false; ///< whether the daemon has something else than before_
    std::string unit_;     ///< of systemd; empty: not run by it
};

} // namespace torva::ctl
