// Makes a running Postfix use a changed configuration. A reload is enough, unless the
// addresses that it listens on or the type of the pickup service have changed: the master
// daemon reads these only when it starts.
#pragma once

#include "ctl/host/Postfix.h"
#include "ctl/report/Finding.h"

#include <optional>
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
    /// Finds out whether Postfix is running, whether systemd runs it, and whether an earlier
    /// verb has left it in need of a restart, before anything changes.
    Activation(const Postfix& postfix, const FixedAtStart& before);

    bool wasRunning() const { return wasRunning_; }

    /// After a verb that was killed: the daemon may have other settings than the files, and
    /// that verb may have stopped it.
    ///
    /// \param ranBefore  whether Postfix was running before that verb
    void resumeAfterKill(bool ranBefore) {
        wasRunning_ = wasRunning_ || ranBefore;
        inDoubt_ = true;
    }

    /// The command that makes Postfix use what has changed.
    std::string command(const FixedAtStart& now) const;

    /// What tells more about an activation that failed.
    std::string whereToLook() const;

    /// Does that, if Postfix was running; starts it if it has stopped meanwhile. May be
    /// called again, to go back; a restart that failed is followed by another.
    ///
    /// \return why it failed; empty: it succeeded
    std::string activate(const FixedAtStart& now);

    /// For a verb that does not activate: if a running Postfix needs a restart now, later
    /// verbs will know that, until it has started again.
    ///
    /// \return what to tell if that cannot be noted for them
    std::optional<Finding> leaveRunning(const FixedAtStart& now) const;

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
