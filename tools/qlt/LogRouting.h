// Where the library's own log lines go while qlt runs: nowhere by default, to stderr with
// --verbose, appended to a file with --log FILE (both may be given).
#pragma once

#include <string>

namespace qlt::cli {

// Installs the sink through qlt::setLogSink. Throws UsageError when the file cannot be
// opened; a failed write later is said once on stderr, and the file gets no more lines. Safe to
// call again (the later call replaces the earlier routing).
void routeLibraryLog(bool verbose, const std::string& logFile);
// The last line the library logged about its BlueZ backend ("BlueZ: bluetoothd (org.bluez)
// is not on the system bus; ..."), without the prefix; "" when none. Kept whatever the
// routing, so that a failure can say why.
std::string lastBackendLogLine();

}  // namespace qlt::cli
