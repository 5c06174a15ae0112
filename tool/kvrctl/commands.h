// The commands, one function each, behind the command line. Each returns the program's exit code and throws
// Failure for what it cannot do.
#pragma once
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include "tool/kvrctl/config_edit.h"
#include "tool/kvrctl/host.h"
#include "tool/kvrctl/world.h"

namespace ctl {

struct Context {
    World& world;
    Terminal& terminal;
    bool json = false;

    // As OpenClient has it.
    Client Open(Access access, Patience patience = Patience::UntilInterrupted) const {
        return OpenClient(world, terminal, access, patience);
    }
};

// ---- looking ----
struct StatusOptions {
    bool check = false;  // only what is not as configured, and the exit code
    bool openMetrics = false;
};
int ShowStatus(const Context& context, const StatusOptions& options);
struct WatchOptions {
    double seconds = 1;
    unsigned count = 0;  // 0: until Ctrl-C
};
int Watch(const Context& context, const WatchOptions& options);
// `namesOnly`: one short name per line, for scripts.
int ShowVolumes(const Context& context, bool namesOnly);
struct MapOptions {
    std::string volume;
    std::string svg;  // file, or empty
};
int ShowMap(const Context& context, const MapOptions& options);
// The files that differ from a volume's fixed state.
struct ChangesOptions {
    std::string volume;
    std::string diff;  // this file's difference alone
    bool thorough = false;
};
int ShowChanges(const Context& context, const ChangesOptions& options);
struct RestoreOptions {
    std::string volume;
    std::string file;
    std::string folder;  // into which it is copied
    bool force = false;  // in place of what is there
};
int RestoreFromChanges(const Context& context, const RestoreOptions& options);
int Debug(const Context& context);
// In the registry; it holds from the next boot on.
int ShowHardening(const Context& context);
int SetHardening(const Context& context, bool on);

// ---- the configuration ----
struct EditOptions {
    std::string volume;
    bool dryRun = false;
    bool dropChanges = false;  // kept changes may be lost by it
    bool anyway = false;       // although it would not work as the machine is now
};
int Protect(const Context& context, const EditOptions& options, const Protection& how);
int Unprotect(const Context& context, const EditOptions& options);
int DiscardChanges(const Context& context, const EditOptions& options);
int MergeChanges(const Context& context, const EditOptions& options);
// Takes a discard or merge back that is still to come.
int CancelAction(const Context& context, const EditOptions& options);
// `access` as SetRemovable has it; without a volume, for all that have no section.
int Removable(const Context& context, const EditOptions& options, unsigned access);
int Switch(const Context& context, const EditOptions& options, bool on);

int ConfigGet(const Context& context);
struct SetOptions {
    std::string file;  // "-" is the standard input
    bool force = false;
    bool dryRun = false;
    bool dropChanges = false;
};
int ConfigSet(const Context& context, const SetOptions& options);
// The stored text if `file` is empty; `world` is asked for nothing else.
int ConfigCheckFile(Terminal& terminal, const std::string& file, bool json);
int ConfigCheckStored(const Context& context);
int ConfigEdit(const Context& context, const SetOptions& options);

// ---- swap storage ----
struct SwapMakeOptions {
    std::string volume;
    std::string size;
    bool noWait = false;
    bool dropChanges = false;  // kept changes in the storage that is there may be lost
};
int SwapMake(const Context& context, const SwapMakeOptions& options);
int SwapRemove(const Context& context, const EditOptions& options);
int SwapStop(const Context& context);

}  // namespace ctl
