// Where the library's own log lines go while qlt runs: nowhere by default, to stderr with
// --verbose, appended to a file with --log FILE (both may be given).
#pragma once

#include <string>

namespace qlt::cli {

// Installs the sink through qlt::setLogSink. Throws UsageError when the file cannot be
// opened. Safe to call again (the later call replaces the earlier routing).
void routeLibraryLog(bool verbose, const std::string& logFile);

}  // namespace qlt::cli
