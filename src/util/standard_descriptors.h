// A host that closed its standard descriptors (a daemon) leaves 0, 1 and 2
// free, and the next descriptor opened takes the lowest: a download's file
// or a connection on descriptor 2 would then receive every line written to
// standard error. Each free one is opened on /dev/null before the library
// opens anything of its own.
#pragma once

namespace webclient {

// Three fcntl calls when all three are open; errno is left as it was.
void occupyFreeStandardDescriptors() noexcept;

}  // namespace webclient
