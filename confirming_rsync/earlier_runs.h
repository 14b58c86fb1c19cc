// The journals that earlier runs have left behind: finding, holding, reading and removing them.
#pragma once

#include "confirming_rsync/descriptors.h"
#include "confirming_rsync/journal_text.h"
#include "confirming_rsync/open_names.h"

#include <string>
#include <vector>

namespace confirming {

/// Holds the journals of one folder whose runs have ended and are nobody's any more:
///
///   the run's daemon lives, and its cycle is over: its list of names is gone, which the daemon
///   removes when it has handed off everything that the run confirmed;
///   or the run's daemon is dead.
///
/// Only one object holds the journals of a folder at a time, in all processes together; a second
/// one finds none. What it holds is given back untouched when it goes.
///
/// What is damaged, or does not belong there, is renamed to damaged-NAME, and not looked at again.
class EarlierRuns {
public:
    /// `folder` has to outlive the object. For a copy `daemon` is its daemon, and the runs of
    /// others that live are left alone; `source` and `destination` are what it copies, and other
    /// journals are foreign. Null means any.
    struct Wanted {
        const ProcessIdentity* daemon = nullptr;
        const std::string* source = nullptr;
        const std::string* destination = nullptr;
    };
    EarlierRuns(const Descriptor& folder, const Wanted& wanted, const std::string& except = {});

    /// True if one of them may leave a name open.
    bool leaveNamesOpen() const { return leaveNamesOpen_; }

    /// What they say. The names of runs that leave nothing open are among them, for what they have
    /// confirmed.
    std::vector<ReadJournal> read();

    /// Journals of the same daemon in this folder that are not held: of runs that go on, or have
    /// ended in the cycle that goes on.
    std::vector<ReadJournal> readGoingOn(const ProcessIdentity& daemon) const;

    /// Removes them.
    void remove();

    /// What was set aside: one line for each.
    const std::vector<std::string>& remarks() const { return remarks_; }

private:
    struct Held {
        std::string name;
        Descriptor file;
    };

    void look(const std::string& name, const Wanted& wanted);
    void setAside(const std::string& name, const std::string& why);
    bool isHeld(const std::string& name) const;

    const Descriptor& folder_;
    const std::string except_;
    Descriptor turn_;
    std::vector<Held> held_;
    bool leaveNamesOpen_ = false;
    std::vector<std::string> remarks_;
};

} // namespace confirming
