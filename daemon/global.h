// The process-wide settings: plain globals with their defaults.
#pragma once

#include <ctime>
#include <string>

/// Settings that more than one class needs. Every write happens in the main thread before the first
/// worker thread is started (defaults, then the configuration file, then the command line, then
/// Daemon::init and Daemon::start); from then on they are only read, without a lock. A late writer
/// would be a data race.
namespace GLOBAL {

/// Name in the usage text, the banner and the control files' names; never taken from the command
/// line.
extern std::string progName;

/// The command line as main received it.
extern int argc;
extern char** argv;

/// Path of the log file.
extern std::string logFileName;

/// Owner of the copied files, as text, exactly as configured; empty means unset.
extern std::string uid;
extern std::string gid;

/// Directory appended to every detector's target; "$UID" and "$GID" are replaced by Daemon::init.
extern std::string usrdir;

/// Password file that the copy program is given; must exist at start-up.
extern std::string passwordFile;

/// TCP port of the detectors' rsync daemons, as text.
extern std::string rsyncPort;

/// Path of the copy program, used for listings and for copies; must exist and be executable at
/// start-up.
extern std::string rsyncCommand;

/// Name of the share (module) on the detector.
extern std::string rsyncdShare;

/// Options of every copy process. The doubled blank is part of the value: it shows in the log.
extern std::string rsyncOptions;

/// Options of the listing command; the quotation marks are for the shell that runs it.
extern std::string rsyncListingOptions;

/// Moment at which the process image was initialised.
extern time_t skarnStartTime;

/// Path of the named pipe to the consumer; the daemon never creates it.
extern std::string pathToVantrelFifo;

/// Size in bytes above which the log is rotated; 0 rotates any non-empty log, a negative value
/// never rotates.
extern int logFileMaxSize;

/// Highest number of a rotated log file.
extern int logFileMaxNumber;

/// Upper bound on the copy processes that one worker runs at once; 0 counts as 1, a negative value
/// is no bound.
extern int numberOfProcesses;

} // namespace GLOBAL
