#pragma once

#include <string>

namespace Agent {

/// Remembers on disk, per policy feed, the document that the feed's module
/// was last given, from just before it is pushed until the agent has stopped
/// every module cleanly. Modules switch the system on when a document
/// arrives and restore it when they stop; an entry still there at the next
/// start means the earlier run ended without that restore (killed, crashed,
/// power lost), so the agent runs the module through one stop first (see
/// PolicyFeeder::RecoverUncleanStop).
///
/// Entries are replaced atomically: a kill at any instant leaves the old or
/// the new entry, never a cut one.
class ActivationJournal {
public:
    /// `directory`: the agent's state directory (agent.state_dir).
    explicit ActivationJournal(std::string directory);

    /// Creates the directory (mode 0700) when missing and checks that only
    /// root can write it; false with `error` saying why not.
    bool Open(std::string& error);

    /// Records `content` as what `feed`'s module is about to run with; false
    /// (errno set) when it could not be written.
    bool Record(const std::string& feed, const std::string& content);
    /// Forgets `feed`: its module runs with nothing the journal must restore.
    void Forget(const std::string& feed);
    /// The document recorded for `feed` by an earlier run; false when none.
    bool Leftover(const std::string& feed, std::string& content) const;

private:
    std::string PathOf(const std::string& feed) const;

    std::string directory;
};

} // namespace Agent
