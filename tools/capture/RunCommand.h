// "ruvo-capture run": capture from every enabled camera with a live status, stop on the frame
// count, the time limit or Ctrl-C, then write the images, the contact sheet, the feedback CSV,
// the diagnostics records and the convergence plot, and say where they are.
#pragma once

#include "Options.h"

#include <ostream>

namespace ruvo {
namespace tool {

// Runs the capture; status, summary and the list of files go to `out` (status lines rewritten in
// place when `terminal`). Throws UsageError or ToolError; returns the exit status otherwise.
int runCommand(const Options& options, std::ostream& out, bool terminal);

// "ruvo-capture info": the cameras, their capabilities and controls, the output configurations.
int infoCommand(const Options& options, std::ostream& out);

}  // namespace tool
}  // namespace ruvo
