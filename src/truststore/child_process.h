// Library-internal access to the children started by popen3.
#pragma once

#include <sys/types.h>

#include "webclient/popen3.h"

namespace truststore {

// The pid of the child that owns one of `streams` (looked up like pclose3
// does, under the child table's mutex), or 0 when none is known. The child
// stays registered: pclose3 still reaps it.
pid_t popen3_child_pid(const popen3_streams& streams);

}  // namespace truststore
