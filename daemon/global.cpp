// The defaults of the process-wide settings.
#include "daemon/global.h"

namespace GLOBAL {

std::string progName = "skarn";

int argc = 0;
char** argv = nullptr;

std::string logFileName = "/dev/null";
std::string uid;
std::string gid;
std::string usrdir;
std::string passwordFile = "/usr/local/orbelin/etc/rsyncd.secrets_remote";
std::string rsyncPort = "49371";
std::string rsyncCommand = "/usr/local/orbelin/bin/rsync_orbelin";
std::string rsyncdShare = "ramdisk";
std::string rsyncOptions = "-vthlDHW  --remove-source-files --numeric-ids --confirm-files "
                           "--out-format='SENT: %n'";
std::string rsyncListingOptions = "-mrlDHW --list-only --exclude=\"**.tmp\"";
time_t skarnStartTime = time(nullptr);
std::string pathToVantrelFifo = "/var/run/vantrel_orbelin_files";

int logFileMaxSize = 10485760;
int logFileMaxNumber = 10;
int numberOfProcesses = 1;

} // namespace GLOBAL
