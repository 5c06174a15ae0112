// What the read path and the write path share.
#pragma once
#include "driver/record/names.h"
#include "driver/record/volume_list.h"

// One request as the paths look at it.
struct FILE_REQUEST {
    PDEVICE_OBJECT Device;
    PIRP Request;
    PVOLUME_EXTENSION Volume;
    PFILE_OBJECT File;     // null when the request is made for no file
    PUNICODE_STRING Name;  // of the file; null without a file, empty for one without a name
};
// IRQL of everything here as of the dispatch routines. The caller holds the record; no routine takes a lock but
// AttachSwapFile (gSwapFileMutex, then SwapLock).
[[nodiscard]] FILE_REQUEST DescribeRequest(PDEVICE_OBJECT device, PIRP request);

// The two messages of a path about a request: formats for a request with a file and for one without.
struct REQUEST_TRACE {
    PCSTR File;
    PCSTR NoFile;
};
void TraceRequest(const REQUEST_TRACE& trace, const FILE_REQUEST& request, LARGE_INTEGER offset, ULONG length);

// Is the request made for the file of that whole name?
[[nodiscard]] BOOLEAN IsForFile(const FILE_REQUEST& request, const UNICODE_STRING& name);
// Is it made for a file whose path ends like that?
[[nodiscard]] BOOLEAN IsForFileEnding(const FILE_REQUEST& request, const UNICODE_STRING& suffix);

// Is the request for the paging file by its file object and where that keeps its name? The name itself may be
// paged out. A later file whose object has the same address keeps its name elsewhere, or has a name of another
// length. An absent file object never is.
[[nodiscard]] BOOLEAN IsKnownPagefile(const FILE_REQUEST& request);
// By its name; the file object is remembered, so that the next request needs no comparison.
[[nodiscard]] BOOLEAN IsPagefileByName(const FILE_REQUEST& request);

// Under gHardening, for reads and writes alike: does the request belong on the volume's own sectors, because
// the system reaches that file without the file system or before this driver redirects? The paging files, and
// on the volume that holds the configuration the hibernation files, the boot status file and, unless it lies
// elsewhere, the boot configuration.
[[nodiscard]] BOOLEAN IsExemptFile(const FILE_REQUEST& request);

// Applies the configuration to a volume that is not protected yet.
void ProtectIfConfigured(PVOLUME_EXTENSION volume);
// Leads a protected fixed volume to its swap storage. Without a storage the volume is not redirected.
void AttachSwapFile(PVOLUME_EXTENSION volume);
// Why a request wants the volume's StorageArmThread.
enum class ARM_REASON {
    None,
    First,      // to hold whatever the volume has
    ConfigFile  // a named write on the volume that holds the configuration, whose file system serves by now
};
// Starts the thread unless another request is starting it. It is started once for the first request with a
// reason; once more when it came before the volume's storage was known, so before the map was loaded or made;
// and once more where it came before the configuration file could be opened.
void StartArmThreadWhenDue(PVOLUME_EXTENSION volume, ARM_REASON reason);

// Under gHardening: the map could not be read yet, so what the volume shows is not known.
[[nodiscard]] BOOLEAN IsMapUnread(PVOLUME_EXTENSION volume);

// The configuration is being loaded by another request: protection is not in force before that is done.
[[nodiscard]] BOOLEAN IsConfigurationUnderWay();
