// The subcommands that start, stop and ask after the daemon.
#pragma once

namespace control {

/// Where the words begin that `start` or `restart` passes on: the index behind that word, which is
/// the first that is neither --daemon nor its value, and behind the --when-idle of `restart`. argc
/// for any other command line. These words are the daemon's, whatever they look like, so this
/// program's parser must not see them.
int firstStartOption(int argc, const char* const* argv);

} // namespace control
