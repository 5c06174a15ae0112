// Every global of the driver is declared by its owner and defined in globals.cpp, where one routine gives each
// its load value: after a power-on the driver starts from there, whatever the process did before.
#pragma once

void InitializeGlobals();
