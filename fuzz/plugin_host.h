// What nbdkit offers its plugin, as far as ours asks for it, and the calls that nbdkit makes. As nbdkit does,
// it hands on only requests inside the export's size.
#pragma once
#include <cstdarg>
#include <string>
#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>
#include "fuzz/support.h"

extern "C" nbdkit_plugin* plugin_init();

namespace fuzz {

inline thread_local std::string tExportName;
inline thread_local int tError = 0;
inline thread_local bool tSaid = false;  // the last failure came with a sentence

class Plugin {
public:
    explicit Plugin(const std::string& folder) : plugin_(*plugin_init()) {
        Require(plugin_.config("machine", folder.c_str()) == 0 && plugin_.config_complete() == 0 &&
                    plugin_.get_ready() == 0 && plugin_.after_fork() == 0,
                "the machine is served");
    }
    ~Plugin() { plugin_.cleanup(); }
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;
    const nbdkit_plugin& Calls() const { return plugin_; }

private:
    const nbdkit_plugin& plugin_;
};

}  // namespace fuzz

extern "C" {
__attribute__((used)) void nbdkit_error(const char*, ...) {
    fuzz::tSaid = true;
}
__attribute__((used)) void nbdkit_set_error(int error) {
    fuzz::tError = error;
}
__attribute__((used)) char* nbdkit_realpath(const char* path) {
    return realpath(path, nullptr);
}
__attribute__((used)) int nbdkit_parse_int(const char*, const char*, int*) {
    return -1;
}
__attribute__((used)) void nbdkit_shutdown() {}
__attribute__((used)) int nbdkit_peer_name(sockaddr*, socklen_t*) {
    return -1;
}
__attribute__((used)) int64_t nbdkit_peer_pid() {
    return -1;
}
__attribute__((used)) const char* nbdkit_export_name() {
    return fuzz::tExportName.c_str();
}
__attribute__((used)) int nbdkit_add_export(nbdkit_exports*, const char*, const char*) {
    return 0;
}
}
