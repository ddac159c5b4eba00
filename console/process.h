#pragma once

namespace console {

/// Sets up what the library relies on, whoever started the process: descriptors 0 to 2 are open, new files
/// are readable by their owner only, and SIGCHLD is delivered.
void prepare_process();

}  // namespace console
