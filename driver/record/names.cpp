#include "driver/record/names.h"
#include "driver/record/literal.h"

extern constinit const SPECIAL_FILE_NAMES SpecialFileNames = {
    .Mft = Literal(W("\\$Mft")),
    .MftMirr = Literal(W("\\$MftMirr")),
    .Directory = Literal(W("\\$Directory")),
    .BitMap = Literal(W("\\$BitMap")),
    .SystemVolumeInformation = Literal(W("\\System Volume Information")),
    .SwapFile = Literal(W("\\kvr.swp")),
    .MapFile = Literal(W("\\kvr.map")),
    .PageFile = Literal(W("\\pagefile.sys")),
    .HiberFile = Literal(W("\\hiberfil.sys")),
    .HibernateFile = Literal(W("\\hibernate.sys")),
    .BootStat = Literal(W("\\bootstat.dat")),
    .BootConfiguration = Literal(W("\\Boot\\BCD")),
    .SystemBootStat = Literal(W("\\Windows\\bootstat.dat")),
    .SystemHive = Literal(W("\\System32\\config\\SYSTEM")),
    .SystemHiveLog = Literal(W("\\System32\\config\\SYSTEM.LOG")),
    .SystemHiveLog1 = Literal(W("\\System32\\config\\SYSTEM.LOG1")),
    .NtfsDriver = Literal(W("\\FileSystem\\Ntfs")),
    .ConfigFile = Literal(W("\\system32\\drivers\\kvr.cfg")),
};

namespace {

// As the system folds characters, whose table is pageable: those that names of devices are made of need none.
WCHAR Upcase(WCHAR c) {
    if (c >= 0x80) return RtlUpcaseUnicodeChar(c);
    return c >= 'a' && c <= 'z' ? static_cast<WCHAR>(c - ('a' - 'A')) : c;
}

}  // namespace

LONG CompareNames(PCUNICODE_STRING a, PCUNICODE_STRING b, BOOLEAN ignoreCase) {
    if (!a && !b) return 0;
    if (!a || !b || a->Length != b->Length) return 1;
    for (ULONG i = 0; i < a->Length / sizeof(WCHAR); ++i) {
        if (a->Buffer[i] == b->Buffer[i]) continue;
        const WCHAR left = ignoreCase ? Upcase(a->Buffer[i]) : a->Buffer[i];
        const WCHAR right = ignoreCase ? Upcase(b->Buffer[i]) : b->Buffer[i];
        if (left != right) return static_cast<LONG>(left) - static_cast<LONG>(right);
    }
    return 0;
}

LONG EndsWithName(PCUNICODE_STRING suffix, PCUNICODE_STRING name, BOOLEAN ignoreCase) {
    if (!suffix || !name || suffix->Length > name->Length) return -1;
    const USHORT skipped = static_cast<USHORT>((name->Length - suffix->Length) / sizeof(WCHAR));
    const UNICODE_STRING tail = {suffix->Length, suffix->Length, name->Buffer + skipped};
    return RtlCompareUnicodeString(&tail, suffix, ignoreCase);
}

BOOLEAN IsSwapFileName(PCUNICODE_STRING name) {
    constexpr USHORT numberBytes = 3 * sizeof(WCHAR);  // a dot and two digits
    const UNICODE_STRING& base = SpecialFileNames.SwapFile;
    if (!name) return FALSE;
    if (name->Length != base.Length && name->Length != base.Length + numberBytes) return FALSE;
    const UNICODE_STRING head = {base.Length, base.Length, name->Buffer};
    return RtlCompareUnicodeString(&head, &base, TRUE) == 0;
}
