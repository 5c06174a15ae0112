#include "format.h"

extern "C" int _snprintf(char* buffer, SIZE_T size, const char* format, ...);

namespace shim {
namespace {

constexpr ULONG kLongestDirective = 16;

class Text {
public:
    Text(char* buffer, ULONG size) : m_buffer(buffer), m_room(size - 1) {}
    void Put(char c) {
        if (m_length < m_room) m_buffer[m_length++] = c;
    }
    template <class T>
    void PutFormatted(const char* directive, T value) {
        const int written = _snprintf(m_buffer + m_length, m_room - m_length, directive, value);
        const bool fits = written >= 0 && static_cast<ULONG>(written) <= m_room - m_length;
        m_length = fits ? m_length + static_cast<ULONG>(written) : m_room;
    }
    void PutCounted(PCUNICODE_STRING string) {
        for (ULONG i = 0; string && i < string->Length / sizeof(WCHAR); ++i)
            Put(string->Buffer[i] < 0x80 ? static_cast<char>(string->Buffer[i]) : '?');
    }
    ULONG Finish() {
        m_buffer[m_length] = 0;
        return m_length;
    }

private:
    char* m_buffer;
    ULONG m_room;
    ULONG m_length = 0;
};

bool EndsDirective(char c) {
    return c == 'd' || c == 'u' || c == 'x' || c == 'X' || c == 's' || c == 'p' || c == 'Z' || c == '%';
}

struct Directive {
    char text[kLongestDirective];
    char type;
    bool isLong;
};

// Reads a directive from its percent sign on; returns where the format goes on.
const char* ReadDirective(const char* format, Directive* directive) {
    *directive = {};
    ULONG length = 0;
    do {
        directive->text[length++] = *format++;
        if (directive->text[length - 1] == '6') directive->isLong = true;
    } while (*format != 0 && !EndsDirective(*format) && length < kLongestDirective - 2);
    if (*format == 0) return format;
    directive->text[length] = directive->type = *format;
    return format + 1;
}

}  // namespace

ULONG FormatText(char* buffer, ULONG size, const char* format, va_list arguments) {
    Text text(buffer, size);
    while (*format != 0) {
        if (*format != '%') {
            text.Put(*format++);
            continue;
        }
        Directive directive;
        format = ReadDirective(format, &directive);
        if (directive.type == '%') {
            text.Put('%');
        } else if (directive.type == 'Z') {
            text.PutCounted(va_arg(arguments, PCUNICODE_STRING));
        } else if (directive.type == 's' || directive.type == 'p') {
            text.PutFormatted(directive.text, va_arg(arguments, const void*));
        } else if (directive.isLong) {
            text.PutFormatted(directive.text, va_arg(arguments, LONGLONG));
        } else {
            text.PutFormatted(directive.text, va_arg(arguments, ULONG));
        }
    }
    return text.Finish();
}

}  // namespace shim
