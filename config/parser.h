// config/: the configuration. Its text's grammar and parser, the list of protected volumes and how it applies
// to a volume, and the ways in which the text is stored and reached.
//
// ParseConfig reads the text once per boot. It sets the global switches, fills the protected-volume list and
// resets one-shot fields inside the text. The scanner (SkipWhiteSpace, SkipBlanks, SkipLine, GetToken,
// ConsumeToken) and the heads "[Global]", "[FV" and "[RV" are formats/config_grammar.h, which every reader of
// the text shares; what a line means for the section that is being read (BootMode and the like) and for all
// (FVBootMode) is formats/config_settings.h.
#pragma once
#include <atomic>
#include "platform/kernel.h"

extern std::atomic<BOOLEAN> gTesselEnabled;  // master switch: while FALSE nothing is protected or refused
extern std::atomic<BOOLEAN> gRVProtect;      // removable volumes without a section are protected
extern std::atomic<BOOLEAN> gRVInvisible;    // ... and hidden

// `text` is `length` bytes of UTF-16LE, changed in place; at most 65534 bytes are read.
void ParseConfig(PWCHAR text, ULONG length);
