#include "driver/record/format_string.h"
#include <cstdarg>

namespace {

constexpr ULONG kMaxCharacters = 32767;

// Appends characters to a counted string until it is full; what does not fit is remembered, not written.
class Writer {
public:
    explicit Writer(PUNICODE_STRING to) : m_to(to), m_room(to->MaximumLength / sizeof(WCHAR)) {
        if (m_room > kMaxCharacters) m_room = kMaxCharacters;
        to->Length = 0;
    }
    void Put(WCHAR c) {
        if (m_count == m_room) {
            m_cut = TRUE;
            return;
        }
        m_to->Buffer[m_count++] = c;
        m_to->Length = static_cast<USHORT>(m_count * sizeof(WCHAR));
    }
    void Put(PCWSTR text, ULONG count) {
        for (ULONG i = 0; i < count && !m_cut; ++i) Put(text[i]);
    }
    BOOLEAN Cut() const { return m_cut; }

private:
    PUNICODE_STRING m_to;
    ULONG m_room;
    ULONG m_count = 0;
    BOOLEAN m_cut = FALSE;
};

struct Directive {
    BOOLEAN zeroFilled;
    ULONG width;
};

// Reads flag and width behind a '%' and returns where the conversion character stands.
PCWSTR ReadDirective(PCWSTR at, Directive* directive) {
    *directive = {*at == W('0'), 0};
    while (*at >= W('0') && *at <= W('9')) {
        if (directive->width <= kMaxCharacters)
            directive->width = directive->width * 10 + static_cast<ULONG>(*at - W('0'));
        ++at;
    }
    return at;
}

void PutNumber(Writer& to, const Directive& directive, ULONG value, ULONG base, BOOLEAN upper, BOOLEAN minus) {
    WCHAR digits[10];
    ULONG count = 0;
    do {
        const ULONG digit = value % base;
        digits[count++] =
            static_cast<WCHAR>(digit < 10 ? W('0') + digit : (upper ? W('A') : W('a')) + (digit - 10));
        value /= base;
    } while (value != 0);
    const ULONG used = count + (minus ? 1 : 0);
    if (minus && directive.zeroFilled) to.Put(W('-'));
    for (ULONG i = used; i < directive.width && !to.Cut(); ++i) to.Put(directive.zeroFilled ? W('0') : W(' '));
    if (minus && !directive.zeroFilled) to.Put(W('-'));
    while (count != 0) to.Put(digits[--count]);
}

void PutSigned(Writer& to, const Directive& directive, LONG value) {
    const ULONG magnitude = value < 0 ? 0u - static_cast<ULONG>(value) : static_cast<ULONG>(value);
    PutNumber(to, directive, magnitude, 10, FALSE, value < 0);
}

void PutText(Writer& to, PCWSTR text) {
    while (text && *text && !to.Cut()) to.Put(*text++);
}

void PutCounted(Writer& to, PCUNICODE_STRING text) {
    if (text && text->Buffer) to.Put(text->Buffer, text->Length / sizeof(WCHAR));
}

// Writes one directive's argument and returns what follows the directive, or null when it is not a known one.
// The argument list is passed by its address: it goes on in the caller.
PCWSTR PutDirective(Writer& to, PCWSTR at, va_list* arguments) {
    Directive directive;
    at = ReadDirective(at, &directive);
    switch (*at) {
        case W('d'):
            PutSigned(to, directive, va_arg(*arguments, LONG));
            return at + 1;
        case W('u'):
            PutNumber(to, directive, va_arg(*arguments, ULONG), 10, FALSE, FALSE);
            return at + 1;
        case W('x'):
            PutNumber(to, directive, va_arg(*arguments, ULONG), 16, FALSE, FALSE);
            return at + 1;
        case W('X'):
            PutNumber(to, directive, va_arg(*arguments, ULONG), 16, TRUE, FALSE);
            return at + 1;
        case W('c'):
            to.Put(static_cast<WCHAR>(va_arg(*arguments, int)));
            return at + 1;
        case W('%'):
            to.Put(W('%'));
            return at + 1;
        case W('w'):
            break;
        default:
            return nullptr;
    }
    switch (at[1]) {
        case W('s'):
            PutText(to, va_arg(*arguments, PCWSTR));
            return at + 2;
        case W('Z'):
            PutCounted(to, va_arg(*arguments, PCUNICODE_STRING));
            return at + 2;
        default:
            return nullptr;
    }
}

NTSTATUS FormatList(PUNICODE_STRING to, PCWSTR format, va_list* arguments) {
    Writer writer(to);
    while (*format && !writer.Cut()) {
        if (*format != W('%')) {
            writer.Put(*format++);
            continue;
        }
        format = PutDirective(writer, format + 1, arguments);
        if (!format) return STATUS_INVALID_PARAMETER;
    }
    return writer.Cut() ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

}  // namespace

NTSTATUS FormatString(PUNICODE_STRING to, PCWSTR format, ...) {
    if (!to || !format || to->Length > to->MaximumLength || (to->MaximumLength != 0 && !to->Buffer))
        return STATUS_INVALID_PARAMETER;
    va_list arguments;
    va_start(arguments, format);
    const NTSTATUS status = FormatList(to, format, &arguments);
    va_end(arguments);
    return status;
}
