// Played files on a volume of the hosted machine.
#pragma once
#include "machine/files/file_system.h"
#include "tests/doubles/played_files.h"

// Mounts the files in bytes [begin, end) of the volume: reads its first sector, as any file system does, and
// fails as that does.
machine::FileSystemDriver PlayedDriver(const std::shared_ptr<PlayedFiles>& files, std::uint64_t begin,
                                       std::uint64_t end);
