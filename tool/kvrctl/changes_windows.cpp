// changes, restore-from-changes where the tool runs beside the driver: the sectors below it are not to be had.
#include "client/failure.h"
#include "tool/kvrctl/commands.h"

namespace ctl {

int ShowChanges(const Context&, const ChangesOptions&) {
    throw Failure("'changes' works on a hosted machine; on this computer the fixed state cannot be read");
}

int RestoreFromChanges(const Context&, const RestoreOptions&) {
    throw Failure("'restore-from-changes' works on a hosted machine; on this computer copy the file itself");
}

}  // namespace ctl
