#include "config/tokenizer.h"

namespace {

BOOLEAN IsBlank(WCHAR c) {
    return c == W(' ') || c == W('\t');
}

BOOLEAN IsLineEnd(WCHAR c) {
    return c == W('\r') || c == W('\n');
}

BOOLEAN EndsToken(WCHAR c) {
    return IsBlank(c) || IsLineEnd(c) || c == W('=') || c == W(':') || c == 0;
}

void Advance(PUNICODE_STRING cursor, USHORT characters) {
    const USHORT bytes = static_cast<USHORT>(characters * sizeof(WCHAR));
    cursor->Buffer += characters;
    cursor->Length = static_cast<USHORT>(cursor->Length - bytes);
    cursor->MaximumLength = cursor->Length;
}

USHORT Characters(PCUNICODE_STRING text) {
    return text->Length / sizeof(WCHAR);
}

BOOLEAN SkipPast(PUNICODE_STRING cursor, WCHAR last) {
    const USHORT count = Characters(cursor);
    USHORT i = 0;
    while (i < count && cursor->Buffer[i] != last) ++i;
    Advance(cursor, i < count ? i + 1 : count);
    return cursor->Length != 0;
}

}  // namespace

BOOLEAN SkipBlanks(PUNICODE_STRING cursor) {
    USHORT i = 0;
    while (i < Characters(cursor) && IsBlank(cursor->Buffer[i])) ++i;
    Advance(cursor, i);
    return cursor->Length != 0;
}

BOOLEAN SkipWhiteSpace(PUNICODE_STRING cursor) {
    USHORT i = 0;
    while (i < Characters(cursor) && (IsBlank(cursor->Buffer[i]) || IsLineEnd(cursor->Buffer[i]))) ++i;
    Advance(cursor, i);
    return cursor->Length != 0;
}

BOOLEAN SkipLine(PUNICODE_STRING cursor) {
    return SkipPast(cursor, W('\n'));
}

BOOLEAN SkipHeadEnd(PUNICODE_STRING cursor) {
    return SkipPast(cursor, W(']'));
}

BOOLEAN GetToken(PCUNICODE_STRING cursor, PUNICODE_STRING token) {
    USHORT i = 0;
    while (i < Characters(cursor) && !EndsToken(cursor->Buffer[i])) ++i;
    const USHORT bytes = static_cast<USHORT>(i * sizeof(WCHAR));
    *token = {bytes, bytes, cursor->Buffer};
    return i != 0;
}

BOOLEAN ConsumeToken(PUNICODE_STRING cursor, PCUNICODE_STRING token) {
    const USHORT most = Characters(cursor);
    Advance(cursor, Characters(token) < most ? Characters(token) : most);
    return cursor->Length != 0;
}
