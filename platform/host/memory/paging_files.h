// The files that memory is paged to. Whoever plays a file system says which of its file objects was opened as
// one (with SL_OPEN_PAGING_FILE), as the memory manager does when a paging file is made.
#pragma once
#include "platform/kernel.h"

namespace host {

// Any IRQL. A file object that goes away is taken off the list first.
void AddPagingFile(PFILE_OBJECT file);
void RemovePagingFile(PFILE_OBJECT file);
// For PowerOff.
void DropPagingFiles();

}  // namespace host
