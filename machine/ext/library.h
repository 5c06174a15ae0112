// The ext library's declarations, for the sources that call it.
#pragma once
#include <cstdint>
#include <ext2fs/ext2fs.h>
