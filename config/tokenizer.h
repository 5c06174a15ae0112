// Scanning the configuration text. A cursor is the text not yet scanned, a token a run of characters inside it;
// both point into the text and own nothing. No routine looks past the cursor's length. Each that advances the
// cursor returns whether text remains.
#pragma once
#include "platform/kernel.h"

// Past spaces and tabs.
BOOLEAN SkipBlanks(PUNICODE_STRING cursor);
// Past spaces, tabs and line ends.
BOOLEAN SkipWhiteSpace(PUNICODE_STRING cursor);
// To the character behind the next LF.
BOOLEAN SkipLine(PUNICODE_STRING cursor);
// To the character behind the next ']', over line ends.
BOOLEAN SkipHeadEnd(PUNICODE_STRING cursor);
// The run at the cursor that ends before a blank, '=', ':', a line end, NUL or the end of the text. Does not
// move the cursor; returns whether the token has characters.
[[nodiscard]] BOOLEAN GetToken(PCUNICODE_STRING cursor, PUNICODE_STRING token);
// Past the token, or to the end of the text when less remains.
BOOLEAN ConsumeToken(PUNICODE_STRING cursor, PCUNICODE_STRING token);
