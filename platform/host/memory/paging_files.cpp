#include "platform/host/memory/paging_files.h"
#include <mutex>
#include <set>

namespace host {
namespace {

std::mutex gLock;
std::set<PFILE_OBJECT> gFiles;

}  // namespace

void AddPagingFile(PFILE_OBJECT file) {
    const std::lock_guard hold(gLock);
    gFiles.insert(file);
}

void RemovePagingFile(PFILE_OBJECT file) {
    const std::lock_guard hold(gLock);
    gFiles.erase(file);
}

void DropPagingFiles() {
    const std::lock_guard hold(gLock);
    gFiles.clear();
}

}  // namespace host

LOGICAL FsRtlIsPagingFile(PFILE_OBJECT file) {
    const std::lock_guard hold(host::gLock);
    return host::gFiles.contains(file);
}
