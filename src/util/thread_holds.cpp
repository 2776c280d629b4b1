#include "util/thread_holds.h"

namespace webclient {

ThreadHolds& thisThreadHolds() noexcept {
    static thread_local ThreadHolds holds;
    return holds;
}

}  // namespace webclient
