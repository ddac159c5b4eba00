#pragma once

namespace console {

/// Makes this process one that the library can work in, whoever started it: descriptors 0 to 2 are open,
/// new files are the owner's alone, and the ends of child processes are told.
void prepare_process();

}  // namespace console
