// The tool's logging: every log4cplus message, the library's included, as one
// "kel: <level>: <message>" line on stderr. Configured once, before any
// command runs, so log4cplus never prints its "no appenders" complaint.
#pragma once

namespace tool {

enum class Verbosity { Quiet, Normal, Verbose };

// Attaches the stderr appender to the root logger at warning level.
void ConfigureLogging();
// Quiet: errors only. Normal: warnings and errors. Verbose: everything.
void SetVerbosity(Verbosity v);

}  // namespace tool
