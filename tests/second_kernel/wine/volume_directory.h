// Keeps what a played file system knows of its files on the volume itself, in sectors that go through the stack
// as other metadata does: what becomes of redirected writes at a boot becomes of the files too.
#pragma once
#include "tests/second_kernel/common/computer.h"

// Of the data volume; its own sectors below the files' are used. A check fails when it does not go there.
void WriteDirectory(Computer* computer);
// What the volume's stack shows is from now on what there is. A volume without one keeps what is known of it.
void ReadDirectory(Computer* computer);
